// The command prepare: reads texts of three forms, writes the corpus layout.
#include "commands/prepare.hpp"

#include <fmt/core.h>
#include <unistd.h>  // getpid

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "commands/commands.hpp"
#include "run_error.hpp"
#include "stop_words.hpp"
#include "text_lines.hpp"
#include "text_vectors.hpp"
#include "tokenizer.hpp"

namespace talvik::tool {
namespace {

namespace fs = std::filesystem;

// A text on its way from the input to the corpus.
struct SourceText {
  std::string source;  // where it comes from: path in the tree, id, or file:line
  std::string label;
  std::string text;
  std::string place;  // for error messages
};
using TextHandler = std::function<void(const SourceText&)>;

std::string trimmed(std::string_view text) {
  constexpr const char* blanks = " \t\r\n";
  const size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return "";
  return std::string(text.substr(first, text.find_last_not_of(blanks) - first + 1));
}

bool has_control_character(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; });
}

// A class becomes a directory of its name.
void require_class_name(const std::string& label, const std::string& place) {
  constexpr size_t longest_file_name = 255;
  const char* problem = nullptr;
  if (label.empty()) {
    problem = "is empty";
  } else if (label == "." || label == "..") {
    problem = "cannot name a directory";
  } else if (label == "documents.tsv") {
    problem = "is the name of the list of documents";
  } else if (label.find('/') != std::string::npos) {
    problem = "holds a path separator";
  } else if (has_control_character(label)) {
    throw RunError(place + ": the class name holds a control character");
  } else if (label.size() > longest_file_name) {
    throw RunError(
        fmt::format("{}: the class name is longer than {} bytes", place, longest_file_name));
  }
  if (problem) throw RunError(fmt::format("{}: the class name \"{}\" {}", place, label, problem));
}

std::string whole_file(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text;
  if (file) text.assign(std::istreambuf_iterator<char>(file), {});
  if (!file || file.bad()) {
    throw RunError(path.string() + ": cannot be read: " + std::strerror(errno));
  }
  return text;
}

// Paths of the files below root, relative to it, sorted by their components; hidden ones left out.
std::vector<fs::path> files_below(const fs::path& root) {
  std::vector<fs::path> files;
  std::error_code error;
  fs::recursive_directory_iterator at(root, error);
  while (!error && at != fs::recursive_directory_iterator()) {
    const bool hidden = at->path().filename().string().starts_with(".");
    std::error_code leads_nowhere;  // a link that does is no text
    if (hidden && at->is_directory(leads_nowhere)) at.disable_recursion_pending();
    if (!hidden && at->is_regular_file(leads_nowhere)) {
      files.push_back(at->path().lexically_relative(root));
    }
    at.increment(error);
  }
  if (error) throw RunError(root.string() + ": cannot be listed: " + error.message());
  std::sort(files.begin(), files.end());
  return files;
}

void read_tree(const fs::path& root, PrepareSummary& summary, const TextHandler& handle) {
  for (const fs::path& file : files_below(root)) {
    if (!file.has_parent_path()) {
      ++summary.classless;
      continue;
    }
    const std::string place = (root / file).string();
    handle({file.string(), file.begin()->string(), whole_file(root / file), place});
  }
}

void read_tsv(const std::string& path, const TextHandler& handle) {
  TextLines lines(path);
  const std::string name = fs::path(path).filename().string();
  for (std::string line; lines.next(line);) {
    if (trimmed(line).empty()) continue;
    const size_t tab = line.find('\t');
    if (tab == std::string::npos) {
      throw RunError(lines.place() + ": no tab between label and text");
    }
    handle({fmt::format("{}:{}", name, lines.number()), trimmed(line.substr(0, tab)),
            line.substr(tab + 1), lines.place()});
  }
}

// A text or whole number of a JSON object, as text.
std::string member(const nlohmann::json& object, const char* name, const std::string& place) {
  const auto found = object.find(name);
  if (found == object.end()) throw RunError(fmt::format("{}: no \"{}\"", place, name));
  if (found->is_string()) return found->get<std::string>();
  if (found->is_number_integer()) return found->dump();
  throw RunError(fmt::format("{}: \"{}\" is neither a text nor a whole number", place, name));
}

