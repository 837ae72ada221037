// Texts to tokens that the corpus reader takes as they are.
#ifndef TALVIK_TOOL_TOKENIZER_HPP
#define TALVIK_TOOL_TOKENIZER_HPP

#include <string>
#include <string_view>
#include <vector>

#include "word_set.hpp"

namespace talvik::tool {

struct TokenRules {
  bool keep_case = false;
  int min_length = 1;                   ///< in characters
  const WordSet* stop_words = nullptr;  ///< lower case; null: none
  /// Words that have a vector, or null.  Decides on compounds alone.
  const WordSet* vocabulary = nullptr;
};

/// The tokens of a UTF-8 text, in order.
///   * A token is a run of letters, marks and decimal digits with at least one letter.
///   * It is put into lower case, unless the rules keep the case, and is in form C.
///   * An apostrophe inside a word ends it and what follows goes, as in the corpus reader:
///     "nation's" gives "nation".
///   * Words joined by hyphens stay one token where the vocabulary has the compound; otherwise
///     they are separate tokens.
///   * Soft hyphens and other format characters vanish; everything else separates.
/// @param[in,out] replaced  the invalid or cut UTF-8 sequences are added; they separate tokens
std::vector<std::string> tokenize(std::string_view text, const TokenRules& rules,
                                  long long& replaced);

/// The text with U+FFFD for every invalid or cut UTF-8 sequence; their number is added to replaced.
std::string valid_utf8(std::string_view text, long long& replaced);

bool is_valid_utf8(std::string_view text);

/// The text as a message may show it: control characters as \xNN, what is no UTF-8 as U+FFFD.
std::string printable(std::string_view text);

}  // namespace talvik::tool

#endif
