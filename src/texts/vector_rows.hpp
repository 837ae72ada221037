// Word vectors of any format as arrays.
#ifndef TALVIK_TEXTS_VECTOR_ROWS_HPP
#define TALVIK_TEXTS_VECTOR_ROWS_HPP

#include <string>
#include <vector>

#include "talvik/vectors.hpp"
#include "texts/word_set.hpp"

namespace talvik::texts {

/// Words in the order of the file, with their rows as they stand there, not scaled.
struct VectorRows {
  std::vector<std::string> words;  ///< distinct, at least one
  WordNumbers numbers;             ///< of words
  int dimensions = 0;
  std::vector<float> rows;   ///< component d of word w at w*dimensions + d; finite
  Count num_repeated = 0;    ///< rows of a word that had one, left out
  Count num_with_space = 0;  ///< rows of a text file whose word is empty or holds a space, left out
};

/// Reads a file of word vectors; text may be compressed by gzip.  Automatic: what begins with two
/// whole numbers and goes on with raw floats is an embedding file, everything else is text.  Throws
/// FileError naming line or record.
VectorRows read_vectors(const std::string& path, VectorFormat format);

}  // namespace talvik::texts

#endif
