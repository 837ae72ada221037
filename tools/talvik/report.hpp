// What the program says on standard output before and after a run.
#ifndef TALVIK_TOOL_REPORT_HPP
#define TALVIK_TOOL_REPORT_HPP

#include "memory_plan.hpp"
#include "problem.hpp"
#include "result_lists.hpp"
#include "run_options.hpp"

namespace talvik::tool {

struct RunFacts {
  int used_words = 0;
  int threads = 1;
  int k = 0;  ///< neighbours per query that the run will give
  MemoryPlan plan;
  double budget_bytes = 0;
};

/// Process 0 prints; the others return.
void report_before(const Problem& problem, const RunOptions& options, const RunFacts& facts);

/// Prints speed, precision and classification error on process 0.  Collective.
void report_after(const Problem& problem, const RunOptions& options, const ResultLists& lists,
                  double seconds);

/// Prints precision and classification error on process 0.  Where there is distribution info, every
/// process scores its queries; else each scores those of its lists.  Collective.
/// @param skip_first  entry 0 of every list is the query itself
void report_classification(const ResultLists& lists, bool skip_first, LabelList query_classes,
                           LabelList resident_classes, bool quiet);

}  // namespace talvik::tool

#endif
