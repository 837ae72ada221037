#include "search/documents.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <string>
#include <utility>

#include "internal/normalise.hpp"
#include "internal/team.hpp"
#include "search/vector_table.hpp"
#include "talvik/error.hpp"
#include "texts/tokenizer.hpp"

namespace talvik::internal {
namespace {

using Entry = std::pair<unsigned, float>;

// Texts that are tokenized before their documents are joined: bounds what is held twice.
constexpr Count texts_at_a_time = Count{1} << 16;

void add_document(std::span<const Entry> entries, Documents& documents) {
  for (const auto& [word, weight] : entries) {
    if (weight == 0) continue;  // also one that scaling has rounded to 0
    documents.words.push_back(static_cast<int>(word));
    documents.weights.push_back(weight);
  }
  documents.offsets.push_back(std::ssize(documents.words));
}

void append(Documents& documents, const Documents& more) {
  const Count before = documents.offsets.back();
  for (auto offset = more.offsets.begin() + 1; offset != more.offsets.end(); ++offset) {
    documents.offsets.push_back(before + *offset);
  }
  documents.words.insert(documents.words.end(), more.words.begin(), more.words.end());
  documents.weights.insert(documents.weights.end(), more.weights.begin(), more.weights.end());
}

// Texts to documents; what it holds serves one text after the other.
class WordCounter {
 public:
  WordCounter(const texts::Tokenizer& tokenizer, int max_words, const Vectors& vectors)
      : tokenizer_(tokenizer), max_words_(max_words), vectors_(vectors) {}

  void add(std::string_view text) {
    words_.clear();
    Count replaced = 0;
    for (const std::string& token : tokenizer_.tokens(text, replaced)) {
      ++counts.tokens;
      if (const std::optional<int> word = vectors_.find(token))
        words_.push_back(*word);
      else
        ++counts.unknown;
    }
    std::sort(words_.begin(), words_.end());
    entries_.clear();
    for (const int word : words_) {
      const auto number = static_cast<unsigned>(word);
      if (entries_.empty() || entries_.back().first != number) entries_.emplace_back(number, 0.0F);
      entries_.back().second += 1.0F;
    }
    keep_most_frequent();
    rescale(entries_, 1.0, sum_of(entries_));
    add_document(entries_, documents);
  }

  Documents documents;
  TokenCounts counts;

 private:
  void keep_most_frequent() {
    const auto most = static_cast<std::size_t>(std::max(max_words_, 0));
    if (entries_.size() <= most) return;
    // Stable: of words with equal counts the lower number stays in front.
    std::stable_sort(entries_.begin(), entries_.end(),
                     [](const Entry& a, const Entry& b) { return a.second > b.second; });
    entries_.resize(most);
    std::sort(entries_.begin(), entries_.end());
  }

