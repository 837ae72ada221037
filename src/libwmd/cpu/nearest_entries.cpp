// The nearest entries of a query document to every word of a panel.  This file is compiled once per
// instruction set; the processor's best one is chosen at run time.
#include "libwmd/cpu/nearest_entries.hpp"

#include <algorithm>
#include <limits>
#include <vector>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "libwmd/cpu/nearest_entries.cpp"
#include <hwy/cache_control.h>   // Prefetch
#include <hwy/foreach_target.h>  // compiles this file again for every instruction set
#include <hwy/highway.h>

#include "libwmd/distinct_rows.hpp"  // row_padding

#ifndef TALVIK_NEAREST_ENTRIES_ONCE  // above all instruction sets
#define TALVIK_NEAREST_ENTRIES_ONCE
namespace talvik::internal {
// Does the work of find_nearest_entries by selection, for lists of any length.
void select_nearest(const Panel& panel, const EntryRange& entries, int nearest, bool resume,
                    const NearestState& state);
}  // namespace talvik::internal
#endif

HWY_BEFORE_NAMESPACE();
namespace talvik::internal::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using Floats = hn::ScalableTag<float>;
using Vector = hn::Vec<Floats>;
constexpr Index lanes = HWY_LANES(float);

// Entries whose rows are fetched ahead, since rows are picked all over the panel.
constexpr int prefetch_entries = 8;
static_assert(prefetch_entries <= row_padding);

// Registers for the K nearest entries of U vectors of words.
template <int K, int U>
struct Nearest {
  Vector score[K][U];
  Vector weight[K][U];
};

template <int K, int U>
HWY_INLINE void load(Nearest<K, U>& near, const NearestState& state, Index v, bool resume) {
  const Floats d;
#pragma GCC unroll 16
  for (int t = 0; t < K; ++t) {
#pragma GCC unroll 4
    for (int u = 0; u < U; ++u) {
      const Index at = t * state.stride + v + lanes * u;
      near.score[t][u] = resume ? hn::LoadU(d, state.score + at)
                                : hn::Set(d, std::numeric_limits<float>::infinity());
      if constexpr (K > 1) {
        near.weight[t][u] = resume ? hn::LoadU(d, state.weight + at) : hn::Zero(d);
      }
    }
  }
}

template <int K, int U>
HWY_INLINE void store(const Nearest<K, U>& near, const NearestState& state, Index v) {
  const Floats d;
#pragma GCC unroll 16
  for (int t = 0; t < K; ++t) {
#pragma GCC unroll 4
    for (int u = 0; u < U; ++u) {
      const Index at = t * state.stride + v + lanes * u;
      hn::StoreU(near.score[t][u], d, state.score + at);
      if constexpr (K > 1) hn::StoreU(near.weight[t][u], d, state.weight + at);
    }
  }
}

// Puts one entry into the ascending lists of U vectors of words.
template <int K, int U>
HWY_INLINE void insert(Nearest<K, U>& near, const Vector (&score)[U], Vector weight) {
#pragma GCC unroll 4
  for (int u = 0; u < U; ++u) {
    if constexpr (K == 1) {
      near.score[0][u] = hn::Min(score[u], near.score[0][u]);  // of these operands, NaN loses
    } else {
      // Strictly nearer: of equal scores the earlier entry stays first.  The far end comes first,
      // so that every place receives what its nearer neighbour held before this entry.
      auto nearer = hn::Lt(score[u], near.score[K - 1][u]);
      if constexpr (K > 2) {
        if (hn::AllFalse(Floats(), nearer)) continue;
      }
#pragma GCC unroll 16
      for (int t = K - 1; t > 0; --t) {
        const auto nearer_still = hn::Lt(score[u], near.score[t - 1][u]);
        const Vector s = hn::IfThenElse(nearer, score[u], near.score[t][u]);
        const Vector w = hn::IfThenElse(nearer, weight, near.weight[t][u]);
        near.score[t][u] = hn::IfThenElse(nearer_still, near.score[t - 1][u], s);
        near.weight[t][u] = hn::IfThenElse(nearer_still, near.weight[t - 1][u], w);
        nearer = nearer_still;
      }
      near.score[0][u] = hn::IfThenElse(nearer, score[u], near.score[0][u]);
      near.weight[0][u] = hn::IfThenElse(nearer, weight, near.weight[0][u]);
    }
  }
}

// Searches U vectors of words from word v on; the lists stay in registers for all entries.
template <int K, int U, bool biased>
HWY_INLINE void reduce_words(const Panel& panel, const EntryRange& entries, Index v, bool resume,
                             const NearestState& state) {
  const Floats d;
  const Vector scale = hn::Set(d, panel.scale);
  const float* scores = panel.scores + v;
  Nearest<K, U> near;
  load(near, state, v, resume);
  for (int c = 0; c < entries.count; ++c) {
    const Index row = entries.row[c];
    const float* ahead = scores + entries.row[c + prefetch_entries] * panel.stride;
    Vector score[U];
#pragma GCC unroll 4
    for (int u = 0; u < U; ++u) {
      hwy::Prefetch(ahead + lanes * u);
      const Vector value = hn::LoadU(d, scores + row * panel.stride + lanes * u);
      if constexpr (biased) {
        score[u] = hn::MulAdd(scale, value, hn::Set(d, panel.row_bias[row]));
      } else {
        score[u] = hn::Mul(scale, value);
      }
    }
    insert(near, score, K > 1 ? hn::Set(d, entries.weight[c]) : Vector());
  }
  store(near, state, v);
}

