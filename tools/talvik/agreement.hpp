// How the processes of a run fail together: an error found by one becomes the same error on all, so
// that none waits for another that has gone.  With one process nothing here needs MPI.
#ifndef TALVIK_TOOL_AGREEMENT_HPP
#define TALVIK_TOOL_AGREEMENT_HPP

#include <exception>
#include <new>
#include <string>

#include "talvik.hpp"

namespace talvik::tool {

/// What a step throws, or an empty text.
template <class Step>
std::string error_of(const Step& step) {
  try {
    step();
  } catch (const std::bad_alloc&) {
    return "not enough memory";
  } catch (const std::exception& failure) {
    return failure.what();
  }
  return "";
}

/// Throws RunError with the text of process 0 on every process, unless it is empty.  Collective.
void agree_with_first(const std::string& error);

/// Throws RunError with the text of the lowest process that has one, on every process; returns if
/// all texts are empty.  A text that not all have is preceded by the process and its machine.
/// Collective.
void agree(const std::string& error);

/// Runs a step that calls nothing collective; if it throws anywhere, every process gets a RunError.
/// Collective.
template <class Step>
void together(const Step& step) {
  agree(error_of(step));
}

/// The same for a step of process 0 alone.
template <class Step>
void on_first_process(const Step& step) {
  agree_with_first(myid == 0 ? error_of(step) : "");
}

/// The text of process `root`, of any length, on every process.  Collective.
std::string from_process(const std::string& text, int root);

/// The text of process 0, on every process.  Collective.
inline std::string from_first_process(const std::string& text) { return from_process(text, 0); }

}  // namespace talvik::tool

#endif
