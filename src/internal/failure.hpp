// How the library gives up: a line on standard output, then the end of the process.
#ifndef TALVIK_INTERNAL_FAILURE_HPP
#define TALVIK_INTERNAL_FAILURE_HPP

#include <cstdlib>
#include <iostream>
#include <string>

namespace talvik::internal {

inline constexpr int failure_status = 1;

/// Flushed, because a process that is about to end may not get to it.
inline void print_failure(const std::string& text) { std::cout << text << std::endl; }

/// Prints text as a line and ends the process.
[[noreturn]] inline void fail(const std::string& text, int status = failure_status) {
  print_failure(text);
  std::exit(status);
}

}  // namespace talvik::internal

#endif
