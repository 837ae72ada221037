#include "texts/text_lines.hpp"

#include <fmt/core.h>
#include <unistd.h>  // dup

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "talvik/error.hpp"
#include "texts/input_files.hpp"

namespace talvik::texts {
namespace {

constexpr unsigned buffer_bytes = 1 << 16;

}  // namespace

TextLines::TextLines(const std::string& path) : path_(path), buffer_(buffer_bytes) {
  require_file(path);
  std::error_code not_a_regular_file;
  const auto bytes = std::filesystem::file_size(path, not_a_regular_file);
  if (!not_a_regular_file) file_bytes_ = static_cast<long long>(bytes);
  file_ = gzopen(path.c_str(), "rb");
  if (!file_) throw FileError(path, std::string("cannot be opened: ") + std::strerror(errno));
  gzbuffer(file_, buffer_bytes);
}

TextLines::TextLines(StandardInput) : path_("standard input"), buffer_(buffer_bytes) {
  const int own = dup(STDIN_FILENO);  // closed with the file
  if (own >= 0) file_ = gzdopen(own, "rb");
  if (!file_) throw FileError(path_, std::string("cannot be read: ") + std::strerror(errno));
  gzbuffer(file_, buffer_bytes);
}

bool TextLines::next(std::string& line) {
  if (!next_with_end(line)) return false;
  if (!line.empty() && line.back() == '\n') line.pop_back();
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return true;
}

bool TextLines::next_with_end(std::string& line) {
  line.clear();
  bool any = false;
  while (begin_ < end_ || fill()) {
    any = true;
    const char* from = buffer_.data() + begin_;
    const auto* stop = static_cast<const char*>(std::memchr(from, '\n', end_ - begin_));
    const size_t bytes = stop ? static_cast<size_t>(stop - from) + 1 : end_ - begin_;
    line.append(from, bytes);
    begin_ += bytes;
    if (stop) break;
    if (line.size() > longest_line_bytes) {
      throw FileError(place_of(number_ + 1),
                      fmt::format("the line is longer than {} MiB, this is no text file",
                                  longest_line_bytes >> 20));
    }
  }
  if (!any) return false;
  if (number_++ == 0 && line.starts_with(byte_order_mark)) line.erase(0, byte_order_mark.size());
  return true;
}

std::string_view TextLines::first_bytes() {
  if (begin_ == end_) fill();
  return {buffer_.data() + begin_, end_ - begin_};
}

std::string TextLines::place_of(long long number) const {
  return fmt::format("{}:{}", path_, number);
}

double TextLines::fraction() const {
  return file_bytes_ > 0 ? static_cast<double>(gzoffset(file_)) / static_cast<double>(file_bytes_)
                         : 0;
}

bool TextLines::fill() {
  begin_ = end_ = 0;
  const int bytes = gzread(file_, buffer_.data(), buffer_bytes);
  int problem = Z_OK;
  const char* text = gzerror(file_, &problem);
  // A compressed file that ends too early gives what it holds, then Z_BUF_ERROR.
  if (bytes < 0 || (bytes == 0 && problem != Z_OK && problem != Z_STREAM_END)) {
    throw FileError(path_, std::string("cannot be read: ") +
                               (problem == Z_ERRNO ? std::strerror(errno) : text));
  }
  end_ = static_cast<size_t>(bytes);
  return bytes > 0;
}

}  // namespace talvik::texts
