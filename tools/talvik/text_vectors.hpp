// Word vectors as text: rows "word number number ...", with or without a header line.
#ifndef TALVIK_TOOL_TEXT_VECTORS_HPP
#define TALVIK_TOOL_TEXT_VECTORS_HPP

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "text_lines.hpp"

namespace talvik::tool {

enum class VectorFormat {
  automatic,       ///< a first line of two whole numbers is a header
  with_header,     ///< "words dimensions" first: word2vec text, fastText .vec
  without_header,  ///< rows from the first line on: GloVe
};

/// Walks a file of word vectors row by row.  Every function throws RunError naming file and line.
class TextVectors {
 public:
  struct Header {
    long long words, dimensions;
  };

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

  long long line() const { return lines_.number(); }
  double fraction() const { return lines_.fraction(); }

 private:
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

}  // namespace talvik::tool

#endif
