// The k smallest values of a row.
#ifndef TALVIK_LIBWMD_CPU_SELECT_SMALLEST_HPP
#define TALVIK_LIBWMD_CPU_SELECT_SMALLEST_HPP

#include <utility>
#include <vector>

namespace talvik::internal {

using Candidate = std::pair<float, int>;  // value, index within the row

/// The smaller value is first, of equal values the lower index; NaN is after every number.
bool ranks_before(const Candidate& a, const Candidate& b);

/// The k smallest of n contiguous values, 1 <= k <= n, in the order of ranks_before.
/// @param[out] smallest  k candidates; its storage is reused from call to call
void select_smallest(const float* values, int n, int k, std::vector<Candidate>& smallest);

}  // namespace talvik::internal

#endif
