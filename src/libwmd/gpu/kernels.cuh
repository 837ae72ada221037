// The GPU engine's kernels: dot products into distances, the nearest entries of a query document
// for every vocabulary word, the capacity steps, and the gathering of rows.  Every output element
// is written by exactly one thread.  Matrices are row-major; shapes are positive unless stated.
// Included by libwmd.cu alone.
#ifndef TALVIK_LIBWMD_GPU_KERNELS_CUH
#define TALVIK_LIBWMD_GPU_KERNELS_CUH

#include <algorithm>

#include "internal/index.hpp"
#include "libwmd/distinct_rows.hpp"
#include "libwmd/gpu/platform/device.hpp"
#include "libwmd/gpu/sizes.hpp"
#include "libwmd/word_distance.hpp"

namespace talvik {

namespace internal {

inline constexpr int threads_per_block = words_per_block;
// A grid has at most 65,535 blocks in y, so rows are counted along x first.
inline constexpr int blocks_across = 1024;

constexpr int blocks_for(int items, int per_block) { return (items - 1) / per_block + 1; }

/// Row-block launch, a block per row: block (x, y) owns row y * blocks_across + x.
///   rows = 1,000:  1,000 x 1 blocks      rows = 2,500:  1,024 x 3 blocks, of which 572 own no row
inline dim3 row_grid(int rows) {
  return dim3(std::min(rows, blocks_across), blocks_for(rows, blocks_across));
}

/// Column launch, a thread per column.
inline dim3 column_grid(int cols) { return dim3(blocks_for(cols, threads_per_block)); }

/// A column of blocks per document, a thread per word of a tile.  Blocks start along x first, so
/// that those of a few words meet the same rows in the second-level cache, document after
/// document.
inline dim3 document_grid(int docs, int words) {
  return dim3(docs, blocks_for(words, threads_per_block));
}

inline dim3 block_shape() { return dim3(threads_per_block); }

inline __device__ int row_of_block() { return blockIdx.y * blocks_across + blockIdx.x; }

inline __device__ int column_of_thread() { return blockIdx.x * threads_per_block + threadIdx.x; }

/// elements() for device code, too.
TALVIK_BOTH constexpr Index row_offset(Index row, Index cols) { return row * cols; }

/// Puts y into the ascending list, with its weight.  Strictly smaller only, so that of equal values
/// the earlier one stays first.  Every index is fixed once unrolled, so the lists live in
/// registers.
template <int N>
TALVIK_BOTH inline void insert_smallest(float (&value)[N], float (&weight)[N], float y, float w) {
  if (!(y < value[N - 1])) return;
  for (int r = N - 1; r > 0; --r) {
    const bool from_above = y < value[r - 1];
    const bool here = !from_above && y < value[r];
    value[r] = from_above ? value[r - 1] : here ? y : value[r];
    weight[r] = from_above ? weight[r - 1] : here ? w : weight[r];
  }
  if (y < value[0]) {
    value[0] = y;
    weight[0] = w;
  }
}

/// Words [first, first + count) of the vocabulary.
struct WordTile {
  int first, count;
};

/// What entries are chosen by, for the words of a tile: their distances, or the scores that dot
/// products give.
struct EntryScores {
  const float* rows;        ///< cols distances or products each
  const int* row_of_entry;  ///< null: entry t has row t
  int cols;
  float scale = 1;                  ///< score_per_dot for products
  const float* row_bias = nullptr;  ///< added to all scores of a row; null: nothing

  TALVIK_BOTH float at(int entry, int c) const {
    const int row = row_of_entry ? row_of_entry[entry] : entry;
    const float scaled = scale * rows[row_offset(row, cols) + c];
    return row_bias ? scaled + row_bias[row] : scaled;
  }
};

/// What the lists of nearest entries begin with, and what becomes of them.
struct ListRule {
  float missing = far_away;  ///< fills a list that has not its N entries yet
  bool convert = false;      ///< scores become distances, by metric and word_norms
  Metric metric = Metric::euclidean;
  const float* word_norms = nullptr;  ///< squared, per word of the vocabulary; euclidean

