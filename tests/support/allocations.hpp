// Allocations that fail when a test wants them to.  For one file of a program: it replaces the
// global operators.
#ifndef TALVIK_TESTS_ALLOCATIONS_HPP
#define TALVIK_TESTS_ALLOCATIONS_HPP

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

static std::atomic<int> allocations_left = -1;  // until one fails; negative: none does

// Every allocation that tells of a failure by an exception.  Weak: the thread sanitizer has its
// own, which stay.
[[gnu::weak]] void* operator new(size_t bytes) {
  void* memory = allocations_left-- == 0 ? nullptr : std::malloc(std::max<size_t>(bytes, 1));
  if (!memory) throw std::bad_alloc();
  return memory;
}
[[gnu::weak]] void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
  return std::malloc(std::max<size_t>(bytes, 1));
}
[[gnu::weak]] void* operator new[](size_t bytes) { return operator new(bytes); }
[[gnu::weak]] void* operator new[](size_t bytes, const std::nothrow_t& quietly) noexcept {
  return operator new(bytes, quietly);
}
[[gnu::weak]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::weak]] void operator delete(void* memory, size_t) noexcept { std::free(memory); }
[[gnu::weak]] void operator delete[](void* memory) noexcept { std::free(memory); }
[[gnu::weak]] void operator delete[](void* memory, size_t) noexcept { std::free(memory); }

#endif
