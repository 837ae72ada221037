// How the processes of a run fail together: an error found by one becomes the same error on all, so
// that none waits for another that has gone.
#ifndef TALVIK_TOOL_AGREEMENT_HPP
#define TALVIK_TOOL_AGREEMENT_HPP

#include <exception>
#include <new>
#include <string>

namespace talvik::tool {

/// Throws RunError with the text of the lowest process that has one, on every process; returns if
/// all texts are empty.  Collective.
void agree(const std::string& error);

/// Runs a step that calls nothing collective; if it throws anywhere, every process gets a RunError.
/// Collective.
template <class Step>
void together(const Step& step) {
  std::string error;
  try {
    step();
  } catch (const std::bad_alloc&) {
    error = "not enough memory";
  } catch (const std::exception& failure) {
    error = failure.what();
  }
  agree(error);
}

/// The text of process 0, on every process.  Collective.
std::string from_first_process(const std::string& text);

}  // namespace talvik::tool

#endif
