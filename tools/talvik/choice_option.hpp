// Options whose values have names.
#ifndef TALVIK_TOOL_CHOICE_OPTION_HPP
#define TALVIK_TOOL_CHOICE_OPTION_HPP

#include <CLI/CLI.hpp>
#include <string>
#include <utility>
#include <vector>

namespace talvik::tool {

/// The names of an enumeration's values, in the order in which help lists them.
template <class Enum>
using Names = std::vector<std::pair<std::string, Enum>>;

template <class Enum>
std::string name_of(Enum value, const Names<Enum>& names) {
  for (const auto& [name, named] : names) {
    if (named == value) return name;
  }
  return "";
}

/// Adds an option that takes one of the names; what `value` holds is the default.
template <class Enum>
CLI::Option* add_choice(CLI::App& command, const std::string& option, Enum& value,
                        const Names<Enum>& names, const std::string& description) {
  std::vector<std::string> list;
  for (const auto& [name, named] : names) list.push_back(name);
  return command.add_option(option, value, description)
      ->type_name("TEXT")
      ->transform(CLI::Transformer(names).description(""))
      ->transform(CLI::IsMember(list))  // first: the number behind a name is no name
      ->default_str(name_of(value, names));
}

}  // namespace talvik::tool

#endif
