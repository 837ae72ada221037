// Words that say little about what a text is about.
#ifndef TALVIK_TOOL_STOP_WORDS_HPP
#define TALVIK_TOOL_STOP_WORDS_HPP

#include <string>

#include "word_set.hpp"

namespace talvik::tool {

/// Function words of English, lower case, with the stumps that the cut at the apostrophe leaves
/// ("don" of "don't").
const WordSet& english_stop_words();

/// "english", or a file with a word a line.  Its words go through the same cuts as the texts'.
/// Throws RunError.
WordSet stop_words_from(const std::string& name_or_path);

}  // namespace talvik::tool

#endif
