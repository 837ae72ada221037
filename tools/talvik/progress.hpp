// Progress of a run: phase, share, rate, remaining time.
#ifndef TALVIK_TOOL_PROGRESS_HPP
#define TALVIK_TOOL_PROGRESS_HPP

#include <functional>
#include <string>

#include "status_line.hpp"
#include "talvik.hpp"

namespace talvik::tool {

/// "second direction  25 %  1.2e+06 pairs/s  0:36 left".
/// @param fraction  of the phase, above 0
/// @param pairs     of the whole phase, all processes together
std::string progress_line(const std::string& phase, double fraction, double pairs, double seconds);

/// "reading words.bin  25 %  0:36 left".
/// @param done  of `all`, above 0
std::string reading_progress(const std::string& path, long long done, long long all,
                             double seconds);

/// Shows how far the reading of a file is, when called with the records done, of how many.
std::function<void(long long done, long long all)> shown_reading(const std::string& path);

/// Shows how far a run is, batch by batch.  Assumes that all processes go on at the same rate.
class Progress {
 public:
  /// @param shown  false: every call does nothing
  Progress(bool shown, double pairs) : line_(shown), pairs_(pairs) {}
  void batch_done(const std::string& phase, const BatchResult& batch);
  void clear() { line_.clear(); }

 private:
  StatusLine line_;
  double pairs_;
  std::string phase_;
  int first_query_ = 0;
  double phase_began_ = 0;  // seconds of the line
  double last_batch_ = 0;
};

}  // namespace talvik::tool

#endif
