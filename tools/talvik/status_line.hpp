// The line that shows how far a command is.
#ifndef TALVIK_TOOL_STATUS_LINE_HPP
#define TALVIK_TOOL_STATUS_LINE_HPP

#include <chrono>
#include <cstddef>
#include <string>

namespace talvik::tool {

/// One line on standard error that overwrites itself a few times a second, at most 79 columns wide.
class StatusLine {
 public:
  /// Nothing is shown but by process 0, and where standard error is a terminal.
  StatusLine();
  /// @param shown  false: every call does nothing
  explicit StatusLine(bool shown) : shown_(shown) {}
  ~StatusLine() { clear(); }
  StatusLine(const StatusLine&) = delete;
  StatusLine& operator=(const StatusLine&) = delete;

  /// Whether it is time for another text.
  bool is_due() const;

  /// @param text  std::string(), called only when the line is due
  template <class Text>
  void show(const Text& text) {
    if (is_due()) show_now(text());
  }
  void show_now(std::string text);
  void clear();

  double seconds() const;  ///< since it was made

 private:
  using Clock = std::chrono::steady_clock;
  bool shown_;
  Clock::time_point began_ = Clock::now();
  Clock::time_point shown_at_ = began_;
  size_t width_ = 0;  // of what stands there
};

}  // namespace talvik::tool

#endif
