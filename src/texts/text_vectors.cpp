#include "texts/text_vectors.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>  // strtof
#include <system_error>

#include "talvik/error.hpp"
#include "texts/tokenizer.hpp"

namespace talvik::texts {
namespace {

using Header = TextVectors::Header;

bool is_blank(char c) { return c == ' ' || c == '\t'; }

void split_fields(std::string_view line, std::vector<std::string_view>& fields) {
  fields.clear();
  const char* at = line.data();
  for (const char* const end = at + line.size(); at != end;) {
    const char* const begin = std::find_if_not(at, end, is_blank);
    if (begin == end) break;
    at = std::find_if(begin, end, is_blank);
    fields.emplace_back(begin, at - begin);
  }
}

// Whether the whole field is a number, which may be out of the range of the type.
template <class Number>
bool is_number(std::string_view field, Number& value, std::errc& error) {
  const char* const last = field.data() + field.size();
  const auto parsed = std::from_chars(field.data(), last, value);
  error = parsed.ec;
  return error != std::errc::invalid_argument && parsed.ptr == last;
}

}  // namespace

std::optional<float> number_of(std::string_view field) {
  if (!field.empty() && field.front() == '+') field.remove_prefix(1);
  float value = 0;
  std::errc error{};
  if (!is_number(field, value, error)) return std::nullopt;
  // Too small and too large are one error: strtof tells them apart.
  return error == std::errc() ? value : std::strtof(std::string(field).c_str(), nullptr);
}

namespace {

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
    throw FileError(
        place,
        fmt::format("the header announces {} words of {} dimensions, more than can be counted",
                    fields[0], fields[1]));
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

bool begins_with_word(std::string_view line) { return !is_blank(line.front()); }

// Fields that can be numbers: a blank in front stands for an empty word.
size_t most_numbers(std::string_view line, const std::vector<std::string_view>& fields) {
  return fields.empty() ? 0 : fields.size() - (begins_with_word(line) ? 1 : 0);
}

// The numbers of a row, which are its last `row.size()` fields.
void read_row(std::string_view line, const std::vector<std::string_view>& fields,
              const std::string& place, std::vector<float>& row) {
  const size_t numbers = most_numbers(line, fields);
  if (numbers < row.size()) {
    throw FileError(place, fmt::format("{} numbers, {} were expected", numbers, row.size()));
  }
  const size_t first = fields.size() - row.size();
  for (size_t j = 0; j < row.size(); ++j) {
    const std::string_view field = fields[first + j];
    const auto value = number_of(field);
    if (!value) throw FileError(place, fmt::format("\"{}\" is not a number", printable(field)));
    if (!std::isfinite(*value)) {
      throw FileError(place, fmt::format("\"{}\" is not a finite 32-bit number", field));
    }
    row[j] = *value;
  }
  // A word with a space in it is usual, one that ends in a number is a row that is too long.
  if (first > 1 && number_of(fields[first - 1])) {
    throw FileError(place, fmt::format("more than {} numbers", row.size()));
  }
}

}  // namespace

TextVectors::TextVectors(const std::string& path, VectorFormat format) : path_(path), lines_(path) {
  read_line();
  if (!at_row_) throw FileError(path, "is empty");
  if (format != VectorFormat::without_header) header_ = header_of(fields_, lines_.place());
  if (!header_ && format == VectorFormat::with_header) {
    throw FileError(lines_.place(),
                    "no header of two whole numbers, words and dimensions (a file of the format "
                    "glove has none)");
  }
  dimensions_ = header_ ? header_->dimensions : numbers_at_end(fields_);
  if (dimensions_ < 1) throw FileError(lines_.place(), "no word followed by numbers");
  if (header_) {
    read_line();
  }
  if (header_ && at_row_) {
    // The header's dimensions size no array before the first row has shown that many fields.
    if (numbers_at_end(fields_) < dimensions_ && looks_binary(line_)) {
      throw FileError(path, fmt::format("is an embedding file already ({} words, {} dimensions)",
                                        header_->words, dimensions_));
    }
    const auto numbers = static_cast<long long>(most_numbers(line_, fields_));
    if (numbers < dimensions_) {
      throw FileError(lines_.place(),
                      fmt::format("{} numbers, the header announces {}", numbers, dimensions_));
    }
  }
  if (at_row_) vector_.resize(static_cast<size_t>(dimensions_));
}

void TextVectors::read_line() {
  at_row_ = lines_.next(line_);
  split_fields(line_, fields_);
}

bool TextVectors::next() {
  if (rows_ > 0) {
    read_line();
  }
  if (at_row_ && fields_.empty()) {  // harmless at the end of the file
    const long long blank_line = lines_.number();
    while (at_row_ && fields_.empty()) {
      read_line();
    }
    if (at_row_) throw FileError(lines_.place_of(blank_line), "an empty line");
  }
  if (!at_row_) {
    if (header_ && rows_ < header_->words) {
      throw FileError(path_, fmt::format("the header announces {} words, the file holds {}",
                                         header_->words, rows_));
    }
    return false;
  }
  if (header_ && rows_ == header_->words) {
    throw FileError(lines_.place(), fmt::format("a row more than the {} that the header announces",
                                                header_->words));
  }
  ++rows_;
  read_row(line_, fields_, lines_.place(), vector_);
  return true;
}

bool TextVectors::is_one_word() const {
  return begins_with_word(line_) && std::ssize(fields_) == dimensions_ + 1;
}

}  // namespace talvik::texts
