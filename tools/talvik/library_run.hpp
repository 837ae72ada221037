// Runs the library in one of its modes and brings the lists of all queries to every process.
#ifndef TALVIK_TOOL_LIBRARY_RUN_HPP
#define TALVIK_TOOL_LIBRARY_RUN_HPP

#include <cstdlib>
#include <memory>
#include <string>

#include "problem.hpp"
#include "result_lists.hpp"
#include "run_options.hpp"

namespace talvik::tool {

/// The split-resident mode divides the resident collection; the others divide the queries.
constexpr bool splits_queries(Mode mode) { return mode != Mode::split; }

struct LibraryRun {
  Mode mode = Mode::two_way;
  int k = 1;                 ///< length of the lists; 1 <= k <= resident documents
  int steps = 0;             ///< capacity steps
  bool use_gpu = false;      ///< distances on the GPU, which there must be
  bool want_matrix = false;  ///< keep the distances
  std::string library_file;  ///< under this name the library may write its own result files
  bool show_progress = false;
};

struct Free {
  void operator()(float* array) const { std::free(array); }
};

/// What a run leaves on every process.
struct RunOutcome {
  ResultLists lists;  ///< of all queries
  /// This process's part, row-major: (queries of its group) x resident, or in split-resident mode
  /// (resident documents of its group) x queries.  Null where not asked for.
  std::unique_ptr<float, Free> matrix;
  long long matrix_rows = 0;
  long long matrix_cols = 0;
  double seconds = 0;  ///< of the library's run, without the gathering
};

/// Leaves the split of the run in place.  Throws RunError.  Collective.
RunOutcome run_library(const Problem& problem, const LibraryRun& run);

/// The name of the result file that this process's library will create, or an empty text.
std::string own_library_file(const LibraryRun& run);

}  // namespace talvik::tool

#endif
