// The first bound among several processes: what the words of the vocabulary have to travel to the
// queries of a batch, found by all processes together.
#ifndef TALVIK_SEARCH_SHARED_WORDS_HPP
#define TALVIK_SEARCH_SHARED_WORDS_HPP

#include <vector>

#include "search/bound_block.hpp"
#include "search/group.hpp"
#include "search/side.hpp"
#include "talvik/collection.hpp"

namespace talvik::internal {

/// Large slices of a collection have almost the same words.  If each process multiplied its own
/// with those of the queries, all would do nearly the same products; so each does a share of the
/// vocabulary, and gets the distances of the other words from the other processes.
class SharedWords {
 public:
  /// This process's share of the words that the whole collection uses.
  SharedWords(const Group& group, const Collection& slice, talvik::Metric metric, int threads);
  SharedWords(const SharedWords&) = delete;
  SharedWords& operator=(const SharedWords&) = delete;

  /// The distances of all words to the nearest words of every query.  Collective; kept until the
  /// next call.
  void find_nearest(const Side& queries, const Range& range, const BlockRules& rules,
                    Workspace& workspace);

  /// What one_way_block writes, for the queries of find_nearest.
  /// @param from  over the vocabulary of the slice
  void pour_block(const Side& from, const Range& from_range, const BlockRules& rules,
                  Workspace& workspace, float* Z) const;

 private:
  void fill_table(const Side& from, const NearestTables& tables, int first_query,
                  const BlockRules& rules, float* table) const;

  const Group& group_;
  std::vector<int> first_word_;  // of every process's share, and the end
  Collection share_;             // a document of weight 1 for each word of this process's share
  Side share_side_;
  Workspace gathered_;
  int queries_ = 0;
  // Of word v of process p's share [a, b) and query q:
  //   nearest_[a*queries_ + q*(b - a) + v - a]
  const float* nearest_ = nullptr;
};

}  // namespace talvik::internal

#endif
