// What this machine has, and whether a plan fits.
#include "memory_plan.hpp"

#include <fmt/core.h>
#include <unistd.h>  // sysconf

#include <fstream>
#include <thread>

namespace talvik::tool {

std::string in_gib(double bytes) { return fmt::format("{:.2f} GiB", bytes / gib); }

double machine_memory_bytes() {
  double bytes =
      static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGE_SIZE));
  for (const char* limit :
       {"/sys/fs/cgroup/memory.max", "/sys/fs/cgroup/memory/memory.limit_in_bytes"}) {
    double contained = 0;
    if (std::ifstream(limit) >> contained && contained > 0) bytes = std::min(bytes, contained);
  }
  return bytes;
}

std::string over_budget(const MemoryPlan& plan, int processes, double budget_bytes) {
  if (plan.total_bytes * processes <= budget_bytes) return "";
  return fmt::format(
      "the run needs {} on this machine, over the memory limit of {}: {} process(es), each with "
      "{} of distance matrix, {} of ground distances, {} of data, {} of working memory",
      in_gib(plan.total_bytes * processes), in_gib(budget_bytes), processes,
      in_gib(plan.matrix_bytes), in_gib(plan.ground_bytes), in_gib(plan.data_bytes),
      in_gib(plan.working_bytes));
}

int default_threads(int local_processes) {
  const long online = std::max(sysconf(_SC_NPROCESSORS_ONLN), 1L);
  // Fewer where the launcher has bound this process to some of them.
  const long allowed = std::max(static_cast<long>(std::thread::hardware_concurrency()), 1L);
  const long share = std::max(online / std::max(local_processes, 1), 1L);
  return static_cast<int>(std::min(share, allowed));
}

}  // namespace talvik::tool
