// The device calls that the parts of the GPU engine share, each with its way to fail.  Included by
// libwmd.cu alone.
#ifndef TALVIK_LIBWMD_GPU_CALLS_CUH
#define TALVIK_LIBWMD_GPU_CALLS_CUH

#include <algorithm>
#include <cstddef>
#include <string>

#include "internal/failure.hpp"
#include "internal/index.hpp"
#include "libwmd/gpu/kernels.cuh"
#include "libwmd/gpu/platform/device.hpp"
#include "talvik.hpp"

namespace talvik::internal {

/// @return count values on the device, null if there are none to hold
template <class T>
T* allocate_on_device(std::size_t count, const std::string& name) {
  void* values = nullptr;
  const std::size_t bytes = count * sizeof(T);
  if (count > 0 && cudaMalloc(&values, bytes) != cudaSuccess) {
    report_memory_allocation_error(bytes, "Failed to allocate GPU memory for " + name);
  }
  return static_cast<T*>(values);
}

template <class T>
T* upload(const T* values, std::size_t count, const std::string& name) {
  T* copy = allocate_on_device<T>(count, name);
  if (count > 0 &&
      cudaMemcpy(copy, values, count * sizeof(T), cudaMemcpyHostToDevice) != cudaSuccess) {
    fail("Failed to copy " + name);
  }
  return copy;
}

inline void free_on_device(void* values, const std::string& name) {
  if (cudaFree(values) != cudaSuccess) fail("Failed to deallocate " + name);
}

template <class Status>
std::string number_of(Status status) {
  return std::to_string(static_cast<int>(status));
}

/// A launch returns no status: what went wrong with it is asked for afterwards, and must not be
/// mixed up with errors of calls whose result nobody looked at, such as a device selection.
inline void forget_earlier_errors() { cudaGetLastError(); }

/// Without this look, a GPU that the build has no code for would leave the results untouched.
inline void require_launched() {
  const cudaError_t status = cudaGetLastError();
  if (status != cudaSuccess) fail("GPU kernels failed: CUDA status " + number_of(status));
}

/// products[t*num_words + v] = words[v] . rows[t], all rows vec_size long.
inline void dense_product(cublasHandle_t handle_blas, int num_words, int num_rows, int length,
                          const float* words, const float* rows, float* products) {
  const float fp1 = 1, fp0 = 0;
  const int stride = std::max(length, 1);
  const cublasStatus_t status =
      cublasSgemm_v2(handle_blas, CUBLAS_OP_T, CUBLAS_OP_N, num_words, num_rows, length, &fp1,
                     words, stride, rows, stride, &fp0, products, num_words);
  if (status != CUBLAS_STATUS_SUCCESS) {
    fail("Dense matrix-matrix multiplication failed: " + number_of(status));
  }
}

/// Turns num_rows x num_words dot products into word distances by the current settings.
inline void convert_to_distances(int num_rows, int num_words, float* products, float* word_norms,
                                 float* row_norms) {
  if (num_rows == 0 || num_words == 0) return;
  switch (chosen_metric(use_cosine, normalize_embeddings)) {
    case Metric::cosine:
      launch(cos_to_dist, row_grid(num_rows), block_shape(), num_rows, num_words, products);
      return;
    case Metric::unit_euclidean:
      transform_in_place(products, elements(num_rows, num_words), c_to_e<float>());
      return;
    case Metric::euclidean:
      constexpr int first_word = 0;
      launch(final_sqrt2, row_grid(num_rows), block_shape(), num_rows, num_words, first_word,
             products, word_norms, row_norms);
  }
}

}  // namespace talvik::internal

#endif
