// The team of threads and the shares of its members.  Every OpenMP pragma of the library is here.
#ifndef TALVIK_INTERNAL_TEAM_HPP
#define TALVIK_INTERNAL_TEAM_HPP

#include <omp.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <utility>

namespace talvik::internal {

// Share t of n items over `threads`; the first n % threads shares hold one more.
//   n = 10, 4 threads:  [0,3) [3,6) [6,8) [8,10)      n = 2, 4 threads:  [0,1) [1,2) [2,2) [2,2)
constexpr std::pair<int, int> share_of(int t, int threads, int n) {
  const int first = t * (n / threads) + std::min(t, n % threads);
  return {first, first + n / threads + (t < n % threads ? 1 : 0)};
}
static_assert(share_of(1, 4, 10) == std::pair(3, 6) && share_of(3, 4, 10) == std::pair(8, 10));
static_assert(share_of(1, 4, 2) == std::pair(1, 2) && share_of(3, 4, 2) == std::pair(2, 2));

/// Runs body(first, last, thread) on a team, one contiguous share of [0, n) per thread.  The body
/// writes only what belongs to its share.  If it throws, one of the exceptions is rethrown once the
/// whole team has finished.
template <class Body>
void for_each_share(int threads, int n, const Body& body) {
  // The clause, not omp_set_num_threads, which would change the host program's own teams.
  const int team = std::max(threads, 1);
  std::exception_ptr failure;  // an exception may not leave the parallel region
#pragma omp parallel num_threads(team)
  {
    try {
      const int thread = omp_get_thread_num();
      const auto [first, last] = share_of(thread, omp_get_num_threads(), n);
      body(first, last, thread);
    } catch (...) {
#pragma omp critical(talvik_team_failure)
      failure = std::current_exception();
    }
  }
  if (failure) std::rethrow_exception(failure);
}

/// Runs body(item, thread) for every item of [0, n), each on the thread of a team that is free
/// next: for items that take very different times.  After an exception no further item is begun.
template <class Number, class Body>
void for_each_item(int threads, Number n, const Body& body) {
  std::atomic<Number> next = 0;
  const int team = std::max(threads, 1);
  for_each_share(team, team, [&](int, int, int thread) {
    try {
      for (Number item = next++; item < n; item = next++) body(item, thread);
    } catch (...) {
      next = n;
      throw;
    }
  });
}

}  // namespace talvik::internal

#endif
