// The stand-in for CUDA: the names that the device source uses, with CUDA's spelling, parameters
// and status numbers, on a plain CPU.  It executes kernels as loops and is strict where a GPU is
// silent: what would be undefined there ends the process here with a line on standard error.
//
// One host thread works with it.  Environment:
//   TALVIK_HOSTDEV_GUARD=1       host code cannot touch device memory (segmentation fault)
//   TALVIK_HOSTDEV_INTERLEAVE=1  neighbouring device threads run on different CPU threads
#ifndef TALVIK_LIBWMD_GPU_PLATFORM_HOSTDEV_HPP
#define TALVIK_LIBWMD_GPU_PLATFORM_HOSTDEV_HPP

#include <omp.h>

#include <cstddef>

#include "internal/team.hpp"

// The names are CUDA's; Thrust defines some of them, too.
// NOLINTBEGIN(bugprone-reserved-identifier)
#ifndef __global__
#define __global__
#endif
#ifndef __device__
#define __device__
#endif
// NOLINTEND(bugprone-reserved-identifier)

namespace talvik {

namespace hostdev {

// The names of CUDA and its libraries that the engine uses, and no others.
inline namespace vendor {

// Numbers are the vendor's: messages print them.
enum cudaError_t : int {
  cudaSuccess = 0,
  cudaErrorInvalidValue = 1,
  cudaErrorMemoryAllocation = 2,
  cudaErrorInvalidDevice = 101
};
enum cudaMemcpyKind {
  cudaMemcpyHostToDevice = 1,
  cudaMemcpyDeviceToHost = 2,
  cudaMemcpyDeviceToDevice = 3
};
enum cudaDataType { CUDA_R_32F = 0, CUDA_R_64F = 1 };
enum cublasStatus_t : int {
  CUBLAS_STATUS_SUCCESS = 0,
  CUBLAS_STATUS_NOT_INITIALIZED = 1,
  CUBLAS_STATUS_INVALID_VALUE = 7
};
enum cublasOperation_t { CUBLAS_OP_N = 0, CUBLAS_OP_T = 1 };
enum cusparseStatus_t : int {
  CUSPARSE_STATUS_SUCCESS = 0,
  CUSPARSE_STATUS_NOT_INITIALIZED = 1,
  CUSPARSE_STATUS_ALLOC_FAILED = 2,
  CUSPARSE_STATUS_INVALID_VALUE = 3,
  CUSPARSE_STATUS_EXECUTION_FAILED = 6,
  CUSPARSE_STATUS_INTERNAL_ERROR = 7,
  CUSPARSE_STATUS_NOT_SUPPORTED = 10
};
enum cusparseOperation_t { CUSPARSE_OPERATION_NON_TRANSPOSE = 0, CUSPARSE_OPERATION_TRANSPOSE = 1 };
enum cusparseIndexType_t { CUSPARSE_INDEX_32I = 2, CUSPARSE_INDEX_64I = 3 };
enum cusparseOrder_t { CUSPARSE_ORDER_COL = 1, CUSPARSE_ORDER_ROW = 2 };
enum cusparseSpMMAlg_t { CUSPARSE_SPMM_CSR_ALG1 = 4 };
enum cusparseMatrixType_t { CUSPARSE_MATRIX_TYPE_GENERAL = 0 };
enum cusparseIndexBase_t { CUSPARSE_INDEX_BASE_ZERO = 0 };

struct cublasContext;
struct cusparseContext;
struct cusparseMatDescr;
struct cusparseSpMatDescr;
struct cusparseDnMatDescr;
using cublasHandle_t = cublasContext*;
using cusparseHandle_t = cusparseContext*;
using cusparseMatDescr_t = cusparseMatDescr*;
using cusparseSpMatDescr_t = cusparseSpMatDescr*;
using cusparseDnMatDescr_t = cusparseDnMatDescr*;

// --- Device, memory, copies

cudaError_t cudaGetDeviceCount(int* count);
cudaError_t cudaSetDevice(int device);  // for the calling thread
cudaError_t cudaGetLastError();

/// Poisoned (every float a NaN) up to 16 MiB; beyond that untouched, which costs nothing.
cudaError_t cudaMalloc(void** pointer, size_t bytes);
template <class T>
cudaError_t cudaMalloc(T** pointer, size_t bytes) {
  void* memory = nullptr;
  const cudaError_t status = cudaMalloc(&memory, bytes);
  if (status == cudaSuccess) *pointer = static_cast<T*>(memory);
  return status;
}
cudaError_t cudaFree(void* pointer);
cudaError_t cudaMemset(void* pointer, int value, size_t bytes);
cudaError_t cudaMemcpy(void* to, const void* from, size_t bytes, cudaMemcpyKind kind);
/// `height` rows of `width` bytes each, whose beginnings are a pitch apart.
cudaError_t cudaMemcpy2D(void* to, size_t to_pitch, const void* from, size_t from_pitch,
                         size_t width, size_t height, cudaMemcpyKind kind);
cudaError_t cudaDeviceSynchronize();
cudaError_t cudaMemGetInfo(size_t* free_bytes, size_t* total_bytes);

// --- Dense and sparse products; alpha and beta lie on the host

cublasStatus_t cublasCreate_v2(cublasHandle_t* handle);
cublasStatus_t cublasDestroy_v2(cublasHandle_t handle);
cublasStatus_t cublasSgemm_v2(cublasHandle_t handle, cublasOperation_t transa,
                              cublasOperation_t transb, int m, int n, int k, const float* alpha,
                              const float* A, int lda, const float* B, int ldb, const float* beta,
                              float* C, int ldc);

cusparseStatus_t cusparseCreate(cusparseHandle_t* handle);
cusparseStatus_t cusparseDestroy(cusparseHandle_t handle);
cusparseStatus_t cusparseCreateMatDescr(cusparseMatDescr_t* descr);
cusparseStatus_t cusparseDestroyMatDescr(cusparseMatDescr_t descr);
cusparseStatus_t cusparseSetMatType(cusparseMatDescr_t descr, cusparseMatrixType_t type);
cusparseStatus_t cusparseSetMatIndexBase(cusparseMatDescr_t descr, cusparseIndexBase_t base);
cusparseIndexBase_t cusparseGetMatIndexBase(cusparseMatDescr_t descr);

cusparseStatus_t cusparseCreateCsr(cusparseSpMatDescr_t* descr, long long rows, long long cols,
                                   long long nnz, void* row_offsets, void* columns, void* values,
                                   cusparseIndexType_t offset_type, cusparseIndexType_t column_type,
                                   cusparseIndexBase_t base, cudaDataType value_type);
cusparseStatus_t cusparseDestroySpMat(cusparseSpMatDescr_t descr);
cusparseStatus_t cusparseCreateDnMat(cusparseDnMatDescr_t* descr, long long rows, long long cols,
                                     long long ld, void* values, cudaDataType value_type,
                                     cusparseOrder_t order);
cusparseStatus_t cusparseDestroyDnMat(cusparseDnMatDescr_t descr);
cusparseStatus_t cusparseSpMM_bufferSize(cusparseHandle_t handle, cusparseOperation_t opA,
                                         cusparseOperation_t opB, const void* alpha,
                                         cusparseSpMatDescr_t A, cusparseDnMatDescr_t B,
                                         const void* beta, cusparseDnMatDescr_t C,
                                         cudaDataType compute_type, cusparseSpMMAlg_t alg,
                                         size_t* bytes);
/// Rows of A, or columns of B, that do not fit an int are refused.  C lies at a multiple of 16
/// bytes, and `workspace` holds what cusparseSpMM_bufferSize has asked for.
cusparseStatus_t cusparseSpMM(cusparseHandle_t handle, cusparseOperation_t opA,
                              cusparseOperation_t opB, const void* alpha, cusparseSpMatDescr_t A,
                              cusparseDnMatDescr_t B, const void* beta, cusparseDnMatDescr_t C,
                              cudaDataType compute_type, cusparseSpMMAlg_t alg, void* workspace);

// --- Kernels

struct dim3 {
  unsigned int x, y, z;
  constexpr dim3(unsigned int x = 1, unsigned int y = 1, unsigned int z = 1) : x(x), y(y), z(z) {}
};
constinit inline thread_local dim3 blockIdx(0, 0, 0), threadIdx(0, 0, 0);

}  // namespace vendor

/// While one lives, guarded device memory is open to host code.
class DeviceWork {
 public:
  DeviceWork();
  ~DeviceWork();
  DeviceWork(const DeviceWork&) = delete;
  DeviceWork& operator=(const DeviceWork&) = delete;
};

/// Ends the process for a shape that a GPU refuses.  False where the launch is not to be executed:
/// a fault is planned, whose status cudaGetLastError() then has, or execution is off.
bool begin_launch(dim3 grid, dim3 block);
/// Ends the process unless the floats lie in one allocation; throws where a fault is planned.
/// Forgets the error of an earlier launch, as Thrust may.  False where execution is off.
bool begin_transform(const float* device_values, size_t count);
bool interleaved();

// The i-th position of a shape, counted along x, then y, then z.
constexpr dim3 position(long long i, dim3 shape) {
  const long long row = i / shape.x;
  return {static_cast<unsigned int>(i % shape.x), static_cast<unsigned int>(row % shape.y),
          static_cast<unsigned int>(row / shape.y)};
}

/// Calls device_thread() once per thread of the grid, with its indices set.  Whole blocks are dealt
/// to the CPU threads in turn; when interleaved, single device threads are, so that two neighbours
/// that touch one element are a race on the CPU, too.
template <class DeviceThread>
void run_grid(dim3 grid, dim3 block, const DeviceThread& device_thread) {
  const DeviceWork work;
  if (!begin_launch(grid, block)) return;
  const long long blocks = 1LL * grid.x * grid.y * grid.z;
  const long long block_threads = 1LL * block.x * block.y * block.z;
  const bool by_threads = interleaved();
  const auto run_block = [&](long long b, long long first, long long step) {
    blockIdx = position(b, grid);
    for (long long t = first; t < block_threads; t += step) {
      threadIdx = position(t, block);
      device_thread();
    }
  };
  const int team = omp_get_max_threads();
  internal::for_each_share(team, team, [&](int first, int last, int) {
    for (int member = first; member < last; ++member) {
      if (by_threads)
        for (long long b = 0; b < blocks; ++b) run_block(b, (member + b) % team, team);
      else
        for (long long b = member; b < blocks; b += team) run_block(b, 0, 1);
    }
  });
}

}  // namespace hostdev

using namespace hostdev::vendor;

}  // namespace talvik

#endif
