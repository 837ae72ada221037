// Reader of labelled text corpora: a directory per class, a file with a decimal name per document.
#include <dirent.h>  // opendir, readdir: the order and the entry types that the system reports

#include <algorithm>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "internal/normalise.hpp"
#include "parse/tokens.hpp"
#include "talvik.hpp"

namespace talvik {
namespace {

constexpr int unit_sum = 1;  // the norm_type of weights that sum to 1

struct CloseDirectory {
  void operator()(DIR* dir) const { closedir(dir); }
};

/// How often each word of voc above skip_index occurs in a text.
std::map<int, float> count_words(std::string_view text, const VocabularyMap& voc, int skip_index) {
  std::map<int, float> counts;
  std::string word;  // the map's keys are strings; one buffer serves all tokens
  internal::for_each_token(text, [&](std::string_view token) {
    word = internal::clean_token(token);
    const auto known = voc.find(word);
    if (known != voc.end() && known->second > skip_index) counts[known->second] += 1.0f;
  });
  return counts;
}

/// The document's weights as measured by norm_type become 1.
void normalise(Document& doc, int norm_type) {
  const double measure =
      norm_type == unit_sum ? internal::sum_of(doc) : internal::euclidean_length(doc);
  internal::rescale(doc, 1.0, measure);
}

/// Numbers the distinct directory strings 0, 1, 2, ... in the order in which they appear.
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
      get_docs_20(dir + "/" + name + "/", files, dirs);
    }
  }
  return true;
}

int parse_single_doc(std::string text, VocabularyMap& voc, Document& doc, int max_words,
                     int skip_index, int norm_type) {
  const std::map<int, float> counts = count_words(text, voc, skip_index);
  Document entries(counts.begin(), counts.end());
  const auto limit = static_cast<size_t>(std::max(max_words, 0));
  if (entries.size() > limit) {
    // Stable: of words with equal counts the lower index stays in front.
    std::stable_sort(entries.begin(), entries.end(), isGreater);
    entries.resize(limit);
  }
  doc.insert(doc.end(), entries.begin(), entries.end());
  normalise(doc, norm_type);
  return static_cast<int>(entries.size());
}

int parse_docs_20(const char* dir, int max_words, int skip_index, DocumentSet& docs, LabelList& ids,
                  LabelList& labels, int& num_docs, int& num_words, VocabularyMap& voc) {
  num_docs = 0;
  num_words = 0;
  if (dir == nullptr) throw std::logic_error("parse_docs_20: no directory is given");
  std::vector<std::string> files, dirs;
  if (!get_docs_20(dir, files, dirs)) return 0;

  std::vector<size_t> read;  // the files that became documents
  for (size_t i = 0; i < files.size(); ++i) {
    std::string text;
    if (ReadFileIntoString((dirs[i] + files[i]).c_str(), text, false) < 1) continue;
    Document doc;
    const int entries =
        parse_single_doc(std::move(text), voc, doc, max_words, skip_index, unit_sum);
    if (entries == 0) continue;
    ++num_docs;
    num_words += entries;
    docs.push_back(std::move(doc));
    read.push_back(i);
  }

  // A directory whose files were all left out has its number all the same.
  const std::map<std::string, unsigned long> classes = number_directories(dirs);
  for (const size_t i : read) {
    labels.push_back(classes.at(dirs[i]));
    ids.push_back(std::stoull(files[i]));
  }
  return num_docs;
}

}  // namespace talvik
