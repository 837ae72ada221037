#include "messages.hpp"

#include <fcntl.h>   // open, fcntl
#include <unistd.h>  // close

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "run_error.hpp"

namespace talvik::tool {
void open_standard_streams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) >= 0) continue;
    const int opened = open("/dev/null", O_RDWR);  // the lowest number, which is this one
    if (opened > stream) close(opened);
  }
}

void say_text(std::string_view text) { std::fwrite(text.data(), 1, text.size(), stdout); }

void complain_text(std::string_view text) {
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

void finish_output() {
  errno = 0;
  const bool library = static_cast<bool>(std::cout.flush());
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0 && library) return;
  throw RunError(std::string("standard output: cannot be written") +
                 (errno != 0 ? std::string(": ") + std::strerror(errno) : ""));
}

}  // namespace talvik::tool
