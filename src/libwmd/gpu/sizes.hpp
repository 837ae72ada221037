// The size rules of the GPU engine: pure functions of counts and budgets.
#ifndef TALVIK_LIBWMD_GPU_SIZES_HPP
#define TALVIK_LIBWMD_GPU_SIZES_HPP

#include <algorithm>
#include <climits>

#include "internal/index.hpp"

namespace talvik::internal {

/// What one computation may hold on the device; tests make it small.
struct GpuBudget {
  Index block_floats = Index{1} << 29;  ///< distance rows: 2 GiB
  int group_docs = 256;                 ///< query documents per sparse product under the top-1 rule
};

/// Floats of the distance rows: one row at least.
constexpr Index block_floats(const GpuBudget& budget, int voc_size) {
  return std::max<Index>(budget.block_floats, voc_size);
}

/// Distance rows of voc_size floats that fit the block.
constexpr int rows_of_block(const GpuBudget& budget, int voc_size) {
  const Index rows = block_floats(budget, voc_size) / std::max(voc_size, 1);
  return static_cast<int>(std::min<Index>(rows, INT_MAX));
}
static_assert(rows_of_block(GpuBudget{}, 50'000) == 10'737);
static_assert(rows_of_block(GpuBudget{1, 1}, 50'000) == 1);

/// Nearest entries that a run keeps: the smallest power of two above its steps, at most 16.
constexpr int topk_size(int steps) {
  int size = 1;
  while (size <= steps && size < 16) size *= 2;
  return size;
}
static_assert(topk_size(-1) == 1 && topk_size(0) == 1 && topk_size(1) == 2);
static_assert(topk_size(3) == 4 && topk_size(4) == 8 && topk_size(20) == 16);

/// Nearest entries that are kept of a document: the run's, halved until the document has as many; 1
/// for an empty one.
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

}  // namespace talvik::internal

#endif
