// Classification by the neighbours' classes: the error of the majority vote.
#ifndef TALVIK_TOOL_MAJORITY_VOTE_HPP
#define TALVIK_TOOL_MAJORITY_VOTE_HPP

#include <algorithm>
#include <utility>
#include <vector>

#include "result_lists.hpp"
#include "talvik.hpp"

namespace talvik::tool {

/// 1, 3, 5, 9, 17, ... up to k: odd, so that two classes do not tie.
inline std::vector<int> vote_sizes(int k) {
  std::vector<int> sizes;
  if (k >= 1) sizes.push_back(1);
  for (long long step = 2; step + 1 <= k; step *= 2) sizes.push_back(static_cast<int>(step) + 1);
  return sizes;
}

/// Fraction of queries whose neighbours vote for another class than their own, for every number of
/// voters.  Of tied classes the one with the nearest member wins.
/// @param sizes       ascending; at most the list length without a skipped entry
/// @param skip_first  entry 0 of every list does not vote
inline std::vector<double> vote_errors(const ResultLists& lists, const std::vector<int>& sizes,
                                       bool skip_first, const LabelList& query_classes,
                                       const LabelList& resident_classes) {
  std::vector<double> errors(sizes.size(), 0.0);
  std::vector<std::pair<unsigned long, int>> votes;  // classes in the order of their nearest member
  for (int q = 0; q < lists.num_queries; ++q) {
    const int* neighbours =
        lists.neighbours.data() + internal::elements(q, lists.k) + (skip_first ? 1 : 0);
    votes.clear();
    int voters = 0;
    for (size_t s = 0; s < sizes.size(); ++s) {
      for (; voters < sizes[s]; ++voters) {
        const unsigned long label = resident_classes[neighbours[voters]];
        const auto known = std::find_if(votes.begin(), votes.end(),
                                        [label](const auto& vote) { return vote.first == label; });
        if (known == votes.end()) {
          votes.emplace_back(label, 1);
        } else {
          ++known->second;
        }
      }
      const auto winner =  // the first of equals
          std::max_element(votes.begin(), votes.end(),
                           [](const auto& a, const auto& b) { return a.second < b.second; });
      if (winner->first != query_classes[q]) errors[s] += 1.0;
    }
  }
  for (double& error : errors) error /= std::max(lists.num_queries, 1);
  return errors;
}

}  // namespace talvik::tool

#endif
