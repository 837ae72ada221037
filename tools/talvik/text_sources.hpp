// Labelled texts in the three forms that people have them in.
#ifndef TALVIK_TOOL_TEXT_SOURCES_HPP
#define TALVIK_TOOL_TEXT_SOURCES_HPP

#include <functional>
#include <string>

namespace talvik::tool {

enum class TextsFormat {
  automatic,  ///< a directory is a tree; names in .jsonl, .ndjson are jsonl; other files tsv
  tree,       ///< a directory per class, with texts at any depth
  tsv,        ///< "label<TAB>text" a line
  jsonl,      ///< an object {"id", "label", "text"} a line; id may be absent
};

struct SourceText {
  std::string source;  ///< where it comes from: path in the tree, id, or file:line
  std::string label;
  std::string text;   ///< as it stands, UTF-8 or not
  std::string place;  ///< for error messages
};

struct ReadTexts {
  long long classless = 0;  ///< files of a tree that lie in no class directory, left out
  long long replaced = 0;   ///< invalid or cut UTF-8 sequences, as far as reading had to look
};

/// Hands every text over, in the order of the lines or, in a tree, of the sorted paths.  Throws
/// RunError naming file and line.
ReadTexts read_texts(const std::string& input, TextsFormat format,
                     const std::function<void(const SourceText&)>& handle);

}  // namespace talvik::tool

#endif