template <int K, bool biased>
void reduce(const Panel& panel, const EntryRange& entries, bool resume, const NearestState& state) {
  // Vectors of words that share the look-up of an entry's row; more lists would not fit the
  // registers.
  constexpr int U = K == 1 ? 4 : K <= 4 ? 2 : 1;
  Index v = 0;
  for (; v + U * lanes <= panel.words; v += U * lanes) {
    reduce_words<K, U, biased>(panel, entries, v, resume, state);
  }
  for (; v + lanes <= panel.words; v += lanes) {
    reduce_words<K, 1, biased>(panel, entries, v, resume, state);
  }
}

void Reduce(const Panel& panel, const EntryRange& entries, int nearest, bool resume,
            const NearestState& state) {
  const auto run = [&]<int K>() {
    panel.row_bias ? reduce<K, true>(panel, entries, resume, state)
                   : reduce<K, false>(panel, entries, resume, state);
  };
  switch (nearest) {
    case 1:
      return run.template operator()<1>();
    case 2:
      return run.template operator()<2>();
    case 4:
      return run.template operator()<4>();
    case 8:
      return run.template operator()<8>();
    case 16:
      return run.template operator()<16>();
    default:
      return select_nearest(panel, entries, nearest, resume, state);
  }
}

void Distances(Metric metric, const float* norms, int words, float* scores) {
  const Floats d;
  with_metric(metric, [&]<Metric m>() HWY_ATTR {
    for (Index v = 0; v < words; v += lanes) {
      const Vector score = hn::LoadU(d, scores + v);
      if constexpr (m == Metric::cosine || m == Metric::unit_cosine) {
        const Vector distance = hn::MulAdd(score, hn::Set(d, 0.5f), hn::Set(d, 1));
        const bool unit = m == Metric::unit_cosine;
        hn::StoreU(unit ? hn::ZeroIfNegative(distance) : distance, d, scores + v);
      } else {
        const Vector norm = m == Metric::unit_euclidean ? hn::Set(d, 2) : hn::LoadU(d, norms + v);
        const Vector distance = hn::Sqrt(hn::Abs(hn::Add(score, norm)));
        const auto equal = hn::And(hn::Eq(score, hn::Set(d, score_of_nearest)),
                                   hn::Le(norm, hn::Set(d, largest_norm)));
        hn::StoreU(hn::IfThenZeroElse(equal, distance), d, scores + v);
      }
    }
  });
}

}  // namespace talvik::internal::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace talvik::internal {
namespace {

struct Candidate {
  float score, weight;
  int order;  // of its entry
};

bool nearer(const Candidate& a, const Candidate& b) {
  return a.score != b.score ? a.score < b.score : a.order < b.order;
}

}  // namespace

void select_nearest(const Panel& panel, const EntryRange& entries, int nearest, bool resume,
                    const NearestState& state) {
  std::vector<Candidate> candidates;
  for (int v = 0; v < panel.words; ++v) {
    candidates.clear();
    const auto offer = [&](float score, float weight) {
      if (score < std::numeric_limits<float>::infinity()) {
        candidates.push_back({score, weight, static_cast<int>(candidates.size())});
      }
    };
    for (int t = 0; t < nearest && resume; ++t) {
      const Index at = t * state.stride + v;
      offer(state.score[at], state.weight ? state.weight[at] : 0);
    }
    for (int c = 0; c < entries.count; ++c) {
      const Index row = entries.row[c];
      const float bias = panel.row_bias ? panel.row_bias[row] : 0;
      offer(panel.scale * panel.scores[row * panel.stride + v] + bias, entries.weight[c]);
    }
    const int found = std::min(nearest, static_cast<int>(candidates.size()));
    std::partial_sort(candidates.begin(), candidates.begin() + found, candidates.end(), nearer);
    for (int t = 0; t < nearest; ++t) {
      const Candidate none{std::numeric_limits<float>::infinity(), 0, 0};
      const Candidate& taken = t < found ? candidates[t] : none;
      const Index at = t * state.stride + v;
      state.score[at] = taken.score;
      if (state.weight) state.weight[at] = taken.weight;
    }
  }
}

HWY_EXPORT(Reduce);
HWY_EXPORT(Distances);

void find_nearest_entries(const Panel& panel, const EntryRange& entries, int nearest, bool resume,
                          const NearestState& state) {
  HWY_DYNAMIC_DISPATCH(Reduce)(panel, entries, nearest, resume, state);
}

void scores_to_distances(Metric metric, const float* norms, int words, float* scores) {
  HWY_DYNAMIC_DISPATCH(Distances)(metric, norms, words, scores);
}

}  // namespace talvik::internal
#endif  // HWY_ONCE
