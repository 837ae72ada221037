// Distances between all pairs of vocabulary words, written straight into the caller's matrix.
#include "libwmd/cpu/ground_distances.hpp"

#include <algorithm>
#include <cmath>
#include <vector>

#include "internal/index.hpp"
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
  for (int r = 0; r < tile.rows; ++r) {
    float* row = D + elements(r, vocabulary.voc_size);
    const float norm = vocabulary.norms[tile.u + r];
    const float* norms = vocabulary.norms + tile.v;
    for (int c = 0; c < tile.columns; ++c) row[c] = word_distance<metric>(row[c], norm, norms[c]);
    if (tile.u != tile.v || !has_direction(norm)) continue;
    row[r] = distance_to_itself<metric>(norm, vocabulary.unit_rows);
  }
}

// Copies a tile to its mirror image, line by line in both directions, so that neither side is read
// or written a float at a time.  A tile on the diagonal has both: what is above the diagonal
// counts, since a product and its mirror image may be rounded differently.
void mirror(const Vocabulary& vocabulary, const Tile& tile, const float* D, float* D_mirrored) {
  const Index stride = vocabulary.voc_size;
  for (int c0 = 0; c0 < tile.columns; c0 += line_floats) {
    const int c_end = std::min(c0 + line_floats, tile.columns);
    for (int r = 0; r < tile.rows; ++r) {
      for (int c = tile.u == tile.v ? std::max(c0, r + 1) : c0; c < c_end; ++c) {
        D_mirrored[c * stride + r] = D[r * stride + c];
      }
    }
  }
}

void compute_tile(const Vocabulary& vocabulary, Metric metric, const Tile& tile,
                  ProductScratch& scratch, float* D) {
  const auto at = [&](int u, int v) { return D + elements(u, vocabulary.voc_size) + v; };
  float* D_tile = at(tile.u, tile.v);
  dense_product({.words = vocabulary.rows + elements(tile.v, vocabulary.vec_size),
                 .num_words = tile.columns,
                 .rows = vocabulary.rows + elements(tile.u, vocabulary.vec_size),
                 .num_rows = tile.rows,
                 .m = vocabulary.vec_size,
                 .scores = D_tile,
                 .stride = vocabulary.voc_size},
                scratch);
  with_metric(metric, [&]<Metric m>() { convert<m>(vocabulary, tile, D_tile); });
  mirror(vocabulary, tile, D_tile, at(tile.v, tile.u));
}

}  // namespace

void compute_ground_matrix(const Vocabulary& vocabulary, Metric metric, int threads, float* D) {
  const SingleThreadedBlas single_threaded_blas;
  const ProductScratch unused_scratch = product_scratch(vocabulary.vec_size);
  const std::vector<Tile> tiles = upper_tiles(vocabulary.voc_size);
  for_each_share(threads, static_cast<int>(tiles.size()), [&](int first, int last, int) {
    ProductScratch scratch = unused_scratch;
    for (int i = first; i < last; ++i) compute_tile(vocabulary, metric, tiles[i], scratch, D);
  });
}

}  // namespace talvik::internal
