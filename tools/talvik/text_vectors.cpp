#include "text_vectors.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>  // strtof
#include <system_error>

#include "run_error.hpp"
#include "tokenizer.hpp"

namespace talvik::tool {
namespace {

using Header = TextVectors::Header;

std::vector<std::string_view> fields_of(std::string_view line) {
  std::vector<std::string_view> fields;
  for (size_t at = 0; at < line.size();) {
    const size_t begin = line.find_first_not_of(" \t", at);
    if (begin == std::string_view::npos) break;
    const size_t end = std::min(line.find_first_of(" \t", begin), line.size());
    fields.push_back(line.substr(begin, end - begin));
    at = end;
  }
  return fields;
}

// Whether the whole field is a number, which may be out of the range of the type.
template <class Number>
bool is_number(std::string_view field, Number& value, std::errc& error) {
  const char* const last = field.data() + field.size();
  const auto parsed = std::from_chars(field.data(), last, value);
  error = parsed.ec;
  return error != std::errc::invalid_argument && parsed.ptr == last;
}

// A number, finite or not; what is too small for a float becomes 0.
std::optional<float> number_of(std::string_view field) {
  if (!field.empty() && field.front() == '+') field.remove_prefix(1);
  float value = 0;
  std::errc error{};
  if (!is_number(field, value, error)) return std::nullopt;
  // Too small and too large are one error: strtof tells them apart.
  return error == std::errc() ? value : std::strtof(std::string(field).c_str(), nullptr);
}

std::optional<Header> header_of(const std::vector<std::string_view>& fields,
                                const std::string& place) {
  if (fields.size() != 2) return std::nullopt;
  Header header{};
  std::errc words_error{}, dimensions_error{};
  if (!is_number(fields[0], header.words, words_error) ||
      !is_number(fields[1], header.dimensions, dimensions_error) || fields[0].front() == '-' ||
      fields[1].front() == '-') {
    return std::nullopt;
  }
  if (words_error != std::errc() || dimensions_error != std::errc()) {
    throw RunError(
        fmt::format("{}: the header announces {} words of {} dimensions, more than can "
                    "be counted",
                    place, fields[0], fields[1]));
  }
  if (header.words < 1 || header.dimensions < 1) return std::nullopt;
  return header;
}

// Raw floats are full of bytes that no text holds.
bool looks_binary(std::string_view line) {
  return !is_valid_utf8(line) || std::any_of(line.begin(), line.end(), [](char c) {
    return static_cast<unsigned char>(c) < ' ' && c != '\t' && c != '\r';
  });
}

// Dimensions of a file without a header: the numbers at the end of its first row.  At least one
// field is left for the word, and a word may hold spaces.
long long numbers_at_end(const std::vector<std::string_view>& fields) {
  size_t count = 0;
  while (count + 1 < fields.size() && number_of(fields[fields.size() - 1 - count])) ++count;
  return static_cast<long long>(count);
}

bool begins_with_word(std::string_view line) { return line.front() != ' ' && line.front() != '\t'; }

// Fields that can be numbers: a blank in front stands for an empty word.
size_t most_numbers(std::string_view line, const std::vector<std::string_view>& fields) {
  return fields.empty() ? 0 : fields.size() - (begins_with_word(line) ? 1 : 0);
}

// The numbers of a row, which are its last `row.size()` fields.
void read_row(std::string_view line, const std::vector<std::string_view>& fields,
              const std::string& place, std::vector<float>& row) {
  const size_t numbers = most_numbers(line, fields);
  if (numbers < row.size()) {
    throw RunError(fmt::format("{}: {} numbers, {} were expected", place, numbers, row.size()));
  }
  const size_t first = fields.size() - row.size();
  for (size_t j = 0; j < row.size(); ++j) {
    const std::string_view field = fields[first + j];
    const auto value = number_of(field);
    if (!value) throw RunError(fmt::format("{}: \"{}\" is not a number", place, printable(field)));
    if (!std::isfinite(*value)) {
      throw RunError(fmt::format("{}: \"{}\" is not a finite 32-bit number", place, field));
    }
    row[j] = *value;
  }
  // A word with a space in it is usual, one that ends in a number is a row that is too long.
  if (first > 1 && number_of(fields[first - 1])) {
    throw RunError(fmt::format("{}: more than {} numbers", place, row.size()));
  }
}

}  // namespace

TextVectors::TextVectors(const std::string& path, VectorFormat format) : path_(path), lines_(path) {
  if (!lines_.next(line_)) throw RunError(path + ": is empty");
  fields_ = fields_of(line_);
  if (format != VectorFormat::without_header) header_ = header_of(fields_, lines_.place());
  if (!header_ && format == VectorFormat::with_header) {
    throw RunError(lines_.place() +
                   ": no header of two whole numbers, words and dimensions (a file of the format "
                   "glove has none)");
  }
  dimensions_ = header_ ? header_->dimensions : numbers_at_end(fields_);
  if (dimensions_ < 1) throw RunError(lines_.place() + ": no word followed by numbers");
  if (header_) {
    at_row_ = lines_.next(line_);
    fields_ = fields_of(line_);
  }
  if (header_ && at_row_) {
    // The header's dimensions size no array before the first row has shown that many fields.
    if (numbers_at_end(fields_) < dimensions_ && looks_binary(line_)) {
      throw RunError(fmt::format("{}: is an embedding file already ({} words, {} dimensions)", path,
                                 header_->words, dimensions_));
    }
    const auto numbers = static_cast<long long>(most_numbers(line_, fields_));
    if (numbers < dimensions_) {
      throw RunError(fmt::format("{}: {} numbers, the header announces {}", lines_.place(), numbers,
                                 dimensions_));
    }
  }
  if (at_row_) vector_.resize(static_cast<size_t>(dimensions_));
}

bool TextVectors::next() {
  if (rows_ > 0) {
    at_row_ = lines_.next(line_);
    fields_ = fields_of(line_);
  }
  if (at_row_ && fields_.empty()) {  // harmless at the end of the file
    const long long blank_line = lines_.number();
    while (at_row_ && fields_.empty()) {
      at_row_ = lines_.next(line_);
      fields_ = fields_of(line_);
    }
    if (at_row_) throw RunError(fmt::format("{}:{}: an empty line", path_, blank_line));
  }
  if (!at_row_) {
    if (header_ && rows_ < header_->words) {
      throw RunError(fmt::format("{}: the header announces {} words, the file holds {}", path_,
                                 header_->words, rows_));
    }
    return false;
  }
  if (header_ && rows_ == header_->words) {
    throw RunError(fmt::format("{}: a row more than the {} that the header announces",
                               lines_.place(), header_->words));
  }
  ++rows_;
  read_row(line_, fields_, lines_.place(), vector_);
  return true;
}

bool TextVectors::is_one_word() const {
  return begins_with_word(line_) && std::ssize(fields_) == dimensions_ + 1;
}

}  // namespace talvik::tool
