// Checks of embedding and IDX files.
#include "input_checks.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <unordered_map>

#include "run_error.hpp"
#include "talvik.hpp"
#include "tokenizer.hpp"

namespace talvik::tool {
namespace {

// Bounds of what a word vector may hold.  A float whose bytes stand in the wrong order is huge,
// tiny or not a number, as good as always.
constexpr float implausibly_large = 1e10f;
constexpr float implausibly_small = 1e-10f;
constexpr size_t named_words = 5;

struct Header {
  long long num_words = 0;
  long long vec_size = 0;
  size_t end = 0;
};

Header embedding_header(const std::string& path, const std::string& text) {
  Header header;
  int first = 0, second = 0;
  if (std::sscanf(text.c_str(), "%lld%n", &header.num_words, &first) != 1 ||
      std::sscanf(text.c_str() + first, "%lld%n", &header.vec_size, &second) != 1) {
    throw RunError(path +
                   ": does not begin with two integers, records and floats per vector (talvik "
                   "convert makes embedding files from text)");
  }
  header.end = static_cast<size_t>(first + second);
  if (header.num_words < 1 || header.vec_size < 1) {
    throw RunError(fmt::format("{}: the header announces {} records of {} floats", path,
                               header.num_words, header.vec_size));
  }
  // A record holds a space and the vector; compared by division, as a product may not fit.
  const auto body = static_cast<long long>(text.size() - header.end);
  constexpr auto float_bytes = static_cast<long long>(sizeof(float));
  if (header.vec_size > body / float_bytes ||
      header.num_words > body / (float_bytes * header.vec_size + 1)) {
    throw RunError(fmt::format(
        "{}: the header announces {} records of {} floats, which do not fit into the file's {} "
        "bytes (cut short, or a wrong header)",
        path, header.num_words, header.vec_size, text.size()));
  }
  return header;
}

bool all_printable(std::string_view bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return std::isprint(byte) || std::isspace(byte);
  });
}

/// @return the largest magnitude of the vector
float check_vector(const std::string& path, std::string_view bytes, const std::string& place) {
  float largest = 0;
  for (size_t at = 0; at < bytes.size(); at += sizeof(float)) {
    float value;
    std::memcpy(&value, bytes.data() + at, sizeof value);
    if (!std::isfinite(value)) {
      throw RunError(fmt::format("{}: value {} of {} is not a finite number", path,
                                 at / sizeof(float) + 1, place));
    }
    largest = std::max(largest, std::fabs(value));
  }
  if (largest > implausibly_large || (largest > 0 && largest < implausibly_small)) {
    throw RunError(
        fmt::format("{}: the values of {} are implausible (magnitude {:.3g}): the floats must be "
                    "little-endian",
                    path, place, largest));
  }
  return largest;
}

std::array<unsigned long, 4> idx_header(const std::string& path, size_t words) {
  const long long size = input_file_size(path);
  std::ifstream file(path, std::ios::binary);
  std::array<unsigned char, 16> bytes{};
  file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(4 * words));
  if (!file) {
    throw RunError(
        fmt::format("{}: holds {} bytes, less than an IDX header of {}", path, size, 4 * words));
  }
  std::array<unsigned long, 4> header{};
  for (size_t w = 0; w < words; ++w) {
    for (size_t b = 0; b < 4; ++b) header[w] = header[w] << 8 | bytes[4 * w + b];
  }
  return header;
}

void require_magic(const std::string& path, unsigned long found, unsigned long expected,
                   const char* what) {
  if (found == expected) return;
  std::array<unsigned char, 4> swapped{};
  for (size_t b = 0; b < 4; ++b) swapped[b] = static_cast<unsigned char>(expected >> (8 * b));
  const unsigned long wrong_endian = static_cast<unsigned long>(swapped[0]) << 24 |
                                     static_cast<unsigned long>(swapped[1]) << 16 |
                                     static_cast<unsigned long>(swapped[2]) << 8 | swapped[3];
  const char* why = "";
  if (found == wrong_endian) why = ": its header must be big-endian";
  if (found >> 16 == 0x1f8b) why = ": it is compressed with gzip";
  throw RunError(fmt::format("{}: not an IDX {} file (begins with {:08x}, not {:08x}){}", path,
                             what, found, expected, why));
}

void require_bytes(const std::string& path, unsigned long count, const char* what,
                   unsigned long header_bytes, unsigned long item_bytes) {
  const unsigned long size = std::filesystem::file_size(path);
  const unsigned long needed = header_bytes + count * item_bytes;  // count is 32-bit
  if (size < needed) {
    throw RunError(
        fmt::format("{}: the header announces {} {}, which need {} bytes; the file holds {}", path,
                    count, what, needed, size));
  }
  if (count == 0) throw RunError(fmt::format("{}: holds no {}", path, what));
}

}  // namespace