  const texts::Tokenizer& tokenizer_;
  int max_words_;
  const Vectors& vectors_;
  std::vector<int> words_;
  std::vector<Entry> entries_;
};

[[noreturn]] void refuse(Count document, const std::string& what) {
  throw ArgumentError("documents", fmt::format("document {}: {}", document, what));
}

void require_shape(const DocumentArrays& arrays) {
  const auto& offsets = arrays.offsets;
  const auto refuse_array = [](const char* array, const std::string& what) {
    throw ArgumentError(fmt::format("documents.{}", array), what);
  };
  if (offsets.empty()) refuse_array("offsets", "empty, one more than documents are needed");
  if (offsets.front() != 0) refuse_array("offsets", fmt::format("begin with {}", offsets.front()));
  const auto fall = std::ranges::adjacent_find(offsets, std::greater<>());
  if (fall != offsets.end()) {
    refuse_array("offsets", fmt::format("fall from {} to {} at document {}", fall[0], fall[1],
                                        fall - offsets.begin()));
  }
  const auto entries = static_cast<std::size_t>(offsets.back());
  const auto require_size = [&](const char* array, std::size_t size, std::size_t wanted) {
    if (size != wanted) refuse_array(array, fmt::format("{} of them for {}", size, wanted));
  };
  require_size("words", arrays.words.size(), entries);
  require_size("weights", arrays.weights.size(), entries);
  if (!arrays.ids.empty()) require_size("ids", arrays.ids.size(), offsets.size() - 1);
  if (!arrays.labels.empty()) require_size("labels", arrays.labels.size(), offsets.size() - 1);
}

void require_entry(const DocumentArrays& arrays, Count document, Count entry, int num_words) {
  const int word = arrays.words[entry];
  const Count place = entry - arrays.offsets[document];
  if (word < 0 || word >= num_words) {
    refuse(document,
           fmt::format("entry {} has word {}, the vectors have {}", place, word, num_words));
  }
  const float weight = arrays.weights[entry];
  if (!(weight >= 0 && std::isfinite(weight))) {
    refuse(document, fmt::format("entry {} has weight {}", place, weight));
  }
}

// The sums of the weights of equal words, entries sorted by word.
void add_up(std::vector<Entry>& entries, Count document) {
  std::size_t kept = 0;
  for (std::size_t at = 0; at < entries.size();) {
    const unsigned word = entries[at].first;
    double sum = 0;
    for (; at < entries.size() && entries[at].first == word; ++at) sum += entries[at].second;
    entries[kept] = {word, static_cast<float>(sum)};
    if (!std::isfinite(entries[kept].second)) {
      refuse(document, fmt::format("the weights of word {} add up to {}", word, sum));
    }
    ++kept;
  }
  entries.resize(kept);
}

void scale_to_one(std::vector<Entry>& entries, Count document) {
  const bool has_weight =
      std::any_of(entries.begin(), entries.end(), [](const Entry& e) { return e.second != 0; });
  if (!has_weight) return;
  const double sum = sum_of(entries);
  if (!(sum > 0)) refuse(document, fmt::format("counts add up to {}, must be positive", sum));
  rescale(entries, 1.0, sum);
  const bool finite = std::all_of(entries.begin(), entries.end(),
                                  [](const Entry& e) { return std::isfinite(e.second); });
  if (!finite) refuse(document, fmt::format("counts that add up to {} cannot be scaled", sum));
}

}  // namespace

Documents count_words(std::span<const Text> texts, const TextRules& rules, const Vectors& vectors,
                      TokenCounts& counts, int threads) {
  const texts::Tokenizer tokenizer(
      rules, [&](std::string_view word) { return vectors.find(word).has_value(); });
  Documents documents;
  for (Count begin = 0; begin < std::ssize(texts); begin += texts_at_a_time) {
    const auto some = texts.subspan(begin, std::min(texts_at_a_time, std::ssize(texts) - begin));
    const int count = static_cast<int>(some.size());
    const int team = std::clamp(threads, 1, count);
    std::vector<WordCounter> counters(team, {tokenizer, rules.max_words, vectors});
    for_each_share(team, count, [&](int first, int last, int thread) {
      for (int i = first; i < last; ++i) counters[thread].add(some[i].text);
    });
    for (const WordCounter& counter : counters) {
      append(documents, counter.documents);
      counts.tokens += counter.counts.tokens;
      counts.unknown += counter.counts.unknown;
    }
  }
  return documents;
}

Documents sort_entries(const DocumentArrays& arrays, int num_words) {
  require_shape(arrays);
  Documents documents;
  std::vector<Entry> entries;
  for (Count i = 0; i + 1 < std::ssize(arrays.offsets); ++i) {
    entries.clear();
    for (Count p = arrays.offsets[i]; p < arrays.offsets[i + 1]; ++p) {
      require_entry(arrays, i, p, num_words);
      entries.emplace_back(arrays.words[p], arrays.weights[p]);
    }
    // Stable: equal words are added up in the order of their entries.
    std::stable_sort(entries.begin(), entries.end(),
                     [](const Entry& a, const Entry& b) { return a.first < b.first; });
    add_up(entries, i);
    if (arrays.normalise) scale_to_one(entries, i);
    add_document(entries, documents);
  }
  return documents;
}

}  // namespace talvik::internal
