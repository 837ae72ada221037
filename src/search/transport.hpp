// The optimal transport between two small sets, by the network simplex on whole numbers.
#ifndef TALVIK_SEARCH_TRANSPORT_HPP
#define TALVIK_SEARCH_TRANSPORT_HPP

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace talvik::internal {

/// Weights in whole numbers; those of one side sum to transport_mass.  A double holds every one.
using Mass = std::int64_t;
inline constexpr Mass transport_mass = Mass{1} << 52;

/// What moves from one entry to another.
struct MassFlow {
  int from, to;
  Mass mass;
};

/// Solves transport problems; keeps its working memory, within bounds, from one to the next.
class Transport {
 public:
  Transport();
  Transport(Transport&&) noexcept;
  Transport& operator=(Transport&&) noexcept;
  ~Transport();

  /// Appends the flows of a transport of least cost, by ascending `from`, then `to`.
  ///
  /// The simplex counts in 64 bits, so it always ends and nothing in it rounds: costs are scaled by
  /// the power of two that gives the largest one all the bits that sums along a path leave, at most
  /// 52, and rounded; a cost above 0 stays above 0.
  /// @param supply, demand  positive, of equal sums of at most transport_mass
  /// @param costs           from supply i to demand j at i*demand.size() + j; finite, not negative
  /// @throws ArgumentError  more arcs than the solver can number
  void solve(std::span<const Mass> supply, std::span<const Mass> demand,
             std::span<const double> costs, std::vector<MassFlow>& flows);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace talvik::internal

#endif
