// Words and their embedding vectors.
#ifndef TALVIK_VECTORS_HPP
#define TALVIK_VECTORS_HPP

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "talvik/api.hpp"

namespace talvik {

namespace internal {
struct VectorTable;
}

/// How a file of word vectors is written.
enum class VectorFormat {
  automatic,       ///< by the first bytes
  binary,          ///< the embedding file: header, then word, space and little-endian floats
  with_header,     ///< text, "words dimensions" first: word2vec text, fastText .vec
  without_header,  ///< text, rows from the first line on: GloVe
};

/// How a file of word vectors is read.
struct VectorOptions {
  VectorFormat format = VectorFormat::automatic;  ///< of the file
  /// Every row is scaled to length 1 (a zero row stays zero), so that distances are those between
  /// directions; else the rows are taken as they are.
  bool unit_length = true;
};

/// A table of words, numbered from 0, each with a row of dimensions() floats.  A value that never
/// changes: copies share the table, and any number of threads may read it.
class TALVIK_API Vectors {
 public:
  /// No words, no dimensions.
  Vectors();

  /// Reads a file in any format of VectorFormat; text may be compressed by gzip.  Of a word that
  /// comes several times the first row counts.
  /// @throws FileError  naming file and line or record; a number that is not finite is refused
  static Vectors read(const std::string& path, const VectorOptions& options = {});

  /// @param words       distinct, or empty: rows without words, known by number alone
  /// @param rows        component d of word w at rows[w*dimensions + d]; copied
  /// @throws ArgumentError  for counts that do not agree, a word that comes twice, or a number that
  ///                        is not finite
  static Vectors from_arrays(std::vector<std::string> words, std::span<const float> rows,
                             int dimensions, bool unit_length = true);

  int size() const;          ///< words
  int dimensions() const;    ///< floats of a row; 0 of Vectors()
  bool has_words() const;    ///< false for rows that are known by number alone
  bool unit_length() const;  ///< whether the rows were scaled to length 1

  /// The word of a number below size(); empty without words.
  std::string_view word(int number) const;
  /// The number of a word; none where the table lacks it.
  std::optional<int> find(std::string_view word) const;
  /// dimensions() floats, which live as long as the table.
  std::span<const float> row(int number) const;
  /// All rows: component d of word w at w*dimensions() + d.
  std::span<const float> rows() const;

  /// The words named by number, in that order.
  /// @throws ArgumentError  for a number that is no word's, or a word that comes twice
  Vectors select(std::span<const int> numbers) const;
  /// These words, followed by those of `more` that are new; a word of both keeps its row here.
  /// @throws ArgumentError  where dimensions or scaling differ, or a table has rows without words
  Vectors with(const Vectors& more) const;

  /// For the library itself.
  const internal::VectorTable& table() const { return *table_; }
  /// For the library itself.
  explicit Vectors(std::shared_ptr<const internal::VectorTable> table) : table_(std::move(table)) {}

 private:
  std::shared_ptr<const internal::VectorTable> table_;
};

}  // namespace talvik

#endif
