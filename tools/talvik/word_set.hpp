// Sets of words that are asked for views into texts, without a string of their own.
#ifndef TALVIK_TOOL_WORD_SET_HPP
#define TALVIK_TOOL_WORD_SET_HPP

#include <functional>
#include <string>
#include <string_view>
#include <unordered_set>

namespace talvik::tool {

struct WordHash {
  using is_transparent = void;
  size_t operator()(std::string_view word) const { return std::hash<std::string_view>()(word); }
};

using WordSet = std::unordered_set<std::string, WordHash, std::equal_to<>>;

}  // namespace talvik::tool

#endif
