// Headers, records and vectors of embedding files.
#include "parse/embedding_file.hpp"

#include <charconv>
#include <cstring>
#include <limits>
#include <span>

#include "internal/normalise.hpp"

namespace talvik::internal {
namespace {

// Reads the integer at `at`, after optional white space and a sign, and moves `at` behind it.
std::optional<long long> read_integer(std::string_view file, Index& at) {
  constexpr std::string_view white_space = " \t\n\v\f\r";
  const size_t begin = file.find_first_not_of(white_space, at);
  if (begin == std::string_view::npos) return std::nullopt;
  const bool plus = file[begin] == '+';  // from_chars takes no plus sign
  const char* const first = file.data() + begin + (plus ? 1 : 0);
  const char* const last = file.data() + file.size();
  const bool minus = first != last && *first == '-';
  long long value = 0;
  const auto [end, error] = std::from_chars(first, last, value);
  if (error == std::errc::invalid_argument || (plus && minus)) return std::nullopt;
  at = end - file.data();
  if (error == std::errc()) return value;
  using Limits = std::numeric_limits<long long>;
  return minus ? Limits::min() : Limits::max();
}

}  // namespace

std::optional<EmbeddingHeader> read_embedding_header(std::string_view file) {
  Index end = 0;
  const std::optional<long long> num_records = read_integer(file, end);
  if (!num_records) return std::nullopt;
  const std::optional<long long> vec_size = read_integer(file, end);
  if (!vec_size) return std::nullopt;
  return EmbeddingHeader{*num_records, *vec_size, end};
}

bool next_embedding_record(std::string_view file, const EmbeddingHeader& header, Index& at,
                           EmbeddingRecord& record) {
  const Index size = std::ssize(file);
  Index begin = at, end = at;  // of the word
  if (end < size && file[end] != ' ') {
    do {
      const Index length = end - begin + 1;
      if (file[end] == '\n') ++begin;
      end = begin + length;
    } while (end < size && file[end] != ' ');
  }
  if (end >= size || (size - end - 1) / float_bytes < header.vec_size) return false;
  record.word = file.substr(begin, end - begin);
  record.vector = file.substr(end + 1, header.vec_size * float_bytes);
  at = end + 1 + std::ssize(record.vector);
  return true;
}

void copy_unit_vector(std::string_view vector, float* row) {
  if (vector.empty()) return;
  std::memcpy(row, vector.data(), vector.size());
  std::span values(row, vector.size() / sizeof(float));
  rescale(values, 1.0, euclidean_length(values));
}

}  // namespace talvik::internal
