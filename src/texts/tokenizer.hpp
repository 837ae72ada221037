// Texts to tokens that the corpus reader takes as they are.
#ifndef TALVIK_TEXTS_TOKENIZER_HPP
#define TALVIK_TEXTS_TOKENIZER_HPP

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "talvik/texts.hpp"
#include "texts/word_set.hpp"

namespace talvik::texts {

/// Whether a word has a vector.
using HasWord = std::function<bool(std::string_view)>;

/// Cuts many texts by the same rules.  Any number of threads may use one, as far as the vocabulary
/// allows it.
class Tokenizer {
 public:
  /// @param rules       max_words is not applied
  /// @param vocabulary  decides on compounds alone; empty: none stays whole
  explicit Tokenizer(const TextRules& rules, HasWord vocabulary = {});

  /// The tokens of a UTF-8 text, in order.
  ///   * A token is a run of letters, marks and decimal digits with at least one letter.
  ///   * It is put into lower case, unless the rules keep the case, and is in form C.
  ///   * An apostrophe inside a word ends it and what follows goes, as in the corpus reader:
  ///     "nation's" gives "nation".
  ///   * Words joined by hyphens stay one token where the vocabulary has the compound; otherwise
  ///     they are separate tokens.
  ///   * Soft hyphens and other format characters vanish; everything else separates.
  /// @param[in,out] replaced  the invalid or cut UTF-8 sequences are added; they separate tokens
  std::vector<std::string> tokens(std::string_view text, Count& replaced) const;

 private:
  struct Compound;
  void add(const std::string& part, std::vector<std::string>& tokens) const;
  void finish(Compound& compound, std::vector<std::string>& tokens) const;

  bool keep_case_;
  int min_length_;
  WordSet stop_words_;
  HasWord vocabulary_;
};

/// The text with U+FFFD for every invalid or cut UTF-8 sequence; their number is added to replaced.
std::string valid_utf8(std::string_view text, Count& replaced);

bool is_valid_utf8(std::string_view text);

/// The text as a message may show it: control characters as \xNN, what is no UTF-8 as U+FFFD.
std::string printable(std::string_view text);

}  // namespace talvik::texts

#endif
