// talvik index: texts and word vectors into a saved collection.
#include <fmt/core.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "atomic_output.hpp"
#include "choice_option.hpp"
#include "commands/commands.hpp"
#include "commands/run_command.hpp"
#include "messages.hpp"
#include "run_error.hpp"
#include "run_options.hpp"
#include "status_line.hpp"
#include "talvik/collection.hpp"
#include "texts/stop_words.hpp"
#include "texts_input.hpp"
#include "unfinished.hpp"

namespace talvik::tool {
namespace {

struct IndexOptions {
  std::string vectors;  // empty: with --append, those of the collection
  std::string texts;
  std::string output;
  bool append = false;
  TextsOptions reading;
  std::string stop_words;  // "english" or a file; empty: none
  CollectionOptions collection;
  bool keep_lengths = false;
  bool quiet = false;
  bool max_words_given = false, min_length_given = false;
};

// The settings that were asked for; with --append the same as the file's, or not asked for.
CollectionOptions wanted_settings(const IndexOptions& options) {
  CollectionOptions wanted = options.collection;
  if (!options.stop_words.empty()) {
    wanted.rules.stop_words = texts::stop_words_from(options.stop_words);
  }
  return wanted;
}

std::vector<std::string> sorted(std::vector<std::string> words) {
  std::sort(words.begin(), words.end());
  return words;
}

void require_same_settings(const IndexOptions& options, const Collection& collection) {
  const CollectionOptions wanted = wanted_settings(options), &had = collection.options();
  const TextRules &rules = wanted.rules, &had_rules = had.rules;
  const bool had_lengths =
      collection.vocabulary().size() > 0 && !collection.vocabulary().unit_length();
  const std::pair<const char*, bool> contradictions[] = {
      {"--stop-words",
       !options.stop_words.empty() && sorted(rules.stop_words) != sorted(had_rules.stop_words)},
      {"--max-words", options.max_words_given && rules.max_words != had_rules.max_words},
      {"--min-length", options.min_length_given && rules.min_length != had_rules.min_length},
      {"--keep-case", rules.keep_case && !had_rules.keep_case},
      {"--keep-texts", wanted.keep_texts && !had.keep_texts},
      {"--all-words", wanted.all_words && !had.all_words},
      {"--keep-lengths", options.keep_lengths && !had_lengths}};
  for (const auto& [option, contradicts] : contradictions) {
    if (!contradicts) continue;
    throw RunError(fmt::format("{}: contradicts what {} was made with", option, options.output));
  }
}

Collection begun_collection(const IndexOptions& options) {
  if (!options.append) return Collection(wanted_settings(options));
  Collection collection = Collection::load(options.output);
  require_same_settings(options, collection);
  return collection;
}

Vectors vectors_for(const IndexOptions& options, const Collection& collection, StatusLine& status) {
  const Vectors& had = collection.vocabulary();
  if (options.vectors.empty()) return had;
  const bool unit_length = had.size() > 0 ? had.unit_length() : !options.keep_lengths;
  return read_vectors(options.vectors, unit_length, status);
}

// Hours of work are not to be lost for a name.
void require_writable(const std::string& output) {
  if (is_stream(output)) throw RunError(output + ": a collection cannot be written to a stream");
  const AtomicFile probe(output);
}

std::string in_bytes(std::uintmax_t bytes) {
  constexpr double kib = 1024, mib = kib * kib;
  const auto size = static_cast<double>(bytes);
  return size < mib ? fmt::format("{:.1f} KiB", size / kib) : fmt::format("{:.1f} MiB", size / mib);
}

std::string names_of_empty(const AppendReport& report) {
  constexpr Count most_named = 5;
  std::string names;
  const Count named = std::min(most_named, std::ssize(report.empty_ids));
  for (Count i = 0; i < named; ++i) names += (i > 0 ? ", " : "") + report.empty_ids[i];
  if (named < report.empty) names += ", ...";
  return report.empty > 0 ? " (" + names + ")" : "";
}

void print_report(const IndexOptions& options, const Collection& collection,
                  const AppendReport& report, const Vectors& vectors, double seconds) {
  say("{:<32}{}\n", "documents", report.documents);
  if (options.append) say("{:<32}{}\n", "documents in all", collection.size());
  say("{:<32}{} of {}, {} floats each\n", "distinct words", collection.used_words(), vectors.size(),
      vectors.dimensions());
  say("{:<32}{}\n", "words without a vector", share_of(report.unknown_tokens, report.tokens));
  say("{:<32}{}{}\n", "documents without a known word", report.empty, names_of_empty(report));
  say("{:<32}{}\n", options.output, in_bytes(std::filesystem::file_size(options.output)));
  say("{:<32}{:.2f}\n", "seconds", seconds);
}

void index_texts(const IndexOptions& options) {
  StatusLine status;
  require_writable(options.output);
  Collection collection = begun_collection(options);
  TextsRead read;
  std::vector<Text> texts = read_all_texts(options.texts, options.reading, status, read);
  const Vectors vectors = vectors_for(options, collection, status);
  status.show_now(fmt::format("counting the words of {} texts", texts.size()));
  const AppendReport report = collection.append(texts, vectors);
  if (report.unknown_tokens == report.tokens && collection.entries() == 0) {
    throw RunError(options.texts + ": no text holds a word that has a vector");
  }
  texts = {};
  status.show_now("writing " + options.output);
  uninterrupted([&] { collection.save(options.output); });
  status.clear();
  if (options.quiet) return;
  report_texts_read(read);
  print_report(options, collection, report, vectors, status.seconds());
}

}  // namespace
}  // namespace talvik::tool

