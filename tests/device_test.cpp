// What the GPU engine asks of a device, on whichever this build has: memory, launches, products.
#include "libwmd/platform/device.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

namespace talvik {
namespace {

constexpr float not_read = NAN;
constexpr float tolerance = 1e-4f;

class Device : public testing::Test {
 protected:
  void SetUp() override {
    int count = 0;
    if (cudaGetDeviceCount(&count) != cudaSuccess || count == 0) GTEST_SKIP() << "no GPU here";
    ASSERT_EQ(cudaSetDevice(0), cudaSuccess);
  }

  void TearDown() override {
    for (void* pointer : uploaded_) EXPECT_EQ(cudaFree(pointer), cudaSuccess);
  }

  template <class T>
  T* upload(const std::vector<T>& values) {
    T* pointer = nullptr;
    EXPECT_EQ(cudaMalloc(&pointer, values.size() * sizeof(T)), cudaSuccess);
    EXPECT_EQ(cudaMemcpy(pointer, values.data(), values.size() * sizeof(T), cudaMemcpyHostToDevice),
              cudaSuccess);
    uploaded_.push_back(pointer);
    return pointer;
  }

 private:
  std::vector<void*> uploaded_;
};

std::vector<float> download(const float* pointer, size_t count) {
  std::vector<float> values(count);
  EXPECT_EQ(cudaMemcpy(values.data(), pointer, count * sizeof(float), cudaMemcpyDeviceToHost),
            cudaSuccess);
  return values;
}

std::vector<float> random_floats(size_t count) {
  static std::mt19937 generator(11);
  std::uniform_real_distribution<float> uniform(-1, 1);
  std::vector<float> values(count);
  for (float& value : values) value = uniform(generator);
  return values;
}

// Row r of the matrix becomes r * 1000 + column; what lies beyond `rows` is left alone.
__global__ void number_elements(int rows, int cols, float* matrix) {
  const int r = blockIdx.y * gridDim.x + blockIdx.x;
  if (r >= rows) return;
  for (int c = threadIdx.x; c < cols; c += blockDim.x) matrix[r * cols + c] = r * 1000 + c;
}

TEST_F(Device, LaunchRunsEveryThreadOfEveryBlock) {
  const int rows = 37, cols = 300;  // more columns than threads, fewer rows than blocks
  float* matrix = upload(std::vector<float>(rows * cols + 1, -1));
  launch(number_elements, dim3(10, 4), 128, rows, cols, matrix);
  ASSERT_EQ(cudaDeviceSynchronize(), cudaSuccess);
  const std::vector<float> result = download(matrix, rows * cols + 1);
  for (int i = 0; i < rows * cols; ++i) ASSERT_EQ(result[i], i / cols * 1000 + i % cols) << i;
  EXPECT_EQ(result.back(), -1);
}

struct half_of {
  __host__ __device__ float operator()(float value) const { return value / 2; }
};

TEST_F(Device, TransformChangesTheGivenRangeInPlace) {
  float* values = upload<float>({2, 4, 6, 8, 10});
  transform_in_place(values + 1, 3, half_of());
  transform_in_place(values, 0, half_of());
  EXPECT_EQ(download(values, 5), (std::vector<float>{2, 2, 3, 4, 10}));
}

// Vectors are rows of k floats, as the engine's: the result has C[j*ldc + i] = a_i . b_j.
TEST_F(Device, DenseProductOfRowVectors) {
  cublasHandle_t handle = nullptr;
  ASSERT_EQ(cublasCreate_v2(&handle), CUBLAS_STATUS_SUCCESS);
  const float one = 1, zero = 0;
  struct Size {
    int m, n, k, ldc;
  };
  for (const auto& [m, n, k, ldc] : {Size{1, 1, 1, 1}, {7, 3, 5, 9}, {131, 67, 300, 131}}) {
    SCOPED_TRACE(testing::Message() << m << " x " << n << " x " << k);
    const std::vector<float> a = random_floats(m * k), b = random_floats(n * k);
    for (const float beta : {0.0f, 1.0f}) {
      const float start = beta == 0 ? not_read : 10.0f;
      float* C = upload(std::vector<float>(ldc * n, start));
      ASSERT_EQ(cublasSgemm_v2(handle, CUBLAS_OP_T, CUBLAS_OP_N, m, n, k, &one, upload(a), k,
                               upload(b), k, beta == 0 ? &zero : &one, C, ldc),
                CUBLAS_STATUS_SUCCESS);
      const std::vector<float> result = download(C, ldc * n);
      for (int j = 0; j < n; ++j)
        for (int i = 0; i < m; ++i) {
          double sum = beta == 0 ? 0 : start;
          for (int l = 0; l < k; ++l) sum += double(a[i * k + l]) * b[j * k + l];
          ASSERT_NEAR(result[j * ldc + i], sum, tolerance) << i << ", " << j;
        }
    }
  }
  float* C = upload<float>({3});
  EXPECT_EQ(
      cublasSgemm_v2(handle, CUBLAS_OP_T, CUBLAS_OP_N, 1, 0, 1, &one, C, 1, C, 1, &zero, C, 1),
      CUBLAS_STATUS_SUCCESS);
  EXPECT_EQ(download(C, 1)[0], 3);
  EXPECT_EQ(cublasDestroy_v2(handle), CUBLAS_STATUS_SUCCESS);
}

class SparseProduct : public Device {
 protected:
  void SetUp() override {
    Device::SetUp();
    if (IsSkipped()) return;
    ASSERT_EQ(cusparseCreate(&handle_), CUSPARSE_STATUS_SUCCESS);
    ASSERT_EQ(cusparseCreateMatDescr(&descr_), CUSPARSE_STATUS_SUCCESS);
    ASSERT_EQ(cusparseSetMatType(descr_, CUSPARSE_MATRIX_TYPE_GENERAL), CUSPARSE_STATUS_SUCCESS);
    ASSERT_EQ(cusparseSetMatIndexBase(descr_, CUSPARSE_INDEX_BASE_ZERO), CUSPARSE_STATUS_SUCCESS);
  }

