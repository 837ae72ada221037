// The k smallest values of a row, without a pair for every value where k is small.
#include "libwmd/cpu/select_smallest.hpp"

#include <algorithm>
#include <cmath>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "libwmd/cpu/select_smallest.cpp"
#include <hwy/foreach_target.h>  // compiles this file again for every instruction set
#include <hwy/highway.h>

#ifndef TALVIK_SELECT_SMALLEST_ONCE  // above all instruction sets
#define TALVIK_SELECT_SMALLEST_ONCE
namespace talvik::internal {
// Values that are compared with the limit together.
constexpr int block_values = 64;
}  // namespace talvik::internal
#endif

HWY_BEFORE_NAMESPACE();
namespace talvik::internal::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// Position of the first block from `first` on that holds a value below limit, or of the last,
// shorter block if there is none.
int FirstBlockBelow(const float* values, int first, int n, float limit) {
  const hn::ScalableTag<float> d;
  constexpr int lanes = HWY_LANES(float);
  const auto bound = hn::Set(d, limit);
  for (; first + block_values <= n; first += block_values) {
    auto smallest = bound;  // a number, so that NaN loses
#pragma GCC unroll 16
    for (int v = 0; v < block_values; v += lanes) {
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

HWY_EXPORT(FirstBlockBelow);

// Candidates collected between two cuts to k, beyond k itself: cuts get rare, and few of the
// candidates were collected in vain.
constexpr int spare_candidates = 256;

// Drops all but the k that rank first and returns the k-th of them.  There are at least k.
float cut(std::vector<Candidate>& candidates, int k) {
  const auto kth = candidates.begin() + (k - 1);
  std::nth_element(candidates.begin(), kth, candidates.end(), ranks_before);
  candidates.resize(static_cast<std::size_t>(k));
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
  const int full = static_cast<int>(std::min<long long>(n, 1ll * k + spare_candidates));
  int i = 0;
  const auto take_all = [&](int last) {
    for (; i < last; ++i) smallest.emplace_back(values[i], i);
  };
  take_all(full);
  float limit = cut(smallest, k);
  while (i < n) {
    // With fewer than k numbers so far there is nothing to compare with.
    if (std::isnan(limit)) {
      take_all(std::min(n, i + block_values));
      limit = cut(smallest, k);
      continue;
    }
    // Only values below the k-th can still get in: an equal one has a higher index.
    while (i < n && static_cast<int>(smallest.size()) < full) {
      i = HWY_DYNAMIC_DISPATCH(FirstBlockBelow)(values, i, n, limit);
      for (const int last = std::min(n, i + block_values); i < last; ++i) {
        if (values[i] < limit) smallest.emplace_back(values[i], i);
      }
    }
    limit = cut(smallest, k);
  }
  std::sort(smallest.begin(), smallest.end(), ranks_before);
}

}  // namespace talvik::internal
#endif  // HWY_ONCE
