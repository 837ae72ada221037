// What the tests of the program's parts share.
#ifndef TALVIK_TESTS_TOOL_HPP
#define TALVIK_TESTS_TOOL_HPP

#include <string>

#include "run_error.hpp"
#include "talvik/error.hpp"

namespace talvik::test {

/// The text of the RunError or Error that code ends with, "no error" if it ends well.
template <class Code>
std::string error_of(const Code& code) {
  try {
    code();
  } catch (const tool::RunError& error) {
    return error.what();
  } catch (const Error& error) {
    return error.what();
  }
  return "no error";
}

}  // namespace talvik::test

#endif
