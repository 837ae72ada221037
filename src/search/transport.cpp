#include "search/transport.hpp"

#define LEMON_ONLY_TEMPLATES  // nothing of the compiled library is used
#include <fmt/format.h>
#include <lemon/network_simplex.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <cmath>
#include <type_traits>

#include "talvik/error.hpp"

namespace talvik::internal {
namespace {

// All arcs from m sources to n sinks, as LEMON's network simplex sees a digraph: source i is node
// i, sink j node m + j, and arc i*n + j goes from one to the other.  Nothing is stored, so that a
// solver lives on from one size to the next; LEMON's own graphs drop their maps' memory, and at 60
// to 300 words a fifth to a third of the time went into fresh pages.
class CompleteBipartite {
 public:
  int sources = 0, sinks = 0;

  struct Node {
    int id = -1;
    Node() = default;
    Node(lemon::Invalid) {}  // NOLINT(google-explicit-constructor): so are LEMON's own
    explicit Node(int number) : id(number) {}
    bool operator==(const Node&) const = default;
  };
  struct Arc {
    int id = -1, from = 0, to = 0;  // numbers of the source and of the sink
    Arc() = default;
    Arc(lemon::Invalid) {}  // NOLINT(google-explicit-constructor): so are LEMON's own
    bool operator==(const Arc& other) const { return id == other.id; }
  };
  using NodeNumTag = lemon::True;
  using ArcNumTag = lemon::True;
  int nodeNum() const { return sources + sinks; }
  int arcNum() const { return sources * sinks; }
  static Node source(const Arc& arc) { return Node(arc.from); }
  Node target(const Arc& arc) const { return Node(sources + arc.to); }

  struct NodeIt : Node {
    int end;
    explicit NodeIt(const CompleteBipartite& graph)
        : Node(graph.nodeNum() > 0 ? 0 : -1), end(graph.nodeNum()) {}
    NodeIt& operator++() {
      if (++id == end) id = -1;
      return *this;
    }
  };

  // The arcs from sources [from, from_end) to sinks [to, to_end), source by source.
  struct ArcRange : Arc {
    int first_to, to_end, from_end, sinks;
    ArcRange(const CompleteBipartite& graph, int first_from, int past_from, int first, int past_to)
        : first_to(first), to_end(past_to), from_end(past_from), sinks(graph.sinks) {
      from = first_from;
      to = first;
      number();
    }
    void number() { id = from < from_end && to < to_end ? from * sinks + to : -1; }
    ArcRange& operator++() {
      if (++to == to_end) {
        to = first_to;
        ++from;
      }
      number();
      return *this;
    }
  };
  struct ArcIt : ArcRange {
    explicit ArcIt(const CompleteBipartite& g) : ArcRange(g, 0, g.sources, 0, g.sinks) {}
  };
  struct OutArcIt : ArcRange {
    OutArcIt(const CompleteBipartite& g, const Node& node)
        : ArcRange(g, node.id, std::min(node.id + 1, g.sources), 0, g.sinks) {}
  };
  struct InArcIt : ArcRange {
    InArcIt(const CompleteBipartite& g, const Node& node)
        : ArcRange(g, 0, node.id < g.sources ? 0 : g.sources, node.id - g.sources,
                   node.id - g.sources + 1) {}
  };

