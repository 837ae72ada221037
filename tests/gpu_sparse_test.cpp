// The CSR-times-dense products under their old names, over the interface that newer libraries have.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "libwmd/gpu/platform/device.hpp"
#include "support/device.hpp"
#include "talvik.hpp"

namespace talvik::test {
namespace {

template <class T>
T* to_device(const std::vector<T>& values) {
  T* copy = nullptr;
  EXPECT_EQ(cudaMalloc(&copy, values.size() * sizeof(T)), cudaSuccess);
  EXPECT_EQ(cudaMemcpy(copy, values.data(), values.size() * sizeof(T), cudaMemcpyHostToDevice),
            cudaSuccess);
  return copy;
}

// m x n of k columns; `offset` floats lie before B, so that it begins at an odd address.
struct Product {
  int m, n, k, nnz, offset, ldb, ldc;
  float beta;
};

class SparseProduct : public testing::TestWithParam<Product> {
 protected:
  void SetUp() override {
    if (count_gpu_devices() == 0) GTEST_SKIP() << "no GPU";
    ASSERT_EQ(cusparseCreate(&handle), CUSPARSE_STATUS_SUCCESS);
    ASSERT_EQ(cusparseCreateMatDescr(&descr), CUSPARSE_STATUS_SUCCESS);
  }
  void TearDown() override {
    if (descr) cusparseDestroyMatDescr(descr);
    if (handle) cusparseDestroy(handle);
    release_sparse_workspace();
    EXPECT_TRUE(nothing_is_held());
  }
  cusparseHandle_t handle = nullptr;
  cusparseMatDescr_t descr = nullptr;
};

// Whole numbers: every sum is exact, in whatever order.
TEST_P(SparseProduct, IsTheSumOverTheEntries) {
  const Product& p = GetParam();
  std::mt19937 random(7);
  const auto whole = [&](int size) {
    std::vector<float> values(size);
    for (float& x : values) x = static_cast<float>(random() % 8);
    return values;
  };
  std::vector<int> start(p.m + 1), ind(p.nnz);
  for (int i = 0; i <= p.m; ++i) start[i] = static_cast<int>(1LL * p.nnz * i / p.m);
  for (int& word : ind) word = static_cast<int>(random() % p.k);
  const std::vector<float> values = whole(p.nnz), B = whole(p.offset + p.ldb * p.n);
  // What beta 0 meets means nothing, and neither do the ends of columns.
  std::vector<float> C(p.ldc * p.n, NAN), expected;
  for (int c = 0; c < p.n; ++c) {
    for (int i = 0; i < p.m; ++i) {
      float& sum = C[c * p.ldc + i];
      if (p.beta != 0) sum = 5;
      expected.push_back(p.beta == 0 ? 0 : 5);
      for (int e = start[i]; e < start[i + 1]; ++e) {
        expected.back() += values[e] * B[p.offset + c * p.ldb + ind[e]];
      }
    }
  }
  const bool nothing = p.k == 0 || p.nnz == 0;
  float* const values_dev = nothing ? nullptr : to_device(values);
  int* const ind_dev = nothing ? nullptr : to_device(ind);
  float* const B_dev = nothing ? nullptr : to_device(B);
  int* const start_dev = to_device(start);
  float* const C_dev = to_device(C);
  const float one = 1;
  const auto product = [&] {
    constexpr auto as_it_is = CUSPARSE_OPERATION_NON_TRANSPOSE;
    float* const first = nothing ? nullptr : B_dev + p.offset;
    if (p.n == 1)
      return cusparseScsrmm(handle, as_it_is, p.m, p.n, p.k, p.nnz, &one, descr, values_dev,
                            start_dev, ind_dev, first, p.ldb, &p.beta, C_dev, p.ldc);
    return cusparseScsrmm2(handle, as_it_is, as_it_is, p.m, p.n, p.k, p.nnz, &one, descr,
                           values_dev, start_dev, ind_dev, first, p.ldb, &p.beta, C_dev, p.ldc);
  };
  EXPECT_EQ(product(), CUSPARSE_STATUS_SUCCESS);
  ASSERT_EQ(cudaMemcpy(C.data(), C_dev, C.size() * sizeof(float), cudaMemcpyDeviceToHost),
            cudaSuccess);
  std::vector<float> result;
  for (int c = 0; c < p.n; ++c) {
    for (int i = 0; i < p.ldc; ++i) {
      const float value = C[c * p.ldc + i];
      if (i < p.m) {
        result.push_back(value);
      } else {
        EXPECT_TRUE(std::isnan(value));
      }
    }
  }
  EXPECT_EQ(result, expected);
  for (void* memory :
       {static_cast<void*>(values_dev), static_cast<void*>(ind_dev), static_cast<void*>(B_dev),
        static_cast<void*>(start_dev), static_cast<void*>(C_dev)}) {
    cudaFree(memory);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, SparseProduct,
    testing::Values(Product{5, 1, 7, 20, 0, 7, 5, 1}, Product{5, 1, 7, 20, 7, 7, 5, 1},
                    Product{3, 1, 50, 9, 150, 50, 3, 0}, Product{7, 4, 7, 30, 0, 7, 7, 0},
                    Product{1001, 3, 33, 4000, 0, 33, 1001, 0},  // documents without entries are
                    Product{9, 3, 5, 4, 0, 5, 12, 0},            // no exception here
                    Product{9, 3, 5, 4, 1, 6, 12, 1}, Product{5, 1, 0, 0, 0, 0, 5, 0},
                    Product{5, 3, 0, 0, 0, 0, 8, 0}, Product{5, 3, 7, 0, 0, 7, 5, 1}));

}  // namespace
}  // namespace talvik::test
