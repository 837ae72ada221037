// The command convert: word vectors from text to the embedding file.
#include <fmt/core.h>

#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <string>

#include "commands/commands.hpp"
#include "run_error.hpp"
#include "text_vectors.hpp"

namespace talvik::tool {
namespace {

const std::map<std::string, VectorFormat> format_names = {
    {"auto", VectorFormat::automatic},
    {"word2vec", VectorFormat::with_header},
    {"fasttext", VectorFormat::with_header},
    {"glove", VectorFormat::without_header},
};

void print_summary(const ConvertOptions& options, const ConvertSummary& summary) {
  fmt::print("{}: {} words, {} dimensions\n", options.output, summary.words, summary.dimensions);
  if (summary.duplicates > 0) {
    fmt::print("duplicates left out, the first kept: {}\n", summary.duplicates);
  }
  if (summary.with_space > 0) {
    fmt::print("words with a space in them left out: {}\n", summary.with_space);
  }
  if (!options.words.empty()) {
    fmt::print("words not listed left out: {}; listed words not found: {}\n", summary.not_listed,
               summary.listed_not_found);
  }
  if (summary.zero_rows > 0) {
    std::string names;
    for (const std::string& word : summary.zero_words) names += (names.empty() ? "" : ", ") + word;
    const bool all = summary.zero_rows == static_cast<long long>(summary.zero_words.size());
    fmt::print("rows of zeros: {} ({}{})\n", summary.zero_rows, names, all ? "" : ", ...");
  }
}

int run(const ConvertOptions& options) {
  try {
    print_summary(options, convert_text_vectors(options));
    return status_ok;
  } catch (const std::exception& error) {
    fmt::print(stderr, "talvik convert: {}\n", error.what());
    return status_failed;
  }
}

}  // namespace
}  // namespace talvik::tool

void add_convert_command(CLI::App& app, int& status) {
  using namespace talvik::tool;
  CLI::App* command =
      app.add_subcommand("convert", "Turn word vectors in text form into an embedding file");
  auto options = std::make_shared<ConvertOptions>();
  auto format = std::make_shared<std::string>("auto");
  command
      ->add_option("--input", options->input,
                   "Word vectors: word2vec text, fastText .vec or GloVe text, plain or .gz")
      ->required()
      ->type_name("FILE");
  command->add_option("--output", options->output, "Embedding file to write")
      ->required()
      ->type_name("FILE");
  command
      ->add_option("--format", *format,
                   "auto: a first line of two whole numbers is a header; word2vec, fasttext: there "
                   "is a header; glove: there is none")
      ->check(CLI::IsMember({"auto", "word2vec", "fasttext", "glove"}))
      ->capture_default_str();
  command->add_option("--words", options->words, "Keep only the words of this file, one a line")
      ->type_name("FILE");
  command->callback([options, format, &status] {
    options->format = format_names.at(*format);
    status = run(*options);
  });
}
