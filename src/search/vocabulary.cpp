#include "search/vocabulary.hpp"

#include <fmt/core.h>

#include <cstring>
#include <numeric>

#include "search/vector_table.hpp"
#include "talvik/error.hpp"

namespace talvik::internal {
namespace {

[[noreturn]] void refuse(const std::string& what) { throw ArgumentError("vectors", what); }

void require_alike(const VectorTable& held, const VectorTable& more) {
  if (held.dimensions == 0) return;  // nothing was ever appended
  if (more.num_words == 0) return;
  if (held.dimensions != more.dimensions) {
    refuse(fmt::format("rows of {} dimensions, those of the collection have {}", more.dimensions,
                       held.dimensions));
  }
  if (held.unit_length != more.unit_length) {
    refuse(fmt::format("the rows are {}scaled to unit length, those of the collection are {}",
                       more.unit_length ? "" : "not ", held.unit_length ? "" : "not"));
  }
  if (held.num_words > 0 && held.words.empty() != more.words.empty()) {
    refuse(held.words.empty() ? "have words, the collection's rows are known by number alone"
                              : "rows without words, those of the collection have words");
  }
}

// Words are told apart by name, not by row: a word with another row comes from another file.
void require_same_row(const VectorTable& held, int held_number, const VectorTable& more,
                      int number) {
  const auto row = row_of(held, held_number);
  if (std::memcmp(row.data(), row_of(more, number).data(), row.size_bytes()) == 0) return;
  refuse(fmt::format("another row for {} than the collection has", word_name(more.words, number)));
}

// Rows without words mean the same in every append only where the table is the same.
Extended extend_unnamed(const GrowingVocabulary& vocabulary, const Vectors& vectors,
                        std::span<const int> occurring) {
  const VectorTable& held = vocabulary.vectors.table();
  const VectorTable& more = vectors.table();
  Extended extended{.vocabulary = {.vectors = vectors, .used_words = more.num_words},
                    .number = std::vector<int>(more.num_words)};
  std::iota(extended.number.begin(), extended.number.end(), 0);
  if (&held == &more || held.num_words == 0) return extended;
  if (held.num_words != more.num_words) {
    refuse(fmt::format("{} rows without words, the collection has {}", more.num_words,
                       held.num_words));
  }
  for (const int v : occurring) require_same_row(held, v, more, v);
  extended.vocabulary.vectors = vocabulary.vectors;
  return extended;
}

constexpr int absent = -1;

// Where the words of the appended vectors stand in the vocabulary held so far.
class Matcher {
 public:
  Matcher(const Vectors& held, const Vectors& more) : held_(held), more_(more) {}

  int find(int number) const {
    if (&held_.table() == &more_.table()) return number;
    const std::optional<int> known = held_.find(more_.word(number));
    if (!known) return absent;
    require_same_row(held_.table(), *known, more_.table(), number);
    return *known;
  }

 private:
  const Vectors& held_;
  const Vectors& more_;
};

}  // namespace

Extended extend(const GrowingVocabulary& vocabulary, const Vectors& vectors,
                std::span<const int> occurring, bool all_words) {
  const VectorTable& held = vocabulary.vectors.table();
  const VectorTable& more = vectors.table();
  require_alike(held, more);
  if (more.num_words == 0 && held.dimensions > 0) return {.vocabulary = vocabulary, .number = {}};
  if (more.words.empty() && more.num_words > 0) {
    return extend_unnamed(vocabulary, vectors, occurring);
  }

  std::vector<char> occurs(more.num_words, 0);
  for (const int v : occurring) occurs[v] = 1;
  std::vector<char> moved(held.num_words, 0);  // words held that occur for the first time
  std::vector<int> number(more.num_words, absent);
  std::vector<Pick> added;  // words that occur for the first time
  std::vector<Pick> spare;  // words of `vectors` that still do not occur
  const Matcher matcher(vocabulary.vectors, vectors);
  for (int v = 0; v < more.num_words; ++v) {
    if (!occurs[v] && !all_words) continue;
    const int known = matcher.find(v);
    if (!occurs[v]) {
      if (known == absent) spare.push_back({.table = &more, .number = v});
    } else if (known != absent && known < vocabulary.used_words) {
      number[v] = known;
    } else {
      number[v] = vocabulary.used_words + static_cast<int>(added.size());
      added.push_back(known == absent ? Pick{.table = &more, .number = v}
                                      : Pick{.table = &held, .number = known});
      if (known != absent) moved[known] = 1;
    }
  }
  const int used_words = vocabulary.used_words + static_cast<int>(added.size());
  if (added.empty() && spare.empty() && held.dimensions > 0) {
    return {.vocabulary = vocabulary, .number = std::move(number)};
  }

  std::vector<Pick> picks;
  picks.reserve(static_cast<std::size_t>(held.num_words) + added.size() + spare.size());
  for (int v = 0; v < vocabulary.used_words; ++v) picks.push_back({.table = &held, .number = v});
  picks.insert(picks.end(), added.begin(), added.end());
  for (int v = vocabulary.used_words; v < held.num_words; ++v) {
    if (!moved[v]) picks.push_back({.table = &held, .number = v});
  }
  picks.insert(picks.end(), spare.begin(), spare.end());
  return {.vocabulary = {.vectors = Vectors(pick_words(more, picks)), .used_words = used_words},
          .number = std::move(number)};
}

}  // namespace talvik::internal
