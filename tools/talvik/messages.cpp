#include "messages.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "run_error.hpp"

namespace talvik::tool {

void say_text(std::string_view text) { std::fwrite(text.data(), 1, text.size(), stdout); }

void complain_text(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

void finish_output() {
  errno = 0;
  const bool library = !std::cout.rdbuf() || std::cout.flush();
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0 && library) return;
  throw RunError(std::string("standard output: cannot be written") +
                 (errno != 0 ? std::string(": ") + std::strerror(errno) : ""));
}

}  // namespace talvik::tool
