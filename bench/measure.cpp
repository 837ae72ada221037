#include "measure.hpp"

#include <benchmark/benchmark.h>
#include <malloc.h>  // malloc_trim
#include <time.h>    // clock_gettime

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>

namespace talvik::bench {
namespace {

double seconds_of(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// A figure of /proc/self/status in MiB.
double status_mib(const char* name) {
  std::ifstream status("/proc/self/status");
  std::string word;
  while (status >> word) {
    double kib = 0;
    if (word == name && status >> kib) return kib / 1024;
  }
  return 0;
}

class SampleCollector : public benchmark::BenchmarkReporter {
 public:
  std::map<std::string, Samples> samples;

  bool ReportContext(const Context&) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration) continue;  // Google Benchmark's own medians
      Samples& own = samples[run.run_name.function_name];
      own.wall.push_back(run.real_accumulated_time);
      own.cpu.push_back(run.cpu_accumulated_time);
      say_sample(run.run_name.function_name, own.wall.back(), own.cpu.back());
    }
  }
};

void let_repetitions_take_turns() {
  char program[] = "engine_bench", option[] = "--benchmark_enable_random_interleaving=true";
  char* arguments[] = {program, option, nullptr};
  int count = 2;
  benchmark::Initialize(&count, arguments);
}

}  // namespace

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double spread(const std::vector<double>& values) {
  const auto [low, high] = std::minmax_element(values.begin(), values.end());
  return *high / *low;
}

void add_sample(Samples& samples, const std::function<void()>& work) {
  const double wall = seconds_of(CLOCK_MONOTONIC), cpu = seconds_of(CLOCK_PROCESS_CPUTIME_ID);
  work();
  samples.wall.push_back(seconds_of(CLOCK_MONOTONIC) - wall);
  samples.cpu.push_back(seconds_of(CLOCK_PROCESS_CPUTIME_ID) - cpu);
}

void say_sample(const std::string& name, double wall, double cpu) {
  std::fprintf(stderr, "  %-40s wall %9.4f s   cpu %9.4f s\n", name.c_str(), wall, cpu);
}

std::vector<Samples> take_turns(const std::vector<Contender>& contenders) {
  let_repetitions_take_turns();
  benchmark::ClearRegisteredBenchmarks();
  for (const Contender& contender : contenders) {
    const auto run = [&work = contender.work](benchmark::State& state) {
      for (auto _ : state) work();
    };
    benchmark::RegisterBenchmark(contender.name.c_str(), run)
        ->Iterations(1)
        ->Repetitions(contender.repetitions)
        ->UseRealTime()
        ->MeasureProcessCPUTime();
  }
  SampleCollector collector;
  benchmark::RunSpecifiedBenchmarks(&collector);
  std::vector<Samples> samples;
  samples.reserve(contenders.size());
  for (const Contender& contender : contenders) {
    samples.push_back(collector.samples.at(contender.name));
  }
  return samples;
}

double resident_mib() { return status_mib("VmRSS:"); }

double peak_resident_mib() { return status_mib("VmHWM:"); }

void restart_peak() {
  malloc_trim(0);
  std::ofstream("/proc/self/clear_refs") << 5;
}

}  // namespace talvik::bench
