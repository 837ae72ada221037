// The size rules of the GPU engine, and how a query batch is cut so that its distances fit.
#ifndef TALVIK_INTERNAL_GPU_PLAN_HPP
#define TALVIK_INTERNAL_GPU_PLAN_HPP

#include <algorithm>
#include <climits>
#include <vector>

#include "internal/distinct_rows.hpp"

namespace talvik::internal {

/// What one computation may hold on the device; tests make it small.
struct GpuBudget {
  long long block_floats = 1ll << 29;  ///< distance rows: 2 GiB
  int group_docs = 256;                ///< query documents per sparse product under the top-1 rule
};

/// Two rows at least: one that is computed and one that is spread from it.
constexpr long long block_floats(const GpuBudget& budget, int voc_size) {
  return std::max(budget.block_floats, 2ll * voc_size);
}

/// Distance rows of voc_size floats that fit the block.
constexpr int rows_of_block(const GpuBudget& budget, int voc_size) {
  const long long rows = block_floats(budget, voc_size) / std::max(voc_size, 1);
  return static_cast<int>(std::min<long long>(rows, INT_MAX));
}
static_assert(rows_of_block(GpuBudget{}, 50'000) == 10'737);
static_assert(rows_of_block(GpuBudget{1, 1}, 50'000) == 2);

/// Nearest entries that a run keeps: the smallest power of two above its steps, at most 16.
constexpr int topk_size(int steps) {
  int size = 1;
  while (size <= steps && size < 16) size *= 2;
  return size;
}
static_assert(topk_size(-1) == 1 && topk_size(0) == 1 && topk_size(1) == 2);
static_assert(topk_size(3) == 4 && topk_size(4) == 8 && topk_size(20) == 16);

/// Of these, as many as a document of so many entries has, halving; 1 for an empty one.
constexpr int topk_of_document(int steps, int entries) {
  int size = topk_size(steps);
  while (size > entries && size > 1) size /= 2;
  return size;
}
static_assert(topk_of_document(3, 3) == 2 && topk_of_document(10, 9) == 8);
static_assert(topk_of_document(20, 16) == 16 && topk_of_document(2, 0) == 1);

/// Capacity steps of a document: one less than its nearest entries, at most those asked for.
constexpr int steps_of_document(int steps, int entries) {
  return std::min(topk_of_document(steps, entries) - 1, std::max(steps, 0));
}
static_assert(steps_of_document(2, 3) == 1 && steps_of_document(10, 16) == 10);
static_assert(steps_of_document(20, 1000) == 15 && steps_of_document(0, 5) == 0);

/// Consecutive entries whose distance rows stand in the block at the same time: those of whole
/// documents, or a part of the entries of a single one.
struct Piece {
  int first_doc, last_doc;      ///< [first, last)
  int first_entry, last_entry;  ///< [first, last)
  int pass;                     ///< the pass that holds their distinct rows
  bool goes_on;                 ///< earlier entries of the document are in the piece before
  bool complete;                ///< no entries of the document are left for the next piece
};

/// Pieces in document order that cover all documents.
/// @param start        num_docs + 1 entry offsets
/// @param passes       at least one; consecutive, covering all entries
/// @param max_entries  of a piece, at least 1
/// @param max_docs     of a piece, at least 1
std::vector<Piece> cut_into_pieces(const int* start, int num_docs,
                                   const std::vector<RowPass>& passes, int max_entries,
                                   int max_docs);

}  // namespace talvik::internal

#endif
