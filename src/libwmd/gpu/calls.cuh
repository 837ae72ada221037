// The device calls that the parts of the GPU engine share, each with its way to fail.  What a call
// opens or allocates has an owner, so that an exception leaves nothing on the device; where a
// release that fails has a message, it is made explicitly.  Included by libwmd.cu alone.
#ifndef TALVIK_LIBWMD_GPU_CALLS_CUH
#define TALVIK_LIBWMD_GPU_CALLS_CUH

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include "internal/failure.hpp"
#include "internal/index.hpp"
#include "libwmd/gpu/kernels.cuh"
#include "libwmd/gpu/platform/device.hpp"
#include "talvik.hpp"

namespace talvik::internal {

struct FreeOnDevice {
  void operator()(void* values) const { cudaFree(values); }
};

/// Values in device memory, owned; null where there are none.
template <class T>
using DeviceArray = std::unique_ptr<T[], FreeOnDevice>;

/// Null for no values.
template <class T>
DeviceArray<T> allocate_on_device(Index count, const std::string& name) {
  void* values = nullptr;
  const std::size_t bytes = count * sizeof(T);
  if (count != 0 && cudaMalloc(&values, bytes) != cudaSuccess) {
    report_memory_allocation_error(bytes, "Failed to allocate GPU memory for " + name);
  }
  return DeviceArray<T>(static_cast<T*>(values));
}

template <class T>
DeviceArray<T> upload(const T* values, Index count, const std::string& name) {
  DeviceArray<T> copy = allocate_on_device<T>(count, name);
  const std::size_t bytes = count * sizeof(T);
  if (count != 0 && cudaMemcpy(copy.get(), values, bytes, cudaMemcpyHostToDevice) != cudaSuccess) {
    fail("Failed to copy " + name);
  }
  return copy;
}

template <class T>
void free_on_device(DeviceArray<T> values, const std::string& name) {
  if (values && cudaFree(values.release()) != cudaSuccess) fail("Failed to deallocate " + name);
}

template <class Status>
std::string number_of(Status status) {
  return std::to_string(static_cast<int>(status));
}

/// Failure of the creation surfaces at the first product.
struct DenseLibrary {
  cublasHandle_t handle = nullptr;

  DenseLibrary() { cublasCreate_v2(&handle); }
  ~DenseLibrary() { cublasDestroy_v2(handle); }
  DenseLibrary(const DenseLibrary&) = delete;
  DenseLibrary& operator=(const DenseLibrary&) = delete;
};

struct SparseLibrary {
  cusparseHandle_t handle = nullptr;
  cusparseMatDescr_t descr = nullptr;  ///< general, zero-based

  SparseLibrary() : SparseLibrary(nullptr) {
    if (cusparseCreate(&handle) != CUSPARSE_STATUS_SUCCESS) {
      fail("CUSPARSE Library initialization failed");
    }
    if (cusparseCreateMatDescr(&descr) != CUSPARSE_STATUS_SUCCESS) {
      fail("Matrix descriptor initialization failed");
    }
    cusparseSetMatType(descr, CUSPARSE_MATRIX_TYPE_GENERAL);
    cusparseSetMatIndexBase(descr, CUSPARSE_INDEX_BASE_ZERO);
  }
  /// Releases what close() has not.
  ~SparseLibrary() {
    if (descr) cusparseDestroyMatDescr(descr);
    if (handle) cusparseDestroy(handle);
    release_sparse_workspace();
  }
  SparseLibrary(const SparseLibrary&) = delete;
  SparseLibrary& operator=(const SparseLibrary&) = delete;

  void close() {
    if (cusparseDestroyMatDescr(std::exchange(descr, nullptr)) != CUSPARSE_STATUS_SUCCESS) {
      fail("Matrix descriptor destruction failed");
    }
    if (cusparseDestroy(std::exchange(handle, nullptr)) != CUSPARSE_STATUS_SUCCESS) {
      fail("CUSPARSE Library release of resources failed");
    }
  }

 private:
  // A finished object, so that an exception in the constructor above runs the destructor.
  explicit SparseLibrary(std::nullptr_t) {}
};

/// Clears stale errors so that launch errors are not confused with them.
inline void forget_earlier_errors() { cudaGetLastError(); }

/// A launch returns no status.  Without this look, a GPU that the build has no code for would leave
/// the results untouched.
inline void require_launched() {
  const cudaError_t status = cudaGetLastError();
  if (status != cudaSuccess) fail("GPU kernels failed: CUDA status " + number_of(status));
}

/// transform_in_place, whose failure reaches the caller as the exception that Thrust throws.  The
/// error of an earlier launch is looked for before, since Thrust forgets it or throws it as its
/// own.
template <class Function>
void convert_in_place(float* values, Index count, Function function) {
  require_launched();
  transform_in_place(values, count, function);
}

/// products[t*tile.count + v] = words[tile.first + v] . rows[t], in products of so many rows.
inline void multiply_rows(const DenseLibrary& library, const DeviceRows& words,
                          const WordTile& tile, const DeviceRows& rows, int rows_at_once,
                          float* products) {
  const float fp1 = 1, fp0 = 0;
  const int stride = std::max(vec_size, 1);
  const float* const first_word = words.values + elements(tile.first, vec_size);
  for (int row = 0; row < rows.count; row += rows_at_once) {
    const cublasStatus_t status =
        cublasSgemm_v2(library.handle, CUBLAS_OP_T, CUBLAS_OP_N, tile.count,
                       std::min(rows_at_once, rows.count - row), vec_size, &fp1, first_word, stride,
                       rows.values + elements(row, vec_size), stride, &fp0,
                       products + elements(row, tile.count), tile.count);
    if (status != CUBLAS_STATUS_SUCCESS) {
      fail("Dense matrix-matrix multiplication failed: " + number_of(status));
    }
  }
}

/// Turns the products into distances, by the current settings.
inline void convert_products(const DeviceRows& words, const WordTile& tile, const DeviceRows& rows,
                             float* products) {
  const Index count = elements(rows.count, tile.count);
  switch (chosen_metric(use_cosine, normalize_embeddings)) {
    case Metric::unit_cosine:
      convert_in_place(products, count, unit_cosine());
      return;
    case Metric::cosine:
      launch(cos_to_dist, row_grid(rows.count), block_shape(), rows.count, tile.count, products);
      return;
    case Metric::unit_euclidean:
      convert_in_place(products, count, c_to_e<float>());
      return;
    case Metric::euclidean:
      launch(final_sqrt2, row_grid(rows.count), block_shape(), rows.count, tile.count, tile.first,
             products, words.norms, rows.norms);
  }
}

/// Sets the distances, or the products, of pairs of equal rows, see set_equal_rows.
inline void set_pairs_of_equal_rows(const DeviceRows& words, const WordTile& tile,
                                    const DeviceRows& rows, const EqualRows* pairs, int count,
                                    bool products, float* D) {
  with_metric(chosen_metric(use_cosine, normalize_embeddings), [&]<Metric metric>() {
    launch(set_equal_rows<metric>, column_grid(count), block_shape(), count, pairs, words, tile,
           rows, vec_size, products, D);
  });
}

}  // namespace talvik::internal

#endif
