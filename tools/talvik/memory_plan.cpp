#include "memory_plan.hpp"

#include <fmt/core.h>
#include <unistd.h>  // sysconf

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <limits>
#include <thread>

#include "libwmd/cpu/sizes.hpp"
#include "talvik.hpp"
#include "talvik/batch_sizes.hpp"

namespace talvik::tool {

namespace {

constexpr double float_bytes = sizeof(float);

// Counts as doubles: their products pass 64 bits.
double area(long long rows, long long cols) {
  return static_cast<double>(rows) * static_cast<double>(cols);
}

int as_int(long long count) {
  return static_cast<int>(std::min<long long>(count, std::numeric_limits<int>::max()));
}

// Floats that the engine touches while it runs a batch of one side against the other.
double engine_floats(const RunShape& shape, const Side& resident, const Side& queries) {
  const bool from_vectors = shape.ground_words == 0;
  const int entries = internal::average_entries(as_int(queries.entries), as_int(queries.docs));
  const long long docs = internal::queries_per_batch(internal::batch_budget_floats,
                                                     as_int(queries.docs), as_int(resident.docs),
                                                     from_vectors ? entries * shape.vec_size : 0);
  const long long batch_entries = docs * entries;
  const internal::EngineBudget budget;
  const int rows = static_cast<int>(std::min<long long>(
      std::min(batch_entries, shape.used_words), internal::rows_per_pass(budget, shape.threads)));
  const int nearest = as_int(std::min<long long>(shape.steps + 1LL, std::max(batch_entries, 1LL)));
  const internal::TilePlan tiles =
      internal::plan_tiles(budget, {.threads = shape.threads,
                                    .voc_size = as_int(shape.used_words),
                                    .rows = rows,
                                    .docs = std::max(as_int(docs), 1),
                                    .nearest = nearest,
                                    .slots = nearest,
                                    .panel_words_limit = internal::panel_words_most,
                                    .several_passes = false});
  const double tables = area(tiles.slab_words, tiles.window_docs) * (2.0 * nearest - 1);
  const double panels = area(tiles.panel_words, rows) * shape.threads;
  const double stages = static_cast<double>(budget.stage_floats) * shape.threads;
  // What a dense product packs, on each thread.
  const double packed = std::min<double>(area(rows, shape.vec_size), 8 << 20) * shape.threads;
  const double vectors = from_vectors ? area(batch_entries + rows, shape.vec_size) : 0;
  return tables + panels + stages + (from_vectors ? packed : 0) + vectors +
         area(docs, resident.docs);
}

}  // namespace

MemoryPlan plan_memory(const RunShape& shape) {
  constexpr double entry_bytes = sizeof(Document::value_type);
  constexpr double list_entry_bytes = sizeof(int) + sizeof(float);
  // The collections as they were read, the library's, and the engine's; of the words in use, the
  // library and the engine have the vectors.
  constexpr double copies = 3, copies_of_words = 2;
  const auto entries = static_cast<double>(shape.resident.entries + shape.queries.entries);
  MemoryPlan plan;
  plan.data_bytes = float_bytes * (area(shape.voc_size, shape.vec_size) +
                                   copies_of_words * area(shape.used_words, shape.vec_size)) +
                    copies * entry_bytes * entries +
                    list_entry_bytes * area(shape.queries.docs, shape.list_length);
  plan.matrix_bytes = float_bytes * area(shape.matrix_rows, shape.matrix_cols);
  plan.ground_bytes = float_bytes * area(shape.ground_words, shape.ground_words);
  double floats = engine_floats(shape, shape.resident, shape.queries);
  if (shape.two_way) {
    floats = std::max(floats, engine_floats(shape, shape.queries, shape.resident));
  }
  plan.working_bytes = float_bytes * floats;
  plan.total_bytes = plan.data_bytes + plan.matrix_bytes + plan.ground_bytes + plan.working_bytes;
  return plan;
}

std::string in_gib(double bytes) { return fmt::format("{:.2f} GiB", bytes / gib); }

namespace {

// The lowest limit of this process's control group and those above it.
double control_group_bytes(const std::string& root, const std::string& group, const char* file) {
  double lowest = std::numeric_limits<double>::infinity();
  for (std::filesystem::path path = group;; path = path.parent_path()) {
    double bytes = 0;
    if (std::ifstream(root + path.string() + "/" + file) >> bytes && bytes > 0) {
      lowest = std::min(lowest, bytes);
    }
    if (!path.has_relative_path()) return lowest;
  }
}

}  // namespace

double machine_memory_bytes() {
  double bytes =
      static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGE_SIZE));
  // Lines "number:controllers:path"; the one without controllers is of version 2.
  std::ifstream groups("/proc/self/cgroup");
  for (std::string line; std::getline(groups, line);) {
    const size_t controllers = line.find(':') + 1, path = line.find(':', controllers) + 1;
    if (controllers == 0 || path == 0) continue;
    const std::string names = line.substr(controllers, path - 1 - controllers);
    const std::string group = line.substr(path);
    if (names.empty()) {
      bytes = std::min(bytes, control_group_bytes("/sys/fs/cgroup", group, "memory.max"));
    } else if (names.find("memory") != std::string::npos) {
      bytes = std::min(
          bytes, control_group_bytes("/sys/fs/cgroup/memory", group, "memory.limit_in_bytes"));
    }
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