void add_index_command(CLI::App& app, int& status) {
  using namespace talvik::tool;
  CLI::App* command =
      app.add_subcommand("index", "Make a collection of texts that can be searched");
  auto options = std::make_shared<IndexOptions>();
  constexpr int longest_minimum = 1000;
  CLI::Option* vectors =
      command
          ->add_option("--vectors", options->vectors,
                       "Word vectors: an embedding file, word2vec text, fastText .vec or GloVe "
                       "text, plain or .gz; with --append those of the collection, unless named")
          ->type_name("FILE");
  command
      ->add_option("--texts", options->texts,
                   "Texts: a tree with a directory per class, a file of JSON lines, CSV, "
                   "label<TAB>text lines or one text a line, plain or .gz; - is standard input")
      ->required()
      ->type_name("PATH");
  command->add_option("--output", options->output, "Collection to write")
      ->required()
      ->type_name("FILE");
  command->add_flag("--append", options->append,
                    "Add the texts to the collection that is there, by its settings");
  add_texts_options(*command, options->reading);
  auto& rules = options->collection.rules;
  command
      ->add_option("--stop-words", options->stop_words,
                   "Words to leave out: a file, one a line, or the word english")
      ->type_name("FILE");
  CLI::Option* max_words =
      command
          ->add_option("--max-words", rules.max_words,
                       "Keep the so many most frequent words of a text (default: all)")
          ->check(at_least(1));
  CLI::Option* min_length =
      command->add_option("--min-length", rules.min_length, "Characters of the shortest word kept")
          ->check(CLI::Range(1, longest_minimum))
          ->capture_default_str();
  command->add_flag("--keep-case", rules.keep_case, "Do not put words into lower case");
  command->add_flag("--keep-lengths", options->keep_lengths,
                    "Do not scale word vectors to unit length");
  command->add_flag("--keep-texts", options->collection.keep_texts, "Keep the texts in the file");
  command->add_flag("--all-words", options->collection.all_words,
                    "Keep the vectors of all words, for queries with words that no text has");
  command->add_flag("--quiet", options->quiet, "No report");
  command->footer(
      "Examples:\n"
      "  talvik index --vectors glove.6B.300d.txt --texts news.jsonl \\\n"
      "    --output news.talvik\n"
      "  talvik index --append --texts today.csv --text-field body --output news.talvik\n");
  command->callback([options, vectors, max_words, min_length, &status] {
    if (vectors->count() == 0 && !options->append) throw CLI::RequiredError("--vectors");
    options->max_words_given = max_words->count() > 0;
    options->min_length_given = min_length->count() > 0;
    require_no_input("--output", options->output, {options->vectors, options->texts});
    status = run_command("index", [&] { index_texts(*options); });
  });
}
