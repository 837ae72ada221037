// What ends a run of the program: one line that names the file or option and what is wrong with it.
// The readers of texts and vectors throw talvik::FileError instead, whose line is of the same form.
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
