#include "search/checks.hpp"

#include <fmt/format.h>
#include <omp.h>

#include <algorithm>
#include <numeric>

#include "talvik/error.hpp"

namespace talvik::internal {
namespace {

std::string name_of(const char* role, const Collection& collection, Count number) {
  return fmt::format("{} {} ({})", role, number, collection.id(number));
}

}  // namespace

DocumentView view_of(const Collection& collection, Count document) {
  const Count first = collection.offsets()[document];
  const Count entries = collection.offsets()[document + 1] - first;
  return {collection.vocabulary().table(), collection.words().subspan(first, entries),
          collection.weights().subspan(first, entries)};
}

DistanceCheck::DistanceCheck(const Collection& collection, const Collection& queries,
                             const Distance& distance)
    : collection_(collection), queries_(queries), distance_(distance) {
  if (distance.steps < 0) {
    throw ArgumentError("steps", fmt::format("{}, must not be negative", distance.steps));
  }
  const Vectors& ours = collection.vocabulary();
  const Vectors& theirs = queries.vocabulary();
  if (ours.size() == 0 || theirs.size() == 0) return;  // there, no document has an entry
  if (ours.dimensions() != theirs.dimensions()) {
    throw ArgumentError("queries", fmt::format("vectors of {} dimensions, the collection's have {}",
                                               theirs.dimensions(), ours.dimensions()));
  }
  if (ours.unit_length() != theirs.unit_length()) {
    throw ArgumentError(
        "queries", fmt::format("vectors {}, the collection's are {}",
                               theirs.unit_length() ? "scaled to length 1" : "as they were read",
                               ours.unit_length() ? "scaled" : "not scaled"));
  }
}

void DistanceCheck::check(const Collection& collection, Count number, const char* role) {
  if (number < 0 || number >= collection.size()) {
    throw ArgumentError(
        role, fmt::format("{}, must be at least 0 and below {}", number, collection.size()));
  }
  if (distance_.measure != Measure::exact) return;
  const std::span<const float> weights = view_of(collection, number).weights;
  if (weights.empty()) return;
  const double sum = std::accumulate(weights.begin(), weights.end(), 0.0);
  const Sum found = {sum, &collection, number, role};
  if (!least_.of || sum < least_.value) least_ = found;
  if (!most_.of || sum > most_.value) most_ = found;
  if (most_.value - least_.value > tolerated_difference_of_masses * most_.value) {
    throw ArgumentError("distance",
                        fmt::format("exact distances need weights of the same sum: {} sums to {}, "
                                    "{} to {}",
                                    name_of(least_.role, *least_.of, least_.number), least_.value,
                                    name_of(most_.role, *most_.of, most_.number), most_.value));
  }
}

void check_distance(const Collection& collection, const Collection& queries,
                    const Distance& distance) {
  DistanceCheck check(collection, queries, distance);
  for (Count i = 0; i < collection.size(); ++i) check.document(i);
  for (Count q = 0; q < queries.size(); ++q) check.query(q);
}

int team_threads(const SearchOptions& options) {
  if (options.threads < 0) {
    throw ArgumentError("threads", fmt::format("{}, must not be negative", options.threads));
  }
  return options.threads > 0 ? options.threads : omp_get_max_threads();
}

}  // namespace talvik::internal
