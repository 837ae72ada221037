// Runs the library in one of its modes and brings the lists of all queries to every process.
#ifndef TALVIK_TOOL_LIBRARY_RUN_HPP
#define TALVIK_TOOL_LIBRARY_RUN_HPP

#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "npy.hpp"
#include "problem.hpp"
#include "result_lists.hpp"

namespace talvik::tool {

enum class Mode { two_way, ground, split, scale_out };

Mode mode_of(std::string_view name);  ///< as the option spells it

/// The split-resident mode divides the resident collection; the others divide the queries.
constexpr bool splits_queries(Mode mode) { return mode != Mode::split; }

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

/// @param k              1 <= k <= resident documents
/// @param use_gpu        distances on the GPU, which there must be
/// @param want_matrix    keep the distances
/// @param library_file   name under which the library may write its own result files
/// @param show_progress  a line on this process's standard error
/// Collective.
RunOutcome run_queries(const Problem& problem, Mode mode, int k, int delta, bool use_gpu,
                       bool want_matrix, const std::string& library_file, bool show_progress);

/// The name of the result file that this process's library will create, or an empty text.
std::string own_library_file(Mode mode, bool want_matrix, const std::string& library_file);

}  // namespace talvik::tool

#endif
