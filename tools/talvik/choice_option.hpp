// Kinds of options that several commands have.
#ifndef TALVIK_TOOL_CHOICE_OPTION_HPP
#define TALVIK_TOOL_CHOICE_OPTION_HPP

#include <CLI/CLI.hpp>
#include <limits>
#include <string>
#include <vector>

#include "names.hpp"

namespace talvik::tool {

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

/// Accepts whole numbers from `smallest` on.
inline CLI::Validator at_least(int smallest) {
  return CLI::Range(smallest, std::numeric_limits<int>::max())
      .description("(from " + std::to_string(smallest) + ")");
}

}  // namespace talvik::tool

#endif
