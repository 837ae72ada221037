#include "search/query_search.hpp"

#include <algorithm>
#include <cmath>
#include <limits>

#include "search/timer.hpp"

namespace talvik::internal {
namespace {

// Candidates that are refined together: first few, since the limit that they give spares others,
// then more, since their products are cheaper together.
constexpr Count first_group_least = 64;
constexpr Index group_most = 1024;

bool is_lower(const Pending& a, const Pending& b) {
  return a.lower != b.lower ? a.lower > b.lower : a.document > b.document;  // smallest in front
}

void push(const Pending& candidate, QueryState& state) {
  if (candidate.lower > state.answer.limit()) return;
  state.pending.push_back(candidate);
  std::push_heap(state.pending.begin(), state.pending.end(), is_lower);
}

}  // namespace

QuerySearch::QuerySearch(const SearchTask& task, Count first_document, int processes)
    : task_(task), first_document_(first_document), processes_(processes), refiner_(task.refine) {}

void QuerySearch::refine(const Range& block, std::span<const Candidate> candidates, float* z,
                         QueryState& state) {
  const Timer timer(counts_.refine_seconds);
  documents_.clear();
  for (const auto& [bound, i] : candidates) {
    documents_.push_back({.document = block.first + i, .first_upper = task_.upper_bound(bound)});
    z[i] = std::numeric_limits<float>::infinity();  // no candidate any more
  }
  bounds_.resize(documents_.size());
  refiner_.refine(documents_, bounds_.data());
  counts_.refined += std::ssize(documents_);
  if (task_.distance.measure != Measure::exact && task_.k != no_limit) {
    for (const DistanceBounds& bounds : bounds_) state.answer.offer_upper_bound(bounds.upper);
  }
  for (size_t i = 0; i < documents_.size(); ++i) {
    const double lower = bounds_[i].lower * task_.refined_scale;
    push({.lower = lower, .document = documents_[i].document}, state);
  }
}

// Before a transport problem is solved, its dual bound says whether it has to be.
void QuerySearch::raise_bound(const Pending& candidate, QueryState& state) {
  const Timer timer(counts_.solve_seconds);
  ++counts_.dual_bounds;
  const double lower =
      pair_.exact_bound(view_of(task_.refine.resident.documents(), candidate.document),
                        view_of(task_.refine.queries.documents(), query_), task_.distance.metric);
  push({.lower = std::max(lower, candidate.lower), .document = candidate.document, .dual = true},
       state);
}

void QuerySearch::settle(Count document, QueryState& state) {
  const Timer timer(counts_.solve_seconds);
  ++(task_.distance.measure == Measure::exact ? counts_.solved : counts_.settled);
  const double distance =
      pair_.distance(view_of(task_.refine.resident.documents(), document),
                     view_of(task_.refine.queries.documents(), query_), task_.distance);
  state.answer.add({distance, first_document_ + document});
}

// Settles candidates in the order of their bounds, as long as no other one has a lower bound.
void QuerySearch::settle_pending(double next_bound, Count most, QueryState& state) {
  std::vector<Pending>& pending = state.pending;
  for (Count settled = 0; settled < most && !pending.empty();) {
    const Pending nearest = pending.front();
    if (nearest.lower > next_bound) return;
    if (nearest.lower > state.answer.limit()) return pending.clear();
    std::pop_heap(pending.begin(), pending.end(), is_lower);
    pending.pop_back();
    if (task_.distance.measure == Measure::exact && !nearest.dual) {
      raise_bound(nearest, state);
    } else {
      settle(nearest.document, state);
      ++settled;
    }
  }
}

void QuerySearch::begin_block(const Range& block, float* z, Count solutions, QueryState& state) {
  constexpr Count per_neighbour = 4;
  constexpr Count wanted_least = 16;
  const Count all =
      std::max(first_group_least, std::min<Count>(task_.k, group_most) * per_neighbour);
  const Count wanted = std::max((all + processes_ - 1) / processes_, wanted_least);
  const auto count = static_cast<int>(std::min<Count>(wanted, block.count));
  select_smallest(z, block.count, count, candidates_);
  std::erase_if(candidates_, [&](const Candidate& candidate) {
    return !std::isfinite(candidate.first) ||
           task_.lower_bound(candidate.first) > state.answer.limit();
  });
  refine(block, candidates_, z, state);
  if (solutions > 0 && task_.distance.measure == Measure::exact) {
    settle_pending(std::numeric_limits<double>::infinity(), solutions, state);
  }
}

// The documents of the block that are left and may belong to the answer, in the order of the bound.
void QuerySearch::collect(const Range& block, const float* z, double limit) {
  candidates_.clear();
  const double highest_bound = (limit + task_.bound_margin) / task_.bound_scale;
  // The next float: the limit's own rounding must not cut.
  const float highest =
      std::nextafter(static_cast<float>(highest_bound), std::numeric_limits<float>::max());
  const float most = std::min(highest, std::numeric_limits<float>::max());
  for (int i = 0; i < block.count; ++i) {
    if (z[i] <= most) candidates_.emplace_back(z[i], i);
  }
}

void QuerySearch::go_on(const Range& block, float* z, int groups, QueryState& state) {
  constexpr double infinite = std::numeric_limits<double>::infinity();
  collect(block, z, state.answer.limit());
  std::span<Candidate> left(candidates_);
  const auto nearer = [](const Candidate& a, const Candidate& b) { return a < b; };
  Index group = first_group_least;
  double next_bound = infinite;
  for (;;) {
    // What the limit has fallen below is many, and need not be sorted: the next group is cut off.
    const Index count = std::min(group, std::ssize(left));
    if (count < std::ssize(left))
      std::nth_element(left.begin(), left.begin() + count, left.end(), nearer);
    const auto next = std::min_element(left.begin(), left.begin() + count, nearer);
    next_bound = count == 0 ? infinite : task_.lower_bound(next->first);
    if (next_bound > state.answer.limit()) next_bound = infinite;
    settle_pending(next_bound, no_limit, state);
    if (next_bound == infinite || groups-- == 0) return;
    const auto within_limit = [&](const Candidate& candidate) {
      return task_.lower_bound(candidate.first) <= state.answer.limit();
    };
    const auto last = std::partition(left.begin(), left.begin() + count, within_limit);
    refine(block, {left.begin(), last}, z, state);
    left = left.subspan(count);
    group = std::min(2 * group, group_most);
  }
}

}  // namespace talvik::internal
