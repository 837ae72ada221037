#include "search/dual_bound.hpp"

#include <Eigen/Core>
#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

#include "internal/index.hpp"

namespace talvik::internal {
namespace {

// The smoothing, as a share of the mean cost, and the rounds.  On documents of 80 to 150 words the
// bound is 99.3 % of the cost in the median; with three fifths of the smoothing and twice the
// rounds 99.6 %, which spares no solution that is worth them.
constexpr double smoothing = 0.045;
constexpr int rounds = 10;

// Sums of the kernel may underflow.
constexpr float least = 1e-37f;

std::vector<float> shares(std::span<const Mass> masses) {
  const double sum = static_cast<double>(std::accumulate(masses.begin(), masses.end(), Mass{0}));
  std::vector<float> shares;
  for (const Mass mass : masses)
    shares.push_back(static_cast<float>(static_cast<double>(mass) / sum));
  return shares;
}

double moved(std::span<const Mass> masses, const std::vector<double>& potentials) {
  double sum = 0;
  for (std::size_t i = 0; i < masses.size(); ++i) {
    sum += static_cast<double>(masses[i]) * potentials[i];
  }
  return sum;
}

}  // namespace

double DualBound::operator()(std::span<const Mass> supply, std::span<const Mass> demand,
                             std::span<const double> costs) {
  using Matrix = Eigen::Array<float, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
  using Costs = Eigen::Array<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
  const auto rows = static_cast<Index>(supply.size()), cols = static_cast<Index>(demand.size());
  const Eigen::Map<const Costs> cost(costs.data(), rows, cols);
  u_.assign(rows, 0);
  v_.assign(cols, 0);
  if (const double mean = cost.mean(); mean > 0) {
    supply_ = shares(supply);
    demand_ = shares(demand);
    kernel_.resize(elements(rows, cols));
    Eigen::Map<Matrix> kernel(kernel_.data(), rows, cols);
    const double unit = smoothing * mean;
    kernel = (cost * (-1 / unit)).cast<float>().exp();
    const Eigen::Map<const Eigen::ArrayXf> a(supply_.data(), rows), b(demand_.data(), cols);
    Eigen::ArrayXf x(rows), y = Eigen::ArrayXf::Ones(cols);
    for (int round = 0; round < rounds; ++round) {
      x = a / (kernel.matrix() * y.matrix()).array().max(least);
      y = b / (kernel.matrix().transpose() * x.matrix()).array().max(least);
    }
    for (Index j = 0; j < cols; ++j) v_[j] = unit * std::log(std::max(y[j], least));
  }
  const Eigen::Map<const Eigen::ArrayXd> v(v_.data(), cols);
  for (Index i = 0; i < rows; ++i) u_[i] = (cost.row(i).transpose() - v).minCoeff();
  std::fill(v_.begin(), v_.end(), std::numeric_limits<double>::infinity());
  Eigen::Map<Eigen::ArrayXd> fitting(v_.data(), cols);
  for (Index i = 0; i < rows; ++i) fitting = fitting.min(cost.row(i).transpose() - u_[i]);
  // Potentials may be far larger than the cost, and cancel.
  constexpr double rounding = 1e-12;
  const auto magnitude = [](std::vector<double> potentials) {
    for (double& potential : potentials) potential = std::fabs(potential);
    return potentials;
  };
  return moved(supply, u_) + moved(demand, v_) -
         rounding * (moved(supply, magnitude(u_)) + moved(demand, magnitude(v_)));
}

}  // namespace talvik::internal
