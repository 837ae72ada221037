// Embedding files, checked while they are read: what can be wrong with one is named with its place.
#ifndef TALVIK_TEXTS_EMBEDDING_INPUT_HPP
#define TALVIK_TEXTS_EMBEDDING_INPUT_HPP

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "parse/embedding_file.hpp"
#include "texts/mapped_file.hpp"
#include "texts/word_set.hpp"

namespace talvik::texts {

/// Called for every record with how many are done, of how many; may be empty.
using ReadProgress = std::function<void(long long done, long long all)>;

/// What to do with a record of a word that had one.
enum class Repeated { refused, left_out };

/// What a walk finds that is no reason to refuse the file.
struct EmbeddingFacts {
  long long num_zero_rows = 0;
  std::vector<std::string> zero_words;  ///< the first few
  long long num_repeated = 0;           ///< records left out
  long long trailing_bytes = 0;         ///< after the last record, white space not counted
};

/// An embedding file whose header has been checked.  Every function throws FileError.
class EmbeddingFile {
 public:
  explicit EmbeddingFile(const std::string& path);

  long long num_words() const { return header_.num_records; }
  long long vec_size() const { return header_.vec_size; }

  /// Checks all records and hands them over in the order of the file; no word comes twice.
  EmbeddingFacts walk(const std::function<void(const internal::EmbeddingRecord&)>& visit,
                      Repeated repeated = Repeated::refused,
                      const ReadProgress& progress = {}) const;

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

WordVectors read_word_vectors(const std::string& path, const ReadProgress& progress = {});

WordSet read_embedding_words(const std::string& path, const ReadProgress& progress = {});

/// A word between single quotes, cut to a few dozen bytes, printable.
std::string quoted(std::string_view word);

}  // namespace talvik::texts

#endif
