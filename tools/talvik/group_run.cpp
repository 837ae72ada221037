#include "group_run.hpp"

#include <fmt/core.h>
#include <pthread.h>  // the default size of a stack

#include <cstdlib>
#include <exception>
#include <string_view>

#include "agreement.hpp"
#include "internal/address_space.hpp"
#include "messages.hpp"
#include "run_error.hpp"
#include "silence.hpp"
#include "talvik.hpp"

namespace talvik::tool {
namespace {

/// Whether MPI can start, which else ends the process in its own words or crashes.
bool can_start_mpi() {
  // Open MPI 4.1 takes 215 MB with its threads and their heaps; the least run is not done with
  // that.
  constexpr std::size_t mpi_bytes = std::size_t{256} << 20;
  return internal::fits_address_space(mpi_bytes);
}

/// The process's rank in the words of the launcher; null without one.
const char* launcher_rank() {
  for (const char* name : {"OMPI_COMM_WORLD_RANK", "PMIX_RANK", "PMI_RANK", "SLURM_PROCID"}) {
    if (const char* rank = std::getenv(name)) return rank;
  }
  return nullptr;
}

}  // namespace

bool is_launched() { return launcher_rank() != nullptr; }

bool is_first_process() {
  const char* const rank = launcher_rank();
  return !rank || std::string_view(rank) == "0";
}

void require_threads(int threads) {
  pthread_attr_t defaults;
  std::size_t stack_bytes = 0;
  pthread_attr_init(&defaults);
  pthread_attr_getstacksize(&defaults, &stack_bytes);
  pthread_attr_destroy(&defaults);
  if (internal::fits_address_space(threads * stack_bytes)) return;
  throw RunError(
      fmt::format("the limit on the address space (ulimit -v) is too low for {} threads", threads));
}

int run_in_group(const GroupRun& group, const std::function<void()>& run) {
  if (group.with_mpi) {
    if (!can_start_mpi()) {
      complain("{}: the limit on the address space (ulimit -v) is too low for a run\n", group.name);
      return status_failed;
    }
    const Silence silence(!group.show_processes);
    init_mpi(&myid, &num_procs, &local_id, &num_local_procs);
  } else {
    num_procs = num_local_procs = 1;
  }
  int status = status_ok;
  const Silence silence(group.quiet);
  try {
    run();
    on_first_process(finish_output);
  } catch (const RunError& error) {  // the same on every process
    if (myid == 0) complain("{}: {}\n", group.name, error.what());
    status = status_failed;
  } catch (const std::exception& error) {
    // Out of step with the other processes, which may wait for this one: ending without MPI's own
    // end makes the launcher end them too.
    complain("{}: process {}: {}\n", group.name, myid, error.what());
    std::_Exit(status_failed);
  }
  if (group.with_mpi) finalize_mpi();
  return status;
}

}  // namespace talvik::tool
