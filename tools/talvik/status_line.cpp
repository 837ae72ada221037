#include "status_line.hpp"

#include <fmt/core.h>
#include <unistd.h>  // isatty

#include <algorithm>
#include <cstdio>

#include "messages.hpp"
#include "talvik.hpp"

namespace talvik::tool {
namespace {

constexpr size_t columns_most = 79;  // a full line of 80 would move to the next one
constexpr auto interval = std::chrono::milliseconds(200);

}  // namespace

StatusLine::StatusLine() : StatusLine(myid == 0 && isatty(STDERR_FILENO) != 0) {}

bool StatusLine::is_due() const { return shown_ && Clock::now() - shown_at_ >= interval; }

void StatusLine::show_now(std::string text) {
  if (!shown_) return;
  shown_at_ = Clock::now();
  text.resize(std::min(text.size(), columns_most));
  complain("\r{:<{}}", text, width_);  // blanks out what a longer line left
  width_ = text.size();
}

void StatusLine::clear() {
  if (width_ > 0) complain("\r{:{}}\r", "", width_);
  width_ = 0;
}

double StatusLine::seconds() const {
  return std::chrono::duration<double>(Clock::now() - began_).count();
}

}  // namespace talvik::tool
