// The size rule of the distributed merge.
#ifndef TALVIK_LIBMPI_MERGE_SIZES_HPP
#define TALVIK_LIBMPI_MERGE_SIZES_HPP

#include <limits>

#include "internal/budget.hpp"

namespace talvik::internal {

/// Candidates that process 0 receives in one round of a merge: 512 MiB of numbers and distances.
inline constexpr long long gather_budget_entries = 1 << 26;
static_assert(gather_budget_entries <= std::numeric_limits<int>::max(), "MPI counts are ints");

/// Queries of one round, in which process 0 receives k candidates per query and process.  At least
/// one query, even beyond the budget.
constexpr int queries_per_gather(long long budget_entries, int num_queries, int num_procs, int k) {
  const long long entries_per_query = static_cast<long long>(num_procs) * k;
  return static_cast<int>(rows_within(budget_entries, num_queries, entries_per_query));
}
static_assert(queries_per_gather(gather_budget_entries, 100'000, 64, 10) == 100'000);
static_assert(queries_per_gather(gather_budget_entries, 100'000, 64, 100'000) == 10);

}  // namespace talvik::internal

#endif
