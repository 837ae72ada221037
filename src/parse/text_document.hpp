// How a text becomes a document: words are looked up and counted, the most frequent ones kept, and
// the weights normalised.  Shared with the host program.
#ifndef TALVIK_PARSE_TEXT_DOCUMENT_HPP
#define TALVIK_PARSE_TEXT_DOCUMENT_HPP

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "talvik.hpp"

namespace talvik::internal {

struct HashText {
  using is_transparent = void;  // views are found without making strings
  std::size_t operator()(std::string_view text) const {
    return std::hash<std::string_view>{}(text);
  }
};

/// The words of a vocabulary for the readers of many texts.  The map compares a dozen strings per
/// look-up, and few distinct words make up most of a corpus: answers are remembered in a hash
/// table.
struct WordLookup {
  const VocabularyMap& voc;
  std::unordered_map<std::string, std::optional<int>, HashText, std::equal_to<>> answers = {};
};

/// The word's index; none if the vocabulary lacks it.
std::optional<int> find_word(WordLookup& words, std::string_view word);

/// The choice of a text's words, as parse_single_doc describes it.
struct DocumentRule {
  int max_words;
  int skip_index;
  int norm_type;
};

/// Appends the words of a text to doc and normalises the whole document.
/// @param find  find(word) gives the index of a word, or none
/// @return entries appended
int append_text(std::string_view text,
                const std::function<std::optional<int>(std::string_view)>& find,
                const DocumentRule& rule, Document& doc);

}  // namespace talvik::internal

#endif
