// Cache lines.  Arrays that vectors are read from start at one, so that no vector lies across two.
#ifndef TALVIK_LIBWMD_CPU_CACHE_LINE_HPP
#define TALVIK_LIBWMD_CPU_CACHE_LINE_HPP

#include <cstddef>
#include <cstdint>

namespace talvik::internal {

inline constexpr std::size_t line_bytes = 64;

/// The first element at or after p that starts a line; less than line_bytes away.
template <class T>
T* line_start(T* p) {
  const auto address = reinterpret_cast<std::uintptr_t>(p);
  return p + (line_bytes - address % line_bytes) % line_bytes / sizeof(T);
}

}  // namespace talvik::internal

#endif
