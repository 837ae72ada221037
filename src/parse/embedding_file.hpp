// The format of embedding files: the numbers of records and of floats per vector, in decimal
// digits; then per record an optional newline, the word, a space and the vector as little-endian
// floats.  Functions of bytes, which print nothing: their callers word the faults.
#ifndef TALVIK_PARSE_EMBEDDING_FILE_HPP
#define TALVIK_PARSE_EMBEDDING_FILE_HPP

#include <optional>
#include <string_view>

#include "internal/index.hpp"

namespace talvik::internal {

inline constexpr Index float_bytes = sizeof(float);

struct EmbeddingHeader {
  long long num_records = 0;  ///< as written, with its sign; beyond 64 bits, the nearest that fits
  long long vec_size = 0;     ///< floats per vector, written the same way
  Index end = 0;              ///< where the first record begins
};

/// @return nothing if the file does not begin with two integers
std::optional<EmbeddingHeader> read_embedding_header(std::string_view file);

/// Whether num_bytes behind the header can hold the announced records: at least a space and a
/// vector each.
/// @pre both counts are positive
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

/// Reads the record at `at` and moves `at` behind it.  Its word ends at a space.  A newline moves
/// the word's first byte forward by one and, with it, the byte that is looked at next, so that one
/// in front of the word is dropped, and the byte behind a newline never ends the word.
///   "\ncat "    the word "cat"      "\r\ncat "  the word "\ncat"      "\n x "  the word " x"
/// @return false if the file ends within the record
bool next_embedding_record(std::string_view file, const EmbeddingHeader& header, Index& at,
                           EmbeddingRecord& record);

struct WalkedRecords {
  long long count;  ///< if below the announced number, the file ends within record count + 1
  Index end;        ///< the offset behind the last record
};

/// Calls visit(record) for the announced records that the file holds, in file order.
/// @pre num_records is below 1 or vec_size is not negative
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
