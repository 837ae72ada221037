// Word vectors from text to the embedding file.
#ifndef TALVIK_TOOL_COMMANDS_CONVERT_HPP
#define TALVIK_TOOL_COMMANDS_CONVERT_HPP

#include <string>
#include <vector>

#include "talvik/vectors.hpp"

namespace talvik::tool {

struct ConvertOptions {
  std::string input;
  std::string output;
  VectorFormat format = VectorFormat::automatic;  ///< not binary
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

/// Reads the rows one by one and writes those that are wanted.  Where rows were left out, or their
/// number was not announced, spaces stand before the header's first number.  The output appears
/// whole or not at all.  Throws RunError, and FileError naming file and line.
ConvertSummary convert_text_vectors(const ConvertOptions& options);

}  // namespace talvik::tool

#endif
