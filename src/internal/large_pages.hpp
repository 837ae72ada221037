// Asks for large memory pages behind a large array.
#ifndef TALVIK_INTERNAL_LARGE_PAGES_HPP
#define TALVIK_INTERNAL_LARGE_PAGES_HPP

#include <sys/mman.h>  // madvise

#include <cstddef>
#include <cstdint>

namespace talvik::internal {

inline void advise_whole_pages(void* array, std::size_t bytes, int advice) {
  constexpr std::uintptr_t page_bytes = 4096;
  const auto address = reinterpret_cast<std::uintptr_t>(array);
  const std::uintptr_t first = (address + page_bytes - 1) / page_bytes * page_bytes;
  const std::uintptr_t last = (address + bytes) / page_bytes * page_bytes;
  if (first < last) madvise(reinterpret_cast<void*>(first), last - first, advice);
}

/// An array that is written piece by piece costs a page fault per page, and rows that are picked
/// all over it a look-up per row; pages of 2 MiB make both rare.  Only advice: nothing depends on
/// it, and pages that are never touched still take no memory.
inline void advise_large_pages(void* array, std::size_t bytes) {
  advise_whole_pages(array, bytes, MADV_HUGEPAGE);
}

/// The same for an array of ours whose contents mean nothing yet.  The allocator may have taken it
/// from what was freed before, on small pages that advice comes too late for: they are given back.
inline void begin_on_large_pages(void* array, std::size_t bytes) {
  advise_whole_pages(array, bytes, MADV_DONTNEED);
  advise_whole_pages(array, bytes, MADV_HUGEPAGE);
}

}  // namespace talvik::internal

#endif
