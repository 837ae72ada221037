// A run of the program from the start of its process group to the exit status, whatever it
// computes.
#ifndef TALVIK_TOOL_GROUP_RUN_HPP
#define TALVIK_TOOL_GROUP_RUN_HPP

#include <functional>
#include <string>

namespace talvik::tool {

/// Whether this process is the one that speaks, as far as the launcher's environment tells; for the
/// time before the process group exists.
bool is_first_process();

/// Whether a launcher has started this process.
bool is_launched();

struct GroupRun {
  std::string name;             ///< before the line of a failure: "talvik"
  bool with_mpi = true;         ///< else this process is the only one, and MPI is left alone
  bool show_processes = false;  ///< the library's line for each process
  bool quiet = false;           ///< the library's own lines are kept back
};

/// Sets up the process group, runs, and leaves it.
/// @param run  throws RunError on every process or on none
/// @return the exit status
int run_in_group(const GroupRun& group, const std::function<void()>& run);

/// Throws RunError where the limit on the address space does not let a team start, of which OpenMP
/// would end the process.
void require_threads(int threads);

}  // namespace talvik::tool

#endif