void read_jsonl(const std::string& path, PrepareSummary& summary, const TextHandler& handle) {
  TextLines lines(path);
  const std::string name = fs::path(path).filename().string();
  for (std::string line; lines.next(line);) {
    if (trimmed(line).empty()) continue;
    const std::string place = lines.place();
    nlohmann::json object;
    try {
      object = nlohmann::json::parse(valid_utf8(line, summary.replaced));
    } catch (const nlohmann::json::parse_error& error) {
      throw RunError(fmt::format("{}: no valid JSON at byte {}", place, error.byte));
    }
    if (!object.is_object()) throw RunError(place + ": not a JSON object");
    const std::string source = object.contains("id") ? member(object, "id", place)
                                                     : fmt::format("{}:{}", name, lines.number());
    handle({source, trimmed(member(object, "label", place)), member(object, "text", place), place});
  }
}

TextsFormat format_of(const PrepareOptions& options) {
  std::error_code error;
  const auto status = fs::status(options.input, error);
  if (!fs::exists(status)) throw RunError(options.input + ": " + std::strerror(ENOENT));
  const bool directory = fs::is_directory(status);
  TextsFormat format = options.format;
  if (format == TextsFormat::automatic) {
    std::string name = options.input;
    if (name.ends_with(".gz")) name.resize(name.size() - 3);
    const bool json = name.ends_with(".jsonl") || name.ends_with(".ndjson");
    format = directory ? TextsFormat::tree : json ? TextsFormat::jsonl : TextsFormat::tsv;
  }
  if (format == TextsFormat::tree && !directory) {
    throw RunError(options.input + ": is a file, a directory of classes was expected");
  }
  if (format != TextsFormat::tree && directory) {
    throw RunError(options.input + ": is a directory, a file was expected");
  }
  return format;
}

// The corpus under a temporary name beside its own.
class CorpusDirectory {
 public:
  explicit CorpusDirectory(std::string path) : path_(std::move(path)) {
    while (path_.size() > 1 && path_.back() == '/') path_.pop_back();
    std::error_code error;
    const auto status = fs::status(path_, error);
    if (fs::exists(status) && !fs::is_directory(status)) {
      throw RunError(path_ + ": exists and is not a directory");
    }
    if (fs::is_directory(status) && !fs::is_empty(path_, error)) {
      throw RunError(path_ + ": is not empty; remove it or name another directory");
    }
    error.clear();  // that nothing is there yet is no error
    const fs::path parent = fs::path(path_).parent_path();
    if (!parent.empty()) fs::create_directories(parent, error);
    const std::string temporary = fmt::format("{}.partial-{}", path_, getpid());
    if (!error) fs::create_directory(temporary, error);
    if (error) throw RunError(path_ + ": cannot be created: " + error.message());
    temporary_ = temporary;
    list_.open(temporary_ / "documents.tsv", std::ios::binary);
    list_ << "id\tsource\tclass\ttokens_in\ttokens_out\n";
  }
  ~CorpusDirectory() {
    std::error_code ignored;
    if (!temporary_.empty()) fs::remove_all(temporary_, ignored);
  }
  CorpusDirectory(const CorpusDirectory&) = delete;
  CorpusDirectory& operator=(const CorpusDirectory&) = delete;

  void write_document(const std::string& label, long long id,
                      const std::vector<std::string>& tokens) {
    const fs::path directory = temporary_ / label;
    std::error_code error;
    fs::create_directory(directory, error);
    if (error) throw RunError((fs::path(path_) / label).string() + ": " + error.message());
    std::string text;
    for (const std::string& token : tokens) text += (text.empty() ? "" : " ") + token;
    std::ofstream file(directory / std::to_string(id), std::ios::binary);
    file << text;
    if (!file.flush()) fail();
  }

  void list_document(long long id, std::string source, const std::string& label,
                     long long tokens_in, const std::string& tokens_out) {
    for (char& c : source) {
      if (has_control_character({&c, 1})) c = ' ';  // a tab or line break would break the table
    }
    list_ << fmt::format("{}\t{}\t{}\t{}\t{}\n", id, source, label, tokens_in, tokens_out);
  }

  void commit() {
    list_.close();
    if (!list_) fail();
    std::error_code error;
    fs::rename(temporary_, path_, error);  // takes the place of an empty directory
    if (error) throw RunError(path_ + ": cannot be put into place: " + error.message());
    temporary_.clear();
  }

 private:
  [[noreturn]] void fail() {
    throw RunError(path_ + ": cannot be written: " + std::strerror(errno));
  }

  std::string path_;
  fs::path temporary_;
  std::ofstream list_;
};

const std::map<std::string, TextsFormat> format_names = {
    {"auto", TextsFormat::automatic},
    {"tree", TextsFormat::tree},
    {"tsv", TextsFormat::tsv},
    {"jsonl", TextsFormat::jsonl},
};

