// talvik: nearest documents by relaxed word mover's distance.  Exit status 0, 1 (a run failed) or 2
// (usage).
#include <unistd.h>  // sleep

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <exception>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "blas_kernels.hpp"
#include "commands/commands.hpp"
#include "group_run.hpp"
#include "help.hpp"
#include "messages.hpp"
#include "run_error.hpp"
#include "unfinished.hpp"

namespace {

using namespace talvik::tool;

/// One line, as every failure of the program.
std::string usage_line(const CLI::App* app, const CLI::Error& error) {
  return std::string("talvik: ") + error.what() + option_suggestion(*app) +
         " (see talvik --help)\n";
}

/// What the command line asks for instead of a run: help, version, or its own correction.  Every
/// process of a run gets here, before any has entered MPI.
int answer(const CLI::App& app, const CLI::ParseError& error) {
  const bool usage_error = error.get_exit_code() != static_cast<int>(CLI::ExitCodes::Success);
  if (is_first_process()) {
    app.exit(error);
    finish_output();
  } else if (usage_error) {
    // The launcher ends all processes when the first one fails; that must not be before process 0
    // has spoken.
    constexpr unsigned longest_wait_seconds = 5;
    sleep(longest_wait_seconds);
  }
  return usage_error ? status_usage : status_ok;
}

int run(int argc, char** argv) {
  CLI::App app("Nearest documents by relaxed word mover's distance", "talvik");
  app.set_version_flag("--version", "talvik " TALVIK_VERSION);
  app.require_subcommand(1);
  app.formatter(std::make_shared<HelpFormatter>());
  app.failure_message(usage_line);
  int status = status_ok;
  add_index_command(app, status);
  add_search_command(app, status);
  add_explain_command(app, status);
  add_corpus_command(app, status);
  add_mnist_command(app, status);
  add_convert_command(app, status);
  add_prepare_command(app, status);

  // These are no parallel work: the first process does it.
  const std::string_view command = argc > 1 ? argv[1] : "";
  constexpr std::array<std::string_view, 4> alone = {"index", "explain", "convert", "prepare"};
  if (!is_first_process() && std::find(alone.begin(), alone.end(), command) != alone.end()) {
    return status_ok;
  }
  try {
    const bool is_option = command.empty() || command.front() == '-';
    const auto named = [command](const CLI::App* known) { return known->get_name() == command; };
    if (!is_option && app.get_subcommands(named).empty()) {
      std::vector<std::string> names;
      for (const CLI::App* known : app.get_subcommands({})) names.push_back(known->get_name());
      throw CLI::ValidationError(argv[1], "no such command" + suggestion(argv[1], names));
    }
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return answer(app, error);
  }
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  choose_blas_kernels(argv);
  try {
    open_standard_streams();
    remove_unfinished_at_the_end();
    return run(argc, argv);
  } catch (const std::exception& error) {  // before or after a command, which end by themselves
    complain("talvik: {}\n", error.what());
    return status_failed;
  }
}
