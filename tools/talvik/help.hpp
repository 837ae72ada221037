// How the command line answers: help that fits a terminal, and the name that a mistyped one was
// meant to be.
#ifndef TALVIK_TOOL_HELP_HPP
#define TALVIK_TOOL_HELP_HPP

#include <CLI/CLI.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace talvik::tool {

/// Breaks a text at spaces, so that no line is longer than `width` unless a word is.
std::string wrapped(std::string_view text, size_t width);

/// Descriptions of options beside their names, within 80 columns.
class HelpFormatter : public CLI::Formatter {
 public:
  std::string make_option_desc(const CLI::Option* option) const override;
};

/// " (TYPED: did you mean NAME?)" for the name nearest to what was typed, or an empty text where
/// none is near.
std::string suggestion(const std::string& typed, const std::vector<std::string>& names);

/// The same for the first of the arguments that the command does not know.
std::string option_suggestion(const CLI::App& app);

}  // namespace talvik::tool

#endif
