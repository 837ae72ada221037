// Distances of single pairs, and what they are made of.
#include <algorithm>

#include "internal/team.hpp"
#include "search/checks.hpp"
#include "search/ticker.hpp"
#include "talvik/search.hpp"

namespace talvik {
namespace {

constexpr Count pairs_at_a_time = 16;  // that a thread takes

}  // namespace

std::vector<double> distances(const Collection& collection, const Collection& queries,
                              std::span<const Pair> pairs, const SearchOptions& options) {
  const int threads = internal::team_threads(options);
  const internal::DistanceCheck conditions(collection, queries, options.distance);
  const Count total = static_cast<Count>(pairs.size());
  std::vector<double> result(pairs.size());
  internal::Ticker ticker(options, total);
  std::vector<internal::PairDistance> pair(threads);
  const Count groups = (total + pairs_at_a_time - 1) / pairs_at_a_time;
  internal::for_each_item(threads, groups, [&](Count group, int thread) {
    const Count first = group * pairs_at_a_time;
    const Count last = std::min(first + pairs_at_a_time, total);
    for (Count p = first; p < last; ++p) {
      const auto [document, query] = pairs[p];
      internal::DistanceCheck check = conditions;
      check.document(document);
      check.query(query);
      result[p] = pair[thread].distance(internal::view_of(collection, document),
                                        internal::view_of(queries, query), options.distance);
    }
    ticker.add_done(last - first);
    ticker.tick(thread);
  });
  return result;
}

Explanation explain(const Collection& collection, Count document, const Collection& queries,
                    Count query, const Distance& distance) {
  internal::DistanceCheck check(collection, queries, distance);
  check.document(document);
  check.query(query);
  const internal::DocumentView resident = internal::view_of(collection, document);
  const internal::DocumentView asked = internal::view_of(queries, query);
  internal::PairFlows parts = internal::PairDistance().flows(resident, asked, distance);
  std::stable_sort(parts.flows.begin(), parts.flows.end(), [](const auto& a, const auto& b) {
    return a.weight * a.distance > b.weight * b.distance;
  });
  const auto& from = parts.from_query ? asked : resident;
  const auto& to = parts.from_query ? resident : asked;
  Explanation result{parts.distance, parts.from_query, {}};
  result.flows.reserve(parts.flows.size());
  for (const internal::EntryFlow& flow : parts.flows) {
    result.flows.push_back({from.words[flow.from], to.words[flow.to], flow.weight, flow.distance});
  }
  return result;
}

}  // namespace talvik
