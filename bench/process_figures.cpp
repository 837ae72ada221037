// Figures that need processes of their own: peak memory, limited instruction sets, ranks.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <stdexcept>

#include "child_runs.hpp"
#include "figures.hpp"

namespace talvik::bench {
namespace {

// Distances from two instruction sets differ as their dense products round.  Of a word that occurs
// on both sides the distance is the root of that difference, up to 5e-4 where vectors have length 1
// and other words are farther than 1; in text at most a few entries in ten are such words.
constexpr double most_relative_difference = 2e-4;

constexpr double most_working_mib = 512;

// NaN counts as different.
double largest_relative_difference(const std::vector<float>& a, const std::vector<float>& b) {
  double largest = a.size() == b.size() && !a.empty() ? 0 : INFINITY;
  for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
    if (a[i] == b[i]) continue;
    const double difference = std::fabs(double{a[i]} - double{b[i]}) / std::fabs(double{b[i]});
    if (!(difference <= largest)) largest = std::isnan(difference) ? INFINITY : difference;
  }
  return largest;
}

bool add_limited(const Options& options, const ChildReport& all, ChildRequest request,
                 const std::string& instruction_set, Table& table) {
  request.instruction_set = instruction_set;
  request.repetitions = repetitions(options, 3);
  const std::string name = std::to_string(request.steps) + " steps, " + instruction_set;
  const ChildReport limited = run_in_child(request);
  add_ratio(table, {"text", name + " alone", "all that the processor has"}, limited.samples,
            all.samples);
  const double difference = largest_relative_difference(limited.Z, all.Z);
  const bool equal = difference <= most_relative_difference;
  char line[256];
  std::snprintf(line, sizeof line,
                "text: %s (%s): distances differ by %.1e of themselves at most%s", name.c_str(),
                limited.kernels.c_str(), difference, equal ? "" : ": MORE THAN ROUNDING EXPLAINS");
  table.remarks.emplace_back(line);
  return equal;
}

void add_memory(const ChildRequest& request, const ChildReport& report, Table& table) {
  char note[64];
  std::snprintf(note, sizeof note, "and %.0f for its copies of the resident side",
                report.copies_mib);
  add_value(table,
            {.world = request.world,
             .what = std::to_string(request.steps) + " steps, peak working memory, MiB",
             .target = most_working_mib},
            report.working_mib, note);
}

}  // namespace

void engine_process_figures(const Options& options, Table& table) {
  std::map<int, ChildReport> text;
  for (const int steps : {0, 1, 3, 7}) {
    const bool compared = steps == 0 || steps == 3;
    const ChildRequest request{.world = "text",
                               .steps = steps,
                               .repetitions = compared ? repetitions(options, 3) : 1,
                               .threads = options.threads,
                               .return_block = compared};
    text[steps] = run_in_child(request);
    add_memory(request, text[steps], table);
  }
  for (const char* world : {"distinct", "large", "images"}) {
    for (const int steps : {0, 7}) {
      const ChildRequest request{.world = world, .steps = steps, .threads = options.threads};
      add_memory(request, run_in_child(request), table);
    }
  }
  bool equal = true;
  for (const char* instruction_set : {"avx2", "avx512"}) {
    if (!processor_has(instruction_set)) {
      table.remarks.push_back(std::string("NOT RUN: this processor has no ") + instruction_set);
      continue;
    }
    for (const int steps : {0, 3}) {
      const ChildRequest request{
          .world = "text", .steps = steps, .threads = options.threads, .return_block = true};
      equal = add_limited(options, text[steps], request, instruction_set, table) && equal;
    }
  }
  if (!equal) throw std::runtime_error("Instruction sets give different results, see below");
}

void rank_figures(const Options& options, Table& table) {
  const auto run = [&](int ranks, int threads) {
    return run_in_child({.world = "large",
                         .repetitions = repetitions(options, 5),
                         .threads = threads,
                         .ranks = ranks})
        .samples;
  };
  const Samples ranks = run(2, 1), threads = run(1, 2);
  add_ratio(table, {"large", "whole run on 2 ranks x 1 thread", "1 rank x 2 threads", 1.1}, ranks,
            threads);
}

}  // namespace talvik::bench
