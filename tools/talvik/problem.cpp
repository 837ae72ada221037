// Collections: counts, choices, self runs.
#include "problem.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <limits>

#include "run_error.hpp"
#include "talvik/split.hpp"

namespace talvik::tool {

void finish_collection(LoadedCollection& collection, const std::string& source) {
  constexpr long long most = std::numeric_limits<int>::max();
  collection.entries = 0;
  for (const Document& doc : collection.docs) collection.entries += std::ssize(doc);
  if (std::ssize(collection.docs) >= most || collection.entries > most) {
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
    queries.docs.push_back(all.docs[number]);
    queries.ids.push_back(all.ids[number]);
    queries.classes.push_back(all.classes[number]);
    queries.entries += std::ssize(all.docs[number]);
  }
}

std::vector<int> choose_spread(int count, int limit) {
  const int chosen = limit > 0 ? std::min(limit, count) : count;
  std::vector<int> numbers;
  numbers.reserve(chosen);
  for (long long i = 0; i < chosen; ++i) numbers.push_back(static_cast<int>(i * count / chosen));
  return numbers;
}

int count_used_words(const Problem& problem) {
  std::vector<bool> used(problem.voc_size, false);
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
  for (auto at = sorted.begin(); at != sorted.end();) {
    const auto next = std::upper_bound(at, sorted.end(), *at);
    if (next - at > 1) ++shared;
    at = next;
  }
  return shared;
}

int largest_group(const LoadedCollection& collection) {
  const auto groups =
      internal::split_documents(collection.docs, static_cast<int>(collection.docs.size()),
                                static_cast<int>(collection.entries), num_procs);
  return std::max_element(groups.begin(), groups.end(),
                          [](const auto& a, const auto& b) { return a.length < b.length; })
      ->length;
}

void split_over_processes(const LoadedCollection& collection) {
  cleanup_distribution_info();
  load_balancing(collection.docs, static_cast<int>(collection.docs.size()),
                 static_cast<int>(collection.entries));
}

}  // namespace talvik::tool
