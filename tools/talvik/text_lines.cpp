#include "text_lines.hpp"

#include <fmt/core.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "input_files.hpp"
#include "run_error.hpp"

namespace talvik::tool {
namespace {

constexpr unsigned buffer_bytes = 1 << 16;
constexpr size_t longest_line_bytes = 256u << 20;

}  // namespace

TextLines::TextLines(const std::string& path) : path_(path), buffer_(buffer_bytes) {
  require_file(path);
  std::error_code not_a_regular_file;
  const auto bytes = std::filesystem::file_size(path, not_a_regular_file);
  if (!not_a_regular_file) size_ = static_cast<long long>(bytes);
  file_ = gzopen(path.c_str(), "rb");
  if (!file_) throw RunError(path + ": cannot be opened: " + std::strerror(errno));
  gzbuffer(file_, buffer_bytes);
}

bool TextLines::next(std::string& line) {
  line.clear();
  bool any = false;
  while (begin_ < end_ || fill()) {
    any = true;
    const char* from = buffer_.data() + begin_;
    const auto* stop = static_cast<const char*>(std::memchr(from, '\n', end_ - begin_));
    const size_t bytes = stop ? static_cast<size_t>(stop - from) : end_ - begin_;
    line.append(from, bytes);
    begin_ += bytes + (stop ? 1 : 0);
    if (stop) break;
    if (line.size() > longest_line_bytes) {
      throw RunError(fmt::format("{}:{}: the line is longer than {} MiB, this is no text file",
                                 path_, number_ + 1, longest_line_bytes >> 20));
    }
  }
  if (!any) return false;
  if (!line.empty() && line.back() == '\r') line.pop_back();
  constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";
  if (number_++ == 0 && line.starts_with(byte_order_mark)) line.erase(0, byte_order_mark.size());
  return true;
}

std::string TextLines::place() const { return fmt::format("{}:{}", path_, number_); }

double TextLines::fraction() const {
  return size_ > 0 ? static_cast<double>(gzoffset(file_)) / static_cast<double>(size_) : 0;
}

bool TextLines::fill() {
  begin_ = end_ = 0;
  const int bytes = gzread(file_, buffer_.data(), buffer_bytes);
  int problem = Z_OK;
  const char* text = gzerror(file_, &problem);
  // A compressed file that ends too early gives what it holds, then Z_BUF_ERROR.
  if (bytes < 0 || (bytes == 0 && problem != Z_OK && problem != Z_STREAM_END)) {
    throw RunError(path_ +
                   ": cannot be read: " + (problem == Z_ERRNO ? std::strerror(errno) : text));
  }
  end_ = static_cast<size_t>(bytes);
  return bytes > 0;
}

}  // namespace talvik::tool
