// The size rules of the query pipelines: pure functions that take their budget as an argument, so
// that a test can make it small.
#ifndef TALVIK_TALVIK_BATCH_SIZES_HPP
#define TALVIK_TALVIK_BATCH_SIZES_HPP

#include <algorithm>

#include "internal/budget.hpp"

namespace talvik::internal {

/// Bounds the distance block and, for documents of average length, a batch's word vectors: 256 MiB
/// each.
inline constexpr long long batch_budget_floats = 1 << 26;

/// Length of every neighbour list: k, bounded by the resident collection; none for k below 1.
constexpr int list_length(int k, int num_resident) {
  return std::max(std::min(k, num_resident), 0);
}
static_assert(list_length(10, 3) == 3 && list_length(2, 3) == 2 && list_length(-1, 3) == 0);

/// Entries per document, rounded up after a division in single precision; 0 without documents.
constexpr int average_entries(int entries, int docs) {
  if (docs < 1) return 0;
  const float quotient = static_cast<float>(entries) / static_cast<float>(docs);
  const int whole = static_cast<int>(quotient);
  return whole + (static_cast<float>(whole) < quotient ? 1 : 0);
}
static_assert(average_entries(9, 3) == 3 && average_entries(10, 3) == 4);
static_assert(average_entries(10, 0) == 0 && average_entries(0, 10) == 0);

/// Query documents per batch, so that neither the distance block nor the word vectors of an average
/// batch exceed the budget; at least 1, whatever the sizes.
/// @param num_queries       all query documents
/// @param floats_per_row    resident documents
/// @param vector_floats     floats of the word vectors of an average query document; 0 if batches
///                          are passed without vectors
constexpr int queries_per_batch(long long budget_floats, int num_queries, int floats_per_row,
                                long long vector_floats) {
  const long long by_block = rows_within(budget_floats, num_queries, floats_per_row);
  return static_cast<int>(rows_within(budget_floats, by_block, vector_floats));
}
static_assert(queries_per_batch(batch_budget_floats, 1'000'000, 100'000, 0) == 671);
static_assert(queries_per_batch(batch_budget_floats, 1'000'000, 1'000, 100LL * 300) == 2236);
static_assert(queries_per_batch(batch_budget_floats, 968, 1'000, 100LL * 300) == 968);
static_assert(queries_per_batch(batch_budget_floats, 10, 1 << 27, 0) == 1);
static_assert(queries_per_batch(batch_budget_floats, 0, 0, 0) == 1);

}  // namespace talvik::internal

#endif
