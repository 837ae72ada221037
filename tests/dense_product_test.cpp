// Dense products against double precision, on whatever unit of the processor does them.
#include "libwmd/cpu/dense_product.hpp"

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <cmath>
#include <random>
#include <utility>
#include <vector>

namespace talvik::internal {
namespace {

std::vector<float> random_rows(int rows, int m, float magnitude, unsigned seed) {
  std::mt19937 random(seed);
  std::normal_distribution<float> component(0, magnitude);
  std::vector<float> values(rows * m);
  for (float& x : values) x = component(random);
  return values;
}

// With true on the matrix unit.
class EveryKernel : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (GetParam() && !amx_usable()) GTEST_SKIP() << "no matrix unit on this machine";
    if (!GetParam()) hwy::DisableTargets(HWY_AVX3_DL);
  }
  void TearDown() override { hwy::DisableTargets(0); }

  // Expects every product, and that nothing else is written.
  static void expect_products(int num_words, int num_rows, int m, float magnitude,
                              ProductScratch& scratch) {
    constexpr float untouched = -77;
    const int stride = num_words + 5;
    const std::vector<float> words = random_rows(num_words, m, magnitude, 1);
    const std::vector<float> rows = random_rows(num_rows, m, 1, 2);
    std::vector<float> scores(stride * num_rows, untouched);
    dense_product({words.data(), num_words, rows.data(), num_rows, m, scores.data(), stride},
                  scratch);
    for (int at = 0; at < stride * num_rows; ++at) {
      const int r = at / stride, v = at % stride;
      double product = v < num_words ? 0 : untouched, size = 0;
      for (int i = 0; i < m && v < num_words; ++i) {
        const double term = 1.0 * words[v * m + i] * rows[r * m + i];
        product += term;
        size += std::fabs(term);
      }
      ASSERT_NEAR(scores[at], product, size * 6e-7)  // five roundings in single precision
          << "row " << r << ", word " << v << " of " << num_words << ", " << m
          << " components, magnitude " << magnitude;
    }
  }
};

TEST_P(EveryKernel, ProductsAreThoseOfSinglePrecision) {
  EXPECT_EQ(product_scratch(300).on_matrix_unit, GetParam());
  EXPECT_FALSE(product_scratch(2).on_matrix_unit);
  ProductScratch shared = product_scratch(800);
  // Around whole blocks of rows and words, whole tiles of components, and whole rounds of them.
  for (const int m : {1, 31, 32, 33, 300, 384, 385, 800}) {
    for (const auto& [words, rows] :
         {std::pair(1, 1), std::pair(32, 32), std::pair(33, 31), std::pair(16, 100)}) {
      ProductScratch own = product_scratch(m);
      expect_products(words, rows, m, 1, own);
    }
    if (m > 31) expect_products(70, 65, m, 1, shared);  // of products of other shapes
  }
  for (const float magnitude : {1e-20f, 1e-3f, 1e4f, 1e20f}) {
    expect_products(40, 40, 100, magnitude, shared);
  }
}

INSTANTIATE_TEST_SUITE_P(Units, EveryKernel, testing::Bool(),
                         [](const auto& param) { return param.param ? "MatrixUnit" : "Blas"; });

}  // namespace
}  // namespace talvik::internal
