// What ends a run: one line that names the file or option and what is wrong with it.
#ifndef TALVIK_TOOL_RUN_ERROR_HPP
#define TALVIK_TOOL_RUN_ERROR_HPP

#include <stdexcept>

namespace talvik::tool {

inline constexpr int status_ok = 0;
inline constexpr int status_failed = 1;
inline constexpr int status_usage = 2;

struct RunError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace talvik::tool

#endif
