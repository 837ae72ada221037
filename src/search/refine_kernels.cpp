// This file is compiled once per instruction set; the processor's best one is chosen at run time.
#include "search/refine_kernels.hpp"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "search/refine_kernels.cpp"
#include <hwy/cache_control.h>   // Prefetch
#include <hwy/foreach_target.h>  // compiles this file again for every instruction set
#include <hwy/highway.h>

#include "libwmd/distinct_rows.hpp"  // row_padding
#include "search/rounding.hpp"

HWY_BEFORE_NAMESPACE();
namespace talvik::internal::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using Floats = hn::ScalableTag<float>;
using Vector = hn::Vec<Floats>;
constexpr Index width = HWY_LANES(float);

// Rows that are fetched ahead, since they are picked all over the table.
constexpr int prefetch_rows = 4;
static_assert(prefetch_rows <= row_padding);

// Above every score, and small enough that its root and its product with 0 are numbers.
constexpr float beyond_all = 1e38f;

// The distance of a score that may be off by the rounding, from below and from above.  That of
// equal rows is so far below zero that both are 0.
struct Interval {
  Vector lower, upper;
};

HWY_INLINE Interval interval(Vector score, const ScoreRule& rule) {
  const Floats d;
  const Vector rounding = hn::Set(d, rule.rounding);
  const Vector lower = hn::ZeroIfNegative(hn::Sub(score, rounding));
  const Vector upper = hn::ZeroIfNegative(hn::Add(score, rounding));
  if (rule.squared) return {hn::Sqrt(lower), hn::Sqrt(upper)};
  return {lower, upper};
}

HWY_INLINE void fill_padding(const LanePanel& panel, float* scores) {
  for (Index v = panel.lanes; v < panel.stride; ++v) scores[v] = beyond_all;
}

void FinishSquares(const LanePanel& panel, int first_row, int last_row, const float* row_norms,
                   const float* lane_norms) {
  const Floats d;
  const Vector minus_two = hn::Set(d, -2.0f);
  for (int r = first_row; r < last_row; ++r) {
    float* scores = panel.scores + r * panel.stride;
    const Vector row_norm = hn::Set(d, row_norms[r - first_row]);
    for (Index v = 0; v < panel.stride; v += width) {
      const Vector norms = hn::Add(hn::LoadU(d, lane_norms + v), row_norm);
      hn::StoreU(hn::MulAdd(minus_two, hn::LoadU(d, scores + v), norms), d, scores + v);
    }
    fill_padding(panel, scores);
  }
}

void FinishCosines(const LanePanel& panel, int first_row, int last_row) {
  const Floats d;
  const Vector one = hn::Set(d, 1.0f);
  for (int r = first_row; r < last_row; ++r) {
    float* scores = panel.scores + r * panel.stride;
    for (Index v = 0; v < panel.stride; v += width) {
      hn::StoreU(hn::Sub(one, hn::LoadU(d, scores + v)), d, scores + v);
    }
    fill_padding(panel, scores);
  }
}

void NearestLanes(const LanePanel& panel, int first_row, int last_row, float* nearest) {
  const Floats d;
  for (int r = first_row; r < last_row; ++r) {
    const float* scores = panel.scores + r * panel.stride;
    Vector least = hn::LoadU(d, scores);
    for (Index v = width; v < panel.stride; v += width) {
      least = hn::Min(least, hn::LoadU(d, scores + v));
    }
    nearest[r] = hn::GetLane(hn::MinOfLanes(d, least));
  }
}

// U vectors of lanes, whose nearest rows stay in registers.
template <int U>
HWY_INLINE void nearest_rows(const LanePanel& panel, const int* rows, int count, Index v,
                             const float* lane_weights, const ScoreRule& rule, Interval& sums) {
  const Floats d;
  Vector least[U];
  for (int u = 0; u < U; ++u) least[u] = hn::Set(d, beyond_all);
  for (int c = 0; c < count; ++c) {
    const float* scores = panel.scores + rows[c] * panel.stride + v;
    const float* ahead = panel.scores + rows[c + prefetch_rows] * panel.stride + v;
    for (int u = 0; u < U; ++u) hwy::Prefetch(ahead + u * width);
    for (int u = 0; u < U; ++u) least[u] = hn::Min(least[u], hn::LoadU(d, scores + u * width));
  }
  for (int u = 0; u < U; ++u) {
    const Vector weight = hn::LoadU(d, lane_weights + v + u * width);
    const Interval distance = interval(least[u], rule);
    sums.lower = hn::MulAdd(weight, distance.lower, sums.lower);
    sums.upper = hn::MulAdd(weight, distance.upper, sums.upper);
  }
}