  void TearDown() override {
    if (handle_ != nullptr) {
      EXPECT_EQ(release_sparse_workspace(), cudaSuccess);
      EXPECT_EQ(cusparseDestroyMatDescr(descr_), CUSPARSE_STATUS_SUCCESS);
      EXPECT_EQ(cusparseDestroy(handle_), CUSPARSE_STATUS_SUCCESS);
    }
    Device::TearDown();
  }

  cusparseHandle_t handle_ = nullptr;
  cusparseMatDescr_t descr_ = nullptr;
};

constexpr auto plain = CUSPARSE_OPERATION_NON_TRANSPOSE;

// Rows of 0 to 6 entries, the last row empty.
TEST_F(SparseProduct, AgreesWithAPlainSum) {
  const int m = 30, k = 41, ldc = m + 3;
  std::vector<int> offsets{0}, columns;
  for (int row = 0; row < m; ++row) {
    for (int e = 0; e < (row == m - 1 ? 0 : row % 7); ++e) columns.push_back((row * 5 + e * 6) % k);
    offsets.push_back(static_cast<int>(columns.size()));
  }
  const int nnz = static_cast<int>(columns.size());
  const std::vector<float> values = random_floats(nnz);
  const int* offsets_dev = upload(offsets);
  const int* columns_dev = upload(columns);
  const float* values_dev = upload(values);
  const float one = 1, zero = 0;
  // 1: a single vector   9: a group   300: more than a block of columns
  for (const int n : {1, 9, 300}) {
    const std::vector<float> B = random_floats(k * n);
    const float* B_dev = upload(B);
    for (const float beta : {0.0f, 1.0f}) {
      SCOPED_TRACE(testing::Message() << n << " columns, beta " << beta);
      const float start = beta == 0 ? not_read : 10.0f;
      float* C = upload(std::vector<float>(ldc * n, start));
      ASSERT_EQ(
          cusparseScsrmm2(handle_, plain, plain, m, n, k, nnz, &one, descr_, values_dev,
                          offsets_dev, columns_dev, B_dev, k, beta == 0 ? &zero : &one, C, ldc),
          CUSPARSE_STATUS_SUCCESS);
      const std::vector<float> result = download(C, ldc * n);
      for (int j = 0; j < n; ++j)
        for (int i = 0; i < m; ++i) {
          double sum = beta == 0 ? 0 : start;
          for (int p = offsets[i]; p < offsets[i + 1]; ++p)
            sum += double(values[p]) * B[j * k + columns[p]];
          ASSERT_NEAR(result[j * ldc + i], sum, tolerance) << i << ", " << j;
        }
    }
  }
}

// Row r of a table of 7 words starts 28 r bytes into an allocation: only 4-byte aligned.
TEST_F(SparseProduct, TakesAVectorAtAnOddPlace) {
  const int words = 7;
  std::vector<float> table(3 * words);
  for (size_t i = 0; i < table.size(); ++i) table[i] = static_cast<float>(i);
  const float one = 1;
  float* sums = upload<float>({100, 200});
  ASSERT_EQ(cusparseScsrmm(handle_, plain, 2, 1, words, 3, &one, descr_, upload<float>({1, 2, 4}),
                           upload<int>({0, 2, 3}), upload<int>({0, 6, 3}), upload(table) + words,
                           words, &one, sums, 2),
            CUSPARSE_STATUS_SUCCESS);
  EXPECT_EQ(download(sums, 2), (std::vector<float>{100 + 7 + 2 * 13, 200 + 4 * 10}));
}

TEST_F(SparseProduct, OfNothingScalesTheResult) {
  const float one = 1, zero = 0;
  const int* no_entries = upload<int>({0, 0, 0});
  const float* B = upload<float>({5, 6, 7});
  float* C = upload<float>({1, 2, 3, 4});
  ASSERT_EQ(cusparseScsrmm2(handle_, plain, plain, 2, 1, 3, 0, &one, descr_, nullptr, no_entries,
                            nullptr, B, 3, &one, C, 2),
            CUSPARSE_STATUS_SUCCESS);
  EXPECT_EQ(download(C, 4), (std::vector<float>{1, 2, 3, 4}));
  ASSERT_EQ(cusparseScsrmm2(handle_, plain, plain, 2, 1, 3, 0, &one, descr_, nullptr, no_entries,
                            nullptr, B, 3, &zero, C, 2),
            CUSPARSE_STATUS_SUCCESS);
  EXPECT_EQ(download(C, 4), (std::vector<float>{0, 0, 3, 4}));
}

}  // namespace
}  // namespace talvik
