// Sets and numbers of words that are asked for views into texts, without a string of their own.
#ifndef TALVIK_TEXTS_WORD_SET_HPP
#define TALVIK_TEXTS_WORD_SET_HPP

#include <functional>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "parse/text_document.hpp"

namespace talvik::texts {

using WordSet = std::unordered_set<std::string, internal::HashText, std::equal_to<>>;
using WordNumbers = std::unordered_map<std::string, int, internal::HashText, std::equal_to<>>;

}  // namespace talvik::texts

#endif