HWY_INLINE SumBounds total(const Interval& sums) {
  const Floats d;
  return {hn::GetLane(hn::SumOfLanes(d, sums.lower)), hn::GetLane(hn::SumOfLanes(d, sums.upper))};
}

void LanesToNearestRows(const LanePanel& panel, const int* rows, int count,
                        const float* lane_weights, const ScoreRule& rule, SumBounds& bounds) {
  constexpr int together = 4;
  const Floats d;
  Interval sums{hn::Zero(d), hn::Zero(d)};
  Index v = 0;
  for (; v + together * width <= panel.stride; v += together * width) {
    nearest_rows<together>(panel, rows, count, v, lane_weights, rule, sums);
  }
  for (; v < panel.stride; v += width) {
    nearest_rows<1>(panel, rows, count, v, lane_weights, rule, sums);
  }
  bounds = total(sums);
}

void PourLanes(const float* score, const float* capacity, int nearest, Index stride,
               const float* lane_weights, const ScoreRule& rule, SumBounds& bounds) {
  const Floats d;
  Interval sums{hn::Zero(d), hn::Zero(d)};
  for (Index v = 0; v < stride; v += width) {
    const Vector weight = hn::LoadU(d, lane_weights + v);
    Vector left = weight;
    Interval cost{hn::Zero(d), hn::Zero(d)}, distance{};
    for (int t = 0; t < nearest; ++t) {
      const Index at = t * stride + v;
      const bool last = t + 1 == nearest;
      const Vector moved = last ? left : hn::Min(left, hn::LoadU(d, capacity + at));
      distance = interval(hn::LoadU(d, score + at), rule);
      cost.lower = hn::MulAdd(moved, distance.lower, cost.lower);
      cost.upper = hn::MulAdd(moved, distance.upper, cost.upper);
      left = hn::Sub(left, moved);
    }
    // What is left is a difference, whose rounding is no share of it.
    const Vector slack =
        hn::Mul(hn::Set(d, slack_of_pouring(nearest)), hn::Mul(weight, distance.upper));
    sums.lower = hn::Add(sums.lower, hn::ZeroIfNegative(hn::Sub(cost.lower, slack)));
    sums.upper = hn::Add(sums.upper, hn::Add(cost.upper, slack));
  }
  bounds = total(sums);
}

void BoundDistances(const float* score, Index n, const ScoreRule& rule, float* lower,
                    float* upper) {
  const Floats d;
  for (Index i = 0; i < n; i += width) {
    const Interval distance = interval(hn::LoadU(d, score + i), rule);
    hn::StoreU(distance.lower, d, lower + i);
    hn::StoreU(distance.upper, d, upper + i);
  }
}

}  // namespace talvik::internal::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace talvik::internal {

HWY_EXPORT(FinishSquares);
HWY_EXPORT(FinishCosines);
HWY_EXPORT(NearestLanes);
HWY_EXPORT(LanesToNearestRows);
HWY_EXPORT(PourLanes);
HWY_EXPORT(BoundDistances);

float score_of_equal_rows(float rounding) { return -2 * rounding; }

float slack_of_pouring(int nearest) { return static_cast<float>(2 * nearest * unit_roundoff); }

void finish_squares(const LanePanel& panel, int first_row, int last_row, const float* row_norms,
                    const float* lane_norms) {
  HWY_DYNAMIC_DISPATCH(FinishSquares)(panel, first_row, last_row, row_norms, lane_norms);
}

void finish_cosines(const LanePanel& panel, int first_row, int last_row) {
  HWY_DYNAMIC_DISPATCH(FinishCosines)(panel, first_row, last_row);
}

void nearest_lanes(const LanePanel& panel, int first_row, int last_row, float* nearest) {
  HWY_DYNAMIC_DISPATCH(NearestLanes)(panel, first_row, last_row, nearest);
}

SumBounds lanes_to_nearest_rows(const LanePanel& panel, const int* rows, int count,
                                const float* lane_weights, const ScoreRule& rule) {
  SumBounds bounds{};
  HWY_DYNAMIC_DISPATCH(LanesToNearestRows)(panel, rows, count, lane_weights, rule, bounds);
  return bounds;
}

SumBounds pour_lanes(const float* score, const float* capacity, int nearest, Index stride,
                     const float* lane_weights, const ScoreRule& rule) {
  SumBounds bounds{};
  HWY_DYNAMIC_DISPATCH(PourLanes)(score, capacity, nearest, stride, lane_weights, rule, bounds);
  return bounds;
}

void bound_distances(const float* score, Index n, const ScoreRule& rule, float* lower,
                     float* upper) {
  HWY_DYNAMIC_DISPATCH(BoundDistances)(score, n, rule, lower, upper);
}

}  // namespace talvik::internal
#endif  // HWY_ONCE