long long input_file_size(const std::string& path) {
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  if (!std::filesystem::exists(status)) throw RunError(path + ": no such file");
  if (std::filesystem::is_directory(status)) {
    throw RunError(path + ": is a directory, a file was expected");
  }
  if (!std::filesystem::is_regular_file(status)) throw RunError(path + ": is not a regular file");
  if (!std::ifstream(path)) {
    throw RunError(fmt::format("{}: cannot be opened: {}", path, std::strerror(errno)));
  }
  const auto size = static_cast<long long>(std::filesystem::file_size(path));
  if (size == 0) throw RunError(path + ": is empty");
  return size;
}

void require_directory(const std::string& path) {
  std::error_code error;
  const auto status = std::filesystem::status(path, error);
  if (!std::filesystem::exists(status)) throw RunError(path + ": no such directory");
  if (!std::filesystem::is_directory(status)) {
    throw RunError(path + ": is a file, a directory was expected");
  }
}

std::string quoted(const std::string& word) {
  constexpr size_t longest = 40;
  std::string text = "'";
  for (size_t at = 0; at < std::min(word.size(), longest); ++at) {
    const auto byte = static_cast<unsigned char>(word[at]);
    const bool plain = byte >= 0x80 || std::isprint(byte);  // UTF-8 passes
    text += plain ? std::string(1, word[at]) : fmt::format("\\x{:02x}", byte);
  }
  long long replaced = 0;  // a word may hold, and the cut may leave, a piece of a character
  return valid_utf8(text, replaced) + (word.size() > longest ? "...'" : "'");
}

EmbeddingFacts check_embedding_file(const std::string& path) {
  input_file_size(path);
  std::string text;
  const bool binary = true;
  if (ReadFileIntoString(path.c_str(), text, binary) <= 0) {
    throw RunError(path + ": cannot be read");
  }
  const Header header = embedding_header(path, text);
  EmbeddingFacts facts{header.num_words, header.vec_size, 0, {}, 0};
  const size_t vector_bytes = static_cast<size_t>(header.vec_size) * sizeof(float);
  std::unordered_map<std::string_view, long long> records;
  records.reserve(static_cast<size_t>(header.num_words));

  size_t at = header.end;
  for (long long record = 1; record <= header.num_words; ++record) {
    if (at < text.size() && text[at] == '\n') ++at;
    const size_t space = text.find(' ', at);
    if (space == std::string::npos || text.size() - space - 1 < vector_bytes) {
      throw RunError(
          fmt::format("{}: ends within record {} of {}", path, record, header.num_words));
    }
    const std::string_view word(text.data() + at, space - at);
    const std::string_view bytes(text.data() + space + 1, vector_bytes);
    const std::string name = quoted(std::string(word));
    if (record == 1 && all_printable(bytes)) {
      throw RunError(path + ": is a text file (talvik convert makes an embedding file of it)");
    }
    // The one newline before a record is skipped; one inside a word shows that records and header
    // do not agree, and that what would be read are no vectors.
    if (word.find('\n') != std::string_view::npos) {
      throw RunError(
          fmt::format("{}: the word of record {}, {}, holds a line break (a wrong header?)", path,
                      record, name));
    }
    // The reader numbers distinct words but keeps a row per record.
    const auto [known, is_new] = records.emplace(word, record);
    if (!is_new) {
      throw RunError(fmt::format("{}: records {} and {} are of the same word {}", path,
                                 known->second, record, name));
    }
    const std::string place = fmt::format("record {}, word {},", record, name);
    if (check_vector(path, bytes, place) == 0) {
      if (facts.zero_words.size() < named_words) facts.zero_words.push_back(name);
      ++facts.num_zero_rows;
    }
    at = space + 1 + vector_bytes;
  }
  while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at]))) ++at;
  facts.trailing_bytes = static_cast<long long>(text.size() - at);
  return facts;
}

long long check_idx_images(const std::string& path) {
  constexpr unsigned long magic = 0x803, side = 28, header_bytes = 16;
  const auto header = idx_header(path, header_bytes / 4);
  require_magic(path, header[0], magic, "image");
  if (header[2] != side || header[3] != side) {
    throw RunError(fmt::format("{}: holds images of {} x {} pixels, 28 x 28 were expected", path,
                               header[2], header[3]));
  }
  require_bytes(path, header[1], "images", header_bytes, side * side);
  return static_cast<long long>(header[1]);
}

long long check_idx_labels(const std::string& path) {
  constexpr unsigned long magic = 0x801, header_bytes = 8;
  const auto header = idx_header(path, header_bytes / 4);
  require_magic(path, header[0], magic, "label");
  require_bytes(path, header[1], "labels", header_bytes, 1);
  return static_cast<long long>(header[1]);
}

}  // namespace talvik::tool
