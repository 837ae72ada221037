// The embedding file that the library reads: the header "words dimensions" and a newline, then per
// word the word, a space, its numbers as little-endian 32-bit floats, and a newline.
#ifndef TALVIK_TOOL_EMBEDDING_WRITER_HPP
#define TALVIK_TOOL_EMBEDDING_WRITER_HPP

#include <string>
#include <string_view>
#include <vector>

#include "atomic_output.hpp"

namespace talvik::tool {

class EmbeddingWriter {
 public:
  /// Creates the file under a temporary name, with room for the header.  Throws RunError, as the
  /// others.
  /// @param most_words  no more will be written; 0 where their number is not known
  EmbeddingWriter(const std::string& path, long long most_words, long long dimensions);

  void write(std::string_view word, const std::vector<float>& vector);

  /// Writes the header, padded by spaces in front to the room left for it, and puts the file into
  /// place.
  void commit();

  long long words() const { return words_; }  ///< written so far

 private:
  void write_header();

  AtomicFile file_;
  size_t count_digits_;
  long long dimensions_;
  long long words_ = 0;
};

}  // namespace talvik::tool

#endif
