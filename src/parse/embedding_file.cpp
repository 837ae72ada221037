// Headers, records and vectors of embedding files.
#include "parse/embedding_file.hpp"

#include <charconv>
#include <cstring>
#include <limits>
#include <span>

#include "internal/normalise.hpp"

namespace talvik::internal {
namespace {

struct Integer {
  HeaderFault fault;
  long long value;
};

// Reads the integer at `at`, after optional white space and a sign, and moves `at` behind it.
Integer read_integer(std::string_view file, Index& at) {
  constexpr std::string_view white_space = " \t\n\v\f\r";
  const size_t begin = file.find_first_not_of(white_space, at);
  if (begin == std::string_view::npos) return {HeaderFault::no_integers, 0};
  const bool plus = file[begin] == '+';  // from_chars takes no plus sign
  const char* const first = file.data() + begin + (plus ? 1 : 0);
  const char* const last = file.data() + file.size();
  const bool minus = first != last && *first == '-';
  long long value = 0;
  const auto [end, error] = std::from_chars(first, last, value);
  if (error == std::errc::invalid_argument || (plus && minus)) return {HeaderFault::no_integers, 0};
  at = end - file.data();
  if (error == std::errc::result_out_of_range) {
    using Limits = std::numeric_limits<long long>;
    return {HeaderFault::no_counts, minus ? Limits::min() : Limits::max()};
  }
  return {value < 0 ? HeaderFault::no_counts : HeaderFault::none, value};
}

}  // namespace

EmbeddingHeader read_embedding_header(std::string_view file) {
  EmbeddingHeader header;
  const Integer num_records = read_integer(file, header.end);
  if (num_records.fault == HeaderFault::no_integers) return {HeaderFault::no_integers};
  const Integer vec_size = read_integer(file, header.end);
  if (vec_size.fault == HeaderFault::no_integers) return {HeaderFault::no_integers};
  header.fault = num_records.fault == HeaderFault::none ? vec_size.fault : num_records.fault;
  header.num_records = num_records.value;
  header.vec_size = vec_size.value;
  return header;
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
