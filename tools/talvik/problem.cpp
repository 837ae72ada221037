// Collections: counts, choices, self runs.
#include "problem.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <limits>

#include "run_error.hpp"

namespace talvik::tool {

void finish_collection(LoadedCollection& collection, const std::string& source) {
  constexpr long long most = std::numeric_limits<int>::max();
  collection.entries = 0;
  for (const Document& doc : collection.docs) {
    collection.entries += static_cast<long long>(doc.size());
  }
  if (static_cast<long long>(collection.docs.size()) >= most || collection.entries > most) {
    throw RunError(fmt::format("{}: {} documents with {} entries are more than one run can hold",
                               source, collection.docs.size(), collection.entries));
  }
}

void make_self_run(Problem& problem, int limit) {
  const LoadedCollection& all = problem.resident;
  problem.self_of_query = choose_spread(static_cast<int>(all.docs.size()), limit);
  LoadedCollection& queries = problem.queries;
  queries = {};
  for (const int number : problem.self_of_query) {
    const auto at = static_cast<size_t>(number);
    queries.docs.push_back(all.docs[at]);
    queries.ids.push_back(all.ids[at]);
    queries.classes.push_back(all.classes[at]);
    queries.entries += static_cast<long long>(all.docs[at].size());
  }
}

std::vector<int> choose_spread(int count, int limit) {
  const int chosen = limit > 0 ? std::min(limit, count) : count;
  std::vector<int> numbers(static_cast<size_t>(chosen));
  for (int i = 0; i < chosen; ++i) {
    numbers[static_cast<size_t>(i)] = static_cast<int>(static_cast<long long>(i) * count / chosen);
  }
  return numbers;
}

int count_used_words(const Problem& problem) {
  std::vector<bool> used(static_cast<size_t>(problem.voc_size), false);
  for (const LoadedCollection* collection : {&problem.resident, &problem.queries}) {
    for (const Document& doc : collection->docs) {
      for (const auto& entry : doc) used[entry.first] = true;
    }
  }
  return static_cast<int>(std::count(used.begin(), used.end(), true));
}

int count_shared_ids(const LabelList& ids) {
  LabelList sorted = ids;
  std::sort(sorted.begin(), sorted.end());
  int shared = 0;
  for (size_t at = 0; at < sorted.size();) {
    const auto next = std::upper_bound(sorted.begin() + static_cast<std::ptrdiff_t>(at),
                                       sorted.end(), sorted[at]);
    const auto end = static_cast<size_t>(next - sorted.begin());
    if (end - at > 1) ++shared;
    at = end;
  }
  return shared;
}

int largest_group(const LoadedCollection& collection) {
  cleanup_distribution_info();
  load_balancing(collection.docs, static_cast<int>(collection.docs.size()),
                 static_cast<int>(collection.entries));
  const int largest = *std::max_element(grp_length, grp_length + num_procs);
  cleanup_distribution_info();
  return largest;
}

}  // namespace talvik::tool
