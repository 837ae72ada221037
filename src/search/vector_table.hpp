// What stands behind Vectors: words, rows, and what the engine wants to know of the rows.
#ifndef TALVIK_SEARCH_VECTOR_TABLE_HPP
#define TALVIK_SEARCH_VECTOR_TABLE_HPP

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "internal/index.hpp"
#include "libwmd/distinct_rows.hpp"
#include "texts/word_set.hpp"

namespace talvik::internal {

struct VectorTable {
  int num_words = 0;
  int dimensions = 0;
  bool unit_length = true;         ///< whether the rows were scaled
  std::vector<std::string> words;  ///< empty: rows known by number alone
  texts::WordNumbers numbers;      ///< of words
  std::vector<float> rows;         ///< num_words x dimensions
  std::vector<float> norms;        ///< squared norms of the rows as they are, then zeros up to the
                                   ///< next multiple of line_floats
  std::vector<RowHash> row_hash;   ///< of the rows as they are
};

using TablePointer = std::shared_ptr<const VectorTable>;

inline std::span<const float> row_of(const VectorTable& table, int number) {
  return {table.rows.data() + elements(number, table.dimensions),
          static_cast<std::size_t>(table.dimensions)};
}

/// A word as messages name it.
std::string word_name(std::span<const std::string> words, int number);

/// Words and rows as they come from a caller or a file.
struct RawVectors {
  std::vector<std::string> words;  ///< empty: rows known by number alone
  std::vector<float> rows;         ///< num_words x dimensions
  int num_words = 0;
  int dimensions = 0;
};

enum class Scaling {
  none,         ///< the rows stay as they are
  unit_length,  ///< every row is scaled to length 1; a zero row stays zero
  done,         ///< the rows are of unit length already and stay as they are
};

/// Numbers the words, scales the rows and takes norms and hashes.
/// @pre counts agree and numbers are finite
/// @throws ArgumentError  for a word that comes twice, or a row whose squared length overflows
TablePointer make_table(RawVectors&& raw, Scaling scaling);

/// A word of one of several tables.
struct Pick {
  const VectorTable* table;
  int number;
};

/// The words picked, in that order.
/// @param like  gives dimensions and scaling, which all tables share
/// @throws ArgumentError  for a word that comes twice
TablePointer pick_words(const VectorTable& like, std::span<const Pick> picks);

}  // namespace talvik::internal

#endif
