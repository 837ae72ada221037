// Word distances.  This file is compiled once per instruction set, without fused multiply-add; the
// processor's best one is chosen at run time.
#include "search/word_distances.hpp"

#include <algorithm>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "search/word_distances.cpp"
#include <hwy/foreach_target.h>  // compiles this file again for every instruction set
#include <hwy/highway.h>

#include "internal/index.hpp"

HWY_BEFORE_NAMESPACE();
namespace talvik::internal::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

using Doubles = hn::ScalableTag<double>;
using Vector = hn::Vec<Doubles>;
constexpr int lanes = HWY_LANES(double);

// Rows and vectors of columns whose sums are held in registers.
constexpr int block_rows = 4;
constexpr int block_vectors = 2;

// A panel holds V vectors of rows of `to`: component c of its row j is at c*V*lanes + j.  A lane is
// one pair of rows, so the order of its sum does not depend on how many lanes there are.
template <int V>
void pack(const WordRows& to, int first, int count, double* panel) {
  constexpr int width = V * lanes;
  for (int j = 0; j < width; ++j) {  // lanes without a row repeat the last one
    const float* row = to.rows + elements(to.words[first + std::min(j, count - 1)], to.dimensions);
    for (int c = 0; c < to.dimensions; ++c) panel[elements(c, width) + j] = row[c];
  }
}

template <Metric metric>
HWY_INLINE Vector distance(Vector sum, Vector from_norm, Vector to_norm) {
  const Doubles d;
  if constexpr (metric == talvik::Metric::euclidean) {
    return hn::Sqrt(sum);
  } else {
    // One root of the product: of a square it is exact, so that equal rows leave exactly 0.
    const Vector lengths = hn::Sqrt(hn::Mul(from_norm, to_norm));
    const Vector cosine = hn::Div(sum, lengths);
    const Vector result = hn::Max(hn::Sub(hn::Set(d, 1), cosine), hn::Zero(d));
    return hn::IfThenElse(hn::Eq(lengths, hn::Zero(d)), hn::Set(d, 1), result);
  }
}

// The distances from U rows to the first `count` rows of a panel.
template <Metric metric, int U, int V>
HWY_INLINE void rows_to_panel(const double* rows, const double* norms, Index dimensions,
                              const double* panel, const Vector* panel_norms, int count,
                              double* distances, Index stride) {
  const Doubles d;
  Vector sum[U][V];
#pragma GCC unroll 4
  for (int u = 0; u < U; ++u) {
#pragma GCC unroll 4
    for (int v = 0; v < V; ++v) sum[u][v] = hn::Zero(d);
  }
  for (Index c = 0; c < dimensions; ++c) {
#pragma GCC unroll 4
    for (int u = 0; u < U; ++u) {
      const Vector a = hn::Set(d, rows[u * dimensions + c]);
#pragma GCC unroll 4
      for (int v = 0; v < V; ++v) {
        const Vector b = hn::LoadU(d, panel + (c * V + v) * lanes);
        if constexpr (metric == talvik::Metric::euclidean) {
          const Vector difference = hn::Sub(a, b);
          sum[u][v] = hn::Add(sum[u][v], hn::Mul(difference, difference));
        } else {
          sum[u][v] = hn::Add(sum[u][v], hn::Mul(a, b));
        }
      }
    }
  }
  for (int u = 0; u < U; ++u) {
    HWY_ALIGN double result[V * lanes];
    for (int v = 0; v < V; ++v) {
      const Vector from_norm =
          metric == talvik::Metric::euclidean ? sum[u][v] : hn::Set(d, norms[u]);
      hn::Store(distance<metric>(sum[u][v], from_norm, panel_norms[v]), d, result + v * lanes);
    }
    std::copy_n(result, count, distances + u * stride);
  }
}

template <Metric metric, int V>
void distances_to_panel(const WordDistanceScratch& scratch, int from, int dimensions, int count,
                        double* distances, Index stride) {
  const Doubles d;
  const double* panel = scratch.panel.data();
  Vector norms[V];
  for (int v = 0; v < V; ++v) {
    norms[v] = hn::Zero(d);
    for (Index c = 0; metric == talvik::Metric::cosine && c < dimensions; ++c) {
      const Vector b = hn::LoadU(d, panel + (c * V + v) * lanes);
      norms[v] = hn::Add(norms[v], hn::Mul(b, b));
    }
  }
  const auto rows_from = [&]<int U>(Index i) HWY_ATTR {
    rows_to_panel<metric, U, V>(scratch.rows.data() + i * dimensions, scratch.norms.data() + i,
                                dimensions, panel, norms, count, distances + i * stride, stride);
  };
  int i = 0;
  for (; i + block_rows <= from; i += block_rows) rows_from.template operator()<block_rows>(i);
  for (; i < from; ++i) rows_from.template operator()<1>(i);
}

template <Metric metric>
void fill(const WordRows& from, const WordRows& to, WordDistanceScratch& scratch,
          double* distances) {
  const int dimensions = from.dimensions;
  const int rows = static_cast<int>(from.words.size());
  const int cols = static_cast<int>(to.words.size());
  scratch.rows.resize(elements(rows, dimensions));
  scratch.norms.resize(rows);
  scratch.panel.resize(elements(dimensions, Index{block_vectors} * lanes));
  for (int i = 0; i < rows; ++i) {
    const float* row = from.rows + elements(from.words[i], dimensions);
    double* copy = scratch.rows.data() + elements(i, dimensions);
    std::copy_n(row, dimensions, copy);
    scratch.norms[i] = 0;
    for (int c = 0; metric == talvik::Metric::cosine && c < dimensions; ++c) {
      scratch.norms[i] += copy[c] * copy[c];
    }
  }
  const auto panels = [&]<int V>(int first, int end) HWY_ATTR {
    for (; first < end; first += V * lanes) {
      const int count = std::min(V * lanes, cols - first);
      pack<V>(to, first, count, scratch.panel.data());
      distances_to_panel<metric, V>(scratch, rows, dimensions, count, distances + first, cols);
    }
  };
  // The last columns take a narrow panel where it holds them all.
  constexpr int width = block_vectors * lanes;
  const int last = cols / width * width;
  const int wide = cols - last > lanes ? cols : last;
  panels.template operator()<block_vectors>(0, wide);
  panels.template operator()<1>(wide, cols);
}

void Fill(talvik::Metric metric, const WordRows& from, const WordRows& to,
          WordDistanceScratch& scratch, double* distances) {
  metric == talvik::Metric::cosine ? fill<talvik::Metric::cosine>(from, to, scratch, distances)
                                   : fill<talvik::Metric::euclidean>(from, to, scratch, distances);
}

}  // namespace talvik::internal::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace talvik::internal {

HWY_EXPORT(Fill);

void word_distances(talvik::Metric metric, const WordRows& from, const WordRows& to,
                    WordDistanceScratch& scratch, double* distances) {
  HWY_DYNAMIC_DISPATCH(Fill)(metric, from, to, scratch, distances);
}

}  // namespace talvik::internal
#endif  // HWY_ONCE
