// Names of an enumeration's values, as users write and read them.
#ifndef TALVIK_TOOL_NAMES_HPP
#define TALVIK_TOOL_NAMES_HPP

#include <string>
#include <utility>
#include <vector>

namespace talvik::tool {

/// In the order in which help lists them.
template <class Enum>
using Names = std::vector<std::pair<std::string, Enum>>;

template <class Enum>
std::string name_of(Enum value, const Names<Enum>& names) {
  for (const auto& [name, named] : names) {
    if (named == value) return name;
  }
  return "";
}

}  // namespace talvik::tool

#endif
