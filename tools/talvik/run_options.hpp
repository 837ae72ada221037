// Options that the commands corpus and mnist share.
#ifndef TALVIK_TOOL_RUN_OPTIONS_HPP
#define TALVIK_TOOL_RUN_OPTIONS_HPP

#include <string>
#include <vector>

#include "names.hpp"
#include "result_writer.hpp"

namespace CLI {
class App;
}

namespace talvik::tool {

enum class Mode { two_way, ground, split, scale_out };
enum class Metric { euclidean, cosine };
enum class Naming { by_id, by_index };  ///< of documents in the result file

inline const Names<Mode> mode_names = {{"two-way", Mode::two_way},
                                       {"ground", Mode::ground},
                                       {"split", Mode::split},
                                       {"scale-out", Mode::scale_out}};
inline const Names<Metric> metric_names = {{"euclidean", Metric::euclidean},
                                           {"cosine", Metric::cosine}};

struct RunOptions {
  int k = 10;
  int steps = 0;
  Mode mode = Mode::two_way;
  Metric metric = Metric::euclidean;
  bool normalise = false;
  bool gpu = false;
  int threads = 0;         ///< 0: hardware threads over local processes
  int limit_resident = 0;  ///< 0: all
  int limit_queries = 0;   ///< 0: all
  std::string out;
  Format format = Format::library;
  Naming naming = Naming::by_id;
  std::string matrix;  ///< empty: none
  bool keep_shards = false;
  double memory_limit_gib = 0;  ///< 0: a share of this machine's memory
  bool verbose = false;
  bool quiet = false;
};

inline constexpr int most_threads = 4096;  ///< of far larger teams the threading library crashes

void add_run_options(CLI::App& command, RunOptions& options);

/// Throws CLI::ValidationError naming the option where its output has no name or is one of the
/// inputs.
void require_no_input(const std::string& option, const std::string& output,
                      const std::vector<std::string>& inputs);

/// Throws CLI::ValidationError where options that are right each contradict one another.
/// @param inputs  files that the run reads and must not replace
void check_run_options(const RunOptions& options, const std::vector<std::string>& inputs);

}  // namespace talvik::tool

#endif
