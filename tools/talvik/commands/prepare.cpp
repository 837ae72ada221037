// The command prepare: texts of three forms into the corpus layout.
#include "commands/prepare.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <vector>

#include "choice_option.hpp"
#include "commands/commands.hpp"
#include "commands/run_command.hpp"
#include "corpus_writer.hpp"
#include "messages.hpp"
#include "progress.hpp"
#include "run_error.hpp"
#include "status_line.hpp"
#include "texts/embedding_input.hpp"
#include "texts/stop_words.hpp"
#include "texts/text_sources.hpp"
#include "texts/tokenizer.hpp"

namespace talvik::tool {
namespace {

const Names<TextsFormat> input_formats = {
    {"auto", TextsFormat::automatic},
    {"tree", TextsFormat::tree},
    {"tsv", TextsFormat::tsv},
    {"jsonl", TextsFormat::jsonl},
};

// What neither a directory nor an ending of JSON lines tells is tsv.
TextsFormat format_of(const PrepareOptions& options) {
  if (options.format != TextsFormat::automatic) return options.format;
  const TextsFormat format = texts::format_by_name(options.input);
  const bool told = format == TextsFormat::tree || format == TextsFormat::jsonl;
  return told ? format : TextsFormat::tsv;
}

// A corpus below its own texts would be read as one of their classes.
void require_outside(const std::string& output, const std::string& input) {
  namespace fs = std::filesystem;
  std::error_code error;
  if (!fs::is_directory(input, error)) return;
  const fs::path inner = fs::weakly_canonical(output, error), outer = fs::canonical(input, error);
  const auto [in_outer, in_inner] =
      std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end());
  if (in_outer == outer.end()) throw RunError(output + ": lies within the input " + input);
}

// Tokenises texts, numbers them, writes and counts them.
class CorpusMaker {
 public:
  explicit CorpusMaker(const PrepareOptions& options)
      : options_(options),
        corpus_(options.output),
        tokenizer_({.stop_words = stop_words_of(options),
                    .keep_case = options.keep_case,
                    .min_length = options.min_length},
                   [this](std::string_view word) { return vocabulary_.contains(word); }) {
    if (!has_vocabulary()) return;
    vocabulary_ =
        texts::read_embedding_words(options.embeddings, shown_reading(options.embeddings));
  }
  CorpusMaker(const CorpusMaker&) = delete;
  CorpusMaker& operator=(const CorpusMaker&) = delete;

  void add(const Text& text) {
    const std::string label = text.label.value_or("");
    require_class_name(label, text.place);
    long long& documents = documents_of_[label];
    if (options_.limit > 0 && documents == options_.limit) {
      ++summary_.over_limit;
      return;
    }
    ++documents;
    const long long id = options_.first_id + summary_.documents++;
    const std::vector<std::string> tokens = tokenizer_.tokens(text.text, summary_.replaced);
    const long long tokens_in =
        has_vocabulary()
            ? std::count_if(tokens.begin(), tokens.end(),
                            [&](const std::string& token) { return vocabulary_.contains(token); })
            : std::ssize(tokens);
    const long long tokens_out = std::ssize(tokens) - tokens_in;
    summary_.tokens_in += tokens_in;
    summary_.tokens_out += tokens_out;
    summary_.empty += tokens.empty();
    summary_.unknown += !tokens.empty() && tokens_in == 0;
    if (!tokens.empty()) corpus_.write_document(label, id, tokens);
    corpus_.list_document({.id = id,
                           .source = text.id,
                           .label = label,
                           .tokens_in = tokens_in,
                           .tokens_out = has_vocabulary() ? std::to_string(tokens_out) : "-"});
    status_.show([&] { return fmt::format("{} documents", summary_.documents); });
  }

  PrepareSummary finish(const TextsRead& read) {
    summary_.classless = read.without_class;
    summary_.replaced += read.replaced;
    summary_.classes = std::ssize(documents_of_);
    if (summary_.documents == 0) {
      throw RunError(options_.input + (summary_.classless > 0 ? ": holds no directory with texts"
                                                              : ": holds no documents"));
    }
    if (summary_.tokens_in == 0) {
      throw RunError(options_.input + (has_vocabulary()
                                           ? ": holds no word of " + options_.embeddings
                                           : ": no document has a token"));
    }
    corpus_.commit();
    return summary_;
  }

