// Which entries of a query batch share a row, so that distances are computed once per distinct row.
#ifndef TALVIK_LIBWMD_DISTINCT_ROWS_HPP
#define TALVIK_LIBWMD_DISTINCT_ROWS_HPP

#include <cstddef>  // size_t
#include <limits>
#include <span>
#include <vector>

#include "internal/index.hpp"

namespace talvik::internal {

using RowHash = std::size_t;

/// The hashes of `count` rows, row_bytes each.
std::vector<RowHash> hash_rows(const void* rows, Index row_bytes, int count, int threads);

/// A vocabulary word and a query row that have the same embedding.
struct EqualRows {
  int word, row;
};

/// The pairs of equal hashes, by ascending word.  Whoever uses a pair compares the rows themselves.
/// @param words, rows  hash per word, hash per row
std::vector<EqualRows> find_equal_hashes(std::span<const RowHash> words,
                                         std::span<const RowHash> rows);

/// Consecutive entries whose distinct rows are held, and multiplied, together.
struct RowPass {
  int first_row, last_row;      ///< [first, last) of DistinctRows::entry_of_row
  int first_entry, last_entry;  ///< [first, last) of the batch's entries
};

/// Consecutive documents that share their passes.  Documents share one pass; a document of more
/// rows than a pass may hold is alone and has several.
struct BatchSection {
  int first_doc, last_doc;
  int first_pass, last_pass;
};

/// Rows are in the order of their first appearance in their pass, or as order_rows has left them.
/// Documents {cat dog cat} {dog emu} as one pass, and where a pass may hold two rows:
///
///                   one pass          two passes
///   entry           0 1 2  3 4        0 1 2  3 4
///   row_of_entry    0 1 0  1 2        0 1 0  0 1    (row_padding zeros follow)
///   entry_of_row    0 1 4             0 1  3 4
///   passes          rows [0,3)        rows [0,2) of entries [0,3), rows [2,4) of entries [3,5)
///   sections        documents [0,2)   document 0 with pass 0, document 1 with pass 1
struct DistinctRows {
  std::vector<int> row_of_entry;  ///< per entry, counted from its pass's first row; padded at the
                                  ///< end by row_padding zeros, so that prefetching may run ahead
  std::vector<int> entry_of_row;  ///< per row, the first entry of its pass that has it
  std::vector<RowPass> passes;
  std::vector<BatchSection> sections;  ///< in document order, all documents covered
};

inline constexpr int row_padding = 16;

/// Rows are equal if their bytes are.
/// @param rows       one row per entry, row_bytes each
/// @param start      num_docs + 1 entry offsets
/// @param max_rows   distinct rows that a pass may hold, at least 1
/// @param threads    team that hashes the rows
/// @param max_docs   documents that a section may hold, at least 1
DistinctRows find_distinct_rows(const void* rows, Index row_bytes, const int* start, int num_docs,
                                int max_rows, int threads,
                                int max_docs = std::numeric_limits<int>::max());

/// Rows of the largest of the passes [first_pass, last_pass).
int largest_pass(const DistinctRows& distinct, int first_pass, int last_pass);

/// Renumbers the rows of every pass by ascending key of their first entry.
/// @param key  per entry, equal for entries of one row
void order_rows(const int* key, DistinctRows& distinct);

}  // namespace talvik::internal

#endif
