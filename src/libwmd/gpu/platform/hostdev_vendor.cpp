// The stand-in's dense and sparse products, on Eigen, and the handles they need.
#include <Eigen/Core>
#include <Eigen/SparseCore>
#include <algorithm>
#include <climits>
#include <cstdint>  // uintptr_t
#include <cstring>  // memset
#include <initializer_list>
#include <memory>
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
struct cusparseSpMatDescr {
  int rows, cols, nnz;
  const int *row_offsets, *columns;
  const float* values;
};
struct cusparseDnMatDescr {
  int rows, cols, ld;
  float* values;
};
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
  auto created = std::make_unique<Handle>();
  handles.insert(created.get());
  *handle = created.release();
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
  if (rows > 0 && columns > 0)
    require_values(call, matrix, internal::elements(columns - 1, ld) + rows);
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

bool positive_ints(std::initializer_list<long long> sizes) {
  return std::all_of(sizes.begin(), sizes.end(), [](long long n) { return n > 0 && n <= INT_MAX; });
}

// What newer releases of the sparse library ask for.
constexpr std::uintptr_t output_alignment = 16;

cusparseStatus_t check_product(cusparseHandle_t handle, cusparseOperation_t opA,
                               cusparseOperation_t opB, cusparseSpMatDescr_t A,
                               cusparseDnMatDescr_t B, cusparseDnMatDescr_t C,
                               cudaDataType compute_type) {
  if (!live(handle) || !live(A) || !live(B) || !live(C)) return CUSPARSE_STATUS_NOT_INITIALIZED;
  if (opA != CUSPARSE_OPERATION_NON_TRANSPOSE || opB != CUSPARSE_OPERATION_NON_TRANSPOSE ||
      compute_type != CUDA_R_32F)
    return CUSPARSE_STATUS_NOT_SUPPORTED;
  const bool fit = A->rows == C->rows && A->cols == B->rows && B->cols == C->cols;
  return fit ? CUSPARSE_STATUS_SUCCESS : CUSPARSE_STATUS_INVALID_VALUE;
}

