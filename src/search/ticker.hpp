// Tells the caller how far a search has come, and the search that the caller wants it to end.
#ifndef TALVIK_SEARCH_TICKER_HPP
#define TALVIK_SEARCH_TICKER_HPP

#include <atomic>
#include <chrono>

#include "talvik/error.hpp"
#include "talvik/search.hpp"

namespace talvik::internal {

class Ticker {
 public:
  /// The options live as long.
  Ticker(const SearchOptions& options, Count total)
      : progress_(options.progress),
        between_(options.progress_seconds),
        total_(total),
        last_(Clock::now()),
        begin_(last_) {}

  /// Called by every thread of a team, between pieces of work.  The first of them, which is the
  /// caller's, asks; all throw Cancelled once the answer was no.
  void tick(int thread) {
    if (cancelled_) throw Cancelled();
    if (thread != 0 || !progress_) return;
    const Clock::time_point now = Clock::now();
    if (now - last_ < between_) return;
    last_ = now;
    if (progress_({.done = done_, .total = total_, .seconds = seconds()})) return;
    cancelled_ = true;
    throw Cancelled();
  }

  void add_done(Count queries) { done_ += queries; }
  double seconds() const { return std::chrono::duration<double>(Clock::now() - begin_).count(); }

 private:
  using Clock = std::chrono::steady_clock;
  const std::function<bool(const Progress&)>& progress_;
  std::chrono::duration<double> between_;
  Count total_;
  Clock::time_point last_, begin_;
  std::atomic<Count> done_ = 0;
  std::atomic<bool> cancelled_ = false;
};

}  // namespace talvik::internal

#endif
