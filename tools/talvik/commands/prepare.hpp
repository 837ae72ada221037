// Ordinary texts into the corpus layout that the library reads.
#ifndef TALVIK_TOOL_COMMANDS_PREPARE_HPP
#define TALVIK_TOOL_COMMANDS_PREPARE_HPP

#include <string>

#include "talvik/texts.hpp"

namespace talvik::tool {

struct PrepareOptions {
  std::string input;
  std::string output;
  TextsFormat format = TextsFormat::automatic;  ///< else tree, tsv or jsonl
  std::string embeddings;  ///< embedding file whose words are the vocabulary; empty: none
  std::string stop_words;  ///< "english" or a file; empty: none
  bool keep_case = false;
  int min_length = 1;   ///< of a token, in characters
  long long limit = 0;  ///< documents of a class, the first ones; 0: all
  long long first_id = 1;
};

struct PrepareSummary {
  long long documents = 0;  ///< with an identifier, whether a token is left or not
  long long classes = 0;
  long long tokens_in = 0;  ///< in the vocabulary; without one: all
  long long tokens_out = 0;
  long long empty = 0;       ///< documents without a token: they get no file
  long long unknown = 0;     ///< documents with tokens, but none in the vocabulary
  long long over_limit = 0;  ///< left out by the limit
  long long classless = 0;   ///< files of a tree that lie in no class directory, left out
  Count replaced = 0;        ///< invalid or cut UTF-8 sequences
};

/// Writes output/CLASS/ID, one file a document, tokens separated by single spaces, and
/// output/documents.tsv with a line per document: id, source, class, tokens in and out of the
/// vocabulary (without a vocabulary: all tokens, and "-").  Identifiers count up in the order of
/// the lines or, in a tree, of the sorted paths.  The output directory appears whole or not at all.
/// Throws RunError, and FileError naming file and line.
PrepareSummary prepare_corpus(const PrepareOptions& options);

}  // namespace talvik::tool

#endif
