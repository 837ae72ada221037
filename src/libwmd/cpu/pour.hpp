// From the nearest entries of every vocabulary word to document distances: the sparse stage.
#ifndef TALVIK_LIBWMD_CPU_POUR_HPP
#define TALVIK_LIBWMD_CPU_POUR_HPP

#include <vector>

#include "libwmd/cpu/sizes.hpp"

namespace talvik::internal {

/// Distances to the nearest entries of query documents, and the capacities of these entries, for a
/// slab of vocabulary words and a window of documents.  A row of a table has a chunk of `width`
/// documents side by side.  The value of word v and document j is at
///   ((j / width) * words + v - first_word) * width + j % width
/// For words 100 to 102 and 20 documents, 16 side by side:
///
///                     word 100    word 101    word 102
///   documents 0..15     0..15      16..31      32..47
///   documents 16..19   48..51      64..67      80..83     (the rest of these rows is padding)
struct NearestTables {
  int first_word, words;         ///< the slab
  int docs;                      ///< query documents of the window
  int width;                     ///< a multiple of the widest register
  std::vector<float*> distance;  ///< per nearness t, to the (t+1)-th nearest entry
  std::vector<float*> capacity;  ///< one fewer: weight that the entry takes at most; the last one
                                 ///< takes all that remains
};

constexpr int chunks_of(int docs, int width) { return (docs + width - 1) / width; }

/// Resident documents as compressed sparse rows.
struct CsrCollection {
  int num_docs;
  const int* start;     ///< num_docs + 1
  const int* ind;       ///< ascending within a document
  const float* weight;  ///< per entry
};

/// Resident documents whose sums are held together.  In Z the query documents are pages apart, so
/// it is written several whole lines at a time.
inline constexpr int pour_tile_docs = 4 * line_floats;

/// Per resident document, its entries with words of the current slab.
struct EntryRanges {
  std::vector<int> begin, end;
};

/// Adds, for every resident document i and query document j of the window,
///   sum over the entries p of i with words of the slab of
///     sum over t of moved_t * distance_t[ind[p], j]
/// where moved_t = min(capacity_t, remaining weight), and the last nearest entry takes all that
/// remains.  The slabs come in the order of their words; the first one overwrites Z.
/// @param ranges  as the slab before left them; as long as the collection
/// @param Z       value of (i, j) at Z[j*num_docs + i]
void pour(const NearestTables& tables, const CsrCollection& resident, int threads,
          EntryRanges& ranges, float* Z);

}  // namespace talvik::internal

#endif
