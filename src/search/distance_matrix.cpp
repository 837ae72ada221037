// All distances of two collections: blocks of the engine, in both directions where both are asked
// for.
#include <algorithm>
#include <limits>
#include <vector>

#include "internal/team.hpp"
#include "libwmd/cpu/blas_threads.hpp"
#include "search/bound_block.hpp"
#include "search/checks.hpp"
#include "search/search_plan.hpp"
#include "search/ticker.hpp"

namespace talvik {
namespace internal {
namespace {

class Matrix {
 public:
  Matrix(const Collection& collection, const Collection& queries, const SearchOptions& options)
      : options_(options),
        threads_(team_threads(options)),
        resident_(collection, options.distance.metric, threads_),
        queries_(queries, options.distance.metric, threads_),
        ticker_(options, queries.size()) {
    result_.documents = resident_.size();
    result_.queries = queries_.size();
  }

  DistanceMatrix take() { return std::move(result_); }

  void fill_relaxed();
  void fill_exact();

 private:
  void fill_block(const Range& queries, const Range& block, const BlockRules& rules);

  const SearchOptions& options_;
  int threads_;
  Side resident_, queries_;
  Ticker ticker_;
  Workspace workspace_, blocks_;
  DistanceMatrix result_;
};

void Matrix::fill_block(const Range& queries, const Range& block, const BlockRules& rules) {
  const Measure measure = options_.distance.measure;
  const Index count = elements(queries.count, block.count);
  float* const Z = blocks_.floats(0, count);
  if (measure != Measure::other_way) {
    one_way_block(resident_, block, queries_, queries, rules, workspace_, Z);
  }
  if (measure != Measure::one_way) {
    float* const other = measure == Measure::other_way ? Z : blocks_.floats(1, count);
    turned_one_way_block(queries_, queries, resident_, block, rules, workspace_, other);
    if (measure == Measure::two_way) {
      for (Index i = 0; i < count; ++i) Z[i] = std::max(Z[i], other[i]);
    }
  }
  constexpr float infinite = std::numeric_limits<float>::infinity();
  for (int q = 0; q < queries.count; ++q) {
    float* const row =
        result_.distances.data() + elements(queries.first + q, resident_.size()) + block.first;
    std::copy_n(Z + elements(q, block.count), block.count, row);
    for (int i = 0; i < block.count; ++i) {
      if (queries_.empty(queries.first + q) || resident_.empty(block.first + i)) row[i] = infinite;
    }
  }
}

void Matrix::fill_relaxed() {
  const SingleThreadedBlas single_threaded_blas;
  // Blocks of both directions, and the parts of the turned one.
  constexpr std::size_t blocks_at_a_time = 3;
  const SearchPlan plan =
      plan_search(options_.memory / blocks_at_a_time, threads_, resident_.size());
  const BlockRules rules{.metric = options_.distance.metric,
                         .steps = options_.distance.steps,
                         .threads = threads_,
                         .budget = plan.engine,
                         .checkpoint = [this](int thread) { ticker_.tick(thread); }};
  result_.distances.resize(elements(queries_.size(), resident_.size()));
  const std::vector<Range> blocks = cut_blocks(resident_, plan.resident_at_a_time);
  for (Count first = 0; first < queries_.size(); first += plan.queries_at_a_time) {
    const auto count =
        static_cast<int>(std::min<Count>(plan.queries_at_a_time, queries_.size() - first));
    for (const Range& block : blocks) fill_block({first, count}, block, rules);
    ticker_.add_done(count);
  }
}

void Matrix::fill_exact() {
  result_.exact.resize(elements(queries_.size(), resident_.size()));
  std::vector<PairDistance> pairs(threads_);
  for (Count q = 0; q < queries_.size(); ++q) {
    const DocumentView query = view_of(queries_.documents(), q);
    for_each_item(threads_, resident_.size(), [&](Count i, int thread) {
      ticker_.tick(thread);
      result_.exact[elements(q, resident_.size()) + i] =
          pairs[thread].exact(view_of(resident_.documents(), i), query, options_.distance.metric);
    });
    ticker_.add_done(1);
  }
}

}  // namespace
}  // namespace internal

DistanceMatrix distance_matrix(const Collection& collection, const Collection& queries,
                               const SearchOptions& options) {
  internal::check_distance(collection, queries, options.distance);
  internal::Matrix matrix(collection, queries, options);
  if (options.distance.measure == Measure::exact) {
    matrix.fill_exact();
  } else {
    matrix.fill_relaxed();
  }
  return matrix.take();
}

}  // namespace talvik
