// A run that cannot go on prints its line and ends all processes with status 1; none waits for the
// others.
#include <gtest/gtest.h>
#include <sys/wait.h>  // WIFEXITED

#include <array>
#include <cstdio>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>

namespace talvik {
namespace {

struct Outcome {
  int status;
  std::string output;
};

Outcome launch(int processes, const std::string& failure) {
  // The launcher tells on standard error that the job was aborted; the time limit is for a hang.
  const std::string command =
      std::string("ASAN_OPTIONS=allocator_may_return_null=1:$ASAN_OPTIONS ") + "timeout 60 " +
      TALVIK_TEST_MPIRUN + " " + std::to_string(processes) + " " + TALVIK_TEST_FAILING_RUN + " '" +
      failure + "' 2>/dev/null";
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return {-1, "popen failed"};
  Outcome outcome{-1, ""};
  std::array<char, 4096> part{};
  while (std::fgets(part.data(), part.size(), pipe)) outcome.output += part.data();
  const int status = pclose(pipe);
  if (WIFEXITED(status)) outcome.status = WEXITSTATUS(status);
  return outcome;
}

bool has_line(const std::string& text, const std::string& wanted) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line == wanted) return true;
  }
  return false;
}

using Case = std::tuple<int, std::pair<const char*, const char*>>;

class FailingRun : public testing::TestWithParam<Case> {};

TEST_P(FailingRun, PrintsItsLineAndEndsTheJob) {
  const auto& [processes, texts] = GetParam();
  const auto& [failure, line] = texts;
  const Outcome outcome = launch(processes, failure);
  EXPECT_EQ(outcome.status, 1) << outcome.output;
  EXPECT_TRUE(has_line(outcome.output, line)) << outcome.output;
}

// What one process runs into while another may be waiting for it.
// 562949953421312 bytes = 2^30 documents x 2^17 queries x 4.
INSTANTIATE_TEST_SUITE_P(
    OfOneProcess, FailingRun,
    testing::Combine(
        testing::Values(1, 2),
        testing::Values(
            std::pair("missing folder", "Failed to open result file: /nonexistent/out.csv"),
            std::pair("missing folder, scale-out",
                      "Failed to open result file: /nonexistent/out.csv.thread0-0"),
            std::pair("full disk", "Failed to write result file: /dev/full"),
            std::pair("huge matrix", "Failed to allocate memory for D_trans: 562949953421312"),
            std::pair("too long lists",
                      "sort_cpu_parallel: k is 13, but all processes together hold 12 resident "
                      "documents"))));

INSTANTIATE_TEST_SUITE_P(
    OfAllProcesses, FailingRun,
    testing::Combine(
        testing::Values(1),
        testing::Values(
            std::pair("no path", "Failed to open result file: "),
            std::pair("foreign split",
                      "The distribution info splits 9 documents, not the 12 of this run: call "
                      "cleanup_distribution_info first"),
            std::pair("unknown word", "A document holds word 50, but the vocabulary has 50 words"),
            std::pair("unknown query word",
                      "A document holds word 51, but the vocabulary has 50 words"),
            std::pair("unknown word, ground distances",
                      "A document holds word 1, but the vocabulary has 1 words"),
            std::pair("missing labels",
                      "The resident collection's labels: 12 announced, 11 present"))));

}  // namespace
}  // namespace talvik
