// Counting the words of a text.
#include "parse/text_document.hpp"

#include <algorithm>
#include <utility>
#include <vector>

#include "internal/index.hpp"
#include "internal/normalise.hpp"
#include "parse/tokens.hpp"

namespace talvik::internal {
namespace {

constexpr int unit_sum = 1;  // the norm_type of weights that sum to 1

// Answers that are kept, about 100 MiB of them: texts that repeat no token must not fill the
// memory.
constexpr Index most_answers = 1 << 20;

// An entry per distinct word, in ascending order, with the number of times it occurs.
Document count_words(std::vector<int> words) {
  std::sort(words.begin(), words.end());
  Document counts;
  for (Index i = 0; i < std::ssize(words); ++i) {
    if (i == 0 || words[i] != words[i - 1]) counts.emplace_back(words[i], 0.0f);
    counts.back().second += 1.0f;
  }
  return counts;
}

// The weights as measured by norm_type become 1.
void normalise(Document& doc, int norm_type) {
  rescale(doc, 1.0, norm_type == unit_sum ? sum_of(doc) : euclidean_length(doc));
}

}  // namespace

std::optional<int> find_word(WordLookup& words, std::string_view word) {
  const auto answer = words.answers.find(word);
  if (answer != words.answers.end()) return answer->second;
  std::string text(word);
  const auto known = words.voc.find(text);
  const auto index = known == words.voc.end() ? std::nullopt : std::optional(known->second);
  if (std::ssize(words.answers) < most_answers) words.answers.emplace(std::move(text), index);
  return index;
}

int append_text(std::string_view text,
                const std::function<std::optional<int>(std::string_view)>& find,
                const DocumentRule& rule, Document& doc) {
  std::vector<int> words;
  for_each_token(text, [&](std::string_view token) {
    const std::optional<int> word = find(clean_token(token));
    if (word && *word > rule.skip_index) words.push_back(*word);
  });
  Document entries = count_words(std::move(words));
  const Index limit = std::max(rule.max_words, 0);
  if (std::ssize(entries) > limit) {
    // Stable: of words with equal counts the lower index stays in front.
    std::stable_sort(entries.begin(), entries.end(),
                     [](const auto& a, const auto& b) { return a.second > b.second; });
    entries.resize(limit);
  }
  doc.insert(doc.end(), entries.begin(), entries.end());
  normalise(doc, rule.norm_type);
  return static_cast<int>(entries.size());
}

}  // namespace talvik::internal
