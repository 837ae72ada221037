#include "help.hpp"

#include <algorithm>
#include <numeric>
#include <utility>

namespace talvik::tool {
namespace {

constexpr size_t terminal_columns = 80;

// Letters to put in, leave out or replace to turn one word into the other (Levenshtein).
size_t edit_distance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = std::exchange(row[0], i);
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
    }
  }
  return row.back();
}

}  // namespace

std::string wrapped(std::string_view text, size_t width) {
  std::string lines;
  size_t column = 0;
  while (!text.empty()) {
    const size_t length = std::min(text.find(' '), text.size());
    if (column > 0) {
      const bool fits = column + 1 + length <= width;
      lines += fits ? ' ' : '\n';
      column = fits ? column + 1 : 0;
    }
    lines += text.substr(0, length);
    column += length;
    text.remove_prefix(std::min(length + 1, text.size()));
  }
  return lines;
}

std::string HelpFormatter::make_option_desc(const CLI::Option* option) const {
  return wrapped(option->get_description(), terminal_columns - get_column_width());
}

std::string suggestion(const std::string& typed, const std::vector<std::string>& names) {
  constexpr size_t most_edits = 2;
  std::string nearest;
  size_t fewest = most_edits + 1;
  for (const std::string& name : names) {
    const size_t edits = edit_distance(typed, name);
    if (edits < std::min(fewest, name.size())) {
      nearest = name;
      fewest = edits;
    }
  }
  return nearest.empty() ? "" : " (" + typed + ": did you mean " + nearest + "?)";
}

std::string option_suggestion(const CLI::App& app) {
  const std::vector<const CLI::App*> used =
      app.get_subcommands([](const CLI::App*) { return true; });
  for (const CLI::App* command : used) {
    if (!command->parsed()) continue;
    std::vector<std::string> names;
    for (const CLI::Option* option : command->get_options()) {
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    }
    for (const std::string& typed : command->remaining()) {
      if (typed.starts_with("-")) return suggestion(typed.substr(0, typed.find('=')), names);
    }
  }
  return "";
}

}  // namespace talvik::tool
