// Asks for large memory pages behind a large array.
#ifndef TALVIK_INTERNAL_LARGE_PAGES_HPP
#define TALVIK_INTERNAL_LARGE_PAGES_HPP

#include <sys/mman.h>  // madvise

#include <cstddef>
#include <cstdint>

namespace talvik::internal {

/// Advises the kernel on the pages that lie within the array as a whole.
inline void advise_whole_pages(void* array, std::size_t bytes, int advice) {
  constexpr std::size_t page_bytes = 4096;
  const std::size_t into_page = reinterpret_cast<std::uintptr_t>(array) % page_bytes;
  const std::size_t skipped = (page_bytes - into_page) % page_bytes;
  if (bytes < skipped + page_bytes) return;
  madvise(static_cast<char*>(array) + skipped, (bytes - skipped) / page_bytes * page_bytes, advice);
}

/// An array that is written piece by piece costs a page fault per page, and rows that are picked
/// all over it an address look-up per row; pages of 2 MiB make both rare.  This is advice only:
/// results do not depend on it, and pages that are never touched still take no memory.
inline void advise_large_pages(void* array, std::size_t bytes) {
  advise_whole_pages(array, bytes, MADV_HUGEPAGE);
}

/// For uninitialised arrays: drops recycled small pages first, since advice comes too late for
/// pages that are already there.
inline void begin_on_large_pages(void* array, std::size_t bytes) {
  advise_whole_pages(array, bytes, MADV_DONTNEED);
  advise_whole_pages(array, bytes, MADV_HUGEPAGE);
}

}  // namespace talvik::internal

#endif
