// Reader of labelled text corpora: a directory per class, a file with a decimal name per document.
#include <dirent.h>  // opendir, readdir: the order and the entry types that the system reports

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "internal/index.hpp"
#include "parse/text_document.hpp"
#include "talvik.hpp"

namespace talvik {
namespace {

struct CloseDirectory {
  void operator()(DIR* dir) const { closedir(dir); }
};

/// The distinct directory strings, numbered 0, 1, 2, ... in the order in which they appear.
std::map<std::string, unsigned long> number_directories(const std::vector<std::string>& dirs) {
  std::map<std::string, unsigned long> classes;
  for (const std::string& dir : dirs) classes.try_emplace(dir, classes.size());
  return classes;
}

}  // namespace

bool isGreater(std::pair<unsigned int, float> a, std::pair<unsigned int, float> b) {
  return a.second > b.second;
}

bool get_docs_20(std::string dir, std::vector<std::string>& files, std::vector<std::string>& dirs) {
  const std::unique_ptr<DIR, CloseDirectory> stream(opendir(dir.c_str()));
  if (!stream) return false;
  while (const dirent* entry = readdir(stream.get())) {
    const std::string name = entry->d_name;
    if (entry->d_type == DT_REG) {
      files.push_back(name);
      dirs.push_back(dir);
    } else if (entry->d_type == DT_DIR && name != "." && name != "..") {
      std::string below = dir;
      below.append("/").append(name).append("/");
      get_docs_20(below, files, dirs);
    }
  }
  return true;
}

int parse_single_doc(std::string text, VocabularyMap& voc, Document& doc, int max_words,
                     int skip_index, int norm_type) {
  std::string key;  // the map is asked for strings; one buffer serves all words
  const auto find = [&](std::string_view word) {
    key = word;
    const auto known = voc.find(key);
    return known == voc.end() ? std::nullopt : std::optional(known->second);
  };
  return internal::append_text(text, find, {max_words, skip_index, norm_type}, doc);
}

int parse_docs_20(const char* dir, int max_words, int skip_index, DocumentSet& docs, LabelList& ids,
                  LabelList& labels, int& num_docs, int& num_words, VocabularyMap& voc) {
  num_docs = 0;
  num_words = 0;
  if (dir == nullptr) throw std::logic_error("parse_docs_20: no directory is given");
  std::vector<std::string> files, dirs;
  if (!get_docs_20(dir, files, dirs)) return 0;

  constexpr int unit_sum = 1;  // weights sum to 1
  internal::WordLookup words{voc};
  const auto find = [&](std::string_view word) { return internal::find_word(words, word); };
  std::vector<internal::Index> read;  // the files that became documents
  for (internal::Index i = 0; i < std::ssize(files); ++i) {
    std::string text;
    if (ReadFileIntoString((dirs[i] + files[i]).c_str(), text, false) < 1) continue;
    Document doc;
    const int entries = internal::append_text(text, find, {max_words, skip_index, unit_sum}, doc);
    if (entries == 0) continue;
    ++num_docs;
    num_words += entries;
    docs.push_back(std::move(doc));
    read.push_back(i);
  }

  // Directories whose files are all left out are numbered, too.
  const std::map<std::string, unsigned long> classes = number_directories(dirs);
  for (const internal::Index i : read) {
    labels.push_back(classes.at(dirs[i]));
    ids.push_back(std::stoull(files[i]));
  }
  return num_docs;
}

}  // namespace talvik
