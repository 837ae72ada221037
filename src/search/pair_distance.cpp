#include "search/pair_distance.hpp"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

#include "internal/index.hpp"
#include "libwmd/cpu/sizes.hpp"  // nearest_of_document

namespace talvik::internal {
namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();

bool either_empty(const DocumentView& document, const DocumentView& query) {
  return document.words.empty() || query.words.empty();
}

double sum_of(std::span<const float> weights) {
  return std::accumulate(weights.begin(), weights.end(), 0.0);
}

// The weights as shares of transport_mass, each within 1 of its own.  Shares of what has gone by so
// far are rounded, not the weights, so that nothing is left over.
void to_masses(std::span<const float> weights, std::vector<Mass>& masses) {
  const double per_weight = static_cast<double>(transport_mass) / sum_of(weights);
  masses.resize(weights.size());
  double gone = 0;
  Mass given = 0;
  for (std::size_t i = 0; i < weights.size(); ++i) {
    gone += weights[i];
    const bool last = i + 1 == weights.size();
    const Mass due =
        last ? transport_mass : std::min<Mass>(std::llrint(gone * per_weight), transport_mass);
    masses[i] = due - given;
    given = due;
  }
}

// Calls visit(entry, weight, distance) for what one word moves to each of its nearest entries. They
// are looked for one by one: a word's weight is often used up after two or three.
// @param distances  to every entry; overwritten
template <class Visit>
void move_word(std::span<double> distances, std::span<const float> capacities, int nearest,
               double weight, const Visit& visit) {
  for (int t = 1;; ++t) {
    const auto least = std::min_element(distances.begin(), distances.end());
    const Index j = least - distances.begin();
    if (t == nearest || weight <= capacities[j]) return visit(static_cast<int>(j), weight, *least);
    visit(static_cast<int>(j), capacities[j], *least);
    weight -= capacities[j];
    *least = infinity;
  }
}

}  // namespace

void PairDistance::fill_distances(const DocumentView& document, const DocumentView& query,
                                  talvik::Metric metric) {
  distances_.resize(document.words.size() * query.words.size());
  word_distances(
      metric, {document.vectors.rows.data(), document.vectors.dimensions, document.words},
      {query.vectors.rows.data(), query.vectors.dimensions, query.words}, rows_, distances_.data());
}

// Calls visit(from, to, weight, distance), by entry.
template <class Visit>
void PairDistance::move_words(bool from_query, const DocumentView& document,
                              const DocumentView& query, int steps, const Visit& visit) {
  const Index cols = static_cast<Index>(query.words.size());
  const DocumentView& from = from_query ? query : document;
  const DocumentView& to = from_query ? document : query;
  const int entries = static_cast<int>(to.words.size());
  const int nearest = nearest_of_document(steps, entries);
  of_word_.resize(entries);
  for (int i = 0; i < static_cast<int>(from.words.size()); ++i) {
    for (Index j = 0; j < entries; ++j) {
      of_word_[j] = distances_[from_query ? j * cols + i : i * cols + j];
    }
    move_word(of_word_, to.weights, nearest, from.weights[i],
              [&](int j, double weight, double distance) { visit(i, j, weight, distance); });
  }
}

// The cost of the words of one side, each to the nearest word as a whole.
double PairDistance::sum_of_nearest(bool from_query, const DocumentView& document,
                                    const DocumentView& query) {
  const Index rows = static_cast<Index>(document.words.size());
  const Index cols = static_cast<Index>(query.words.size());
  double sum = 0;
  if (!from_query) {
    for (Index i = 0; i < rows; ++i) {
      const double* row = distances_.data() + i * cols;
      sum += document.weights[i] * *std::min_element(row, row + cols);
    }
    return sum;
  }
  of_word_.assign(cols, infinity);
  for (Index i = 0; i < rows; ++i) {
    const double* row = distances_.data() + i * cols;
    for (Index j = 0; j < cols; ++j) of_word_[j] = std::min(row[j], of_word_[j]);
  }
  for (Index j = 0; j < cols; ++j) sum += query.weights[j] * of_word_[j];
  return sum;
}

double PairDistance::sum_of_words(bool from_query, const DocumentView& document,
                                  const DocumentView& query, int steps) {
  if (steps == 0) return sum_of_nearest(from_query, document, query);
  double sum = 0;
  move_words(from_query, document, query, steps,
             [&](int, int, double weight, double distance) { sum += weight * distance; });
  return sum;
}

double PairDistance::relaxed_sum(const DocumentView& document, const DocumentView& query,
                                 const Distance& distance) {
  if (either_empty(document, query)) return infinity;
  fill_distances(document, query, distance.metric);
  const auto sum = [&](bool from_query) {
    return sum_of_words(from_query, document, query, distance.steps);
  };
  switch (distance.measure) {
    case Measure::one_way:
      return sum(false);
    case Measure::other_way:
      return sum(true);
    default:
      return std::max(sum(false), sum(true));
  }
}

