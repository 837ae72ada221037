// The nearest entries of a query document to every word of a panel of vocabulary words.
#ifndef TALVIK_LIBWMD_CPU_NEAREST_ENTRIES_HPP
#define TALVIK_LIBWMD_CPU_NEAREST_ENTRIES_HPP

#include <initializer_list>

#include "internal/index.hpp"
#include "libwmd/word_distance.hpp"

namespace talvik::internal {

/// Values of the words of a panel and query rows: word v of row r is at scores[r*stride + v].  The
/// score is scale * value + row_bias[r].
struct Panel {
  const float* scores;
  Index stride;  ///< floats, at least words
  int words;     ///< a multiple of line_floats
  float scale;
  const float* row_bias;  ///< per row, or null for none
};

/// The entries of one query document, or a part of them.
struct EntryRange {
  const int* row;       ///< row of the panel per entry, readable row_padding entries past the end
  const float* weight;  ///< per entry
  int count;
};

/// The nearest entries of one document found so far: nearness t of word v is at t*stride + v.
struct NearestState {
  float* score;   ///< ascending; infinite where there is none
  float* weight;  ///< weight of the entry with the score, 0 where there is none; null for nearest 1
  Index stride;
};

/// Lengths round up to one of these, so that few kernels serve all lengths; such lists are kept in
/// registers.  Longer ones keep their length and are selected.
constexpr int nearest_slots(int nearest) {
  for (const int slots : {1, 2, 4, 8, 16}) {
    if (nearest <= slots) return slots;
  }
  return nearest;
}

/// Takes the entries in order and keeps, per word, the `nearest` smallest scores and the weights of
/// their entries.  Of equal scores the earlier entry stays first; NaN is passed over.
/// @param nearest a length that nearest_slots returns
/// @param resume  continue from the state as it is; else it is written anew
void find_nearest_entries(const Panel& panel, const EntryRange& entries, int nearest, bool resume,
                          const NearestState& state);

/// Turns scores into distances, in place; an infinite score stays infinite, and that of
/// product_of_nearest becomes 0.
/// @param norms  squared norms of the words; read for Metric::euclidean only
/// @param words  both arrays are readable up to the next multiple of line_floats
void scores_to_distances(Metric metric, const float* norms, int words, float* scores);

}  // namespace talvik::internal

#endif
