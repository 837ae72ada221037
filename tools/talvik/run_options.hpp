// Options that the commands corpus and mnist share.
#ifndef TALVIK_TOOL_RUN_OPTIONS_HPP
#define TALVIK_TOOL_RUN_OPTIONS_HPP

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace talvik::tool {

struct RunOptions {
  int k = 10;
  int delta = 0;
  std::string mode = "two-way";
  std::string metric = "euclidean";
  bool normalise = false;
  bool gpu = false;
  int threads = 0;         ///< 0: hardware threads over local processes
  int limit_resident = 0;  ///< 0: all
  int limit_queries = 0;   ///< 0: all
  std::string out;
  std::string format = "library";
  std::string by = "id";
  std::string matrix;  ///< empty: none
  bool keep_shards = false;
  double memory_limit_gib = 0;  ///< 0: a share of this machine's memory
  bool verbose = false;
};

/// Accepts numbers from smallest on; what is no number at all is left to the option's own
/// conversion.
CLI::Validator at_least(long long smallest);

void add_run_options(CLI::App& command, RunOptions& options);

/// Throws CLI::ValidationError where options that are right each contradict one another.
/// @param inputs  files that the run reads and must not replace
void check_run_options(const RunOptions& options, const std::vector<std::string>& inputs);

}  // namespace talvik::tool

#endif
