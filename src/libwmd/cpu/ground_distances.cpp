// Distances between all pairs of vocabulary words, straight into the caller's matrix.
#include "libwmd/cpu/ground_distances.hpp"

#include <algorithm>
#include <cmath>
#include <vector>

#include "internal/team.hpp"
#include "libwmd/cpu/blas_threads.hpp"
#include "libwmd/cpu/dense_product.hpp"

namespace talvik::internal {
namespace {

// Words of a tile: large enough for the dense product to run at its rate, small enough for the
// tile to stay in the second-level cache until it has been converted and mirrored.
constexpr int tile_words = 256;

struct Tile {
  int u, v;  // first word of its rows and of its columns
  int rows, columns;
};

// The tiles on and above the diagonal.
std::vector<Tile> upper_tiles(int voc_size) {
  std::vector<Tile> tiles;
  for (int u = 0; u < voc_size; u += tile_words) {
    for (int v = u; v < voc_size; v += tile_words) {
      tiles.push_back(
          {u, v, std::min(tile_words, voc_size - u), std::min(tile_words, voc_size - v)});
    }
  }
  return tiles;
}

template <Metric metric>
void convert(const Vocabulary& vocabulary, const Tile& tile, float* D) {
  const std::size_t stride = static_cast<std::size_t>(vocabulary.voc_size);
  for (int r = 0; r < tile.rows; ++r) {
    float* row = D + static_cast<std::size_t>(r) * stride;
    const float norm = vocabulary.norms[tile.u + r];
    const float* norms = vocabulary.norms + tile.v;
    for (int c = 0; c < tile.columns; ++c) row[c] = word_distance<metric>(row[c], norm, norms[c]);
  }
}

// Line by line in both directions, so that neither side is read or written a float at a time.  Of a
// tile on the diagonal what is above it: a product and its mirror image may be rounded differently.
void mirror(const Vocabulary& vocabulary, const Tile& tile, const float* D, float* D_mirrored) {
  const std::size_t stride = static_cast<std::size_t>(vocabulary.voc_size);
  for (int c0 = 0; c0 < tile.columns; c0 += line_floats) {
    const int c_end = std::min(c0 + line_floats, tile.columns);
    for (int r = 0; r < tile.rows; ++r) {
      for (int c = tile.u == tile.v ? std::max(c0, r + 1) : c0; c < c_end; ++c) {
        D_mirrored[static_cast<std::size_t>(c) * stride + r] =
            D[static_cast<std::size_t>(r) * stride + c];
      }
    }
  }
}

}  // namespace

void compute_ground_matrix(const Vocabulary& vocabulary, Metric metric, int threads, float* D) {
  const SingleThreadedBlas single_threaded_blas;
  const ProductScratch unused_scratch = product_scratch(vocabulary.vec_size);
  const std::vector<Tile> tiles = upper_tiles(vocabulary.voc_size);
  const std::size_t stride = static_cast<std::size_t>(std::max(vocabulary.voc_size, 0));
  for_each_share(threads, static_cast<int>(tiles.size()), [&](int first, int last, int) {
    ProductScratch scratch = unused_scratch;
    for (int i = first; i < last; ++i) {
      const Tile& tile = tiles[static_cast<std::size_t>(i)];
      const std::size_t u = static_cast<std::size_t>(tile.u);
      const std::size_t v = static_cast<std::size_t>(tile.v);
      float* D_tile = D + u * stride + v;
      const std::size_t m = static_cast<std::size_t>(vocabulary.vec_size);
      dense_product(vocabulary.rows + v * m, tile.columns, vocabulary.rows + u * m, tile.rows,
                    vocabulary.vec_size, D_tile, stride, scratch);
      with_metric(metric, [&]<Metric m>() { convert<m>(vocabulary, tile, D_tile); });
      mirror(vocabulary, tile, D_tile, D + v * stride + u);
    }
  });
}

}  // namespace talvik::internal