void print_summary(const PrepareOptions& options, const PrepareSummary& summary) {
  fmt::print("{}: documents {}, classes {}\n", options.output, summary.documents, summary.classes);
  const long long tokens = summary.tokens_in + summary.tokens_out;
  if (options.embeddings.empty()) {
    fmt::print("tokens: {}\n", tokens);
  } else {
    fmt::print("tokens: {} in the vocabulary, {} out of it ({:.1f} %)\n", summary.tokens_in,
               summary.tokens_out,
               100.0 * static_cast<double>(summary.tokens_out) / static_cast<double>(tokens));
    fmt::print("documents without a word of the vocabulary: {}\n", summary.unknown);
  }
  fmt::print("documents left empty, listed but without a file: {}\n", summary.empty);
  if (summary.over_limit > 0) fmt::print("documents over the limit: {}\n", summary.over_limit);
  if (summary.classless > 0) {
    fmt::print("files outside the class directories, left out: {}\n", summary.classless);
  }
  if (summary.replaced > 0) fmt::print("invalid UTF-8 sequences: {}\n", summary.replaced);
}

int run(const PrepareOptions& options) {
  try {
    print_summary(options, prepare_corpus(options));
    return status_ok;
  } catch (const std::exception& error) {
    fmt::print(stderr, "talvik prepare: {}\n", error.what());
    return status_failed;
  }
}

}  // namespace

PrepareSummary prepare_corpus(const PrepareOptions& options) {
  const TextsFormat format = format_of(options);
  std::unordered_set<std::string> stop_words, vocabulary;
  TokenRules rules;
  rules.keep_case = options.keep_case;
  rules.min_length = options.min_length;
  if (!options.stop_words.empty()) {
    stop_words = stop_words_from(options.stop_words);
    rules.stop_words = &stop_words;
  }
  if (!options.embeddings.empty()) {
    vocabulary = read_embedding_words(options.embeddings);
    rules.vocabulary = &vocabulary;
  }

  CorpusDirectory corpus(options.output);
  PrepareSummary summary;
  std::map<std::string, long long> documents_of;  // by class
  StatusLine status;
  const auto handle = [&](const SourceText& text) {
    long long replaced_in_label = 0;
    const std::string label = valid_utf8(text.label, replaced_in_label);
    require_class_name(label, text.place);
    if (options.limit > 0 && documents_of[label] == options.limit) {
      ++summary.over_limit;
      return;
    }
    ++documents_of[label];
    const long long id = options.first_id + summary.documents++;
    const auto tokens = tokenize(text.text, rules, summary.replaced);
    auto tokens_in = static_cast<long long>(tokens.size());
    if (rules.vocabulary) {
      tokens_in = std::count_if(tokens.begin(), tokens.end(), [&](const std::string& token) {
        return vocabulary.contains(token);
      });
    }
    const long long tokens_out = static_cast<long long>(tokens.size()) - tokens_in;
    summary.tokens_in += tokens_in;
    summary.tokens_out += tokens_out;
    summary.empty += tokens.empty();
    summary.unknown += !tokens.empty() && tokens_in == 0;
    if (!tokens.empty()) corpus.write_document(label, id, tokens);
    corpus.list_document(id, text.source, label, tokens_in,
                         rules.vocabulary ? std::to_string(tokens_out) : "-");
    status.show([&] { return fmt::format("{} documents", summary.documents); });
  };
  if (format == TextsFormat::tree) read_tree(options.input, summary, handle);
  if (format == TextsFormat::tsv) read_tsv(options.input, handle);
  if (format == TextsFormat::jsonl) read_jsonl(options.input, summary, handle);

  summary.classes = static_cast<long long>(documents_of.size());
  if (summary.documents == 0) {
    throw RunError(options.input + (summary.classless > 0 ? ": holds no directory with texts"
                                                          : ": holds no documents"));
  }
  if (summary.tokens_in == 0) {
    throw RunError(options.input + (rules.vocabulary ? ": holds no word of " + options.embeddings
                                                     : ": no document has a token"));
  }
  corpus.commit();
  return summary;
}

}  // namespace talvik::tool

void add_prepare_command(CLI::App& app, int& status) {
  using namespace talvik::tool;
  CLI::App* command =
      app.add_subcommand("prepare", "Turn ordinary texts into a corpus for the command corpus");
  auto options = std::make_shared<PrepareOptions>();
  auto format = std::make_shared<std::string>("auto");
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
  command
      ->add_option("--format", *format,
                   "auto: a directory is a tree, .jsonl and .ndjson are jsonl, other files are tsv")
      ->check(CLI::IsMember({"auto", "tree", "tsv", "jsonl"}))
      ->capture_default_str();
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
  command->callback([options, format, &status] {
    options->format = format_names.at(*format);
    status = run(*options);
  });
}
