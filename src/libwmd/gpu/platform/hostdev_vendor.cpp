// The stand-in's dense and sparse products, on Eigen, and the handles they need.
#include <Eigen/Core>
#include <Eigen/SparseCore>
#include <algorithm>
#include <set>

#include "libwmd/gpu/platform/hostdev.hpp"
#include "libwmd/gpu/platform/hostdev_checks.hpp"
#include "libwmd/gpu/platform/hostdev_control.hpp"

namespace talvik::hostdev {

struct cublasContext {};
struct cusparseContext {};
struct cusparseMatDescr {
  cusparseMatrixType_t type = CUSPARSE_MATRIX_TYPE_GENERAL;
  cusparseIndexBase_t base = CUSPARSE_INDEX_BASE_ZERO;
};

namespace {

using Columns = Eigen::Map<Eigen::MatrixXf, Eigen::Unaligned, Eigen::OuterStride<>>;
using ConstColumns = Eigen::Map<const Eigen::MatrixXf, Eigen::Unaligned, Eigen::OuterStride<>>;
using ConstCsr = Eigen::Map<const Eigen::SparseMatrix<float, Eigen::RowMajor, int>>;

std::set<const void*> handles;

template <class Handle>
void create(Handle** handle) {
  *handle = new Handle;
  handles.insert(*handle);
}

template <class Handle>
bool destroy(Handle* handle) {
  if (handles.erase(handle) == 0) return false;
  delete handle;
  return true;
}

bool live(const void* handle) { return handles.count(handle) > 0; }

// From the first element to the last of a column-major matrix that has both.
void require_matrix(const char* call, const float* matrix, int rows, int columns, int ld) {
  const size_t floats = static_cast<size_t>(ld) * (columns - 1) + rows;
  require_device_range(call, matrix, floats * sizeof(float));
}

// C = alpha product + beta C.  Under beta 0 C is not read: it may hold NaNs.
template <class Product>
void store(Columns* C, float alpha, float beta, const Product& product) {
  if (beta == 0)
    C->setZero();
  else if (beta != 1)
    *C *= beta;
  C->noalias() += alpha * product;
}

void check_csr(const char* call, int m, int k, int nnz, const int* row_offsets,
               const int* columns) {
  if (row_offsets[0] != 0 || row_offsets[m] != nnz ||
      !std::is_sorted(row_offsets, row_offsets + m + 1))
    die(call, "the row offsets do not ascend from 0 to the number of entries");
  if (std::any_of(columns, columns + nnz, [k](int column) { return column < 0 || column >= k; }))
    die(call, "a column index lies outside the matrix");
}

cusparseStatus_t csrmm(const char* call, cusparseHandle_t handle, bool transposed, int m, int n,
                       int k, int nnz, const float* alpha, const cusparseMatDescr_t descr,
                       const float* values, const int* row_offsets, const int* columns,
                       const float* B, int ldb, const float* beta, float* C, int ldc) {
  if (const int status = count_call(call)) return static_cast<cusparseStatus_t>(status);
  if (!live(handle) || !live(descr)) return CUSPARSE_STATUS_NOT_INITIALIZED;
  if (descr->type != CUSPARSE_MATRIX_TYPE_GENERAL) return CUSPARSE_STATUS_MATRIX_TYPE_NOT_SUPPORTED;
  if (transposed || descr->base != CUSPARSE_INDEX_BASE_ZERO || m < 0 || n < 0 || k < 0 || nnz < 0 ||
      ldb < std::max(k, 1) || ldc < std::max(m, 1))
    return CUSPARSE_STATUS_INVALID_VALUE;
  if (m == 0 || n == 0) return CUSPARSE_STATUS_SUCCESS;
  require_device_range(call, row_offsets, (m + size_t{1}) * sizeof(int));
  require_device_range(call, columns, nnz * sizeof(int));
  require_device_range(call, values, nnz * sizeof(float));
  if (k > 0) require_matrix(call, B, k, n, ldb);
  require_matrix(call, C, m, n, ldc);

  const DeviceWork work;
  check_csr(call, m, k, nnz, row_offsets, columns);
  Columns result(C, m, n, Eigen::OuterStride<>(ldc));
  store(&result, *alpha, *beta,
        ConstCsr(m, k, nnz, row_offsets, columns, values) *
            ConstColumns(B, k, n, Eigen::OuterStride<>(ldb)));
  return CUSPARSE_STATUS_SUCCESS;
}

}  // namespace

size_t live_handles() { return handles.size(); }

cublasStatus_t cublasCreate_v2(cublasHandle_t* handle) {
  if (const int status = count_call("cublasCreate_v2")) return static_cast<cublasStatus_t>(status);
  create(handle);
  return CUBLAS_STATUS_SUCCESS;
}

cublasStatus_t cublasDestroy_v2(cublasHandle_t handle) {
  if (const int status = count_call("cublasDestroy_v2")) return static_cast<cublasStatus_t>(status);
  return destroy(handle) ? CUBLAS_STATUS_SUCCESS : CUBLAS_STATUS_NOT_INITIALIZED;
}

cublasStatus_t cublasSgemm_v2(cublasHandle_t handle, cublasOperation_t transa,
                              cublasOperation_t transb, int m, int n, int k, const float* alpha,
                              const float* A, int lda, const float* B, int ldb, const float* beta,
                              float* C, int ldc) {
  const char* const call = "cublasSgemm_v2";
  if (const int status = count_call(call)) return static_cast<cublasStatus_t>(status);
  if (!live(handle)) return CUBLAS_STATUS_NOT_INITIALIZED;
  const bool turn_a = transa == CUBLAS_OP_T, turn_b = transb == CUBLAS_OP_T;
  const int rows_a = turn_a ? k : m, rows_b = turn_b ? n : k;
  if (m < 0 || n < 0 || k < 0 || lda < std::max(rows_a, 1) || ldb < std::max(rows_b, 1) ||
      ldc < std::max(m, 1))
    return CUBLAS_STATUS_INVALID_VALUE;
  if (m == 0 || n == 0) return CUBLAS_STATUS_SUCCESS;
  if (k > 0) require_matrix(call, A, rows_a, turn_a ? m : k, lda);
  if (k > 0) require_matrix(call, B, rows_b, turn_b ? k : n, ldb);
  require_matrix(call, C, m, n, ldc);

  const DeviceWork work;
  const ConstColumns a(A, rows_a, turn_a ? m : k, Eigen::OuterStride<>(lda));
  const ConstColumns b(B, rows_b, turn_b ? k : n, Eigen::OuterStride<>(ldb));
  Columns c(C, m, n, Eigen::OuterStride<>(ldc));
  if (turn_a && turn_b) store(&c, *alpha, *beta, a.transpose() * b.transpose());
  if (turn_a && !turn_b) store(&c, *alpha, *beta, a.transpose() * b);
  if (!turn_a && turn_b) store(&c, *alpha, *beta, a * b.transpose());
  if (!turn_a && !turn_b) store(&c, *alpha, *beta, a * b);
  return CUBLAS_STATUS_SUCCESS;
}

cusparseStatus_t cusparseCreate(cusparseHandle_t* handle) {
  if (const int status = count_call("cusparseCreate")) return static_cast<cusparseStatus_t>(status);
  create(handle);
  return CUSPARSE_STATUS_SUCCESS;
}

cusparseStatus_t cusparseDestroy(cusparseHandle_t handle) {
  if (const int status = count_call("cusparseDestroy"))
    return static_cast<cusparseStatus_t>(status);
  return destroy(handle) ? CUSPARSE_STATUS_SUCCESS : CUSPARSE_STATUS_NOT_INITIALIZED;
}

cusparseStatus_t cusparseCreateMatDescr(cusparseMatDescr_t* descr) {
  if (const int status = count_call("cusparseCreateMatDescr"))
    return static_cast<cusparseStatus_t>(status);
  create(descr);
  return CUSPARSE_STATUS_SUCCESS;
}

cusparseStatus_t cusparseDestroyMatDescr(cusparseMatDescr_t descr) {
  if (const int status = count_call("cusparseDestroyMatDescr"))
    return static_cast<cusparseStatus_t>(status);
  return destroy(descr) ? CUSPARSE_STATUS_SUCCESS : CUSPARSE_STATUS_NOT_INITIALIZED;
}

cusparseStatus_t cusparseSetMatType(cusparseMatDescr_t descr, cusparseMatrixType_t type) {
  if (const int status = count_call("cusparseSetMatType"))
    return static_cast<cusparseStatus_t>(status);
  if (!live(descr)) return CUSPARSE_STATUS_INVALID_VALUE;
  descr->type = type;
  return CUSPARSE_STATUS_SUCCESS;
}

cusparseStatus_t cusparseSetMatIndexBase(cusparseMatDescr_t descr, cusparseIndexBase_t base) {
  if (const int status = count_call("cusparseSetMatIndexBase"))
    return static_cast<cusparseStatus_t>(status);
  if (!live(descr)) return CUSPARSE_STATUS_INVALID_VALUE;
  descr->base = base;
  return CUSPARSE_STATUS_SUCCESS;
}

cusparseStatus_t cusparseScsrmm(cusparseHandle_t handle, cusparseOperation_t transA, int m, int n,
                                int k, int nnz, const float* alpha, const cusparseMatDescr_t descrA,
                                const float* values, const int* row_offsets, const int* columns,
                                const float* B, int ldb, const float* beta, float* C, int ldc) {
  const bool transposed = transA != CUSPARSE_OPERATION_NON_TRANSPOSE;
  return csrmm("cusparseScsrmm", handle, transposed, m, n, k, nnz, alpha, descrA, values,
               row_offsets, columns, B, ldb, beta, C, ldc);
}

cusparseStatus_t cusparseScsrmm2(cusparseHandle_t handle, cusparseOperation_t transA,
                                 cusparseOperation_t transB, int m, int n, int k, int nnz,
                                 const float* alpha, const cusparseMatDescr_t descrA,
                                 const float* values, const int* row_offsets, const int* columns,
                                 const float* B, int ldb, const float* beta, float* C, int ldc) {
  const bool transposed =
      transA != CUSPARSE_OPERATION_NON_TRANSPOSE || transB != CUSPARSE_OPERATION_NON_TRANSPOSE;
  return csrmm("cusparseScsrmm2", handle, transposed, m, n, k, nnz, alpha, descrA, values,
               row_offsets, columns, B, ldb, beta, C, ldc);
}

}  // namespace talvik::hostdev
