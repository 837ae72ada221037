// The CSR-times-dense products under the names and parameters that CUDA toolkits had before 11, for
// those that have only the generic interface.  In namespace talvik, so that they meet no function
// of a library that the host program loads.  Included by device.hpp alone, after the names that it
// stands on.
#ifndef TALVIK_LIBWMD_GPU_PLATFORM_LEGACY_SPARSE_HPP
#define TALVIK_LIBWMD_GPU_PLATFORM_LEGACY_SPARSE_HPP

#include <algorithm>
#include <cstddef>

#include "internal/index.hpp"

namespace talvik {

// One for all products, because an allocation and a release per product would each wait for the
// device.  It only grows; release_sparse_workspace() is called explicitly, since a destructor of
// static storage would run after the CUDA runtime has gone.
struct SparseWorkspace {
  void* buffer = nullptr;  // owned, device memory
  size_t bytes = 0;
};
inline SparseWorkspace sparse_workspace;

inline cudaError_t release_sparse_workspace() {
  if (sparse_workspace.buffer == nullptr) return cudaSuccess;
  const cudaError_t status = cudaFree(sparse_workspace.buffer);
  sparse_workspace = {};
  return status;
}

inline cusparseStatus_t reserve_sparse_workspace(size_t bytes) {
  if (bytes <= sparse_workspace.bytes) return CUSPARSE_STATUS_SUCCESS;
  release_sparse_workspace();
  if (cudaMalloc(&sparse_workspace.buffer, bytes) != cudaSuccess) {
    sparse_workspace.buffer = nullptr;
    return CUSPARSE_STATUS_ALLOC_FAILED;
  }
  sparse_workspace.bytes = bytes;
  return CUSPARSE_STATUS_SUCCESS;
}

// A product's operands, released in any case.
struct SparseOperand {
  cusparseSpMatDescr_t descr = nullptr;
  SparseOperand() = default;
  SparseOperand(const SparseOperand&) = delete;
  SparseOperand& operator=(const SparseOperand&) = delete;
  ~SparseOperand() {
    if (descr) cusparseDestroySpMat(descr);
  }
};

struct DenseOperand {
  cusparseDnMatDescr_t descr = nullptr;
  DenseOperand() = default;
  DenseOperand(const DenseOperand&) = delete;
  DenseOperand& operator=(const DenseOperand&) = delete;
  ~DenseOperand() {
    if (descr) cusparseDestroyDnMat(descr);
  }
};

/// C = beta C, for the products over nothing.  beta is 0 or 1.
inline cusparseStatus_t scale_result(int m, int n, float beta, float* C, int ldc) {
  if (beta == 1) return CUSPARSE_STATUS_SUCCESS;
  if (beta != 0) return CUSPARSE_STATUS_INVALID_VALUE;
  for (int column = 0; column < n; ++column) {
    float* const first = C + internal::elements(column, ldc);
    if (cudaMemset(first, 0, m * sizeof(float)) != cudaSuccess)
      return CUSPARSE_STATUS_EXECUTION_FAILED;
  }
  return CUSPARSE_STATUS_SUCCESS;
}

/// C = alpha A B + beta C; A is m x k in CSR form with nnz entries, B (k x n) and C (m x n) are
/// column-major with leading dimensions ldb and ldc.  C lies at a multiple of 16 bytes: newer
/// libraries ask for it.  Only CUSPARSE_OPERATION_NON_TRANSPOSE, and scalars on the host.  A
/// product over nothing (k or nnz is 0, the operands may be null) takes beta 0 or 1 and does not
/// reach the library, whose releases differ on empty matrices.
inline cusparseStatus_t cusparseScsrmm2(cusparseHandle_t handle, cusparseOperation_t transA,
                                        cusparseOperation_t transB, int m, int n, int k, int nnz,
                                        const float* alpha, const cusparseMatDescr_t descrA,
                                        const float* values, const int* row_offsets,
                                        const int* columns, const float* B, int ldb,
                                        const float* beta, float* C, int ldc) {
  if (transA != CUSPARSE_OPERATION_NON_TRANSPOSE || transB != CUSPARSE_OPERATION_NON_TRANSPOSE)
    return CUSPARSE_STATUS_INVALID_VALUE;
  if (m == 0 || n == 0) return CUSPARSE_STATUS_SUCCESS;
  if (k == 0 || nnz == 0) return scale_result(m, n, *beta, C, ldc);

  SparseOperand a;
  DenseOperand b, c;
  // The descriptors take pointers to non-const; the product only reads A and B.
  cusparseStatus_t status =
      cusparseCreateCsr(&a.descr, m, k, nnz, const_cast<int*>(row_offsets),
                        const_cast<int*>(columns), const_cast<float*>(values), CUSPARSE_INDEX_32I,
                        CUSPARSE_INDEX_32I, cusparseGetMatIndexBase(descrA), CUDA_R_32F);
  if (status == CUSPARSE_STATUS_SUCCESS)
    status = cusparseCreateDnMat(&b.descr, k, n, ldb, const_cast<float*>(B), CUDA_R_32F,
                                 CUSPARSE_ORDER_COL);
  if (status == CUSPARSE_STATUS_SUCCESS)
    status = cusparseCreateDnMat(&c.descr, m, n, ldc, C, CUDA_R_32F, CUSPARSE_ORDER_COL);
  size_t bytes = 0;
  if (status == CUSPARSE_STATUS_SUCCESS)
    status = cusparseSpMM_bufferSize(handle, transA, transB, alpha, a.descr, b.descr, beta, c.descr,
                                     CUDA_R_32F, CUSPARSE_SPMM_CSR_ALG1, &bytes);
  if (status == CUSPARSE_STATUS_SUCCESS)
    status = reserve_sparse_workspace(std::max<size_t>(bytes, 1));
  if (status == CUSPARSE_STATUS_SUCCESS)
    status = cusparseSpMM(handle, transA, transB, alpha, a.descr, b.descr, beta, c.descr,
                          CUDA_R_32F, CUSPARSE_SPMM_CSR_ALG1, sparse_workspace.buffer);
  return status;
}

/// The same with B as it stands.
inline cusparseStatus_t cusparseScsrmm(cusparseHandle_t handle, cusparseOperation_t transA, int m,
                                       int n, int k, int nnz, const float* alpha,
                                       const cusparseMatDescr_t descrA, const float* values,
                                       const int* row_offsets, const int* columns, const float* B,
                                       int ldb, const float* beta, float* C, int ldc) {
  return cusparseScsrmm2(handle, transA, CUSPARSE_OPERATION_NON_TRANSPOSE, m, n, k, nnz, alpha,
                         descrA, values, row_offsets, columns, B, ldb, beta, C, ldc);
}

}  // namespace talvik

#endif
