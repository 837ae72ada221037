#include "texts_input.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include "choice_option.hpp"
#include "messages.hpp"
#include "run_error.hpp"

namespace talvik::tool {
namespace {

const Names<TextsFormat> texts_formats = {
    {"auto", TextsFormat::automatic}, {"tree", TextsFormat::tree},   {"tsv", TextsFormat::tsv},
    {"csv", TextsFormat::csv},        {"jsonl", TextsFormat::jsonl}, {"lines", TextsFormat::lines},
};

std::string name_of_input(const std::string& path) {
  return path == "-" ? "standard input" : std::filesystem::path(path).filename().string();
}

}  // namespace

void add_texts_options(CLI::App& command, TextsOptions& options) {
  add_choice(command, "--texts-format", options.format, texts_formats,
             "auto: a directory is a tree of classes; .jsonl, .csv and .tsv tell themselves; else "
             "a text a line");
  command
      .add_option("--id-field", options.id_field,
                  "JSON member or CSV column of the ids; without one: file:line")
      ->capture_default_str();
  command.add_option("--text-field", options.text_field, "JSON member or CSV column of the texts")
      ->capture_default_str();
  command
      .add_option("--label-field", options.label_field,
                  "JSON member or CSV column of the classes; there need not be one")
      ->capture_default_str();
}

std::vector<Text> read_all_texts(const std::string& path, const TextsOptions& options,
                                 StatusLine& status, TextsRead& read) {
  std::vector<Text> texts;
  read = read_texts(path, options, [&](Text&& text) {
    texts.push_back(std::move(text));
    status.show(
        [&] { return fmt::format("reading {}  {} texts", name_of_input(path), texts.size()); });
  });
  if (texts.empty()) {
    throw RunError(name_of_input(path) + (read.without_class > 0 ? ": holds no directory with texts"
                                                                 : ": holds no texts"));
  }
  return texts;
}

void report_texts_read(const TextsRead& read) {
  if (read.without_class > 0) {
    say("files outside the class directories, left out: {}\n", read.without_class);
  }
  if (read.replaced > 0) say("invalid UTF-8 sequences: {}\n", read.replaced);
}

Vectors read_vectors(const std::string& path, bool unit_length, StatusLine& status) {
  status.show_now("reading " + name_of_input(path));
  return Vectors::read(path, {.unit_length = unit_length});
}

Vectors query_vectors(const Collection& collection, const std::string& more, StatusLine& status) {
  const Vectors& known = collection.vocabulary();
  return more.empty() ? known : known.with(read_vectors(more, known.unit_length(), status));
}

std::string share_of(Count part, Count all) {
  constexpr double percent = 100;
  return fmt::format(
      "{} of {} ({:.1f} %)", part, all,
      percent * static_cast<double>(part) / static_cast<double>(std::max<Count>(all, 1)));
}

}  // namespace talvik::tool
