// Texts on their way between processes.
#ifndef TALVIK_TOOL_STRINGS_EXCHANGE_HPP
#define TALVIK_TOOL_STRINGS_EXCHANGE_HPP

#include <span>
#include <string>
#include <vector>

#include "talvik/texts.hpp"

namespace talvik::tool {

/// The texts of process 0, with all that belongs to them, on every process.  Collective.
std::vector<Text> texts_from_first_process(std::vector<Text> texts);

/// On process 0 the strings of all processes, in the order of the ranks; elsewhere none.
/// Collective.
std::vector<std::string> strings_of_all(std::span<const std::string> own);

}  // namespace talvik::tool

#endif
