// Collects the benchmarks of one process and prints the ratios of their medians.
#ifndef TALVIK_BENCH_RATIO_REPORTER_HPP
#define TALVIK_BENCH_RATIO_REPORTER_HPP

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace talvik::bench {

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    benchmark::ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
        Times& times = times_[run.run_name.function_name];
        const double iterations = static_cast<double>(run.iterations);
        times.wall.push_back(run.real_accumulated_time / iterations);
        times.cpu.push_back(run.cpu_accumulated_time / iterations);
      }
    }
  }

  /// Prints median(a) / median(b) by wall-clock and by processor time, the target where there is
  /// one, and the spread of both wall-clock times.  Says so where one of them has not run.  On a
  /// machine that others use, too, the processor times are the ones to go by.
  void print_ratio(const std::string& a, const std::string& b, double target = 0) const;

 private:
  struct Times {
    std::vector<double> wall, cpu;  ///< seconds of each repetition
  };
  std::map<std::string, Times> times_;
};

}  // namespace talvik::bench

#endif