// Of the operands' sizes, so that another product's workspace may be too small.
size_t workspace_bytes(const cusparseSpMatDescr& A, const cusparseDnMatDescr& B) {
  return sizeof(int) * (static_cast<size_t>(A.rows) + static_cast<size_t>(B.cols));
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
  ++open_counts().dense_products;
  open_counts().multiply_adds += internal::elements(internal::elements(m, n), k);
  if (!execution_is_on()) return CUBLAS_STATUS_SUCCESS;

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

cusparseIndexBase_t cusparseGetMatIndexBase(cusparseMatDescr_t descr) {
  if (!live(descr)) die("cusparseGetMatIndexBase", "not a live matrix descriptor");
  return CUSPARSE_INDEX_BASE_ZERO;
}

cusparseStatus_t cusparseCreateCsr(cusparseSpMatDescr_t* descr, long long rows, long long cols,
                                   long long nnz, void* row_offsets, void* columns, void* values,
                                   cusparseIndexType_t offset_type, cusparseIndexType_t column_type,
                                   cusparseIndexBase_t /*base*/, cudaDataType value_type) {
  if (!positive_ints({rows, cols, nnz})) return CUSPARSE_STATUS_INVALID_VALUE;
  if (offset_type != CUSPARSE_INDEX_32I || column_type != CUSPARSE_INDEX_32I ||
      value_type != CUDA_R_32F)
    return CUSPARSE_STATUS_NOT_SUPPORTED;
  const auto status = create<cusparseStatus_t>("cusparseCreateCsr", descr);
  if (status == CUSPARSE_STATUS_SUCCESS)
    **descr = {static_cast<int>(rows),
               static_cast<int>(cols),
               static_cast<int>(nnz),
               static_cast<const int*>(row_offsets),
               static_cast<const int*>(columns),
               static_cast<const float*>(values)};
  return status;
}

cusparseStatus_t cusparseDestroySpMat(cusparseSpMatDescr_t descr) {
  return destroy("cusparseDestroySpMat", descr, CUSPARSE_STATUS_INVALID_VALUE);
}

cusparseStatus_t cusparseCreateDnMat(cusparseDnMatDescr_t* descr, long long rows, long long cols,
                                     long long ld, void* values, cudaDataType value_type,
                                     cusparseOrder_t order) {
  if (!positive_ints({rows, cols, ld}) || ld < rows) return CUSPARSE_STATUS_INVALID_VALUE;
  if (value_type != CUDA_R_32F || order != CUSPARSE_ORDER_COL) return CUSPARSE_STATUS_NOT_SUPPORTED;
  const auto status = create<cusparseStatus_t>("cusparseCreateDnMat", descr);
  if (status == CUSPARSE_STATUS_SUCCESS)
    **descr = {static_cast<int>(rows), static_cast<int>(cols), static_cast<int>(ld),
               static_cast<float*>(values)};
  return status;
}

cusparseStatus_t cusparseDestroyDnMat(cusparseDnMatDescr_t descr) {
  return destroy("cusparseDestroyDnMat", descr, CUSPARSE_STATUS_INVALID_VALUE);
}

cusparseStatus_t cusparseSpMM_bufferSize(cusparseHandle_t handle, cusparseOperation_t opA,
                                         cusparseOperation_t opB, const void* /*alpha*/,
                                         cusparseSpMatDescr_t A, cusparseDnMatDescr_t B,
                                         const void* /*beta*/, cusparseDnMatDescr_t C,
                                         cudaDataType compute_type, cusparseSpMMAlg_t /*alg*/,
                                         size_t* bytes) {
  if (const int status = count_call("cusparseSpMM_bufferSize"))
    return static_cast<cusparseStatus_t>(status);
  const cusparseStatus_t status = check_product(handle, opA, opB, A, B, C, compute_type);
  if (status == CUSPARSE_STATUS_SUCCESS) *bytes = workspace_bytes(*A, *B);
  return status;
}

cusparseStatus_t cusparseSpMM(cusparseHandle_t handle, cusparseOperation_t opA,
                              cusparseOperation_t opB, const void* alpha, cusparseSpMatDescr_t A,
                              cusparseDnMatDescr_t B, const void* beta, cusparseDnMatDescr_t C,
                              cudaDataType compute_type, cusparseSpMMAlg_t /*alg*/,
                              void* workspace) {
  const char* const call = "cusparseSpMM";
  if (const int status = count_call(call)) return static_cast<cusparseStatus_t>(status);
  const cusparseStatus_t status = check_product(handle, opA, opB, A, B, C, compute_type);
  if (status != CUSPARSE_STATUS_SUCCESS) return status;
  if (reinterpret_cast<std::uintptr_t>(C->values) % output_alignment != 0)
    die(call, "the result does not lie at a multiple of 16 bytes");
  require_values(call, A->row_offsets, Index{A->rows} + 1);
  require_values(call, A->columns, A->nnz);
  require_values(call, A->values, A->nnz);
  require_matrix(call, B->values, B->rows, B->cols, B->ld);
  require_matrix(call, C->values, C->rows, C->cols, C->ld);
  require_device_range(call, workspace, workspace_bytes(*A, *B));
  ++open_counts().sparse_products;
  if (!execution_is_on()) return CUSPARSE_STATUS_SUCCESS;

  const DeviceWork work;
  std::memset(workspace, 0xff, workspace_bytes(*A, *B));  // written over, as the library may
  check_csr(call, A->rows, A->cols, A->nnz, A->row_offsets, A->columns);
  const ConstColumns b(B->values, B->rows, B->cols, Eigen::OuterStride<>(B->ld));
  store(Columns(C->values, C->rows, C->cols, Eigen::OuterStride<>(C->ld)),
        *static_cast<const float*>(alpha), *static_cast<const float*>(beta),
        ConstCsr(A->rows, A->cols, A->nnz, A->row_offsets, A->columns, A->values) * b);
  return CUSPARSE_STATUS_SUCCESS;
}

}  // namespace vendor
}  // namespace talvik::hostdev
