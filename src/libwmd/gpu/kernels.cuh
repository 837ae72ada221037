// The GPU engine's kernels: dot products into distances, the nearest entries of a query document
// for every vocabulary word, the capacity steps, and the gathering of rows.  Every output element
// is written by exactly one thread.  Matrices are row-major; all shapes must be positive unless
// stated.  Included by libwmd.cu alone.
#ifndef TALVIK_LIBWMD_GPU_KERNELS_CUH
#define TALVIK_LIBWMD_GPU_KERNELS_CUH

#include <algorithm>
#include <cstddef>

#include "libwmd/gpu/platform/device.hpp"
#include "libwmd/word_distance.hpp"

namespace talvik {

namespace internal {

inline constexpr int threads_per_block = 128;
// Columns of blocks in a row-block launch, so that rows beyond 65535 find a block.
inline constexpr int blocks_across = 1024;

constexpr unsigned blocks_for(int items, int per_block) {
  return static_cast<unsigned>((items - 1) / per_block + 1);
}

/// Row-block launch, a block per row: block (x, y) owns row y * blocks_across + x.
inline dim3 row_grid(int rows) {
  return dim3(static_cast<unsigned>(std::min(rows, blocks_across)), blocks_for(rows, blocks_across),
              1);
}

/// Column launch, a thread per column.
inline dim3 column_grid(int cols, int documents = 1) {
  return dim3(blocks_for(cols, threads_per_block), static_cast<unsigned>(documents), 1);
}

inline dim3 block_shape() { return dim3(threads_per_block, 1, 1); }

inline __device__ int row_of_block() {
  return static_cast<int>(blockIdx.y) * blocks_across + static_cast<int>(blockIdx.x);
}

inline __device__ int column_of_thread() {
  return static_cast<int>(blockIdx.x) * threads_per_block + static_cast<int>(threadIdx.x);
}

TALVIK_BOTH inline std::size_t row_offset(int row, int cols) {
  return static_cast<std::size_t>(row) * static_cast<std::size_t>(cols);
}

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

/// The N smallest of a column of D and the weights of their rows.  A list that the rows do not fill
/// ends with far_away and no weight.
/// @param row_ind  rows numbers of rows of D; null: its first rows, in order
/// @param goes_on  D_k and w_k hold the result over earlier rows
template <int N>
__device__ void smallest_of_column(int rows, int cols, const float* D, const int* row_ind,
                                   float* D_k, const float* w, float* w_k, bool goes_on) {
  const int c = column_of_thread();
  if (c >= cols) return;
  float value[N], weight[N];
  for (int r = 0; r < N; ++r) {
    value[r] = goes_on ? D_k[row_offset(r, cols) + c] : far_away;
    weight[r] = goes_on ? w_k[row_offset(r, cols) + c] : 0;
  }
  for (int t = 0; t < rows; ++t) {
    const int row = row_ind ? row_ind[t] : t;
    insert_smallest(value, weight, D[row_offset(row, cols) + c], w[t]);
  }
  for (int r = 0; r < N; ++r) {
    D_k[row_offset(r, cols) + c] = value[r];
    w_k[row_offset(r, cols) + c] = weight[r];
  }
}

/// topN_single over rows of D that are listed, so that entries may share one.  Column launch.
template <int N>
__global__ void top_of_rows(int rows, int cols, float* D, int* row_ind, float* D_k, float* w,
                            float* w_k, bool goes_on) {
  smallest_of_column<N>(rows, cols, D, row_ind, D_k, w, w_k, goes_on);
}

/// nearest[q][c] = the smallest of column c over the rows of document q's entries, of those in
/// [first_entry, last_entry); far_away if there are none.  Column launch, with a row of blocks per
/// document: one document alone would leave most of a GPU idle.
/// @param start    entry offsets, from document 0 of the launch
/// @param row_ind  row of D of every entry
/// @param goes_on  nearest holds the result over earlier entries
__global__ void nearest_of_documents(int cols, float* D, int* row_ind, int* start, int first_entry,
                                     int last_entry, float* nearest, bool goes_on) {
  const int c = column_of_thread();
  if (c >= cols) return;
  const int q = static_cast<int>(blockIdx.y);
  const int begin = start[q] > first_entry ? start[q] : first_entry;
  const int end = start[q + 1] < last_entry ? start[q + 1] : last_entry;
  float& result = nearest[row_offset(q, cols) + c];
  float smallest = goes_on ? result : far_away;
  for (int t = begin; t < end; ++t) {
    const float y = D[row_offset(row_ind[t], cols) + c];
    if (y < smallest) smallest = y;
  }
  result = smallest;
}

}  // namespace internal

/// Distance of two words of unit length from their dot product.
template <typename T>
struct c_to_e {
  TALVIK_BOTH T operator()(T x) const {
    return internal::word_distance<internal::Metric::unit_euclidean>(x, 0, 0);
  }
};

/// D[r][c] = 1 - D[r][c].  Row-block launch.
__global__ void cos_to_dist(int rows, int cols, float* D) {
  const int r = internal::row_of_block();
  if (r >= rows) return;
  for (int c = static_cast<int>(threadIdx.x); c < cols; c += internal::threads_per_block) {
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
  for (int c = static_cast<int>(threadIdx.x); c < cols; c += internal::threads_per_block) {
    float& d = D[internal::row_offset(r, cols) + c];
    d = internal::word_distance<internal::Metric::euclidean>(d, col_norms[col_offset + c],
                                                             row_norms[r]);
  }
}

/// D_k[r][c] = the (r+1)-th smallest of column c of D, w_k[r][c] = the weight of its row, for r <
/// N. rows may be 0.  Column launch.
__global__ void top1_single(int rows, int cols, float* D, float* D_k, float* w, float* w_k) {
  internal::smallest_of_column<1>(rows, cols, D, nullptr, D_k, w, w_k, false);
}
__global__ void top2_single(int rows, int cols, float* D, float* D_k, float* w, float* w_k) {
  internal::smallest_of_column<2>(rows, cols, D, nullptr, D_k, w, w_k, false);
}
__global__ void top4_single(int rows, int cols, float* D, float* D_k, float* w, float* w_k) {
  internal::smallest_of_column<4>(rows, cols, D, nullptr, D_k, w, w_k, false);
}
__global__ void top8_single(int rows, int cols, float* D, float* D_k, float* w, float* w_k) {
  internal::smallest_of_column<8>(rows, cols, D, nullptr, D_k, w, w_k, false);
}
__global__ void top16_single(int rows, int cols, float* D, float* D_k, float* w, float* w_k) {
  internal::smallest_of_column<16>(rows, cols, D, nullptr, D_k, w, w_k, false);
}

/// Splits what is left of every resident entry p at the weight of its word's (k+1)-th nearest
/// entry: weight_delta[p] moves, weight_updated[p] stays.  weight_in and weight_updated may be one
/// array. Row-block launch over documents.
__global__ void update_weights_delta_multi(int num_docs, float* weight_in, int* start, int* ind,
                                           int voc_size, int k, float* weights_min,
                                           float* weight_delta, float* weight_updated) {
  const int d = internal::row_of_block();
  if (d >= num_docs) return;
  const float* capacity = weights_min + internal::row_offset(k, voc_size);
  const int end = start[d + 1];
  for (int p = start[d] + static_cast<int>(threadIdx.x); p < end;
       p += internal::threads_per_block) {
    const float left = weight_in[p];
    const float cap = capacity[ind[p]];
    const float moved = left > cap ? cap : left;
    weight_delta[p] = moved;
    weight_updated[p] = left - moved;
  }
}

/// dst[r] = src[row_ind[r]], rows of cols floats.  Row-block launch.
__global__ void gather_matrix_rows(int rows, int cols, float* src, int* row_ind, float* dst) {
  const int r = internal::row_of_block();
  if (r >= rows) return;
  const float* from = src + internal::row_offset(row_ind[r], cols);
  float* to = dst + internal::row_offset(r, cols);
  for (int c = static_cast<int>(threadIdx.x); c < cols; c += internal::threads_per_block) {
    to[c] = from[c];
  }
}

}  // namespace talvik

#endif
