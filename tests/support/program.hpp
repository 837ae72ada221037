// Runs of the program's binary, whose place the build tells.
#ifndef TALVIK_TESTS_PROGRAM_HPP
#define TALVIK_TESTS_PROGRAM_HPP

#include <sys/wait.h>  // WEXITSTATUS

#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

namespace talvik::test {

struct Ran {
  int status = -1;
  std::string output;  // both streams
};

/// Runs the program under the launcher, or by itself for one process.  A hang ends with status 124.
inline Ran run(int processes, const std::string& arguments, const std::string& before = "") {
  std::string command = "timeout -k 5 60 ";
  if (processes > 1) command += TALVIK_LAUNCH " " + std::to_string(processes) + " ";
  command += before + TALVIK_BINARY " " + arguments + (before.empty() ? " 2>&1" : "' 2>&1");
  Ran ran;
  FILE* pipe = popen(command.c_str(), "r");
  char buffer[4096];
  for (size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
    ran.output.append(buffer, got);
  const int status = pclose(pipe);
  ran.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return ran;
}

/// The program's own lines about what is wrong: "talvik: ..." or "talvik COMMAND: ...".
inline std::vector<std::string> complaints(const Ran& ran) {
  std::vector<std::string> lines;
  std::istringstream all(ran.output);
  for (std::string line; std::getline(all, line);) {
    if (line.starts_with("talvik:") || line.starts_with("talvik ")) lines.push_back(line);
  }
  return lines;
}

}  // namespace talvik::test

#endif
