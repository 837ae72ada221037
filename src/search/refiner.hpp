// The second bound: both directions and the capacity steps, from below and from above, of one query
// and a group of candidates.
#ifndef TALVIK_SEARCH_REFINER_HPP
#define TALVIK_SEARCH_REFINER_HPP

#include <span>
#include <vector>

#include "internal/index.hpp"
#include "libwmd/cpu/dense_product.hpp"
#include "search/refine_kernels.hpp"
#include "search/rounding.hpp"
#include "search/side.hpp"

namespace talvik::internal {

/// Words of the two sides that have the same row.
class EqualWords {
 public:
  EqualWords(const Side& resident, const Side& queries);
  /// Words of the resident side, ascending.
  std::span<const int> of(int query_word) const {
    return std::span(words_).subspan(start_[query_word],
                                     start_[query_word + 1] - start_[query_word]);
  }

 private:
  std::vector<int> start_, words_;
};

/// What the refinement of all queries shares.
struct RefineTask {
  const Side& resident;
  const Side& queries;
  const EqualWords& equal;
  talvik::Measure measure;  ///< one of the relaxed ones
  talvik::Metric metric;
  int steps;
  float capacity_scale;  ///< at least 1: how much more than its weight a word takes
  Rounding rounding;
  Index table_floats;  ///< scores that a thread may hold, if a candidate alone needs no more
};

struct DistanceBounds {
  double lower, upper;
};

struct RefineCandidate {
  Count document;      ///< of the resident side, with at least one entry
  double first_upper;  ///< its distance by the first bound, without steps, is at most this
};

/// A thread's refinement, query after query.  The scores of a candidate's words against the query's
/// are kept for the candidates after it.
class Refiner {
 public:
  explicit Refiner(const RefineTask& task);

  void begin(Count query);
  /// bounds[i] = of candidates[i].
  /// @pre the query has an entry
  void refine(std::span<const RefineCandidate> candidates, DistanceBounds* bounds);

 private:
  // A candidate's entries: their rows of the table and their weights.
  struct Entries {
    const int* row;  // readable row_padding entries past the end
    const float* weight;
    int count;
  };

  bool add_words(std::span<const RefineCandidate> candidates);
  void forget_words();
  void compute_rows(int first_row, int last_row);
  void mark_equal_words();
  void find_nearest_lists(int first_row, int last_row);
  SumBounds document_to_query(const Entries& entries) const;
  SumBounds query_to_document(const Entries& entries);
  DistanceBounds bounds_of(const RefineCandidate& candidate, const Entries& entries);

  const RefineTask& task_;
  ScoreRule rule_;
  ProductScratch scratch_;

  // Of the query.
  std::span<const int> lane_words_;
  std::span<const float> query_weights_;
  std::vector<float> lane_rows_, lane_norms_, lane_weights_;  // weights padded by 0
  int nearest_lanes_ = 1;  // that share a candidate's entry's weight

  // The table: a row per word of the candidates so far.
  LanePanel panel_{};
  std::vector<float> scores_;
  std::vector<int> row_of_word_;  // -1: none
  std::vector<int> word_of_row_;
  std::vector<float> gathered_;       // rows on their way into a product
  std::vector<float> row_score_;      // of row r against its nearest lanes, at r*nearest
  std::vector<float> lower_, upper_;  // their distances
  std::vector<float> capacity_;       // of these lanes
  std::vector<int> rows_;             // of the entries of a group of candidates, padded
  std::vector<float> near_score_,
      near_capacity_;  // of a candidate, nearness t of lane v at t*stride
};

}  // namespace talvik::internal

#endif