  // The solver numbers nodes and arcs in the order of NodeIt and ArcIt, which is that of the ids.
  struct OwnNumbers {
    struct Number {
      int id;
      operator int() const { return id; }  // NOLINT(google-explicit-constructor)
      void operator=(int) {}               // NOLINT: nothing to remember
    };
    explicit OwnNumbers(const CompleteBipartite&) {}
    template <class Item>
    Number operator[](const Item& item) const {
      return {item.id};
    }
  };
  template <class T>
  struct NodeValues {
    std::vector<T> values;
    NodeValues(const CompleteBipartite& graph, T value) : values(graph.nodeNum(), value) {}
    decltype(auto) operator[](const Node& node) { return values[node.id]; }
  };
  template <class T>
  using NodeMap = std::conditional_t<std::is_same_v<T, int>, OwnNumbers, NodeValues<T>>;
  template <class T>
  using ArcMap = OwnNumbers;
};

using Solver = lemon::NetworkSimplex<CompleteBipartite, Mass, std::int64_t>;

struct SupplyMap {
  std::span<const Mass> supply, demand;
  Mass operator[](const CompleteBipartite::Node& node) const {
    const std::size_t i = node.id;
    return i < supply.size() ? supply[i] : -demand[i - supply.size()];
  }
};

struct CostMap {
  std::span<const double> costs;
  double scale;
  std::int64_t operator[](const CompleteBipartite::Arc& arc) const {
    const double cost = costs[arc.id];
    return cost > 0 ? std::max<std::int64_t>(std::llrint(cost * scale), 1) : 0;
  }
};

// Potentials are sums of costs along a path of the tree, and one artificial cost of 2^62, which
// must exceed all that a path may save.  So no reduced cost passes 2^62 + (2 nodes + 1) * cost, and
// costs below 2^62 / (2 nodes + 1) neither overflow nor make the artificial arcs attractive.
double cost_scale(std::span<const double> costs, std::uint64_t nodes) {
  constexpr int artificial_cost_bits = 62;
  constexpr int double_bits = 52;
  const int bits = std::min(
      double_bits, artificial_cost_bits - 1 - static_cast<int>(std::bit_width(2 * nodes + 1)));
  int exponent = 0;
  std::frexp(*std::max_element(costs.begin(), costs.end()), &exponent);  // below 2^exponent
  return std::ldexp(1.0, bits - exponent);
}

// Arcs of the largest problem whose memory is kept, 49 bytes each.
constexpr int kept_arcs = 1 << 18;

}  // namespace

struct Transport::State {
  CompleteBipartite graph;
  // Arcs in their order: a block of the search is then one source's arcs.
  Solver solver{graph, /*arc_mixing=*/false};
};

Transport::Transport() = default;
Transport::Transport(Transport&&) noexcept = default;
Transport& Transport::operator=(Transport&&) noexcept = default;
Transport::~Transport() = default;

void Transport::solve(std::span<const Mass> supply, std::span<const Mass> demand,
                      std::span<const double> costs, std::vector<MassFlow>& flows) {
  const std::uint64_t nodes = supply.size() + demand.size();
  if (supply.size() * demand.size() + 2 * nodes > INT_MAX) {  // the solver's artificial arcs, too
    throw ArgumentError("distance", fmt::format("documents of {} and {} words are too large for "
                                                "the exact distance",
                                                supply.size(), demand.size()));
  }
  const int sources = static_cast<int>(supply.size());
  const int sinks = static_cast<int>(demand.size());
  // Out of reach until all has gone well: an exception leaves nothing half done behind.
  std::unique_ptr<State> state = state_ ? std::move(state_) : std::make_unique<State>();
  CompleteBipartite& graph = state->graph;
  Solver& solver = state->solver;
  if (graph.sources != sources || graph.sinks != sinks) {
    graph.sources = sources;
    graph.sinks = sinks;
    solver.reset();
  }
  solver.supplyMap(SupplyMap{supply, demand}).costMap(CostMap{costs, cost_scale(costs, nodes)});
  if (solver.run() != Solver::OPTIMAL) throw Error("", "the transport problem has no solution");
  for (CompleteBipartite::ArcIt arc(graph); arc != lemon::INVALID; ++arc) {
    const Mass mass = solver.flow(arc);
    if (mass > 0) flows.push_back({arc.from, arc.to, mass});
  }
  if (graph.arcNum() <= kept_arcs) state_ = std::move(state);
}

}  // namespace talvik::internal