 private:
  static std::vector<std::string> stop_words_of(const PrepareOptions& options) {
    if (options.stop_words.empty()) return {};
    return texts::stop_words_from(options.stop_words);
  }
  bool has_vocabulary() const { return !options_.embeddings.empty(); }

  const PrepareOptions& options_;
  CorpusWriter corpus_;
  texts::WordSet vocabulary_;
  texts::Tokenizer tokenizer_;
  std::map<std::string, long long> documents_of_;  // by class
  PrepareSummary summary_;
  StatusLine status_;
};

void print_summary(const PrepareOptions& options, const PrepareSummary& summary) {
  say("{}: documents {}, classes {}\n", options.output, summary.documents, summary.classes);
  const long long tokens = summary.tokens_in + summary.tokens_out;
  if (options.embeddings.empty()) {
    say("tokens: {}\n", tokens);
  } else {
    constexpr double percent = 100;
    say("tokens: {} in the vocabulary, {} out of it ({:.1f} %)\n", summary.tokens_in,
        summary.tokens_out,
        percent * static_cast<double>(summary.tokens_out) / static_cast<double>(tokens));
    say("documents without a word of the vocabulary: {}\n", summary.unknown);
  }
  say("documents left empty, listed but without a file: {}\n", summary.empty);
  if (summary.over_limit > 0) say("documents over the limit: {}\n", summary.over_limit);
  if (summary.classless > 0) {
    say("files outside the class directories, left out: {}\n", summary.classless);
  }
  if (summary.replaced > 0) say("invalid UTF-8 sequences: {}\n", summary.replaced);
}

}  // namespace

PrepareSummary prepare_corpus(const PrepareOptions& options) {
  require_outside(options.output, options.input);
  CorpusMaker corpus(options);
  const TextsRead read =
      texts::read_texts(options.input, {.format = format_of(options)}, texts::Labels::required,
                        [&](const Text& text) { corpus.add(text); });
  return corpus.finish(read);
}

}  // namespace talvik::tool

void add_prepare_command(CLI::App& app, int& status) {
  using namespace talvik::tool;
  CLI::App* command =
      app.add_subcommand("prepare", "Turn ordinary texts into a corpus for the command corpus");
  auto options = std::make_shared<PrepareOptions>();
  constexpr int longest_minimum = 1000;
  constexpr long long largest_count = 1'000'000'000'000;
  command
      ->add_option("--input", options->input,
                   "Texts: a tree with a directory per class, a file of label<TAB>text lines, or "
                   "JSON lines {id, label, text}")
      ->required()
      ->type_name("PATH");
  command->add_option("--output", options->output, "Corpus directory to make")
      ->required()
      ->type_name("DIR");
  add_choice(*command, "--format", options->format, input_formats,
             "auto: a directory is a tree, .jsonl and .ndjson are jsonl, other files are tsv");
  command
      ->add_option("--embeddings", options->embeddings,
                   "Embedding file: counts words in and out of it, and keeps the hyphenated "
                   "compounds that it has")
      ->type_name("FILE");
  command
      ->add_option("--stop-words", options->stop_words,
                   "Words to leave out: a file, one a line, or the word english")
      ->type_name("FILE");
  command->add_flag("--keep-case", options->keep_case, "Do not put words into lower case");
  command->add_option("--min-length", options->min_length, "Characters of the shortest token kept")
      ->check(CLI::Range(1, longest_minimum))
      ->capture_default_str();
  command->add_option("--limit", options->limit, "Documents per class, the first ones; 0: all")
      ->check(CLI::Range(0LL, largest_count))
      ->capture_default_str();
  command->add_option("--first-id", options->first_id, "Identifier of the first document")
      ->check(CLI::Range(0LL, largest_count))
      ->capture_default_str();
  command->footer(
      "Examples:\n"
      "  talvik prepare --input mail --output texts --stop-words english\n"
      "  talvik prepare --input news.jsonl --output texts --embeddings words.bin\n");
  command->callback([options, &status] {
    status = run_command("prepare", [&] { print_summary(*options, prepare_corpus(*options)); });
  });
}
