// What the library exports of the texts wing.
#include "talvik/texts.hpp"

#include "texts/stop_words.hpp"
#include "texts/text_sources.hpp"
#include "texts/tokenizer.hpp"

namespace talvik {

std::vector<std::string> english_stop_words() { return texts::english_stop_words(); }

std::vector<std::string> read_stop_words(const std::string& path) {
  return texts::read_stop_words(path);
}

TextsRead read_texts(const std::string& path, const TextsOptions& options,
                     const std::function<void(Text&&)>& handle) {
  return texts::read_texts(path, options, texts::Labels::optional, handle);
}

std::vector<std::string> tokenize(std::string_view text, const TextRules& rules) {
  Count replaced = 0;
  return texts::Tokenizer(rules).tokens(text, replaced);
}

}  // namespace talvik
