// What the program says.  Results are worth nothing where they cannot be read; what goes wrong with
// complaints is no reason to stop.
#ifndef TALVIK_TOOL_MESSAGES_HPP
#define TALVIK_TOOL_MESSAGES_HPP

#include <fmt/core.h>

#include <string_view>
#include <utility>

namespace talvik::tool {

/// Writes to standard output.  Whether that could be written is found out by finish_output.
void say_text(std::string_view text);

/// Writes to standard error, as far as that can be written.
void complain_text(std::string_view text);

template <class... T>
void say(fmt::format_string<T...> format, T&&... values) {
  say_text(fmt::format(format, std::forward<T>(values)...));
}

template <class... T>
void complain(fmt::format_string<T...> format, T&&... values) {
  complain_text(fmt::format(format, std::forward<T>(values)...));
}

/// Opens the null device in the place of a standard stream that is closed, so that no other file
/// gets its number.
void open_standard_streams();

/// Throws RunError where something of standard output has been lost, the library's lines included.
void finish_output();

}  // namespace talvik::tool

#endif
