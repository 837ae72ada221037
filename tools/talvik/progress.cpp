#include "progress.hpp"

#include <fmt/core.h>

#include <cmath>
#include <filesystem>
#include <memory>

namespace talvik::tool {

namespace {

constexpr int percent = 100;

// "0:36 left".
std::string time_left(double fraction, double seconds) {
  constexpr int minute = 60;
  const long long left = std::llround(seconds * (1 - fraction) / fraction);
  return fmt::format("{}:{:02} left", left / minute, left % minute);
}

}  // namespace

std::string progress_line(const std::string& phase, double fraction, double pairs, double seconds) {
  const double rate = seconds > 0 ? fraction * pairs / seconds : 0;
  return fmt::format("{}  {:.0f} %  {:.3g} pairs/s  {}", phase, percent * fraction, rate,
                     time_left(fraction, seconds));
}

std::string reading_progress(const std::string& path, long long done, long long all,
                             double seconds) {
  const double fraction = static_cast<double>(done) / static_cast<double>(all);
  return fmt::format("reading {}  {:.0f} %  {}", std::filesystem::path(path).filename().string(),
                     percent * fraction, time_left(fraction, seconds));
}

std::function<void(long long done, long long all)> shown_reading(const std::string& path) {
  return [path, line = std::make_shared<StatusLine>()](long long done, long long all) {
    line->show([&] { return reading_progress(path, done, all, line->seconds()); });
  };
}

void Progress::batch_done(const std::string& phase, const BatchResult& batch) {
  if (batch.num_queries <= 0) return;
  if (phase != phase_) {
    phase_ = phase;
    first_query_ = batch.first_query;
    phase_began_ = last_batch_;  // the end of the phase before
  }
  last_batch_ = line_.seconds();
  const double done = batch.first_query + batch.num_queries - first_query_;
  const double fraction = done / (batch.end_query - first_query_);
  if (fraction < 1 && !line_.is_due()) return;
  line_.show_now(progress_line(phase, fraction, pairs_, last_batch_ - phase_began_));
}

}  // namespace talvik::tool
