// The distance block in the plain way, and its two products.  Eigen's own dense kernel is meant
// here: this file must not be compiled with EIGEN_USE_BLAS.
#include "plain_way.hpp"

#include <cblas.h>

#include <Eigen/Core>
#include <Eigen/SparseCore>
#include <algorithm>
#include <cmath>
#include <memory>

namespace talvik::bench {
namespace {

using RowMatrix = Eigen::Matrix<float, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

constexpr float far_away = 1e30f;

int rows_per_block(const World& world, long long block_floats) {
  const long long n2 = static_cast<long long>(world.queries.ind.size());
  return static_cast<int>(std::clamp<long long>(block_floats / n2, 1, world.voc_size));
}

std::vector<float> squared_norms(const std::vector<float>& rows, int m) {
  std::vector<float> norms(rows.size() / static_cast<size_t>(m));
  for (size_t r = 0; r < norms.size(); ++r) {
    norms[r] =
        Eigen::Map<const Eigen::VectorXf>(&rows[r * static_cast<size_t>(m)], m).squaredNorm();
  }
  return norms;
}

// Y[r*n2 + c] = W row . X2 row
void multiply(const World& world, DenseKernel kernel, int first_row, int rows, float* Y) {
  const int m = world.vec_size;
  const int n2 = static_cast<int>(world.queries.ind.size());
  const float* W = world.words.data() + static_cast<size_t>(first_row) * m;
  if (kernel == DenseKernel::openblas) {
    cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasTrans, rows, n2, m, 1, W, m, world.X2.data(), m,
                0, Y, n2);
    return;
  }
  Eigen::Map<RowMatrix>(Y, rows, n2).noalias() =
      Eigen::Map<const RowMatrix>(W, rows, m) *
      Eigen::Map<const RowMatrix>(world.X2.data(), n2, m).transpose();
}

}  // namespace

void plain_distance_block(const World& world, DenseKernel kernel, int threads,
                          long long block_floats, float* Z) {
  Eigen::setNbThreads(threads);
  const int n2 = static_cast<int>(world.queries.ind.size());
  const int docs2 = world.num_queries;
  const std::vector<float> RW = squared_norms(world.words, world.vec_size);
  const std::vector<float> Rn2 = squared_norms(world.X2, world.vec_size);
  const int rows_most = rows_per_block(world, block_floats);
  const std::unique_ptr<float[]> Y(new float[static_cast<size_t>(rows_most) * n2]);
  RowMatrix minval2(world.voc_size, docs2);
  for (int offset = 0; offset < world.voc_size; offset += rows_most) {
    const int rows = std::min(rows_most, world.voc_size - offset);
    multiply(world, kernel, offset, rows, Y.get());
#pragma omp parallel for num_threads(threads)
    for (int r = 0; r < rows; ++r) {
      float* y = Y.get() + static_cast<size_t>(r) * n2;
      for (int c = 0; c < n2; ++c) {
        y[c] = std::sqrt(std::fabs((-2 * y[c] + RW[offset + r]) + Rn2[c]));
      }
    }
#pragma omp parallel for num_threads(threads)
    for (int r = 0; r < rows; ++r) {
      const float* y = Y.get() + static_cast<size_t>(r) * n2;
      for (int d = 0; d < docs2; ++d) {
        float smallest = far_away;
        for (int c = world.queries.start[d]; c < world.queries.start[d + 1]; ++c) {
          if (y[c] < smallest) smallest = y[c];
        }
        minval2(offset + r, d) = smallest;
      }
    }
  }
  RowMatrix distances(world.num_resident, docs2);
  sparse_product(world.resident, world.voc_size, minval2.data(), docs2, threads, distances.data());
  Eigen::Map<Eigen::MatrixXf>(Z, world.num_resident, docs2) = distances;
}

void dense_product(const World& world, long long block_floats, float* Y) {
  const int rows_most = rows_per_block(world, block_floats);
  for (int offset = 0; offset < world.voc_size; offset += rows_most) {
    multiply(world, DenseKernel::openblas, offset, std::min(rows_most, world.voc_size - offset), Y);
  }
}

void sparse_product(const SparseRows& rows, int voc_size, const float* table, int cols, int threads,
                    float* product) {
  Eigen::setNbThreads(threads);
  const auto docs = static_cast<Eigen::Index>(rows.start.size()) - 1;
  const Eigen::Map<const Eigen::SparseMatrix<float, Eigen::RowMajor>> sparse(
      docs, voc_size, static_cast<Eigen::Index>(rows.ind.size()), rows.start.data(),
      rows.ind.data(), rows.weight.data());
  Eigen::Map<RowMatrix>(product, docs, cols).noalias() =
      sparse * Eigen::Map<const RowMatrix>(table, voc_size, cols);
}

}  // namespace talvik::bench
