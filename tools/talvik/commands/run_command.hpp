// How a command that works alone, without a process group, ends.
#ifndef TALVIK_TOOL_COMMANDS_RUN_COMMAND_HPP
#define TALVIK_TOOL_COMMANDS_RUN_COMMAND_HPP

#include <exception>

#include "messages.hpp"
#include "run_error.hpp"

namespace talvik::tool {

/// Runs a command; what it throws becomes one line on standard error.
/// @return the exit status
template <class Run>
int run_command(const char* name, const Run& run) {
  try {
    run();
    finish_output();
    return status_ok;
  } catch (const std::exception& error) {
    complain("talvik {}: {}\n", name, error.what());
    return status_failed;
  }
}

}  // namespace talvik::tool

#endif