  TALVIK_BOTH float finished(float score, int word) const {
    if (!convert) return score;
    float distance = 0;
    switch (metric) {
      case Metric::euclidean:
        distance = distance_of_score<Metric::euclidean>(score, word_norms[word]);
        break;
      case Metric::unit_euclidean:
        distance = distance_of_score<Metric::unit_euclidean>(score, 1);
        break;
      case Metric::cosine:
        distance = distance_of_score<Metric::cosine>(score, 1);
        break;
      case Metric::unit_cosine:
        distance = distance_of_score<Metric::unit_cosine>(score, 1);
        break;
    }
    return distance <= far_away ? distance : far_away;
  }
};

/// Embedding rows in device memory.
struct DeviceRows {
  int count;
  float* values;  ///< count x vec_size
  float* norms;   ///< squared; null if normalize_embeddings
};

/// Where the nearest entries of documents to words stand: of the r-th, of word v and document q, at
/// q*doc + v*word + r*rank.
struct TableStrides {
  Index doc;
  int word, rank;
};

/// A row of words per rank, as the sparse products take them.
inline TableStrides rows_of_words(int kept, int voc_size) {
  return {row_offset(kept, voc_size), 1, voc_size};
}

/// A word's distances and weights side by side, in one sector of memory (32 bytes) for 4 of them.
inline TableStrides pairs_by_word(int kept, int voc_size) {
  return {row_offset(2 * kept, voc_size), 2 * kept, 2};
}

/// Tables of nearest entries.
struct NearestEntries {
  float* distances;  ///< scores, until a section's last pass
  float* weights;    ///< null: not kept
  TableStrides strides;
};

// Loads that a thread has under way before it compares: the comparisons depend on each other, and a
// load from memory takes longer than all of them.  Fewer beside lists that fill the registers.
template <int N>
inline constexpr int loads_at_once = N <= 4 ? 8 : 4;

/// The N nearest of entries [first, last) to a word, which is at column c of their scores.  A list
/// that they do not fill ends with rule.missing, far_away once converted, and no weight.
/// @param nearest  begins at this document and word
/// @param goes_on  nearest holds the result over earlier entries, not converted
template <int N>
__device__ void nearest_of_column(int word, int c, const EntryScores& entries, int first, int last,
                                  const float* entry_weights, const NearestEntries& nearest,
                                  bool goes_on, const ListRule& rule) {
  float value[N], weight[N];
  const bool weighted = nearest.weights != nullptr;
  for (int r = 0; r < N; ++r) {
    const Index at = row_offset(r, nearest.strides.rank);
    value[r] = goes_on ? nearest.distances[at] : rule.missing;
    weight[r] = goes_on && weighted ? nearest.weights[at] : 0;
  }
  constexpr int at_once = loads_at_once<N>;
  int t = first;
  for (; t + at_once <= last; t += at_once) {
    float y[at_once];
    for (int i = 0; i < at_once; ++i) y[i] = entries.at(t + i, c);
    for (int i = 0; i < at_once; ++i) {
      insert_smallest(value, weight, y[i], weighted ? entry_weights[t + i] : 0);
    }
  }
  for (; t < last; ++t) {
    insert_smallest(value, weight, entries.at(t, c), weighted ? entry_weights[t] : 0);
  }
  for (int r = 0; r < N; ++r) {
    const Index at = row_offset(r, nearest.strides.rank);
    nearest.distances[at] = rule.finished(value[r], word);
    if (weighted) nearest.weights[at] = weight[r];
  }
}

/// The N nearest entries of every document, among those of the pass, to every word of the tile.
/// Launched on document_grid.
/// @param start    entry offsets, from document 0 of the launch and of `nearest`
/// @param goes_on  nearest holds the result over earlier passes, not converted
template <int N>
__global__ void nearest_of_documents(EntryScores entries, WordTile tile, const int* start,
                                     RowPass pass, const float* entry_weights,
                                     NearestEntries nearest, bool goes_on, ListRule rule) {
  const int c = blockIdx.y * threads_per_block + threadIdx.x;
  if (c >= tile.count) return;
  const int q = blockIdx.x;
  const int word = tile.first + c;
  const Index offset = row_offset(q, nearest.strides.doc) + row_offset(word, nearest.strides.word);
  nearest.distances += offset;
  if (nearest.weights) nearest.weights += offset;
  const int first = start[q] > pass.first_entry ? start[q] : pass.first_entry;
  const int last = start[q + 1] < pass.last_entry ? start[q + 1] : pass.last_entry;
  nearest_of_column<N>(word, c, entries, first, last, entry_weights, nearest, goes_on, rule);
}

/// The body of topN_single.
template <int N>
__device__ void top_of_column(int rows, int cols, const float* D, float* D_k, const float* w,
                              float* w_k) {
  const int c = column_of_thread();
  constexpr int first = 0;
  constexpr bool goes_on = false;
  if (c < cols) {
    nearest_of_column<N>(c, c, {D, nullptr, cols}, first, rows, w, {D_k + c, w_k + c, {0, 1, cols}},
                         goes_on, ListRule{});
  }
}

/// The resident collection.
struct ResidentRows {
  int num_docs;
  const int *start, *ind;
  const float* weight;
};

/// distances[q*stride + i] = what the weights of resident document i cost on their way to document
/// q: each of an entry's nearest in turn takes at most its own weight, the last one the rest.
/// Column launch over resident documents, with a row of blocks per query document.
/// @param steps  capacity steps of every query document
__global__ void pour_documents(ResidentRows resident, NearestEntries nearest, const int* steps,
                               Index stride, float* distances) {
  const int i = column_of_thread();
  if (i >= resident.num_docs) return;
  const int q = blockIdx.y;
  const Index table = row_offset(q, nearest.strides.doc);
  const int last = steps[q];
  float sum = 0;
  for (int p = resident.start[i]; p < resident.start[i + 1]; ++p) {
    float left = resident.weight[p];
    Index at = table + row_offset(resident.ind[p], nearest.strides.word);
    for (int k = 0; k < last; ++k, at += nearest.strides.rank) {
      const float capacity = nearest.weights[at];
      const float moved = left > capacity ? capacity : left;
      sum += moved * nearest.distances[at];
      left -= moved;
    }
    sum += left * nearest.distances[at];
  }
  distances[row_offset(q, stride) + i] = sum;
}

}  // namespace internal

/// Distance of two words of unit length from their dot product.
template <typename T>
struct c_to_e {
  TALVIK_BOTH T operator()(T x) const {
    return internal::word_distance<internal::Metric::unit_euclidean>(x, 0, 0);
  }
};

/// Cosine distance of two words of unit length from their dot product.
struct unit_cosine {
  TALVIK_BOTH float operator()(float x) const {
    return internal::word_distance<internal::Metric::unit_cosine>(x, 0, 0);
  }
};

/// D[r][c] = 1 - D[r][c].  Row-block launch.
__global__ void cos_to_dist(int rows, int cols, float* D) {
  const int r = internal::row_of_block();
  if (r >= rows) return;
  for (int c = threadIdx.x; c < cols; c += internal::threads_per_block) {
    float& d = D[internal::row_offset(r, cols) + c];
    d = internal::word_distance<internal::Metric::cosine>(d, 0, 0);
  }
}

/// Dot products into Euclidean distances: column c of D is word col_offset + c of col_norms.
/// Row-block launch.
__global__ void final_sqrt2(int rows, int cols, int col_offset, float* D, float* col_norms,
                            float* row_norms) {
  const int r = internal::row_of_block();
  if (r >= rows) return;
  for (int c = threadIdx.x; c < cols; c += internal::threads_per_block) {
    float& d = D[internal::row_offset(r, cols) + c];
    d = internal::word_distance<internal::Metric::euclidean>(d, col_norms[col_offset + c],
                                                             row_norms[r]);
  }
}

/// For r < N: D_k[r][c] = the (r+1)-th smallest of column c of D, w_k[r][c] = the weight of its
/// row.  rows may be 0.  Column launch.
__global__ void top1_single(int rows, int cols, float* D, float* D_k, float* w, float* w_k) {
  internal::top_of_column<1>(rows, cols, D, D_k, w, w_k);
}
__global__ void top2_single(int rows, int cols, float* D, float* D_k, float* w, float* w_k) {
  internal::top_of_column<2>(rows, cols, D, D_k, w, w_k);
}
__global__ void top4_single(int rows, int cols, float* D, float* D_k, float* w, float* w_k) {
  internal::top_of_column<4>(rows, cols, D, D_k, w, w_k);
}
__global__ void top8_single(int rows, int cols, float* D, float* D_k, float* w, float* w_k) {
  internal::top_of_column<8>(rows, cols, D, D_k, w, w_k);
}
__global__ void top16_single(int rows, int cols, float* D, float* D_k, float* w, float* w_k) {
  internal::top_of_column<16>(rows, cols, D, D_k, w, w_k);
}

/// Splits what is left of every resident entry p at the weight of its word's (k+1)-th nearest
/// entry: weight_delta[p] moves, weight_updated[p] stays.  weight_in and weight_updated may be one
/// array.  Row-block launch over documents.
__global__ void update_weights_delta_multi(int num_docs, float* weight_in, int* start, int* ind,
                                           int voc_size, int k, float* weights_min,
                                           float* weight_delta, float* weight_updated) {
  const int d = internal::row_of_block();
  if (d >= num_docs) return;
  const float* capacity = weights_min + internal::row_offset(k, voc_size);
  const int end = start[d + 1];
  for (int p = start[d] + threadIdx.x; p < end; p += internal::threads_per_block) {
    const float left = weight_in[p];
    const float cap = capacity[ind[p]];
    const float moved = left > cap ? cap : left;
    weight_delta[p] = moved;
    weight_updated[p] = left - moved;
  }
}

namespace internal {

/// Whether a word's row and a query row are one embedding: the same floats, or such as have been
/// scaled to unit length once more.  A row without a direction equals none.
inline __device__ bool are_equal(const float* word, const float* row, int m) {
  constexpr float rounding = 1e-6f;
  bool zero = true;
  for (int j = 0; j < m; ++j) {
    if (!(std::fabs(row[j] - word[j]) <= rounding * std::fabs(word[j]))) return false;
    if (word[j] != 0) zero = false;
  }
  return !zero;
}

/// D[row][word - tile.first] = what equal rows have, for all pairs of words of the tile whose rows
/// are: a word that stands in a document is at distance 0, however the product has been rounded.
/// Column launch, a pair each.
/// @param pairs     null: word i and row i
/// @param products  D holds products that are not converted yet
template <Metric metric>
__global__ void set_equal_rows(int count, const EqualRows* pairs, DeviceRows words, WordTile tile,
                               DeviceRows rows, int m, bool products, float* D) {
  const int i = column_of_thread();
  if (i >= count) return;
  const auto [word, row] = pairs ? pairs[i] : EqualRows{i, i};
  if (word < tile.first || word >= tile.first + tile.count) return;
  if (!are_equal(words.values + row_offset(word, m), rows.values + row_offset(row, m), m)) return;
  const float norm = words.norms ? words.norms[word] : 1;
  if (!has_direction(norm)) return;
  const bool unit_rows = words.norms == nullptr;
  D[row_offset(row, tile.count) + (word - tile.first)] =
      products ? product_of_equal_rows(metric, norm, unit_rows)
               : distance_to_itself<metric>(norm, unit_rows);
}

}  // namespace internal

/// dst[r] = src[row_ind[r]], rows of cols floats.  Row-block launch.
__global__ void gather_matrix_rows(int rows, int cols, float* src, int* row_ind, float* dst) {
  const int r = internal::row_of_block();
  if (r >= rows) return;
  const float* from = src + internal::row_offset(row_ind[r], cols);
  float* to = dst + internal::row_offset(r, cols);
  for (int c = threadIdx.x; c < cols; c += internal::threads_per_block) {
    to[c] = from[c];
  }
}

}  // namespace talvik

#endif
