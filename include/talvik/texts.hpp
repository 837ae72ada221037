// Texts, where they come from, and how they become words.
#ifndef TALVIK_TEXTS_HPP
#define TALVIK_TEXTS_HPP

#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "talvik/api.hpp"

namespace talvik {

/// How texts become documents.  A collection keeps its rules, so that queries are treated alike.
struct TextRules {
  std::vector<std::string> stop_words = {};  ///< left out; lower case, in any order
  bool keep_case = false;                    ///< else words are put into lower case
  int min_length = 1;                        ///< characters of the shortest word kept
  /// The most frequent words of a document are kept, of equally frequent ones those that come first
  /// in the vectors.
  int max_words = std::numeric_limits<int>::max();

  /// Whether all are the same.
  bool operator==(const TextRules&) const = default;
};

/// A text as it is appended to a collection.
struct Text {
  std::string id;                         ///< any text; within a collection no two are the same
  std::string text;                       ///< UTF-8; what is not counts as a gap between words
  std::optional<std::string> label = {};  ///< class
  std::string place = {};                 ///< for error messages: "news.jsonl:17"; may be empty
};

/// The function words of English, with the stumps that the cut at the apostrophe leaves ("don" of
/// "don't").
TALVIK_API std::vector<std::string> english_stop_words();

/// The words of a file, one a line.
/// @throws FileError
TALVIK_API std::vector<std::string> read_stop_words(const std::string& path);

/// How a file or directory of texts is written.
enum class TextsFormat {
  automatic,  ///< a directory is a tree; by the ending .jsonl, .ndjson, .csv, .tsv, else lines;
              ///< standard input is jsonl where its first character is a brace, else lines
  tree,       ///< a directory per class, with a text per file at any depth
  tsv,        ///< "label<TAB>text" a line
  csv,        ///< RFC 4180, the first record names the columns
  jsonl,      ///< a JSON object a line; values are texts or whole numbers
  lines,      ///< a text a line
};

/// How read_texts() reads.
struct TextsOptions {
  TextsFormat format = TextsFormat::automatic;  ///< of the path
  /// Member or column.  Where it is absent, or the column empty, the id is file:line, or in a tree
  /// the path below its root.
  std::string id_field = "id";
  std::string text_field = "text";  ///< member or column, which must be there
  /// Where it is absent, null or empty, the text has no label.  Blanks around a label go.
  std::string label_field = "label";
};

/// What read_texts() has met.
struct TextsRead {
  Count texts = 0;          ///< handed over
  Count without_class = 0;  ///< files of a tree that lie in no class directory, left out
  Count replaced = 0;       ///< invalid or cut UTF-8 sequences, as far as reading had to look
};

/// Hands every text over, in the order of the lines or, in a tree, of the sorted paths.  Blank
/// lines are no texts.
/// @param path    file, plain or compressed by gzip; directory; or "-", standard input
/// @param handle  an exception that it throws ends the reading
/// @throws FileError  naming file and line
TALVIK_API TextsRead read_texts(const std::string& path, const TextsOptions& options,
                                const std::function<void(Text&&)>& handle);

/// The words of a text by the rules, in order; max_words is not applied.
TALVIK_API std::vector<std::string> tokenize(std::string_view text, const TextRules& rules);

}  // namespace talvik

#endif
