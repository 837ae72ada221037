// A whole run of the program, from the start of the process group to the exit status.
#ifndef TALVIK_TOOL_EXECUTE_HPP
#define TALVIK_TOOL_EXECUTE_HPP

#include <functional>

#include "problem.hpp"
#include "run_options.hpp"

namespace talvik::tool {

/// Loads, runs, writes and reports.  Every process calls it with the same options.
/// @param load  reads both collections; throws; calls nothing collective
/// @return the exit status
int execute(const RunOptions& options, const std::function<Problem()>& load);

}  // namespace talvik::tool

#endif
