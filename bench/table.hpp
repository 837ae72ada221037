// The table of figures that a run ends with.
#ifndef TALVIK_BENCH_TABLE_HPP
#define TALVIK_BENCH_TABLE_HPP

#include <string>
#include <vector>

#include "measure.hpp"

namespace talvik::bench {

constexpr double no_target = 0;
constexpr double no_time = -1;

/// What a figure says: in this world, what takes how much of what it is compared with.
struct Comparison {
  std::string world, what;
  std::string against = {};   ///< empty where the figure is no ratio
  double target = no_target;  ///< at most; or no_target
};

struct Figure {
  Comparison of;
  double wall, cpu;  ///< by wall-clock and by processor time; cpu is no_time where it is no time
  std::string note;
};

struct Table {
  std::vector<Figure> figures;
  std::vector<std::string> remarks;  ///< lines below the table
};

/// median(a) / median(b), with the spread of both wall-clock times.
void add_ratio(Table& table, const Comparison& of, const Samples& a, const Samples& b);

/// A figure that is no time, in the column of the wall-clock.
void add_value(Table& table, const Comparison& of, double value, const std::string& note);

/// A target is met where both columns are at most the target; where just one is, the table says
/// which.  On a machine that others use, too, processor time is the one to go by.
void print_table(const Table& table);

}  // namespace talvik::bench

#endif
