// The size rules of the GPU engine: pure functions of counts and budgets.
#ifndef TALVIK_LIBWMD_GPU_SIZES_HPP
#define TALVIK_LIBWMD_GPU_SIZES_HPP

#include <algorithm>
#include <climits>

#include "internal/index.hpp"

namespace talvik::internal {

/// What one computation may hold on the device, and from which sizes on it goes another way; tests
/// make all of it small.
struct GpuBudget {
  Index block_floats = Index{1} << 29;  ///< rows of products: 2 GiB
  Index table_floats = Index{1} << 28;  ///< nearest distances of a section: 1 GiB; weights likewise
  int group_docs = 256;                 ///< query documents whose distances are copied together
  int tile_words = 4096;                ///< a tile is not narrower for the sake of more rows
  /// Pairs of documents from which on a thread takes one: half of what a large GPU runs at a time.
  Index fused_pairs = Index{1} << 17;
  Index product_elements = INT_MAX;  ///< of one dense product: what libraries count in 32 bits
};

/// Words that a tile has at least, unless it is the last one.
constexpr int narrowest_tile(const GpuBudget& budget, int voc_size) {
  return std::clamp(voc_size, 1, budget.tile_words);
}

/// Floats of the rows of products: one row of a tile at least.
constexpr Index block_floats(const GpuBudget& budget, int voc_size) {
  return std::max<Index>(budget.block_floats, narrowest_tile(budget, voc_size));
}

/// Distinct rows that a pass may have.
constexpr int rows_of_block(const GpuBudget& budget, int voc_size) {
  const Index rows = block_floats(budget, voc_size) / narrowest_tile(budget, voc_size);
  return static_cast<int>(std::min<Index>(rows, INT_MAX));
}
static_assert(rows_of_block(GpuBudget{}, 50'000) == 131'072);
static_assert(rows_of_block(GpuBudget{.block_floats = 1, .tile_words = 8}, 50'000) == 1);

// A launch over documents and words has the words along y, of which a grid has 65,535 blocks.
inline constexpr int words_per_block = 128, widest_tile = 65'535 * words_per_block;

/// Words whose products with so many rows fit the block: whole blocks of a launch, if there is more
/// than one tile.
constexpr int words_of_tile(const GpuBudget& budget, int voc_size, int rows) {
  const Index words = block_floats(budget, voc_size) / std::max(rows, 1);
  if (words >= voc_size && voc_size <= widest_tile) return voc_size;
  const Index whole_blocks = words / words_per_block * words_per_block;
  return static_cast<int>(std::min<Index>(whole_blocks > 0 ? whole_blocks : words, widest_tile));
}
static_assert(words_of_tile(GpuBudget{}, 50'000, 27'000) == 155 * 128);
static_assert(words_of_tile(GpuBudget{}, 50'000, 10'000) == 50'000);
static_assert(words_of_tile(GpuBudget{.block_floats = 21}, 50, 3) == 16);

/// Query documents whose nearest entries are held at a time.
constexpr int table_docs(const GpuBudget& budget, int voc_size, int nearest) {
  const Index docs = budget.table_floats / std::max<Index>(elements(nearest, voc_size), 1);
  return static_cast<int>(std::clamp<Index>(docs, 1, INT_MAX));
}
static_assert(table_docs(GpuBudget{}, 50'000, 1) == 5'368);
static_assert(table_docs(GpuBudget{}, 50'000, 16) == 335);

/// Rows that one dense product takes.
constexpr int rows_of_product(const GpuBudget& budget, int words) {
  return static_cast<int>(std::max<Index>(budget.product_elements / std::max(words, 1), 1));
}
static_assert(rows_of_product(GpuBudget{}, 46'340) == 46'341);  // the largest square in one

/// Floats from one query document's distances to the next: the sparse library writes to multiples
/// of 16 bytes.
constexpr Index distances_stride(int num_docs) {
  constexpr Index aligned_floats = 16 / sizeof(float);
  return (num_docs + aligned_floats - 1) / aligned_floats * aligned_floats;
}
static_assert(distances_stride(4) == 4 && distances_stride(5) == 8);

/// Nearest entries that a run keeps: the smallest power of two above its steps, at most 16.
constexpr int topk_size(int steps) {
  int size = 1;
  while (size <= steps && size < 16) size *= 2;
  return size;
}
static_assert(topk_size(-1) == 1 && topk_size(0) == 1 && topk_size(1) == 2);
static_assert(topk_size(3) == 4 && topk_size(4) == 8 && topk_size(20) == 16);

/// Nearest entries of a document that weight may go to: the run's, halved until the document has as
/// many; 1 for an empty one.
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
