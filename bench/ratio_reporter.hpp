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
        seconds_[run.run_name.function_name].push_back(run.real_accumulated_time /
                                                       static_cast<double>(run.iterations));
      }
    }
  }

  /// Prints median(a) / median(b), its target where there is one, and the spread of both.  Says so
  /// where one of them has not run.
  void print_ratio(const std::string& a, const std::string& b, double target = 0) const;

 private:
  std::map<std::string, std::vector<double>> seconds_;
};

}  // namespace talvik::bench

#endif
