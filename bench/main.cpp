// All benchmarks in one process, apart from what needs processes of its own: the table at the end
// is the result.
#include <cblas.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "child_runs.hpp"
#include "context.hpp"
#include "figures.hpp"
#include "talvik.hpp"

namespace talvik::bench {
namespace {

struct Group {
  std::string name;
  std::function<void(const Options&, Table&)> measure;
};

// Those with processes of their own first, before this one has started MPI.
std::vector<Group> all_groups() {
  return {{"processes", engine_process_figures},
          {"ranks", rank_figures},
          {"search", search_figures},
          {"text", text_figures},
          {"distinct", distinct_figures},
          {"large", sparse_figures},
          {"images", image_figures},
          {"selection", selection_figures},
          {"whole-run", whole_run_figures},
          {"ground", ground_figures},
          {"two-way", two_way_figures}};
}

int run_groups(const std::vector<Group>& groups, const std::vector<std::string>& chosen,
               const Options& options) {
  num_cpu_threads = options.threads;
  openblas_set_num_threads(options.threads);
  print_context();
  Table table;
  int status = 0;
  for (const Group& group : groups) {
    const bool wanted =
        chosen.empty() || std::find(chosen.begin(), chosen.end(), group.name) != chosen.end();
    if (!wanted) continue;
    std::fprintf(stderr, "%s\n", group.name.c_str());
    try {
      group.measure(options, table);
    } catch (const std::exception& failure) {  // the figures of the others count all the same
      table.remarks.push_back("FAILED, " + group.name + ": " + failure.what());
      status = 1;
    }
  }
  print_table(table);
  if (num_procs > 0) finalize_mpi();
  return status;
}

int run(int argc, char** argv) {
  CLI::App app{"Measures the CPU engine on generated worlds and prints a table of ratios."};
  Options options{2, false, "data/large"};
  std::vector<std::string> chosen;
  std::string child;
  const std::vector<Group> groups = all_groups();
  std::vector<std::string> names;
  for (const Group& group : groups) names.push_back(group.name);
  app.add_option("--threads", options.threads, "threads of every team")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  app.add_flag("--quick", options.quick, "one repetition each, and no plain way on text");
  app.add_option("--only", chosen, "these groups of figures alone")
      ->delimiter(',')
      ->check(CLI::IsMember(names));
  app.add_option("--large", options.large, "folder that scripts/make-large has made")
      ->capture_default_str();
  app.add_option("--child", child)->group("");  // hidden: how the program calls itself
  CLI11_PARSE(app, argc, argv);
  if (!child.empty()) return serve_as_child(child);
  return run_groups(groups, chosen, options);
}

}  // namespace
}  // namespace talvik::bench

int main(int argc, char** argv) {
  try {
    return talvik::bench::run(argc, argv);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "engine_bench: %s\n", failure.what());
    return 1;
  }
}
