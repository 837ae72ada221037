// The English stop words, and lists of one's own.
#include "texts/stop_words.hpp"

#include <iterator>  // istream_iterator
#include <sstream>
#include <utility>

#include "talvik/error.hpp"
#include "texts/text_lines.hpp"
#include "texts/tokenizer.hpp"
#include "texts/word_set.hpp"

namespace talvik::texts {

const std::vector<std::string>& english_stop_words() {
  static constexpr const char* text =
      // articles, pronouns and what stands for a noun
      "a an the i me my mine myself we us our ours ourselves you your yours yourself yourselves "
      "he him his himself she her hers herself it its itself they them their theirs themselves "
      "one ones oneself this that these those who whom whose which what whoever whatever whichever "
      "someone somebody something anyone anybody anything everyone everybody everything nobody "
      "nothing none each either neither both all any some such same other others another own "
      "every few many more most much several less least enough "
      // forms of the verbs that carry others
      "am is are was were be been being have has had having do does did done doing will would "
      "shall should can could may might must ought cannot let get gets got getting go goes going "
      "gone went come comes came coming make makes made making take takes took taken taking "
      "give gives gave given giving put say says said see seen seems seem seemed "
      // prepositions and conjunctions
      "about above across after against along amid among amongst around as at before behind below "
      "beneath beside besides between beyond by despite down during except for from in inside into "
      "like near of off on onto out outside over past per since than through throughout till to "
      "toward towards under until unto up upon via with within without and but or nor so yet if "
      "because although though unless whereas whereby wherein while whether lest "
      // adverbs
      "again ago almost alone already also altogether always anyhow anyway away else elsewhere "
      "even ever far further hence here hereby herein how however indeed instead just maybe "
      "meanwhile moreover nevertheless never no not now often once only otherwise perhaps quite "
      "rather really soon still then thence there thereby therefore therein thereof thereto thus "
      "together too very well when whence whenever where wherever why "
      // stumps of don't, isn't, they'll, o'clock ...
      "don doesn didn isn aren wasn weren hasn haven hadn won wouldn shouldn couldn mustn needn "
      "ain o etc eg ie";
  static const std::vector<std::string> words = [] {
    std::istringstream list(text);
    return std::vector<std::string>(std::istream_iterator<std::string>(list), {});
  }();
  return words;
}

std::vector<std::string> read_stop_words(const std::string& path) {
  std::vector<std::string> words;
  WordSet known;
  TextLines lines(path);
  const Tokenizer tokenizer({});
  Count replaced = 0;
  for (std::string line; lines.next(line);) {
    for (std::string& word : tokenizer.tokens(line, replaced)) {
      if (known.insert(word).second) words.push_back(std::move(word));
    }
  }
  if (words.empty()) throw FileError(path, "holds no words");
  return words;
}

std::vector<std::string> stop_words_from(const std::string& name_or_path) {
  return name_or_path == "english" ? english_stop_words() : read_stop_words(name_or_path);
}

}  // namespace talvik::texts
