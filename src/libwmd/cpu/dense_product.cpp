// Dot products of embedding rows: on the matrix unit where there is one, else by the BLAS or,
// without one, by Eigen's own kernel.
#include "libwmd/cpu/dense_product.hpp"

#include <Eigen/Core>

namespace talvik::internal {
namespace {

// The unit takes 32 components at a time: shorter rows would leave most of it idle.
constexpr int amx_components_least = 32;

}  // namespace

ProductScratch product_scratch(int m) { return {m >= amx_components_least && amx_usable(), {}}; }

void dense_product(const DenseOperands& operands, ProductScratch& scratch) {
  const auto& [words, num_words, rows, num_rows, m, scores, stride] = operands;
  if (num_words <= 0 || num_rows <= 0) return;
  if (scratch.on_matrix_unit) return amx_product(operands, scratch.packed);
  using RowMajor = Eigen::Matrix<float, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
  const Eigen::Map<const RowMajor> W(words, num_words, m);
  const Eigen::Map<const Eigen::MatrixXf> X(rows, m, num_rows);  // row r is column r of the map
  Eigen::Map<Eigen::MatrixXf, 0, Eigen::OuterStride<>> scores_of_words(
      scores, num_words, num_rows, Eigen::OuterStride<>(stride));
  scores_of_words.noalias() = W * X;
}

const char* name_of_kernel(const ProductScratch& scratch) {
  if (scratch.on_matrix_unit) return "matrix unit (AMX), floats as three bfloat16 parts";
#ifdef EIGEN_USE_BLAS
  return "BLAS";
#else
  return "Eigen";
#endif
}

}  // namespace talvik::internal
