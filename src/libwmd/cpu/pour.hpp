// From the nearest entries of every vocabulary word to document distances: the sparse stage.
#ifndef TALVIK_LIBWMD_CPU_POUR_HPP
#define TALVIK_LIBWMD_CPU_POUR_HPP

#include <cstddef>
#include <vector>

#include "libwmd/cpu/sizes.hpp"

namespace talvik::internal {

/// Distances to, and capacities of, the nearest entries of a window of query documents, for a block
/// of vocabulary words.  The documents stand in chunks of `width` side by side:
///   value of word v, document j  at  (j / width * words + v - first_word) * width + j % width
struct NearestTables {
  int first_word, words;         ///< the block
  int docs;                      ///< query documents of the window
  int width;                     ///< a multiple of the widest register
  std::vector<float*> distance;  ///< per nearness t, to the (t+1)-th nearest entry
  std::vector<float*> capacity;  ///< one fewer: what that entry takes at most; the last takes all
};

constexpr int chunks_of(int docs, int width) { return (docs + width - 1) / width; }

/// Resident documents as compressed sparse rows.
struct CsrCollection {
  int num_docs;
  const int* start;  ///< num_docs + 1
  const int* ind;    ///< ascending within a document
  const float* weight;
};

/// Resident documents whose sums are held together, so that Z, whose query documents lie pages
/// apart, is written several whole lines at a time.
inline constexpr int pour_tile_docs = 4 * line_floats;

/// Per resident document, its entries with words of the block at hand.
struct EntryRanges {
  std::vector<int> begin, end;
};

/// Adds, for every resident document i and query document j of the window,
///   sum over the entries p of i with words of the block of
///     sum over t of moved_t * distance_t[ind[p], j]
/// where the weight of p is poured into the nearest entries in turn, moved_t being what capacity_t
/// lets of the rest.  The blocks of words come in their order; the first one begins the sums anew.
/// @param ranges  left by the block before, as long as the collection
/// @param Z       value of (i, j) at Z[j*num_docs + i]
void pour(const NearestTables& tables, const CsrCollection& resident, int threads,
          EntryRanges& ranges, float* Z);

}  // namespace talvik::internal

#endif
