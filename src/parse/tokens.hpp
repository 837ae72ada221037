// How texts are cut into words.  Pure functions on string views: the corpus reader counts words
// with them, and a host program can ask which words of a text a vocabulary lacks.
#ifndef TALVIK_PARSE_TOKENS_HPP
#define TALVIK_PARSE_TOKENS_HPP

#include <string_view>

namespace talvik::internal {

/// What is trimmed off both ends of a token.
inline constexpr std::string_view trimmed_punctuation = ".,:;'()";

/// Calls f(part) for every part of text that a delimiter or the end of the text closes, as a line
/// reader does: delimiters in a row give empty parts, one at the very end gives none.
template <class F>
void for_each_part(std::string_view text, char delimiter, const F& f) {
  while (!text.empty()) {
    const size_t length = text.find(delimiter);
    f(text.substr(0, length));
    if (length == std::string_view::npos) return;
    text.remove_prefix(length + 1);
  }
}

/// Calls f(token) for every token of a text.  Single spaces separate tokens; tabs and line breaks
/// stay inside them.
template <class F>
void for_each_token(std::string_view text, const F& f) {
  for_each_part(text, ' ', f);
}

/// The word in a token: punctuation trimmed off the end and the start, then cut at the first
/// apostrophe.  A token of nothing but punctuation is only cut.
constexpr std::string_view clean_token(std::string_view token) {
  const size_t last = token.find_last_not_of(trimmed_punctuation);
  if (last != std::string_view::npos) {
    token = token.substr(0, last + 1);
    token.remove_prefix(token.find_first_not_of(trimmed_punctuation));
  }
  return token.substr(0, token.find('\''));
}
static_assert(clean_token("(sat),") == "sat" && clean_token("cat's.") == "cat");
static_assert(clean_token("...") == "..." && clean_token("''").empty());

}  // namespace talvik::internal

#endif
