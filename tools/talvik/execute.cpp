// The steps of a run.
#include "execute.hpp"

#include <fmt/core.h>
#include <unistd.h>  // isatty

#include <algorithm>
#include <filesystem>
#include <memory>
#include <utility>

#include "agreement.hpp"
#include "atomic_output.hpp"
#include "group_run.hpp"
#include "library_run.hpp"
#include "memory_plan.hpp"
#include "npy.hpp"
#include "report.hpp"
#include "result_writer.hpp"
#include "run_error.hpp"
#include "same_run.hpp"

namespace talvik::tool {
namespace {

/// Files that a process writes, made before the run so that a run cannot fail for them at its end.
struct Outputs {
  std::unique_ptr<AtomicFile> results;  // process 0
  std::unique_ptr<AtomicFile> matrix;   // process 0
  std::string shards;                   // of every process; the shard's name without its number
  std::unique_ptr<Unfinished> shard;
  std::unique_ptr<Unfinished> library_file;
};

/// A name that no other run has, for files that go with an output.
std::string scratch_name(const std::string& output) {
  return unique_beside(is_stream(output) ? std::filesystem::temp_directory_path() / "talvik"
                                         : std::filesystem::path(output));
}

std::string numbered(const std::string& name, int process) {
  return fmt::format("{}.{}", name, process);
}

Outputs open_outputs(const RunOptions& options, LibraryRun& library) {
  Outputs outputs;
  library.library_file = scratch_name(options.out);
  outputs.shards = from_first_process(scratch_name(options.matrix));
  on_first_process([&] {
    outputs.results = std::make_unique<AtomicFile>(options.out);
    if (library.want_matrix) outputs.matrix = std::make_unique<AtomicFile>(options.matrix);
  });
  together([&] {
    if (library.want_matrix) {
      outputs.shard = std::make_unique<Unfinished>(numbered(outputs.shards, myid));
    }
    const std::string own = own_library_file(library);
    if (!own.empty()) {
      outputs.library_file = std::make_unique<Unfinished>(own);
      make_discarded(own);  // the lists come through the hook
    }
  });
  return outputs;
}

void apply_settings(const RunOptions& options) {
  num_cpu_threads = options.threads > 0 ? options.threads : default_threads(num_local_procs);
  use_cosine = options.metric == Metric::cosine;
  normalize_embeddings = options.normalise || use_cosine;  // 1 - dot is made for unit vectors
}

void require_gpu(const RunOptions& options) {
  if (options.gpu && count_gpu_devices() == 0) {
    throw RunError("--gpu: no GPU that CUDA can use was found on this machine");
  }
}

/// @return neighbours per query that can be given
int neighbours_to_find(const Problem& problem, int asked) {
  const auto resident = static_cast<int>(problem.resident.docs.size());
  if (!problem.self_run()) return std::min(asked, resident);
  if (resident < 2) throw RunError("a self run needs two documents, the collection has one");
  return std::min(asked, resident - 1);
}

RunFacts plan_run(const Problem& problem, const RunOptions& options) {
  const Mode mode = options.mode;
  RunFacts facts;
  facts.k = neighbours_to_find(problem, options.k);
  facts.used_words = count_used_words(problem);
  facts.threads = num_cpu_threads;

  const long long resident = std::ssize(problem.resident.docs);
  const long long queries = std::ssize(problem.queries.docs);
  RunShape shape{.resident = {resident, problem.resident.entries},
                 .queries = {queries, problem.queries.entries},
                 .two_way = mode == Mode::two_way || mode == Mode::ground,
                 .voc_size = problem.voc_size,
                 .vec_size = problem.vec_size,
                 .used_words = facts.used_words,
                 .list_length = facts.k + 1,
                 .steps = options.steps,
                 .threads = facts.threads};
  if (splits_queries(mode)) {
    shape.matrix_rows = largest_group(problem.queries);
    shape.matrix_cols = resident;
  } else if (!options.matrix.empty()) {
    shape.matrix_rows = largest_group(problem.resident);
    shape.matrix_cols = queries;
  }
  if (mode == Mode::ground) shape.ground_words = facts.used_words;
  facts.plan = plan_memory(shape);

  constexpr double default_share = 0.8;
  facts.budget_bytes = options.memory_limit_gib > 0 ? options.memory_limit_gib * gib
                                                    : default_share * machine_memory_bytes();
  const std::string refusal = over_budget(facts.plan, num_local_procs, facts.budget_bytes);
  if (!refusal.empty()) throw RunError(refusal);
  return facts;
}

/// Every process writes its part, then process 0 puts them together.
void write_matrix(const RunOptions& options, const Problem& problem, const RunOutcome& outcome,
                  Outputs& outputs) {
  const bool queries_split = splits_queries(options.mode);
  together([&] {
    AtomicFile file(outputs.shard->path());
    const auto write = queries_split ? write_npy : write_npy_transposed;
    write(file, outcome.matrix.get(), outcome.matrix_rows, outcome.matrix_cols);
    file.commit();
  });
  on_first_process([&] {
    const long long resident = std::ssize(problem.resident.docs);
    const long long queries = std::ssize(problem.queries.docs);
    std::vector<Shard> shards;
    for (int p = 0; p < num_procs; ++p) {
      const long long length = grp_length[p];
      shards.push_back({numbered(outputs.shards, p), queries_split ? length : queries,
                        queries_split ? resident : length});
    }
    merge_npy(*outputs.matrix, shards,
              queries_split ? Join::one_below_the_other : Join::side_by_side);
    outputs.matrix->commit();
  });
  if (!options.keep_shards) return;
  together([&] {
    const std::string kept = numbered(options.matrix, myid);
    if (!outputs.shard->rename_to(kept)) throw RunError(kept + ": cannot be put into place");
  });
}

void write_lists(const RunOptions& options, const Problem& problem, const ResultLists& lists,
                 Outputs& outputs) {
  on_first_process([&] {
    DocumentNames names;
    if (options.naming == Naming::by_id) names = {&problem.queries.ids, &problem.resident.ids};
    write_results(lists, problem.self_run(), options.format, names,
                  [&](const std::string& text) { outputs.results->write(text); });
    outputs.results->commit();
  });
}

void run(const RunOptions& options, const std::function<Problem()>& load) {
  LibraryRun library{.mode = options.mode,
                     .steps = options.steps,
                     .use_gpu = options.gpu,
                     .want_matrix = !options.matrix.empty(),
                     .library_file = "",
                     .show_progress = myid == 0 && isatty(STDERR_FILENO) != 0};
  require_same(digests_of(options));
  apply_settings(options);
  together([&] {
    require_threads(num_cpu_threads);
    require_gpu(options);
  });
  Outputs outputs = open_outputs(options, library);
  Problem problem;
  RunFacts facts;
  together([&] { problem = load(); });
  require_same(digests_of(problem));
  together([&] { facts = plan_run(problem, options); });
  report_before(problem, options, facts);

  library.k = facts.k + (problem.self_run() ? 1 : 0);  // room for the query itself
  RunOutcome outcome = run_library(problem, library);
  if (problem.self_run()) put_self_first(outcome.lists, problem.self_of_query);
  write_lists(options, problem, outcome.lists, outputs);
  if (library.want_matrix) write_matrix(options, problem, outcome, outputs);
  report_after(problem, options, outcome.lists, outcome.seconds);
}

}  // namespace

int execute(const RunOptions& options, const std::function<Problem()>& load) {
  const bool show_processes =
      options.verbose && !is_standard_output(options.out) && !is_standard_output(options.matrix);
  return run_in_group({.name = "talvik", .show_processes = show_processes, .quiet = options.quiet},
                      [&] { run(options, load); });
}

}  // namespace talvik::tool
