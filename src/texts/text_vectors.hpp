// Word vectors as text: rows "word number number ...", with or without a header line.
#ifndef TALVIK_TEXTS_TEXT_VECTORS_HPP
#define TALVIK_TEXTS_TEXT_VECTORS_HPP

#include <iterator>  // ssize
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "talvik/vectors.hpp"
#include "texts/text_lines.hpp"

namespace talvik::texts {

/// A number as such a file writes it, finite or not; what is too small for a float becomes 0.
std::optional<float> number_of(std::string_view field);

/// Walks a file of word vectors row by row.  Every function throws FileError naming file and line.
class TextVectors {
 public:
  struct Header {
    long long words, dimensions;
  };

  /// @param format  not binary; automatic: a first line of two whole numbers is a header
  TextVectors(const std::string& path, VectorFormat format);

  /// By the header, or the numbers at the end of the first row.
  long long dimensions() const { return dimensions_; }
  const std::optional<Header>& header() const { return header_; }

  /// Reads the next row; false at the end of the file, which holds as many rows as announced.
  bool next();

  // Of the row last read:
  std::string_view word() const { return fields_.front(); }  ///< up to the first blank
  /// False where the row begins with a blank, or has more fields than one word and the numbers.
  bool is_one_word() const;
  const std::vector<float>& vector() const { return vector_; }  ///< finite numbers

  long long row_bytes() const { return std::ssize(line_) + 1; }  ///< with its end

  const TextLines& lines() const { return lines_; }
  long long line() const { return lines_.number(); }
  double fraction() const { return lines_.fraction(); }

 private:
  void read_line();

  std::string path_;
  TextLines lines_;
  std::optional<Header> header_;
  long long dimensions_ = 0;
  bool at_row_ = true;  // line_ holds a row that next() has not read yet
  long long rows_ = 0;
  std::string line_;
  std::vector<std::string_view> fields_;  // of line_
  std::vector<float> vector_;
};

}  // namespace talvik::texts

#endif
