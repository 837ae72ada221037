// Neighbour lists of a whole query collection, and what is done to them without any process group.
#ifndef TALVIK_TOOL_RESULT_LISTS_HPP
#define TALVIK_TOOL_RESULT_LISTS_HPP

#include <algorithm>
#include <vector>

#include "internal/index.hpp"

namespace talvik::tool {

/// Row q starts at q*k: resident document numbers and distances, nearest first.
struct ResultLists {
  int num_queries = 0;
  int k = 0;
  std::vector<int> neighbours;   // num_queries x k
  std::vector<float> distances;  // num_queries x k
};

inline ResultLists empty_lists(int num_queries, int k) {
  const internal::Index size = internal::elements(num_queries, k);
  return {num_queries, k, std::vector<int>(size, 0), std::vector<float>(size, 0.0f)};
}

/// Moves every query's own resident document to the front of its list, so that what follows are its
/// neighbours.  A duplicate may stand before it; where duplicates have pushed it out of the list
/// altogether, it takes the place of the last.
/// @param self_of_query  resident document number of every query
inline void put_self_first(ResultLists& lists, const std::vector<int>& self_of_query) {
  if (lists.k == 0) return;
  for (int q = 0; q < lists.num_queries; ++q) {
    const internal::Index row = internal::elements(q, lists.k);
    const auto first = lists.neighbours.begin() + row;
    const auto found = std::find(first, first + lists.k, self_of_query[q]);
    const bool pushed_out = found == first + lists.k;
    const auto place = pushed_out ? lists.k - 1 : found - first;
    const auto distance = lists.distances.begin() + row;
    if (pushed_out) {
      first[place] = self_of_query[q];
      distance[place] = 0;
    }
    std::rotate(first, first + place, first + place + 1);
    std::rotate(distance, distance + place, distance + place + 1);
  }
}

}  // namespace talvik::tool

#endif
