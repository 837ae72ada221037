// Embedding files as the program reads them: what can be wrong with one is found on the way and
// named with its place.
#ifndef TALVIK_TOOL_EMBEDDING_INPUT_HPP
#define TALVIK_TOOL_EMBEDDING_INPUT_HPP

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "mapped_file.hpp"
#include "parse/embedding_file.hpp"
#include "word_set.hpp"

namespace talvik::tool {

/// What a walk finds that is no reason to refuse the file.
struct EmbeddingFacts {
  long long num_zero_rows = 0;
  std::vector<std::string> zero_words;  ///< the first few
  long long trailing_bytes = 0;         ///< after the last record, white space not counted
};

/// An embedding file whose header has been checked.  Every function throws RunError.
class EmbeddingFile {
 public:
  explicit EmbeddingFile(const std::string& path);

  long long num_words() const { return header_.num_records; }
  long long vec_size() const { return header_.vec_size; }

  /// Checks all records and hands them over in the order of the file; no word comes twice.
  EmbeddingFacts walk(const std::function<void(const internal::EmbeddingRecord&)>& visit) const;

 private:
  std::string path_;
  MappedFile file_;
  internal::EmbeddingHeader header_;
};

/// Words numbered in the order of the file, and their vectors scaled to unit length.
struct WordVectors {
  WordNumbers vocabulary;
  std::unique_ptr<float[]> vectors;  ///< voc_size x vec_size
  int voc_size = 0;
  int vec_size = 0;
  std::vector<std::string> warnings;
};

WordVectors read_word_vectors(const std::string& path);

WordSet read_embedding_words(const std::string& path);

/// A word between single quotes, cut to a few dozen bytes, printable.
std::string quoted(std::string_view word);

}  // namespace talvik::tool

#endif
