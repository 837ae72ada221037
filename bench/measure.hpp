// Times of pieces of work that take turns, and peak memory.
#ifndef TALVIK_BENCH_MEASURE_HPP
#define TALVIK_BENCH_MEASURE_HPP

#include <functional>
#include <string>
#include <vector>

namespace talvik::bench {

/// Seconds of every repetition.  Processor time is that of the whole process.
struct Samples {
  std::vector<double> wall, cpu;
};

double median(std::vector<double> values);

/// Slowest over fastest: how far one can believe a ratio.
double spread(const std::vector<double>& values);

struct Contender {
  std::string name;
  int repetitions;
  std::function<void()> work;
};

/// Runs the contenders, whose names differ, their repetitions in random order, so that what else
/// the machine does meets them all alike.  Says on standard error what they took.
/// @return what each took, in their order
std::vector<Samples> take_turns(const std::vector<Contender>& contenders);

/// What bench/compare reads: a line on standard error.
void say_sample(const std::string& name, double wall, double cpu);

/// Runs the work once and adds what it took.
void add_sample(Samples& samples, const std::function<void()>& work);

/// Resident memory of this process in MiB, now and at its peak since the last restart.
double resident_mib();
double peak_resident_mib();

/// Begins a new peak, with what is free given back to the system first.
void restart_peak();

}  // namespace talvik::bench

#endif
