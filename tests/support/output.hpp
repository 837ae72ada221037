// What a piece of code writes to standard output.
#ifndef TALVIK_TESTS_OUTPUT_HPP
#define TALVIK_TESTS_OUTPUT_HPP

#include <gtest/gtest.h>

#include <string>

namespace talvik::test {

/// Runs the code and returns what it wrote to standard output.
template <class Code>
std::string printed_by(const Code& code) {
  testing::internal::CaptureStdout();
  try {
    code();
  } catch (...) {
    testing::internal::GetCapturedStdout();
    throw;
  }
  return testing::internal::GetCapturedStdout();
}

}  // namespace talvik::test

#endif
