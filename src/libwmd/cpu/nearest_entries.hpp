// The nearest entries of a query document to every word of a panel of vocabulary words.
#ifndef TALVIK_LIBWMD_CPU_NEAREST_ENTRIES_HPP
#define TALVIK_LIBWMD_CPU_NEAREST_ENTRIES_HPP

#include <cstddef>
#include <initializer_list>

#include "libwmd/word_distance.hpp"

namespace talvik::internal {

/// Scores of the words of a panel against query rows: word v of row r is at scores[r*stride + v].
struct Panel {
  const float* scores;
  std::size_t stride;     ///< floats, at least words
  int words;              ///< a multiple of line_floats
  float scale;            ///< a score is scale * value + row_bias[r]
  const float* row_bias;  ///< per row, or null for none
};

/// The entries of one query document, or of a part of it.
struct EntryRange {
  const int* row;       ///< row of the panel per entry, readable row_padding entries past the end
  const float* weight;  ///< per entry
  int count;
};

/// The nearest entries of one document found so far: nearness t of word v is at t*stride + v.
struct NearestState {
  float* score;   ///< ascending; infinite where there is none
  float* weight;  ///< of the entry behind the score, 0 where there is none; null for nearest 1
  std::size_t stride;
};

/// Lists of these lengths are kept in registers; longer ones are selected.  A list is kept as long
/// as the next of them, so that few kernels serve all lengths.
constexpr int nearest_slots(int nearest) {
  for (const int slots : {1, 2, 4, 8, 16}) {
    if (nearest <= slots) return slots;
  }
  return nearest;
}

/// Goes through the entries in order and keeps, per word, the `nearest` smallest scores and the
/// weights of their entries.  Of equal scores the earlier entry stays first; NaN is passed over.
/// @param nearest a length that nearest_slots returns
/// @param resume  continue from the state as it is; else it is written anew
void find_nearest_entries(const Panel& panel, const EntryRange& entries, int nearest, bool resume,
                          const NearestState& state);

/// Turns scores into distances, in place; the infinite score of no entry stays infinite.
/// @param norms  squared norms of the words; read for Metric::euclidean only
/// @param words  both arrays are readable up to the next multiple of line_floats
void scores_to_distances(Metric metric, const float* norms, int words, float* scores);

}  // namespace talvik::internal

#endif
