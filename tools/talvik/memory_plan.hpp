// How much memory a run will take, reckoned before it starts.
#ifndef TALVIK_TOOL_MEMORY_PLAN_HPP
#define TALVIK_TOOL_MEMORY_PLAN_HPP

#include <string>

namespace talvik::tool {

/// Documents, and their entries.
struct Side {
  long long docs = 0;
  long long entries = 0;
};

/// Counts that decide a process's memory; 64-bit, as products are formed.
struct RunShape {
  Side resident, queries;
  bool two_way = true;  ///< either side is run in batches against the other
  long long voc_size = 0;
  long long vec_size = 0;
  long long used_words = 0;   ///< of the vocabulary, by both sides
  long long matrix_rows = 0;  ///< distance matrix of a process; 0: none
  long long matrix_cols = 0;
  long long ground_words = 0;  ///< side of the ground-distance matrix; 0: none
  long long list_length = 0;
  int steps = 0;
  int threads = 1;
};

struct MemoryPlan {  // bytes of a process
  double data_bytes = 0;
  double matrix_bytes = 0;
  double ground_bytes = 0;
  double working_bytes = 0;
  double total_bytes = 0;
};

constexpr double gib = 1024.0 * 1024.0 * 1024.0;

/// Per process.
MemoryPlan plan_memory(const RunShape& shape);

/// "1.50 GiB".
std::string in_gib(double bytes);

/// Memory of this machine, or of the control groups of this process where those have less.
double machine_memory_bytes();

/// The refusal of a run, or an empty text.
/// @param processes  of this machine
std::string over_budget(const MemoryPlan& plan, int processes, double budget_bytes);

/// Threads for each of the processes of this machine.
int default_threads(int local_processes);

}  // namespace talvik::tool

#endif
