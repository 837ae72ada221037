#include "memory_plan.hpp"

#include <fmt/core.h>
#include <unistd.h>  // sysconf

#include <algorithm>
#include <fstream>
#include <thread>

#include "libwmd/cpu/sizes.hpp"
#include "talvik.hpp"
#include "talvik/batch_sizes.hpp"

namespace talvik::tool {

MemoryPlan plan_memory(const RunShape& shape) {
  constexpr double float_bytes = sizeof(float);
  constexpr double entry_bytes = sizeof(Document::value_type);
  constexpr double list_entry_bytes = sizeof(int) + sizeof(float);
  constexpr double copies = 2;  // the library works on copies of its own
  constexpr double batch_floats = internal::batch_budget_floats;
  constexpr double engine_floats = internal::engine_floats_most;
  // Counts as doubles: their products pass 64 bits.
  const auto area = [](long long rows, long long cols) {
    return static_cast<double>(rows) * static_cast<double>(cols);
  };
  MemoryPlan plan;
  plan.data_bytes = copies * (float_bytes * static_cast<double>(shape.embedding_floats) +
                              entry_bytes * static_cast<double>(shape.entries)) +
                    list_entry_bytes * static_cast<double>(shape.list_entries);
  plan.matrix_bytes = float_bytes * area(shape.matrix_rows, shape.matrix_cols);
  plan.ground_bytes = float_bytes * area(shape.ground_words, shape.ground_words);
  const double distances = shape.matrix_rows > 0 ? plan.matrix_bytes / float_bytes : batch_floats;
  const double vectors = shape.ground_words > 0 ? 0 : area(shape.batch_entries, shape.vec_size);
  const double tables = area(shape.batch_entries, shape.used_words);
  plan.working_bytes =
      float_bytes * (std::min(distances, batch_floats) + std::min(vectors, batch_floats) +
                     std::min(tables, engine_floats));
  plan.total_bytes = plan.data_bytes + plan.matrix_bytes + plan.ground_bytes + plan.working_bytes;
  return plan;
}

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
