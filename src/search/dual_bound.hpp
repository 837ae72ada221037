// A lower bound of the cost of transport that is close, and far cheaper than the cost itself.
#ifndef TALVIK_SEARCH_DUAL_BOUND_HPP
#define TALVIK_SEARCH_DUAL_BOUND_HPP

#include <span>
#include <vector>

#include "search/transport.hpp"

namespace talvik::internal {

/// By the duality of Kantorovich, every u and v with u_i + v_j <= cost_ij bound the cost of all
/// transports of the supply to the demand:
///   sum of supply_i u_i + sum of demand_j v_j <= cost
/// Some rounds of Sinkhorn's scaling, which solves the problem smoothed by an entropy term (M.
/// Cuturi, Sinkhorn Distances: Lightspeed Computation of Optimal Transport, 2013), give a v that is
/// nearly the best; u_i = min_j (cost_ij - v_j) and then v_j = min_i (cost_ij - u_i) make the two
/// fit the costs, however rough the rounds were.
class DualBound {
 public:
  /// @param supply, demand  positive, of equal sums
  /// @param costs           from supply i to demand j at i*demand.size() + j; finite, not negative
  /// @return a lower bound in units of mass x cost; may be below 0
  double operator()(std::span<const Mass> supply, std::span<const Mass> demand,
                    std::span<const double> costs);

 private:
  std::vector<float> kernel_, supply_, demand_;
  std::vector<double> u_, v_;
};

}  // namespace talvik::internal

#endif
