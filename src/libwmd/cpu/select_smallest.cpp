// The k smallest values of a row.  Where k is small, only a few values become candidates.
#include "libwmd/cpu/select_smallest.hpp"

#include <algorithm>
#include <cmath>

#include "internal/index.hpp"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "libwmd/cpu/select_smallest.cpp"
#include <hwy/foreach_target.h>  // compiles this file again for every instruction set
#include <hwy/highway.h>

#ifndef TALVIK_SELECT_SMALLEST_ONCE  // above all instruction sets
#define TALVIK_SELECT_SMALLEST_ONCE
namespace talvik::internal {
// Values that are compared with the limit at once.
constexpr int stretch_values = 64;
}  // namespace talvik::internal
#endif

HWY_BEFORE_NAMESPACE();
namespace talvik::internal::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// Position of the first stretch from `first` on that holds a value below limit; if there is none,
// position of the shorter stretch at the end.
int FirstStretchBelow(const float* values, int first, int n, float limit) {
  const hn::ScalableTag<float> d;
  constexpr int lanes = HWY_LANES(float);
  const auto bound = hn::Set(d, limit);
  for (; first + stretch_values <= n; first += stretch_values) {
    auto smallest = bound;  // a number, since NaN loses against one
#pragma GCC unroll 16
    for (int v = 0; v < stretch_values; v += lanes) {
      smallest = hn::Min(hn::LoadU(d, values + first + v), smallest);
    }
    if (!hn::AllFalse(d, hn::Lt(smallest, bound))) break;
  }
  return first;
}

}  // namespace talvik::internal::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace talvik::internal {
namespace {

HWY_EXPORT(FirstStretchBelow);

// Candidates beyond k that are collected before the next cut to k.  With so many cuts are rare, and
// still few candidates are collected in vain.
constexpr int spare_candidates = 256;

// Keeps the k candidates that rank first, of at least k, and returns the value of the k-th.
float cut(std::vector<Candidate>& candidates, int k) {
  const auto kth = candidates.begin() + (k - 1);
  std::nth_element(candidates.begin(), kth, candidates.end(), ranks_before);
  candidates.resize(k);
  return candidates.back().first;
}

}  // namespace

bool ranks_before(const Candidate& a, const Candidate& b) {
  if (a.first < b.first) return true;
  if (b.first < a.first) return false;
  const bool a_is_nan = std::isnan(a.first), b_is_nan = std::isnan(b.first);
  if (a_is_nan != b_is_nan) return b_is_nan;
  return a.second < b.second;
}

void select_smallest(const float* values, int n, int k, std::vector<Candidate>& smallest) {
  smallest.clear();
  const int full = static_cast<int>(std::min<Index>(n, Index{k} + spare_candidates));
  int i = 0;
  const auto take_all = [&](int last) {
    for (; i < last; ++i) smallest.emplace_back(values[i], i);
  };
  take_all(full);
  float limit = cut(smallest, k);
  while (i < n) {
    // There are fewer than k numbers so far: nothing to compare with.
    if (std::isnan(limit)) {
      take_all(std::min(n, i + stretch_values));
      limit = cut(smallest, k);
      continue;
    }
    // Only values below the k-th still count: an equal one has a higher index.
    while (i < n && static_cast<int>(smallest.size()) < full) {
      i = HWY_DYNAMIC_DISPATCH(FirstStretchBelow)(values, i, n, limit);
      for (const int last = std::min(n, i + stretch_values); i < last; ++i) {
        if (values[i] < limit) smallest.emplace_back(values[i], i);
      }
    }
    limit = cut(smallest, k);
  }
  std::sort(smallest.begin(), smallest.end(), ranks_before);
}

}  // namespace talvik::internal
#endif  // HWY_ONCE
