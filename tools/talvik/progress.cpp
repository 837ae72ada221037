// Progress lines.
#include "progress.hpp"

#include <fmt/core.h>

#include <cstdio>

namespace talvik::tool {

std::string progress_line(const std::string& phase, double fraction, double pairs, double seconds) {
  const double rate = seconds > 0 ? fraction * pairs / seconds : 0;
  const auto left = static_cast<long long>(seconds * (1 - fraction) / fraction + 0.5);
  constexpr int minute = 60;
  return fmt::format("{}  {:.0f} %  {:.3g} pairs/s  {}:{:02} left", phase, 100 * fraction, rate,
                     left / minute, left % minute);
}

void Progress::batch_done(const std::string& phase, const BatchResult& batch) {
  if (!shown_ || batch.num_queries <= 0) return;
  constexpr double interval_seconds = 0.2;
  const double now = When();
  if (phase != phase_) {
    phase_ = phase;
    first_query_ = batch.first_query;
    if (last_shown_ > 0) phase_began_ = last_shown_;  // the end of the phase before
  }
  const int done = batch.first_query + batch.num_queries - first_query_;
  const int all = batch.end_query - first_query_;
  const bool last = done >= all;
  if (!last && now - last_shown_ < interval_seconds) return;
  last_shown_ = now;
  const std::string line =
      progress_line(phase, static_cast<double>(done) / all, pairs_, now - phase_began_);
  fmt::print(stderr, "\r{:<{}}", line, width_);  // blanks out what a longer line left
  std::fflush(stderr);
  width_ = line.size();
}

void Progress::clear() {
  if (shown_ && width_ > 0) fmt::print(stderr, "\r{:{}}\r", "", width_);
  width_ = 0;
}

}  // namespace talvik::tool
