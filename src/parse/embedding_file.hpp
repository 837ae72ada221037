// The format of embedding files: two integers, records and floats per vector; then per record an
// optional newline, the word, a space and the vector as little-endian floats.  Functions of bytes,
// which print nothing: whoever walks a file words its faults.
#ifndef TALVIK_PARSE_EMBEDDING_FILE_HPP
#define TALVIK_PARSE_EMBEDDING_FILE_HPP

#include <string_view>

#include "internal/index.hpp"

namespace talvik::internal {

inline constexpr Index float_bytes = sizeof(float);

enum class HeaderFault {
  none,
  no_integers,  ///< the file does not begin with two integers
  no_counts,    ///< one of them is negative or beyond 64 bits
};

struct EmbeddingHeader {
  HeaderFault fault = HeaderFault::none;
  long long num_records = 0;  ///< as written; beyond 64 bits, the nearest number that fits
  long long vec_size = 0;     ///< likewise
  Index end = 0;              ///< where the first record begins
};

EmbeddingHeader read_embedding_header(std::string_view file);

/// Whether num_bytes behind the header hold the announced records, even of words without a letter.
/// Positive counts only.
constexpr bool records_fit(const EmbeddingHeader& header, Index num_bytes) {
  // Divided, not multiplied: the counts come from the file, and their product may not fit.
  return header.vec_size <= num_bytes / float_bytes &&
         header.num_records <= num_bytes / (header.vec_size * float_bytes + 1);
}

struct EmbeddingRecord {
  long long number;         ///< from 1
  std::string_view word;    ///< up to the space, which separates it from the vector
  std::string_view vector;  ///< vec_size floats, at any alignment
};

/// The record at `at`, which moves behind it; false if the file ends first.
bool next_embedding_record(std::string_view file, const EmbeddingHeader& header, Index& at,
                           EmbeddingRecord& record);

struct WalkedRecords {
  long long count;  ///< less than announced: the file ends within record count + 1
  Index end;        ///< behind the last one
};

/// Calls visit(record) for the announced records in file order, as far as the file holds them.
/// @pre header.fault is none
template <class Visit>
WalkedRecords walk_embedding_records(std::string_view file, const EmbeddingHeader& header,
                                     const Visit& visit) {
  WalkedRecords walked{0, header.end};
  EmbeddingRecord record{};
  while (walked.count < header.num_records &&
         next_embedding_record(file, header, walked.end, record)) {
    record.number = ++walked.count;
    visit(record);
  }
  return walked;
}

/// Copies a record's vector, scaled to unit length; a zero vector stays zero.
void copy_unit_vector(std::string_view vector, float* row);

}  // namespace talvik::internal

#endif
