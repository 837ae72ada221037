// How the library ends a run that cannot go on: a line on standard output, then exit status 1.
#ifndef TALVIK_INTERNAL_FAILURE_HPP
#define TALVIK_INTERNAL_FAILURE_HPP

#include <cstdlib>
#include <iostream>
#include <string>

namespace talvik::internal {

inline constexpr int failure_status = 1;

/// Prints text as a line, flushed, and ends the process.
[[noreturn]] inline void fail(const std::string& text) {
  std::cout << text << std::endl;
  std::exit(failure_status);
}

}  // namespace talvik::internal

#endif
