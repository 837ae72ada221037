// Tables of words and rows.
#include "talvik/vectors.hpp"

#include <fmt/core.h>
#include <omp.h>  // omp_get_max_threads

#include <algorithm>
#include <climits>
#include <cmath>
#include <utility>

#include "internal/normalise.hpp"
#include "internal/team.hpp"
#include "libwmd/cpu/sizes.hpp"
#include "search/vector_table.hpp"
#include "talvik/error.hpp"
#include "texts/tokenizer.hpp"
#include "texts/vector_rows.hpp"

namespace talvik {
namespace internal {
namespace {

void number_words(VectorTable& table) {
  table.numbers.reserve(table.words.size());
  for (int v = 0; v < static_cast<int>(table.words.size()); ++v) {
    const std::string& word = table.words[v];
    const auto [known, added] = table.numbers.emplace(word, v);
    if (!added) {
      throw ArgumentError("words", fmt::format("'{}' comes twice, as number {} and number {}",
                                               texts::printable(word), known->second, v));
    }
  }
}

// A thread takes longer to start than fewer words take.
constexpr int words_per_thread = 1000;

// Squared lengths outside of these would make distances in single precision that mean nothing.
constexpr float shortest_norm = 1e-30f;
constexpr float longest_norm = 1e37f;

// Scales a row and takes its norm.
float prepare_row(const VectorTable& table, int number, std::span<float> row, Scaling scaling) {
  const auto norm = static_cast<float>(squared_norm(row));
  const bool zero = std::all_of(row.begin(), row.end(), [](float x) { return x == 0; });
  if (!zero && !(norm >= shortest_norm && norm <= longest_norm)) {
    throw ArgumentError(
        "rows", fmt::format("the numbers of {} are too {}: the sum of their squares is {:g}",
                            word_name(table.words, number),
                            norm < shortest_norm ? "small" : "large", norm));
  }
  if (scaling != Scaling::unit_length) return norm;
  rescale(row, 1.0, euclidean_length(row));
  return static_cast<float>(squared_norm(row));
}

}  // namespace

std::string word_name(std::span<const std::string> words, int number) {
  if (words.empty()) return fmt::format("word {}", number);
  return fmt::format("word {} ('{}')", number, texts::printable(words[number]));
}

TablePointer make_table(RawVectors&& raw, Scaling scaling) {
  auto table = std::make_shared<VectorTable>();
  table->num_words = raw.num_words;
  table->dimensions = raw.dimensions;
  table->unit_length = scaling != Scaling::none;
  table->words = std::move(raw.words);
  table->rows = std::move(raw.rows);
  number_words(*table);
  table->norms.resize(round_up(raw.num_words, line_floats));
  const int threads = std::min(omp_get_max_threads(), raw.num_words / words_per_thread + 1);
  for_each_share(threads, raw.num_words, [&](int first, int last, int) {
    for (int v = first; v < last; ++v) {
      const std::span<float> row(table->rows.data() + elements(v, raw.dimensions),
                                 static_cast<std::size_t>(raw.dimensions));
      table->norms[v] = prepare_row(*table, v, row, scaling);
    }
  });
  if (raw.dimensions > 0) {
    const Index row_bytes = Index{raw.dimensions} * static_cast<Index>(sizeof(float));
    table->row_hash = hash_rows(table->rows.data(), row_bytes, raw.num_words, threads);
  }
  return table;
}

TablePointer pick_words(const VectorTable& like, std::span<const Pick> picks) {
  auto table = std::make_shared<VectorTable>();
  const int count = static_cast<int>(picks.size());
  table->num_words = count;
  table->dimensions = like.dimensions;
  table->unit_length = like.unit_length;
  if (count > 0 && !picks.front().table->words.empty()) table->words.resize(count);
  table->rows.resize(elements(count, like.dimensions));
  table->norms.resize(round_up(count, line_floats));
  table->row_hash.resize(like.dimensions > 0 ? count : 0);
  for (int v = 0; v < count; ++v) {
    const VectorTable& source = *picks[v].table;
    const int number = picks[v].number;
    std::ranges::copy(row_of(source, number), table->rows.begin() + elements(v, like.dimensions));
    table->norms[v] = source.norms[number];
    if (like.dimensions > 0) table->row_hash[v] = source.row_hash[number];
    if (!table->words.empty()) table->words[v] = source.words[number];
  }
  number_words(*table);
  return table;
}

}  // namespace internal

namespace {

void require_counts(std::size_t words, std::size_t numbers, int dimensions) {
  if (dimensions < 0 || (dimensions == 0 && (words > 0 || numbers > 0))) {
    throw ArgumentError("dimensions", fmt::format("{}, must be positive", dimensions));
  }
  if (dimensions == 0) return;
  const auto width = static_cast<std::size_t>(dimensions);
  if (numbers % width != 0) {
    throw ArgumentError("rows", fmt::format("{} numbers are no multiple of the {} dimensions",
                                            numbers, dimensions));
  }
  if (words > 0 && numbers / width != words) {
    throw ArgumentError("rows", fmt::format("{} rows of {} numbers for {} words", numbers / width,
                                            dimensions, words));
  }
  if (numbers / width > INT_MAX) {
    throw ArgumentError("rows",
                        fmt::format("{} rows, at most {} are possible", numbers / width, INT_MAX));
  }
}

void require_finite(const std::vector<std::string>& words, std::span<const float> rows,
                    int dimensions) {
  const auto bad = std::ranges::find_if(rows, [](float x) { return !std::isfinite(x); });
  if (bad == rows.end()) return;
  const std::ptrdiff_t at = bad - rows.begin();
  const int word = static_cast<int>(at / dimensions);
  throw ArgumentError("rows", fmt::format("component {} of {} is {}", at % dimensions,
                                          internal::word_name(words, word), *bad));
}

void require_number(int number, int size) {
  if (number >= 0 && number < size) return;
  throw ArgumentError("numbers", fmt::format("{} is none of the {} words", number, size));
}

}  // namespace

Vectors::Vectors() : table_(std::make_shared<internal::VectorTable>()) {}

Vectors Vectors::from_arrays(std::vector<std::string> words, std::span<const float> rows,
                             int dimensions, bool unit_length) {
  require_counts(words.size(), rows.size(), dimensions);
  require_finite(words, rows, dimensions);
  const int count = dimensions > 0 ? static_cast<int>(rows.size() / dimensions) : 0;
  internal::RawVectors raw{.words = std::move(words),
                           .rows = {rows.begin(), rows.end()},
                           .num_words = count,
                           .dimensions = dimensions};
  using internal::Scaling;
  return Vectors(
      internal::make_table(std::move(raw), unit_length ? Scaling::unit_length : Scaling::none));
}

Vectors Vectors::read(const std::string& path, const VectorOptions& options) {
  texts::VectorRows file = texts::read_vectors(path, options.format);
  internal::RawVectors raw{.words = std::move(file.words),
                           .rows = std::move(file.rows),
                           .num_words = static_cast<int>(std::ssize(file.numbers)),
                           .dimensions = file.dimensions};
  file.numbers = {};  // they are made anew: not held twice
  using internal::Scaling;
  try {
    return Vectors(internal::make_table(
        std::move(raw), options.unit_length ? Scaling::unit_length : Scaling::none));
  } catch (const ArgumentError& error) {
    throw FileError(path, error.what());
  }
}

int Vectors::size() const { return table_->num_words; }
int Vectors::dimensions() const { return table_->dimensions; }
bool Vectors::has_words() const { return !table_->words.empty(); }
bool Vectors::unit_length() const { return table_->unit_length; }
std::string_view Vectors::word(int number) const { return table_->words[number]; }

std::optional<int> Vectors::find(std::string_view word) const {
  const auto known = table_->numbers.find(word);
  return known == table_->numbers.end() ? std::nullopt : std::optional(known->second);
}

std::span<const float> Vectors::row(int number) const { return internal::row_of(*table_, number); }

std::span<const float> Vectors::rows() const { return table_->rows; }

Vectors Vectors::select(std::span<const int> numbers) const {
  std::vector<internal::Pick> picks;
  picks.reserve(numbers.size());
  for (const int number : numbers) {
    require_number(number, size());
    picks.push_back({.table = table_.get(), .number = number});
  }
  return Vectors(internal::pick_words(*table_, picks));
}

Vectors Vectors::with(const Vectors& more) const {
  if (size() == 0) return more;
  if (more.size() == 0) return *this;
  if (dimensions() != more.dimensions()) {
    throw ArgumentError("vectors", fmt::format("rows of {} dimensions beside rows of {}",
                                               more.dimensions(), dimensions()));
  }
  if (unit_length() != more.unit_length()) {
    throw ArgumentError("vectors", "rows of unit length beside rows that are not scaled");
  }
  if (!has_words() || !more.has_words()) {
    throw ArgumentError("vectors", "rows without words cannot be told apart");
  }
  std::vector<internal::Pick> picks;
  picks.reserve(static_cast<std::size_t>(size()) + more.size());
  for (int v = 0; v < size(); ++v) picks.push_back({.table = table_.get(), .number = v});
  for (int v = 0; v < more.size(); ++v) {
    if (!find(more.word(v))) picks.push_back({.table = more.table_.get(), .number = v});
  }
  return Vectors(internal::pick_words(*table_, picks));
}

}  // namespace talvik
