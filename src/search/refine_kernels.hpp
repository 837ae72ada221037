// The inner loops of the refinement of candidates, for the processor's best instruction set.
#ifndef TALVIK_SEARCH_REFINE_KERNELS_HPP
#define TALVIK_SEARCH_REFINE_KERNELS_HPP

#include "internal/index.hpp"

namespace talvik::internal {

/// Scores of the words of a query, its lanes, against rows of candidates' words: lane v of row r is
/// at scores[r*stride + v].  A score is a squared distance, or a cosine distance, up to rounding.
/// Lanes of the padding have scores that are above all others.
struct LanePanel {
  float* scores;
  int lanes;     ///< the query's entries
  Index stride;  ///< floats: lanes rounded up to line_floats
};

/// Scores of this value stand for rows that are equal: the distance is 0.  Below all that rounding
/// can make of a score.
float score_of_equal_rows(float rounding);

/// From products to squared distances, |q|^2 + |r|^2 - 2 q.r.
/// @param row_norms, lane_norms  squared, per row from first_row on and per lane; lanes padded up
/// to
///                               the stride
void finish_squares(const LanePanel& panel, int first_row, int last_row, const float* row_norms,
                    const float* lane_norms);

/// From products to cosine distances, 1 - q.r.
void finish_cosines(const LanePanel& panel, int first_row, int last_row);

/// nearest[r] = the smallest score of row r.
void nearest_lanes(const LanePanel& panel, int first_row, int last_row, float* nearest);

/// A sum of weight x distance, from below and from above.
struct SumBounds {
  float lower, upper;
};

/// How scores become distances: a root or none, of a score that may be off by `rounding`.
struct ScoreRule {
  bool squared;
  float rounding;
};

/// What the weights that are left after so many nearest words, differences in single precision, are
/// off by: a share of weight x distance to the last of them.
float slack_of_pouring(int nearest);

/// Every lane to the nearest of the rows of a candidate.
/// @param rows          row numbers of the candidate's entries, readable row_padding past the end
/// @param lane_weights  per lane; 0 in the padding
SumBounds lanes_to_nearest_rows(const LanePanel& panel, const int* rows, int count,
                                const float* lane_weights, const ScoreRule& rule);

/// The same with capacity steps, from the nearest rows of every lane.
/// @param score     nearness t of lane v at t*stride + v, ascending
/// @param capacity  likewise; that of the last nearness is not read
SumBounds pour_lanes(const float* score, const float* capacity, int nearest, Index stride,
                     const float* lane_weights, const ScoreRule& rule);

/// Distances of n scores from below and from above; n is a multiple of line_floats.
void bound_distances(const float* score, Index n, const ScoreRule& rule, float* lower,
                     float* upper);

}  // namespace talvik::internal

#endif
