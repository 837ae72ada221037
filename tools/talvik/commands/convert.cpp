// The command convert: word vectors from text to the embedding file.
#include "commands/convert.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>

#include "choice_option.hpp"
#include "commands/commands.hpp"
#include "commands/run_command.hpp"
#include "embedding_writer.hpp"
#include "messages.hpp"
#include "run_error.hpp"
#include "status_line.hpp"
#include "texts/text_lines.hpp"
#include "texts/text_vectors.hpp"
#include "texts/word_set.hpp"

namespace talvik::tool {
namespace {

using texts::TextLines;
using texts::TextVectors;
using texts::WordSet;

constexpr size_t zero_words_named = 5;

const Names<VectorFormat> formats = {
    {"auto", VectorFormat::automatic},
    {"word2vec", VectorFormat::with_header},
    {"fasttext", VectorFormat::with_header},
    {"glove", VectorFormat::without_header},
};

WordSet read_word_list(const std::string& path) {
  WordSet words;
  TextLines lines(path);
  for (std::string line; lines.next(line);) {
    if (!line.empty()) words.insert(line);
  }
  if (words.empty()) throw RunError(path + ": holds no words");
  return words;
}

// Which rows are wanted, and why the others are not.
struct Filter {
  const WordSet& listed;  // empty: all words
  WordSet seen;

  bool wants(const TextVectors& vectors, ConvertSummary& summary) {
    if (!vectors.is_one_word()) return ++summary.with_space, false;
    if (!listed.empty() && !listed.contains(vectors.word())) return ++summary.not_listed, false;
    if (!seen.emplace(vectors.word()).second) return ++summary.duplicates, false;
    return true;
  }
};

void note_zero_row(const TextVectors& vectors, ConvertSummary& summary) {
  const std::vector<float>& row = vectors.vector();
  if (std::any_of(row.begin(), row.end(), [](float value) { return value != 0; })) return;
  if (summary.zero_words.size() < zero_words_named) summary.zero_words.emplace_back(vectors.word());
  ++summary.zero_rows;
}

std::string progress_text(const TextVectors& vectors, double seconds) {
  constexpr int percent = 100;
  const double fraction = vectors.fraction();
  std::string rows = fmt::format("{} rows, {:.0f} rows/s", vectors.line(),
                                 static_cast<double>(vectors.line()) / seconds);
  if (fraction <= 0) return rows;
  return fmt::format("{:.0f} %, {}, {:.0f} s left", percent * fraction, rows,
                     seconds * (1 - fraction) / fraction);
}

void print_summary(const ConvertOptions& options, const ConvertSummary& summary) {
  say("{}: {} words, {} dimensions\n", options.output, summary.words, summary.dimensions);
  if (summary.duplicates > 0) {
    say("duplicates left out, the first kept: {}\n", summary.duplicates);
  }
  if (summary.with_space > 0) {
    say("words with a space in them left out: {}\n", summary.with_space);
  }
  if (!options.words.empty()) {
    say("words not listed left out: {}; listed words not found: {}\n", summary.not_listed,
        summary.listed_not_found);
  }
  if (summary.zero_rows > 0) {
    std::string names;
    for (const std::string& word : summary.zero_words) names += (names.empty() ? "" : ", ") + word;
    const bool all = summary.zero_rows == std::ssize(summary.zero_words);
    say("rows of zeros: {} ({}{})\n", summary.zero_rows, names, all ? "" : ", ...");
  }
}

}  // namespace

ConvertSummary convert_text_vectors(const ConvertOptions& options) {
  const std::string& input = options.input;
  std::error_code ignored;
  if (std::filesystem::equivalent(input, options.output, ignored)) {
    throw RunError(input + ": is both input and output");
  }
  const WordSet listed = options.words.empty() ? WordSet() : read_word_list(options.words);
  Filter filter{listed, {}};

  TextVectors vectors(input, options.format);
  ConvertSummary summary;
  summary.dimensions = vectors.dimensions();
  EmbeddingWriter output(options.output, vectors.header() ? vectors.header()->words : 0,
                         vectors.dimensions());
  StatusLine status;
  while (vectors.next()) {
    status.show([&] { return progress_text(vectors, status.seconds()); });
    if (!filter.wants(vectors, summary)) continue;
    note_zero_row(vectors, summary);
    output.write(vectors.word(), vectors.vector());
  }
  summary.words = output.words();
  if (summary.words == 0) {
    throw RunError(listed.empty() ? input + ": holds no word that can be written"
                                  : input + ": holds no word of " + options.words);
  }
  if (!listed.empty()) summary.listed_not_found = std::ssize(listed) - summary.words;
  output.commit();
  return summary;
}

}  // namespace talvik::tool

void add_convert_command(CLI::App& app, int& status) {
  using namespace talvik::tool;
  CLI::App* command =
      app.add_subcommand("convert", "Turn word vectors in text form into an embedding file");
  auto options = std::make_shared<ConvertOptions>();
  command
      ->add_option("--input", options->input,
                   "Word vectors: word2vec text, fastText .vec or GloVe text, plain or .gz")
      ->required()
      ->type_name("FILE");
  command->add_option("--output", options->output, "Embedding file to write")
      ->required()
      ->type_name("FILE");
  add_choice(*command, "--format", options->format, formats,
             "auto: a first line of two whole numbers is a header; word2vec, fasttext: there is a "
             "header; glove: there is none");
  command->add_option("--words", options->words, "Keep only the words of this file, one a line")
      ->type_name("FILE");
  command->footer(
      "Examples:\n"
      "  talvik convert --input glove.6B.300d.txt --output words.bin\n"
      "  talvik convert --input wiki.en.vec.gz --output words.bin --words wanted.txt\n");
  command->callback([options, &status] {
    status =
        run_command("convert", [&] { print_summary(*options, convert_text_vectors(*options)); });
  });
}
