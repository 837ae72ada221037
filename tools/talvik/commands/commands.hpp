// The commands of the program: each function adds one to the command line.  A command runs when the
// line has been parsed and leaves its exit status in `status`.
#ifndef TALVIK_TOOL_COMMANDS_COMMANDS_HPP
#define TALVIK_TOOL_COMMANDS_COMMANDS_HPP

namespace CLI {
class App;
}

void add_index_command(CLI::App& app, int& status);
void add_search_command(CLI::App& app, int& status);
void add_explain_command(CLI::App& app, int& status);
void add_corpus_command(CLI::App& app, int& status);
void add_mnist_command(CLI::App& app, int& status);
void add_convert_command(CLI::App& app, int& status);
void add_prepare_command(CLI::App& app, int& status);

#endif
