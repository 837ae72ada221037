// What fits a memory budget.
#ifndef TALVIK_INTERNAL_BUDGET_HPP
#define TALVIK_INTERNAL_BUDGET_HPP

#include <algorithm>

namespace talvik::internal {

/// The first of `rows` rows that a budget holds, at least one.  Rows without values cost nothing.
constexpr long long rows_within(long long budget, long long rows, long long values_per_row) {
  const long long fitting = values_per_row > 0 ? std::min(rows, budget / values_per_row) : rows;
  return std::max(fitting, 1LL);
}
static_assert(rows_within(10, 7, 3) == 3 && rows_within(10, 2, 3) == 2);
static_assert(rows_within(10, 7, 30) == 1 && rows_within(10, 7, 0) == 7);

}  // namespace talvik::internal

#endif
