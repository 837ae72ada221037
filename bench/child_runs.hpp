// Runs of this program inside a process of their own: with fewer instruction sets, on several
// ranks, or because peak memory means most in a fresh process.
#ifndef TALVIK_BENCH_CHILD_RUNS_HPP
#define TALVIK_BENCH_CHILD_RUNS_HPP

#include <string>
#include <vector>

#include "measure.hpp"

namespace talvik::bench {

struct ChildRequest {
  std::string world;  ///< or, for a two-way search of a large collection, its folder
  int steps = 0;
  int repetitions = 1;
  int threads = 1;
  int ranks = 0;                     ///< 0: the engine or the search alone, without mpirun; else a
                                     ///< whole run or the search, by so many processes
  std::string instruction_set = {};  ///< "avx2", "avx512" (without what came after AVX-512's first
                                     ///< server processors), or empty: all that the processor has
  bool return_block = false;
  bool search = false;
};

struct ChildReport {
  Samples samples;      ///< with ranks: the slowest rank's wall-clock, all ranks' processor time
  double copies_mib;    ///< what the engine's own copies of the resident side take
  double working_mib;   ///< peak beyond them while it computes, the batch's distinct rows included;
                        ///< of a search: the peak of the largest process, everything included
  std::string kernels;  ///< kernels_in_use()
  std::vector<float> Z;  ///< with return_block
};

bool processor_has(const std::string& instruction_set);

/// Starts this program again and waits for it.  Throws with its output where it fails.  To be
/// called before this process has started MPI.
ChildReport run_in_child(const ChildRequest& request);

/// The child's side, told by the text that run_in_child has passed on.
/// @return exit status
int serve_as_child(const std::string& text);

}  // namespace talvik::bench

#endif
