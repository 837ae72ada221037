// Groups of figures.  Each makes its world, measures, adds its lines to the table and lets the
// world go.
#ifndef TALVIK_BENCH_FIGURES_HPP
#define TALVIK_BENCH_FIGURES_HPP

#include <string>

#include "table.hpp"

namespace talvik::bench {

struct Options {
  int threads;
  bool quick;         ///< fewer repetitions, and nothing that takes the plain way on text
  std::string large;  ///< folder of a collection by scripts/make-large
};

constexpr int repetitions(const Options& options, int full) { return options.quick ? 1 : full; }

// --- One block of distances.
void text_figures(const Options& options, Table& table);
void distinct_figures(const Options& options, Table& table);
void image_figures(const Options& options, Table& table);
void ground_figures(const Options& options, Table& table);

// --- One stage.
void sparse_figures(const Options& options, Table& table);
void selection_figures(const Options& options, Table& table);

// --- Whole runs in this process.
void whole_run_figures(const Options& options, Table& table);
void two_way_figures(const Options& options, Table& table);

// --- Processes of their own; to come before what starts MPI.

/// Peak memory, and the times with limited instruction sets.
/// Throws where an instruction set gives other distances than rounding explains.
void engine_process_figures(const Options& options, Table& table);
void rank_figures(const Options& options, Table& table);

// --- The search library.

/// Peak memory and ranks first, in processes of their own; then whole runs in this process.  Where
/// the data are missing, a remark says how they are made.
void search_figures(const Options& options, Table& table);

}  // namespace talvik::bench

#endif
