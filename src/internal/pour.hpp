// From the nearest entries of every vocabulary word to document distances: the sparse stage.
#ifndef TALVIK_INTERNAL_POUR_HPP
#define TALVIK_INTERNAL_POUR_HPP

#include <cstddef>
#include <vector>

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

/// Resident documents as compressed sparse rows, the entries of a document by ascending word.
struct ResidentEntries {
  const int* ind;
  const float* weight;
};

/// Adds, for every resident document i of [first, last) and query document j of the window,
///   sum over the entries p of i from begin[i] to end[i]-1 of
///     sum over t of moved_t * distance_t[ind[p], j]
/// where the weight of p is poured into the nearest entries in turn, moved_t being what capacity_t
/// lets of the rest.
/// @param begin,end  per resident document, its entries with words of the block
/// @param Z          value of (i, j) at Z[j*num_docs + i]
/// @param overwrite  begin the sums anew; else they go on from what Z holds
void pour(const NearestTables& tables, const ResidentEntries& entries, const int* begin,
          const int* end, int first, int last, int num_docs, float* Z, bool overwrite);

}  // namespace talvik::internal

#endif
