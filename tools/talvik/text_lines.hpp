// Lines of a text file, plain or compressed by gzip, and the line that shows how far a command is.
// Both are small enough to live in the header.
#ifndef TALVIK_TOOL_TEXT_LINES_HPP
#define TALVIK_TOOL_TEXT_LINES_HPP

#include <fmt/core.h>
#include <unistd.h>  // isatty
#include <zlib.h>    // reads plain files as they are

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "run_error.hpp"

namespace talvik::tool {

/// Throws RunError where path is not there or is a directory.
inline void require_file(const std::string& path) {
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  if (!std::filesystem::exists(status)) {
    throw RunError(path + ": " + (error ? error.message() : std::strerror(ENOENT)));
  }
  if (std::filesystem::is_directory(status)) {
    throw RunError(path + ": is a directory, a file was expected");
  }
}

class TextLines {
 public:
  explicit TextLines(const std::string& path) : path_(path), buffer_(buffer_bytes) {
    require_file(path);
    std::error_code not_a_regular_file;
    const auto bytes = std::filesystem::file_size(path, not_a_regular_file);
    if (!not_a_regular_file) size_ = static_cast<long long>(bytes);
    file_ = gzopen(path.c_str(), "rb");
    if (!file_) throw RunError(path + ": cannot be opened: " + std::strerror(errno));
    gzbuffer(file_, buffer_bytes);
  }
  ~TextLines() { gzclose_r(file_); }
  TextLines(const TextLines&) = delete;
  TextLines& operator=(const TextLines&) = delete;

  /// The next line without its end ("\n" or "\r\n") and, the first, without a byte order mark.
  /// False at the end of the file.
  bool next(std::string& line) {
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

  long long number() const { return number_; }  ///< of the line last read, from 1
  std::string place() const { return fmt::format("{}:{}", path_, number_); }
  /// Share of the file read so far; 0 where its size is not known.
  double fraction() const {
    return size_ > 0 ? static_cast<double>(gzoffset(file_)) / static_cast<double>(size_) : 0;
  }

 private:
  static constexpr unsigned buffer_bytes = 1 << 20;
  static constexpr size_t longest_line_bytes = 256u << 20;

  bool fill() {
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

  std::string path_;
  gzFile file_ = nullptr;
  long long size_ = 0;
  long long number_ = 0;
  std::vector<char> buffer_;
  size_t begin_ = 0, end_ = 0;  // what of the buffer has not been handed out
};

/// One line on standard error that overwrites itself, a few times a second; nothing where standard
/// error is no terminal.
class StatusLine {
 public:
  /// Text: std::string(), called only when the line is due.
  template <class Text>
  void show(const Text& text) {
    if (!terminal_ || ++calls_ % calls_per_look != 0) return;
    const auto now = std::chrono::steady_clock::now();
    if (now - shown_ < std::chrono::milliseconds(200)) return;
    shown_ = now;
    const std::string line = text();
    fmt::print(stderr, "\r{:<{}}", line, width_);
    std::fflush(stderr);
    width_ = line.size();
  }
  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - began_).count();
  }
  ~StatusLine() {
    if (width_ > 0) fmt::print(stderr, "\r{:{}}\r", "", width_);
  }

 private:
  static constexpr int calls_per_look = 16;  // the clock costs more than a short line
  bool terminal_ = isatty(STDERR_FILENO) != 0;
  long long calls_ = 0;
  std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point shown_ = began_;
  size_t width_ = 0;
};

}  // namespace talvik::tool

#endif
