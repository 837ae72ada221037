// Seconds of a piece of work.
#ifndef TALVIK_SEARCH_TIMER_HPP
#define TALVIK_SEARCH_TIMER_HPP

#include <chrono>

namespace talvik::internal {

/// Adds the time until its end.
class Timer {
 public:
  explicit Timer(double& seconds) : seconds_(seconds), begin_(Clock::now()) {}
  ~Timer() { seconds_ += std::chrono::duration<double>(Clock::now() - begin_).count(); }
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

 private:
  using Clock = std::chrono::steady_clock;
  double& seconds_;
  Clock::time_point begin_;
};

}  // namespace talvik::internal

#endif
