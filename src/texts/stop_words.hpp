// Words that say little about what a text is about.
#ifndef TALVIK_TEXTS_STOP_WORDS_HPP
#define TALVIK_TEXTS_STOP_WORDS_HPP

#include <string>
#include <vector>

namespace talvik::texts {

/// Function words of English, lower case, with the stumps that the cut at the apostrophe leaves
/// ("don" of "don't").
const std::vector<std::string>& english_stop_words();

/// The words of a file, each once, in the order of the file and in lower case.  They go through the
/// same cuts as the texts'.  Throws FileError.
std::vector<std::string> read_stop_words(const std::string& path);

/// "english", or a file as above.
std::vector<std::string> stop_words_from(const std::string& name_or_path);

}  // namespace talvik::texts

#endif
