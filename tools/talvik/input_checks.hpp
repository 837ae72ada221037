// What can be wrong with an input file, found before the library reads it.  Every function throws
// RunError with a line that names the file and the place.
#ifndef TALVIK_TOOL_INPUT_CHECKS_HPP
#define TALVIK_TOOL_INPUT_CHECKS_HPP

#include <string>
#include <vector>

namespace talvik::tool {

/// @return the file's size; it is a regular, readable file and not empty
long long input_file_size(const std::string& path);

void require_directory(const std::string& path);

/// A word between single quotes, cut to a few dozen bytes, unprintable bytes as \xNN, what is no
/// UTF-8 as U+FFFD.
std::string quoted(const std::string& word);

struct EmbeddingFacts {
  long long num_words = 0;
  long long vec_size = 0;
  long long num_zero_rows = 0;
  std::vector<std::string> zero_words;  ///< the first few
  long long trailing_bytes = 0;         ///< after the last record, white space not counted
};

/// Walks an embedding file record by record, as the library's reader will.
EmbeddingFacts check_embedding_file(const std::string& path);

/// @return images in the file
long long check_idx_images(const std::string& path);

/// @return labels in the file
long long check_idx_labels(const std::string& path);

}  // namespace talvik::tool

#endif
