// The stand-in's dense and sparse products, on Eigen, and the handles they need.
#include <Eigen/Core>
#include <Eigen/SparseCore>
#include <algorithm>
#include <set>

#include "internal/index.hpp"
#include "libwmd/gpu/platform/hostdev.hpp"
#include "libwmd/gpu/platform/hostdev_checks.hpp"
#include "libwmd/gpu/platform/hostdev_control.hpp"

namespace talvik::hostdev {

inline namespace vendor {
struct cublasContext {};
struct cusparseContext {};
struct cusparseMatDescr {};
}  // namespace vendor

namespace {

using internal::Index;
using Columns = Eigen::Map<Eigen::MatrixXf, Eigen::Unaligned, Eigen::OuterStride<>>;
using ConstColumns = Eigen::Map<const Eigen::MatrixXf, Eigen::Unaligned, Eigen::OuterStride<>>;
using ConstCsr = Eigen::Map<const Eigen::SparseMatrix<float, Eigen::RowMajor, int>>;

std::set<const void*> handles;

template <class Status, class Handle>
Status create(const char* call, Handle** handle) {
  if (const int status = count_call(call)) return static_cast<Status>(status);
  *handle = new Handle;
  handles.insert(*handle);
  return Status{};
}

template <class Status, class Handle>
Status destroy(const char* call, Handle* handle, Status unknown) {
  if (const int status = count_call(call)) return static_cast<Status>(status);
  if (handles.erase(handle) == 0) return unknown;
  delete handle;
  return Status{};
}

bool live(const void* handle) { return handles.contains(handle); }

void require_values(const char* call, const void* values, Index count) {
  static_assert(sizeof(float) == sizeof(int));
  require_device_range(call, values, count * sizeof(float));
}

// From the first element to the last of a column-major matrix.
void require_matrix(const char* call, const float* matrix, int rows, int columns, int ld) {
  if (rows > 0) require_values(call, matrix, internal::elements(columns - 1, ld) + rows);
}

// C = alpha product + beta C.  Under beta 0 C is not read: it may hold NaNs.
template <class Product>
void store(Columns C, float alpha, float beta, const Product& product) {
  if (beta == 0)
    C.setZero();
  else
    C *= beta;
  C.noalias() += alpha * product;
}

void check_csr(const char* call, int m, int k, int nnz, const int* row_offsets,
               const int* columns) {
  if (row_offsets[0] != 0 || row_offsets[m] != nnz ||
      !std::is_sorted(row_offsets, row_offsets + m + 1))
    die(call, "the row offsets do not ascend from 0 to the number of entries");
  if (std::any_of(columns, columns + nnz, [k](int column) { return column < 0 || column >= k; }))
    die(call, "a column index lies outside the matrix");
}

}  // namespace

size_t live_handles() { return handles.size(); }

inline namespace vendor {

cublasStatus_t cublasCreate_v2(cublasHandle_t* handle) {
  return create<cublasStatus_t>("cublasCreate_v2", handle);
}

cublasStatus_t cublasDestroy_v2(cublasHandle_t handle) {
  return destroy("cublasDestroy_v2", handle, CUBLAS_STATUS_NOT_INITIALIZED);
}

cublasStatus_t cublasSgemm_v2(cublasHandle_t handle, cublasOperation_t transa,
                              cublasOperation_t transb, int m, int n, int k, const float* alpha,
                              const float* A, int lda, const float* B, int ldb, const float* beta,
                              float* C, int ldc) {
  const char* const call = "cublasSgemm_v2";
  if (const int status = count_call(call)) return static_cast<cublasStatus_t>(status);
  if (!live(handle)) return CUBLAS_STATUS_NOT_INITIALIZED;
  if (transa != CUBLAS_OP_T || transb != CUBLAS_OP_N || m < 1 || n < 1 || k < 0 ||
      lda < std::max(k, 1) || ldb < std::max(k, 1) || ldc < m)
    return CUBLAS_STATUS_INVALID_VALUE;
  require_matrix(call, A, k, m, lda);
  require_matrix(call, B, k, n, ldb);
  require_matrix(call, C, m, n, ldc);

  const DeviceWork work;
  const ConstColumns a(A, k, m, Eigen::OuterStride<>(lda));
  const ConstColumns b(B, k, n, Eigen::OuterStride<>(ldb));
  store(Columns(C, m, n, Eigen::OuterStride<>(ldc)), *alpha, *beta, a.transpose() * b);
  return CUBLAS_STATUS_SUCCESS;
}

cusparseStatus_t cusparseCreate(cusparseHandle_t* handle) {
  return create<cusparseStatus_t>("cusparseCreate", handle);
}

cusparseStatus_t cusparseDestroy(cusparseHandle_t handle) {
  return destroy("cusparseDestroy", handle, CUSPARSE_STATUS_NOT_INITIALIZED);
}

cusparseStatus_t cusparseCreateMatDescr(cusparseMatDescr_t* descr) {
  return create<cusparseStatus_t>("cusparseCreateMatDescr", descr);
}

cusparseStatus_t cusparseDestroyMatDescr(cusparseMatDescr_t descr) {
  return destroy("cusparseDestroyMatDescr", descr, CUSPARSE_STATUS_NOT_INITIALIZED);
}

cusparseStatus_t cusparseSetMatType(cusparseMatDescr_t descr, cusparseMatrixType_t /*type*/) {
  return live(descr) ? CUSPARSE_STATUS_SUCCESS : CUSPARSE_STATUS_INVALID_VALUE;
}

cusparseStatus_t cusparseSetMatIndexBase(cusparseMatDescr_t descr, cusparseIndexBase_t /*base*/) {
  return live(descr) ? CUSPARSE_STATUS_SUCCESS : CUSPARSE_STATUS_INVALID_VALUE;
}

cusparseStatus_t cusparseScsrmm(cusparseHandle_t handle, cusparseOperation_t transA, int m, int n,
                                int k, int nnz, const float* alpha, cusparseMatDescr_t descrA,
                                const float* values, const int* row_offsets, const int* columns,
                                const float* B, int ldb, const float* beta, float* C, int ldc) {
  if (const int status = count_call("cusparseScsrmm")) return static_cast<cusparseStatus_t>(status);
  return cusparseScsrmm2(handle, transA, CUSPARSE_OPERATION_NON_TRANSPOSE, m, n, k, nnz, alpha,
                         descrA, values, row_offsets, columns, B, ldb, beta, C, ldc);
}

// There is one operation, one matrix type and one index base, which the enumerations hold.
cusparseStatus_t cusparseScsrmm2(cusparseHandle_t handle, cusparseOperation_t /*transA*/,
                                 cusparseOperation_t /*transB*/, int m, int n, int k, int nnz,
                                 const float* alpha, cusparseMatDescr_t descrA, const float* values,
                                 const int* row_offsets, const int* columns, const float* B,
                                 int ldb, const float* beta, float* C, int ldc) {
  const char* const call = "cusparseScsrmm2";
  if (const int status = count_call(call)) return static_cast<cusparseStatus_t>(status);
  if (!live(handle) || !live(descrA)) return CUSPARSE_STATUS_NOT_INITIALIZED;
  if (m < 1 || n < 1 || k < 1 || nnz < 1 || ldb < k || ldc < m)
    return CUSPARSE_STATUS_INVALID_VALUE;
  require_values(call, row_offsets, Index{m} + 1);
  require_values(call, columns, nnz);
  require_values(call, values, nnz);
  require_matrix(call, B, k, n, ldb);
  require_matrix(call, C, m, n, ldc);

  const DeviceWork work;
  check_csr(call, m, k, nnz, row_offsets, columns);
  const ConstColumns b(B, k, n, Eigen::OuterStride<>(ldb));
  store(Columns(C, m, n, Eigen::OuterStride<>(ldc)), *alpha, *beta,
        ConstCsr(m, k, nnz, row_offsets, columns, values) * b);
  return CUSPARSE_STATUS_SUCCESS;
}

}  // namespace vendor
}  // namespace talvik::hostdev
