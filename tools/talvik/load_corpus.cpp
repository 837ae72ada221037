// Reads a corpus with the library's readers of single files and texts.  parse_docs_20 would do it
// in one call, but numbers the classes in the file system's order, which may differ between
// machines and between the two collections.
#include "load_corpus.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <map>
#include <optional>
#include <string_view>
#include <tuple>

#include "parse/text_document.hpp"
#include "progress.hpp"
#include "run_error.hpp"
#include "status_line.hpp"
#include "texts/embedding_input.hpp"
#include "texts/input_files.hpp"

namespace talvik::tool {
namespace {

constexpr int weights_sum_to_one = 1;

// "root/A//B/" below "root" is the class "A/B".
std::string class_below(const std::string& root, const std::string& dir) {
  std::string name;
  for (const char c : std::string_view(dir).substr(std::min(root.size(), dir.size()))) {
    if (c != '/' || (!name.empty() && name.back() != '/')) name.push_back(c);
  }
  while (!name.empty() && name.back() == '/') name.pop_back();
  return name;
}

// The library's lister passes over a directory that it cannot open, and with it a whole class.
void require_readable_directories(const std::string& root) {
  namespace fs = std::filesystem;
  std::error_code error;
  fs::recursive_directory_iterator at(root, fs::directory_options::skip_permission_denied, error);
  while (!error && at != fs::recursive_directory_iterator()) {
    std::error_code closed;
    if (at->is_directory(closed) && !at->is_symlink(closed)) {
      const fs::directory_iterator opened(at->path(), closed);
      if (closed) throw RunError(at->path().string() + ": cannot be opened: " + closed.message());
    }
    at.increment(error);
  }
  if (error) throw RunError(root + ": cannot be listed: " + error.message());
}

unsigned long id_of(const std::string& path, const std::string& name) {
  unsigned long id = 0;
  const char* end = name.data() + name.size();
  const auto [stopped, error] = std::from_chars(name.data(), end, id);
  if (error == std::errc::result_out_of_range) {
    throw RunError(path + ": the file's name is a number of more than 64 bits");
  }
  if (error != std::errc() || stopped != end) {
    throw RunError(path + ": the file's name is not a decimal number");
  }
  return id;
}

// Makes a text's document and counts its words.
int make_document(std::string_view text, const CorpusOptions& options,
                  const texts::WordNumbers& words, LoadedCollection& collection, Document& doc) {
  const auto find = [&](std::string_view word) {
    const auto known = words.find(word);
    const bool unknown = known == words.end();
    collection.words_read += !word.empty();
    collection.words_unknown += unknown && !word.empty();
    return unknown ? std::nullopt : std::optional(known->second);
  };
  const internal::DocumentRule rule{.max_words = options.max_words,
                                    .skip_index = options.skip_index,
                                    .norm_type = weights_sum_to_one};
  return internal::append_text(text, find, rule, doc);
}

LoadedCollection read_collection(const std::string& root, const std::vector<CorpusFile>& files,
                                 int limit, const CorpusOptions& options,
                                 const texts::WordNumbers& words,
                                 const std::map<std::string, unsigned long>& class_numbers) {
  LoadedCollection collection;
  StatusLine status;
  int read = 0;
  for (const int number : choose_spread(static_cast<int>(files.size()), limit)) {
    const CorpusFile& file = files[number];
    ++read;
    status.show([&] { return reading_progress(root, read, std::ssize(files), status.seconds()); });
    std::string text;
    // The size is asked for first, as the reader prints a line about an empty file.
    std::error_code error;
    const auto size = std::filesystem::file_size(file.path, error);
    const bool binary = false;
    if (error || (size > 0 && ReadFileIntoString(file.path.c_str(), text, binary) <= 0)) {
      throw RunError(file.path + ": cannot be read");
    }
    Document doc;
    if (make_document(text, options, words, collection, doc) == 0) {
      collection.dropped.push_back(file.path + (size == 0 ? ": empty" : ": no known word"));
      continue;
    }
    collection.docs.push_back(std::move(doc));
    collection.ids.push_back(file.id);
    collection.classes.push_back(class_numbers.at(file.class_name));
  }
  if (collection.docs.empty()) {
    throw RunError(fmt::format("{}: none of the {} documents holds a word of the vocabulary", root,
                               files.size()));
  }
  finish_collection(collection, root);
  return collection;
}

}  // namespace

std::vector<CorpusFile> list_corpus(const std::string& root_as_given) {
  texts::require_directory(root_as_given);
  std::string root = root_as_given;
  while (root.size() > 1 && root.back() == '/') root.pop_back();

  require_readable_directories(root);
  std::vector<std::string> names, dirs;
  if (!get_docs_20(root, names, dirs)) throw RunError(root + ": cannot be opened");
  std::vector<CorpusFile> files;
  for (size_t i = 0; i < names.size(); ++i) {
    const std::string class_name = class_below(root, dirs[i]);
    if (class_name.empty()) continue;
    const std::string path = fmt::format("{}/{}/{}", root, class_name, names[i]);
    files.push_back({class_name, names[i], path, id_of(path, names[i])});
  }
  if (files.empty()) {
    throw RunError(root_as_given +
                   ": holds no documents (DIR/CLASS/NUMBER was expected; talvik "
                   "prepare makes such a tree)");
  }
  std::sort(files.begin(), files.end(), [](const CorpusFile& a, const CorpusFile& b) {
    return std::tie(a.class_name, a.id, a.name) < std::tie(b.class_name, b.id, b.name);
  });
  return files;
}

Problem load_corpus(const CorpusOptions& options) {
  const bool self_run = options.queries.empty();
  const std::vector<CorpusFile> resident = list_corpus(options.resident);
  const std::vector<CorpusFile> queries =
      self_run ? std::vector<CorpusFile>() : list_corpus(options.queries);
  std::map<std::string, unsigned long> class_numbers;
  for (const auto* files : {&resident, &queries}) {
    for (const CorpusFile& file : *files) class_numbers.emplace(file.class_name, 0);
  }
  unsigned long next = 0;
  for (auto& [name, number] : class_numbers) number = next++;

  Problem problem;
  texts::WordVectors words =
      texts::read_word_vectors(options.embeddings, shown_reading(options.embeddings));
  problem.embeddings = std::move(words.vectors);
  problem.voc_size = words.voc_size;
  problem.vec_size = words.vec_size;
  problem.warnings = std::move(words.warnings);
  problem.resident = read_collection(options.resident, resident, options.limit_resident, options,
                                     words.vocabulary, class_numbers);
  if (self_run) {
    make_self_run(problem, options.limit_queries);
  } else {
    problem.queries = read_collection(options.queries, queries, options.limit_queries, options,
                                      words.vocabulary, class_numbers);
  }
  return problem;
}

}  // namespace talvik::tool
