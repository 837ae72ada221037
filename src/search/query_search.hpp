// The search for one query among a block of resident documents: bound, refine, stop.
#ifndef TALVIK_SEARCH_QUERY_SEARCH_HPP
#define TALVIK_SEARCH_QUERY_SEARCH_HPP

#include <span>
#include <vector>

#include "libwmd/cpu/select_smallest.hpp"
#include "search/answer.hpp"
#include "search/bound_block.hpp"
#include "search/refiner.hpp"

namespace talvik::internal {

/// What the search for all queries shares.
struct SearchTask {
  RefineTask refine;
  Distance distance;  ///< asked for
  Count k;            ///< or no_limit
  double radius;      ///< or infinite
  /// What is z by the first bound may really be z * bound_scale - bound_margin, or
  /// z / bound_scale + bound_margin.
  double bound_scale, bound_margin;
  /// Refined bounds are lowered by this factor, where masses are equal only up to rounding.
  double refined_scale;

  double lower_bound(float z) const { return z * bound_scale - bound_margin; }
  double upper_bound(float z) const { return z / bound_scale + bound_margin; }
};

/// A candidate whose distance is at least so much.
struct Pending {
  double lower;
  Count document;     ///< of the resident side
  bool dual = false;  ///< whether `lower` is the dual bound, the last one before the exact distance
};

/// What is known of one query.
struct QueryState {
  Answer answer;
  std::vector<Pending> pending;  ///< a heap, the smallest in front
};

struct SearchCounts {
  Count refined = 0, settled = 0, dual_bounds = 0, solved = 0;
  double refine_seconds = 0, solve_seconds = 0;
};

/// A thread's part in the search.
class QuerySearch {
 public:
  /// @param processes  that search together
  QuerySearch(const SearchTask& task, Count first_document, int processes);

  /// The calls that follow are about this query, which has an entry.
  void take_query(Count query) {
    if (query == query_) return;
    query_ = query;
    refiner_.begin(query);
  }

  /// Looks at the documents of the block that are nearest by the first bound.
  /// @param[in,out] z  first bounds of the block's documents; infinite where a document is no
  ///                   candidate, or has been looked at
  /// @param solutions  exact distances that are formed at once, since the limit that they give is
  ///                   about to be shared with other processes
  void begin_block(const Range& block, float* z, Count solutions, QueryState& state);
  /// Looks at the others as far as the limit demands, but at `groups` groups of them at most, and
  /// settles what no other candidate has a lower bound than.
  void go_on(const Range& block, float* z, int groups, QueryState& state);

  const SearchCounts& counts() const { return counts_; }

 private:
  void raise_bound(const Pending& candidate, QueryState& state);
  void refine(const Range& block, std::span<const Candidate> candidates, float* z,
              QueryState& state);
  void settle(Count document, QueryState& state);
  void settle_pending(double next_bound, Count most, QueryState& state);
  void collect(const Range& block, const float* z, double limit);

  const SearchTask& task_;
  Count first_document_;  // number of the resident side's first document in the whole collection
  int processes_;
  Count query_ = -1;
  Refiner refiner_;
  PairDistance pair_;
  SearchCounts counts_;
  std::vector<Candidate> candidates_;
  std::vector<RefineCandidate> documents_;
  std::vector<DistanceBounds> bounds_;
};

}  // namespace talvik::internal

#endif
