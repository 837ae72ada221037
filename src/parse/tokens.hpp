// How texts are cut into words: pure functions on string views, shared with the host program.
#ifndef TALVIK_PARSE_TOKENS_HPP
#define TALVIK_PARSE_TOKENS_HPP

#include <string_view>

namespace talvik::internal {

/// The punctuation that is trimmed off both ends of a token.
inline constexpr std::string_view trimmed_punctuation = ".,:;'()";

/// Calls f(part) for every part of text that ends at a delimiter or at the end of the text.
/// Adjacent delimiters give empty parts; a delimiter at the very end is followed by none.
template <class F>
void for_each_part(std::string_view text, char delimiter, const F& f) {
  while (!text.empty()) {
    const size_t length = text.find(delimiter);
    f(text.substr(0, length));
    if (length == std::string_view::npos) return;
    text.remove_prefix(length + 1);
  }
}

/// Calls f(token) for every token of a text.  A single space separates tokens; tabs and line breaks
/// are part of a token.
template <class F>
void for_each_token(std::string_view text, const F& f) {
  for_each_part(text, ' ', f);
}

/// The word in a token: punctuation is trimmed off both ends, then the word ends at its first
/// apostrophe.  A token that consists of punctuation is not trimmed.
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
