// Dense products against double precision, on whatever unit of the processor does them.
#include "libwmd/cpu/dense_product.hpp"

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <cmath>
#include <random>
#include <tuple>
#include <vector>

namespace talvik::internal {
namespace {

std::vector<float> random_rows(int rows, int m, float magnitude, unsigned seed) {
  std::mt19937 random(seed);
  std::normal_distribution<float> component(0, magnitude);
  std::vector<float> values(static_cast<size_t>(rows * m));
  for (float& x : values) x = component(random);
  return values;
}

// Expects every product, and that nothing else is written.
void expect_products(int num_words, int num_rows, int m, float magnitude) {
  SCOPED_TRACE(testing::Message() << num_words << " words, " << num_rows << " rows, " << m
                                  << " components, magnitude " << magnitude);
  constexpr float untouched = -77;
  const size_t stride = static_cast<size_t>(num_words) + 5;
  const std::vector<float> words = random_rows(num_words, m, magnitude, 1);
  const std::vector<float> rows = random_rows(num_rows, m, 1, 2);
  std::vector<float> scores(stride * static_cast<size_t>(num_rows), untouched);
  ProductScratch scratch = product_scratch(m);
  dense_product(words.data(), num_words, rows.data(), num_rows, m, scores.data(), stride, scratch);
  for (int r = 0; r < num_rows; ++r) {
    for (int v = 0; v < num_words; ++v) {
      double product = 0, size = 0;
      for (int i = 0; i < m; ++i) {
        const double term =
            1.0 * words[static_cast<size_t>(v * m + i)] * rows[static_cast<size_t>(r * m + i)];
        product += term;
        size += std::fabs(term);
      }
      constexpr double tolerance = 6e-7;  // five roundings in single precision
      ASSERT_NEAR(scores[static_cast<size_t>(r) * stride + static_cast<size_t>(v)], product,
                  size * tolerance)
          << "row " << r << ", word " << v;
    }
    for (size_t v = static_cast<size_t>(num_words); v < stride; ++v) {
      ASSERT_EQ(scores[static_cast<size_t>(r) * stride + v], untouched) << "row " << r;
    }
  }
}

class EveryKernel : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (GetParam() && !amx_usable()) GTEST_SKIP() << "no matrix unit on this machine";
    if (!GetParam()) hwy::DisableTargets(HWY_AVX3_DL);
  }
  void TearDown() override { hwy::DisableTargets(0); }
};

TEST_P(EveryKernel, ProductsOfAnyShapeAreThoseOfSinglePrecision) {
  EXPECT_EQ(product_scratch(300).on_matrix_unit, GetParam());
  EXPECT_FALSE(product_scratch(2).on_matrix_unit);
  // Around whole blocks of rows and words, whole tiles of components, and whole rounds of them.
  for (const int m : {1, 31, 32, 33, 300, 384, 385, 800}) {
    for (const auto& [words, rows] : {std::tuple(1, 1), std::tuple(32, 32), std::tuple(33, 31),
                                      std::tuple(16, 100), std::tuple(70, 65)}) {
      expect_products(words, rows, m, 1);
    }
  }
}

TEST_P(EveryKernel, MagnitudesDoNotMatter) {
  for (const float magnitude : {1e-20f, 1e-3f, 1e4f, 1e20f})
    expect_products(40, 40, 100, magnitude);
}

TEST_P(EveryKernel, ScratchServesProductsOfOtherShapes) {
  ProductScratch scratch = product_scratch(500);
  for (const auto& [words, m] : {std::tuple(64, 500), std::tuple(8, 40), std::tuple(90, 100)}) {
    const std::vector<float> ones(static_cast<size_t>(words * m), 1.0f);
    std::vector<float> scores(static_cast<size_t>(words));
    dense_product(ones.data(), words, ones.data(), 1, m, scores.data(), scores.size(), scratch);
    EXPECT_EQ(scores, std::vector<float>(scores.size(), static_cast<float>(m)));
  }
}

INSTANTIATE_TEST_SUITE_P(Units, EveryKernel, testing::Bool(),
                         [](const auto& param) { return param.param ? "MatrixUnit" : "Blas"; });

}  // namespace
}  // namespace talvik::internal
