// Reports: short aligned lines; what is wrong goes to standard error.
#include "report.hpp"

#include <fmt/core.h>

#include <cstdio>

#include "majority_vote.hpp"
#include "messages.hpp"
#include "talvik.hpp"

namespace talvik::tool {
namespace {

void print_dropped(const char* which, const LoadedCollection& collection) {
  for (const std::string& document : collection.dropped) {
    say("left out ({}): {}\n", which, document);
  }
}

void print_row(const char* name, long long resident, long long queries, bool self_run) {
  if (self_run) {
    say("{:<20}{:>12}\n", name, resident);
  } else {
    say("{:<20}{:>12}{:>12}\n", name, resident, queries);
  }
}

void print_warnings(const Problem& problem, const RunOptions& options) {
  for (const std::string& warning : problem.warnings) {
    complain("talvik: warning: {}\n", warning);
  }
  const int shared = count_shared_ids(problem.resident.ids);
  if (options.naming == Naming::by_id && shared > 0) {
    complain(
        "talvik: warning: {} identifier(s) stand for several resident documents; --by index "
        "tells them apart\n",
        shared);
  }
}

}  // namespace

void report_before(const Problem& problem, const RunOptions& options, const RunFacts& facts) {
  if (myid != 0) return;
  print_warnings(problem, options);
  if (options.quiet) return;
  const bool self = problem.self_run();
  const LoadedCollection& resident = problem.resident;
  const LoadedCollection& queries = problem.queries;
  say("{:<20}{:>12}{}\n", "", "resident", self ? "" : "     queries");
  print_row("documents", std::ssize(resident.docs), std::ssize(queries.docs), self);
  print_row("entries", resident.entries, queries.entries, self);
  if (resident.words_read > 0) {
    print_row("words", resident.words_read, queries.words_read, self);
    print_row("out of vocabulary", resident.words_unknown, queries.words_unknown, self);
  }
  print_row("empty, left out", std::ssize(resident.dropped), std::ssize(queries.dropped), self);
  if (self) {
    say("{:<20}{:>12}\n", "queries, of these", queries.docs.size());
  }
  say("vocabulary used     {:>12} of {} words, {} floats each\n", facts.used_words,
      problem.voc_size, problem.vec_size);
  say("neighbours          {:>12}{}\n", facts.k,
      facts.k < options.k ? fmt::format(" ({} asked for, the collection has no more)", options.k)
                          : "");
  say("run                 {:>12}, steps {}, {}{}\n", name_of(options.mode, mode_names),
      options.steps, name_of(options.metric, metric_names),
      normalize_embeddings ? ", normalised" : "");
  const char* gpu = !options.gpu        ? ""
                    : gpu_is_emulated() ? ", GPU emulated on the CPU (slow)"
                                        : ", GPU";
  say("processes           {:>12}, {} thread(s) each{}\n", num_procs, facts.threads, gpu);
  say("memory planned      {:>12} per process, {} of {} on this machine\n",
      in_gib(facts.plan.total_bytes), in_gib(facts.plan.total_bytes * num_local_procs),
      in_gib(facts.budget_bytes));
  if (options.verbose) {
    print_dropped("resident", resident);
    if (!self) print_dropped("queries", queries);
  }
  std::fflush(stdout);
}

void report_after(const Problem& problem, const RunOptions& options, const ResultLists& lists,
                  double seconds) {
  const bool skip_first = problem.self_run();  // entry 0 of every list is the query itself
  if (myid == 0 && !options.quiet) {
    const double pairs = static_cast<double>(problem.queries.docs.size()) *
                         static_cast<double>(problem.resident.docs.size());
    say("seconds             {:>12.2f}\n", seconds);
    say("pairs per second    {:>12.4g}\n", seconds > 0 ? pairs / seconds : 0.0);
    std::fflush(stdout);
  }
  split_over_processes(problem.queries);
  report_classification(lists, skip_first, problem.queries.classes, problem.resident.classes,
                        options.quiet);
  cleanup_distribution_info();
}

void report_classification(const ResultLists& lists, bool skip_first, LabelList query_classes,
                           LabelList resident_classes, bool quiet) {
  std::vector<int> rows = lists.neighbours;
  const int own_first = grp_start != nullptr ? grp_start[myid] : 0;
  const bool print_results = true;
  evaluate_topk_precision(lists.num_queries, lists.k,
                          rows.data() + internal::elements(own_first, lists.k),
                          query_classes.data(), resident_classes.data(), skip_first, print_results);
  if (myid != 0 || quiet) return;

  const std::vector<int> sizes = vote_sizes(lists.k - (skip_first ? 1 : 0));
  const std::vector<double> errors =
      vote_errors(lists, sizes, skip_first, query_classes, resident_classes);
  say("Classification error by majority vote\n");
  for (size_t s = 0; s < sizes.size(); ++s) say("{} {:f}\n", sizes[s], errors[s]);
  std::fflush(stdout);
}

}  // namespace talvik::tool
