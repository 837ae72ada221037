// Word vectors as text, and the embedding file that the library reads.
#ifndef TALVIK_TOOL_TEXT_VECTORS_HPP
#define TALVIK_TOOL_TEXT_VECTORS_HPP

#include <string>
#include <unordered_set>
#include <vector>

namespace talvik::tool {

enum class VectorFormat {
  automatic,       ///< a first line of two whole numbers is a header
  with_header,     ///< "words dimensions" first: word2vec text, fastText .vec
  without_header,  ///< rows from the first line on: GloVe
};

struct ConvertOptions {
  std::string input;
  std::string output;
  VectorFormat format = VectorFormat::automatic;
  std::string words;  ///< file of the words to keep, one a line; empty: keep all
};

struct ConvertSummary {
  long long words = 0;  ///< written
  long long dimensions = 0;
  long long duplicates = 0;             ///< rows of a word that had one; the first row is kept
  long long with_space = 0;             ///< words that hold a space: the embedding file cannot
  long long not_listed = 0;             ///< rows that the list of words leaves out
  long long listed_not_found = 0;       ///< words of the list without a row
  long long zero_rows = 0;              ///< rows of zeros, written like the others
  std::vector<std::string> zero_words;  ///< the first few of them
};

/// Reads rows "word number number ..." and writes the embedding file: the header "words
/// dimensions" and a newline, then per word the word, a space, its numbers as little-endian 32-bit
/// floats, and a newline.  Where rows were left out, or their number was not announced, spaces
/// stand before the header's first number.  Streams; the output appears whole or not at all.
/// Throws RunError naming file and line.
ConvertSummary convert_text_vectors(const ConvertOptions& options);

/// The words of an embedding file, read without its vectors.  Throws RunError.
std::unordered_set<std::string> read_embedding_words(const std::string& path);

}  // namespace talvik::tool

#endif
