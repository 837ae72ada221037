// How much memory a run will take, reckoned before it starts.
#ifndef TALVIK_TOOL_MEMORY_PLAN_HPP
#define TALVIK_TOOL_MEMORY_PLAN_HPP

#include <algorithm>
#include <string>

namespace talvik::tool {

/// Counts that decide a process's memory; 64-bit, as products are formed.
struct RunShape {
  long long embedding_floats = 0;
  long long entries = 0;      ///< of both collections
  long long matrix_rows = 0;  ///< distance matrix of a process; 0: none
  long long matrix_cols = 0;
  long long ground_words = 0;   ///< side of the ground-distance matrix; 0: none
  long long list_entries = 0;   ///< queries x k
  long long batch_entries = 0;  ///< entries of the collection that is run in batches, the larger
  long long vec_size = 0;
  long long used_words = 0;
};

struct MemoryPlan {
  double data_bytes = 0;
  double matrix_bytes = 0;
  double ground_bytes = 0;
  double working_bytes = 0;
  double total_bytes = 0;
};

constexpr double gib = 1024.0 * 1024.0 * 1024.0;

/// Per process.
inline MemoryPlan plan_memory(const RunShape& shape) {
  constexpr double float_bytes = 4, entry_bytes = 8, list_entry_bytes = 8;
  constexpr double copies = 2;                    // the library works on copies of its own
  constexpr double most_engine_floats = 1 << 27;  // 512 MiB
  constexpr double most_batch_floats = 1 << 26;   // a batch's distances, and again its vectors
  MemoryPlan plan;
  plan.data_bytes = copies * (float_bytes * static_cast<double>(shape.embedding_floats) +
                              entry_bytes * static_cast<double>(shape.entries)) +
                    list_entry_bytes * static_cast<double>(shape.list_entries);
  plan.matrix_bytes =
      float_bytes * static_cast<double>(shape.matrix_rows) * static_cast<double>(shape.matrix_cols);
  plan.ground_bytes = float_bytes * static_cast<double>(shape.ground_words) *
                      static_cast<double>(shape.ground_words);
  const auto batch = static_cast<double>(shape.batch_entries);
  const double distances =
      shape.matrix_rows > 0 ? plan.matrix_bytes / float_bytes : most_batch_floats;
  const double vectors = shape.ground_words > 0 ? 0 : batch * static_cast<double>(shape.vec_size);
  const double tables = batch * static_cast<double>(shape.used_words);
  plan.working_bytes =
      float_bytes * (std::min(distances, most_batch_floats) + std::min(vectors, most_batch_floats) +
                     std::min(tables, most_engine_floats));
  plan.total_bytes = plan.data_bytes + plan.matrix_bytes + plan.ground_bytes + plan.working_bytes;
  return plan;
}

/// "1.50 GiB".
std::string in_gib(double bytes);

/// Memory of this machine, or of the container where that has less.
double machine_memory_bytes();

/// The refusal of a run, or an empty text.
/// @param processes  of this machine
std::string over_budget(const MemoryPlan& plan, int processes, double budget_bytes);

/// Threads for each of the processes of this machine.
int default_threads(int local_processes);

}  // namespace talvik::tool

#endif