// Equal rows keep what both documents have of them: by the triangle inequality there is an optimal
// transport that does.
void PairDistance::keep_equal_words() {
  const int cols = static_cast<int>(demand_.size());
  for (int i = 0; i < static_cast<int>(supply_.size()); ++i) {
    const double* row = distances_.data() + elements(i, cols);
    for (int j = 0; j < cols && supply_[i] > 0; ++j) {
      if (row[j] > 0 || demand_[j] == 0) continue;
      const Mass kept = std::min(supply_[i], demand_[j]);
      transport_.push_back({i, j, kept});
      supply_[i] -= kept;
      demand_[j] -= kept;
    }
  }
}

// What the solver is to see; false where there is nothing to choose, or nothing left.
bool PairDistance::collect_rest() {
  const auto collect = [](const std::vector<Mass>& masses, std::vector<int>& entries,
                          std::vector<Mass>& rest) {
    entries.clear();
    rest.clear();
    for (int i = 0; i < static_cast<int>(masses.size()); ++i) {
      if (masses[i] == 0) continue;
      entries.push_back(i);
      rest.push_back(masses[i]);
    }
  };
  collect(supply_, sources_, source_mass_);
  collect(demand_, sinks_, sink_mass_);
  if (sources_.size() <= 1 || sinks_.size() <= 1) return false;
  costs_.clear();
  for (const int i : sources_) {
    const double* row = distances_.data() + elements(i, static_cast<Index>(demand_.size()));
    for (const int j : sinks_) costs_.push_back(row[j]);
  }
  return true;
}

// Moves the rest of supply and demand at least cost.
void PairDistance::move_rest() {
  const std::size_t first = transport_.size();
  if (collect_rest()) {
    solver_.solve(source_mass_, sink_mass_, costs_, transport_);
  } else {
    for (int i = 0; i < static_cast<int>(sources_.size()); ++i) {
      for (int j = 0; j < static_cast<int>(sinks_.size()); ++j) {
        transport_.push_back({i, j, std::min(source_mass_[i], sink_mass_[j])});
      }
    }
  }
  for (std::size_t f = first; f < transport_.size(); ++f) {
    transport_[f].from = sources_[transport_[f].from];
    transport_[f].to = sinks_[transport_[f].to];
  }
}

void PairDistance::prepare_transport(const DocumentView& document, const DocumentView& query,
                                     talvik::Metric metric) {
  fill_distances(document, query, metric);
  to_masses(document.weights, supply_);
  to_masses(query.weights, demand_);
  transport_.clear();
  // The cosine breaks the triangle inequality: a detour by an equal word may be cheaper.
  if (metric == talvik::Metric::euclidean) keep_equal_words();
}

void PairDistance::find_transport(const DocumentView& document, const DocumentView& query,
                                  talvik::Metric metric) {
  prepare_transport(document, query, metric);
  move_rest();
}

double PairDistance::exact_bound(const DocumentView& document, const DocumentView& query,
                                 talvik::Metric metric) {
  if (either_empty(document, query)) return infinity;
  prepare_transport(document, query, metric);
  if (!collect_rest()) return 0;
  // What the solver rounds of the costs.
  constexpr double rounding = 1e-9;
  const double cost = dual_bound_(source_mass_, sink_mass_, costs_);
  return std::max(0.0, cost * (1 - rounding)) *
         (sum_of(document.weights) / static_cast<double>(transport_mass));
}

double PairDistance::exact(const DocumentView& document, const DocumentView& query,
                           talvik::Metric metric) {
  if (either_empty(document, query)) return infinity;
  find_transport(document, query, metric);
  const Index cols = static_cast<Index>(query.words.size());
  double cost = 0;
  for (const MassFlow& flow : transport_) {
    cost += static_cast<double>(flow.mass) * distances_[flow.from * cols + flow.to];
  }
  return cost * (sum_of(document.weights) / static_cast<double>(transport_mass));
}

PairFlows PairDistance::flows(const DocumentView& document, const DocumentView& query,
                              const Distance& distance) {
  PairFlows result;
  if (distance.measure == Measure::exact) {
    result.distance = exact(document, query, distance.metric);
    if (std::isinf(result.distance)) return result;
    const Index cols = static_cast<Index>(query.words.size());
    const double weight = sum_of(document.weights) / static_cast<double>(transport_mass);
    for (const MassFlow& flow : transport_) {
      result.flows.push_back({flow.from, flow.to, static_cast<double>(flow.mass) * weight,
                              distances_[flow.from * cols + flow.to]});
    }
    return result;
  }
  result.distance = relaxed_sum(document, query, distance);
  if (std::isinf(result.distance)) return result;
  const auto sum = [&](bool from_query) {
    return sum_of_words(from_query, document, query, distance.steps);
  };
  result.from_query = distance.measure == Measure::other_way ||
                      (distance.measure == Measure::two_way && sum(true) > sum(false));
  move_words(result.from_query, document, query, distance.steps,
             [&](int from, int to, double weight, double word_distance) {
               if (weight != 0) result.flows.push_back({from, to, weight, word_distance});
             });
  return result;
}

}  // namespace talvik::internal
