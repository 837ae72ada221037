// The limit on a process's address space, and what a BLAS takes of it.
#ifndef TALVIK_INTERNAL_ADDRESS_SPACE_HPP
#define TALVIK_INTERNAL_ADDRESS_SPACE_HPP

#include <sys/mman.h>      // mmap
#include <sys/resource.h>  // getrlimit

#include <cstddef>

namespace talvik::internal {

/// OpenBLAS maps so much for every thread that it is called from, and as much for every thread of
/// its own when it is loaded.  Where it cannot have it, it tries for ever.
inline constexpr std::size_t blas_bytes_per_thread = std::size_t{128} << 20;

/// Whether the process may map so many bytes more.  Without a limit it always may: memory is
/// committed when it is touched.
inline bool fits_address_space(std::size_t bytes) {
  rlimit limit{};
  if (getrlimit(RLIMIT_AS, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return true;
  constexpr int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
  void* const probe = mmap(nullptr, bytes, PROT_NONE, flags, -1, 0);
  if (probe == MAP_FAILED) return false;
  munmap(probe, bytes);
  return true;
}

}  // namespace talvik::internal

#endif
