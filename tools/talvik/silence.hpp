// The library's own lines, which --quiet keeps back.
#ifndef TALVIK_TOOL_SILENCE_HPP
#define TALVIK_TOOL_SILENCE_HPP

#include <streambuf>

namespace talvik::tool {

/// The library's own lines are kept back while it lives.  Where the library ends the process
/// meanwhile, alone or with the whole job, which it says in its last line, that line goes to
/// standard error.
class Silence {
 public:
  explicit Silence(bool wanted);
  ~Silence();
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;

 private:
  std::streambuf* lines_ = nullptr;
};

}  // namespace talvik::tool

#endif
