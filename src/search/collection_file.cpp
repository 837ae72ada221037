// Saved collections; docs/formats.md describes the file.
#include <fmt/core.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <utility>

#include "search/collection_parts.hpp"
#include "search/hdf5_reader.hpp"
#include "search/hdf5_writer.hpp"
#include "search/id_table.hpp"
#include "search/vector_table.hpp"
#include "talvik/error.hpp"
#include "texts/tokenizer.hpp"

namespace talvik {
namespace {

using internal::Hdf5Reader;
using internal::Hdf5Writer;

constexpr std::string_view format_name = "talvik collection";
constexpr std::int32_t format_version = 1;

namespace name {
constexpr auto rows = "vocabulary/rows";
constexpr auto vocabulary_words = "vocabulary/words";
constexpr auto offsets = "documents/offsets";
constexpr auto words = "documents/words";
constexpr auto weights = "documents/weights";
constexpr auto ids = "documents/ids";
constexpr auto labels = "documents/labels";
constexpr auto texts = "documents/texts";
constexpr auto stop_words = "rules/stop_words";
}  // namespace name

void write_settings(const Collection& collection, Hdf5Writer& file) {
  const CollectionOptions& options = collection.options();
  file.attribute("format", format_name);
  file.attribute("version", format_version);
  file.attribute("keep_case", options.rules.keep_case ? 1 : 0);
  file.attribute("min_length", options.rules.min_length);
  file.attribute("max_words", options.rules.max_words);
  file.attribute("keep_texts", options.keep_texts ? 1 : 0);
  file.attribute("all_words", options.all_words ? 1 : 0);
  file.attribute("unit_length", collection.vocabulary().unit_length() ? 1 : 0);
  file.attribute("used_words", collection.used_words());
  file.group("rules");
  file.strings(name::stop_words, options.rules.stop_words);
}

void require_format(const Hdf5Reader& file) {
  if (file.text_attribute("format") != format_name) file.refuse("is no collection");
  const std::int32_t version = file.number_attribute("version");
  if (version > format_version) {
    file.refuse(fmt::format("has version {} of the format, newer than {}, the newest that is known",
                            version, format_version));
  }
  if (version < 1) file.refuse(fmt::format("has version {} of the format", version));
}

bool flag(const Hdf5Reader& file, const char* attribute) {
  const std::int32_t value = file.number_attribute(attribute);
  if (value != 0 && value != 1)
    file.refuse(fmt::format("{} is {}, must be 0 or 1", attribute, value));
  return value == 1;
}

CollectionOptions read_options(const Hdf5Reader& file) {
  CollectionOptions options;
  options.rules.keep_case = flag(file, "keep_case");
  options.rules.min_length = file.number_attribute("min_length");
  options.rules.max_words = file.number_attribute("max_words");
  options.rules.stop_words = file.strings(name::stop_words);
  options.keep_texts = flag(file, "keep_texts");
  options.all_words = flag(file, "all_words");
  return options;
}

bool all_finite(std::span<const float> values) {
  return std::ranges::all_of(values, [](float value) { return std::isfinite(value); });
}

internal::RawVectors read_vectors(const Hdf5Reader& file) {
  constexpr int matrix = 2;
  const auto rows = file.open<float>(name::rows, matrix);
  if (rows.rows > INT_MAX || rows.columns > INT_MAX || (rows.columns == 0 && rows.rows > 0)) {
    file.refuse(fmt::format("{} rows of {} numbers", rows.rows, rows.columns));
  }
  internal::RawVectors raw;
  raw.num_words = static_cast<int>(rows.rows);
  raw.dimensions = static_cast<int>(rows.columns);
  raw.rows = file.read(rows);
  if (!all_finite(raw.rows)) file.refuse(fmt::format("{} has what is no number", name::rows));
  if (file.has(name::vocabulary_words)) {
    raw.words = file.strings(name::vocabulary_words, rows.rows, 0, rows.rows);
  }
  return raw;
}

// Documents of a slice, as they are in the file.
struct ReadDocuments {
  Count first = 0, total = 0;
  CollectionParts::Arrivals arrivals;
};

std::vector<Count> read_offsets(const Hdf5Reader& file, hsize_t entries) {
  const auto array = file.open<std::int64_t>(name::offsets);
  std::vector<Count> offsets = file.read(array);
  const bool ascending = !offsets.empty() && offsets.front() == 0 &&
                         std::ranges::adjacent_find(offsets, std::greater<>()) == offsets.end();
  if (!ascending || static_cast<hsize_t>(offsets.back()) != entries) {
    file.refuse(fmt::format("{} does not ascend from 0 to the {} entries", name::offsets, entries));
  }
  return offsets;
}

void require_entries(const Hdf5Reader& file, const ReadDocuments& read, int used_words) {
  const auto& [offsets, words, weights] = read.arrivals.documents;
  for (std::size_t i = 0; i + 1 < offsets.size(); ++i) {
    int before = -1;
    for (Count p = offsets[i]; p < offsets[i + 1]; ++p) {
      if (words[p] <= before || words[p] >= used_words) {
        file.refuse(fmt::format("document {} has words that do not ascend below {}",
                                read.first + static_cast<Count>(i), used_words));
      }
      before = words[p];
    }
  }
  const bool can_move = std::ranges::all_of(
      weights, [](float weight) { return weight >= 0 && std::isfinite(weight); });
  if (!can_move) file.refuse(fmt::format("{} has what is no weight", name::weights));
}

ReadDocuments read_documents(const Hdf5Reader& file, int rank, int size, int used_words) {
  const auto words = file.open<std::int32_t>(name::words);
  const auto weights = file.open<float>(name::weights);
  if (words.rows != weights.rows) {
    file.refuse(fmt::format("{} words of entries and {} weights", words.rows, weights.rows));
  }
  const std::vector<Count> offsets = read_offsets(file, words.rows);
  const std::pair<Count, Count> slice = internal::slice_of(offsets, rank, size);
  const auto [begin, end] = slice;
  ReadDocuments read{.first = begin, .total = std::ssize(offsets) - 1, .arrivals = {}};
  auto& documents = read.arrivals.documents;
  documents.offsets.assign(offsets.begin() + begin, offsets.begin() + end + 1);
  for (Count& offset : documents.offsets) offset -= offsets[begin];
  documents.words = file.read(words, offsets[begin], offsets[end]);
  documents.weights = file.read(weights, offsets[begin], offsets[end]);
  require_entries(file, read, used_words);
  const auto strings = [&](const char* of) {
    return file.strings(of, read.total, slice.first, slice.second);
  };
  read.arrivals.ids = strings(name::ids);
  if (file.has(name::labels)) read.arrivals.labels = strings(name::labels);
  if (file.has(name::texts)) read.arrivals.texts = strings(name::texts);
  return read;
}

Vectors make_vectors(internal::RawVectors&& raw, bool unit_length, const std::string& path) {
  using internal::Scaling;
  try {
    return Vectors(
        internal::make_table(std::move(raw), unit_length ? Scaling::done : Scaling::none));
  } catch (const ArgumentError& error) {
    throw FileError(path, error.what());
  }
}

}  // namespace

void Collection::save(const std::string& path) const {
  Hdf5Writer file(path);
  write_settings(*this, file);
  file.group("vocabulary");
  file.matrix(name::rows, vocabulary_.rows(), vocabulary_.size(), vocabulary_.dimensions());
  if (vocabulary_.has_words()) {
    file.strings(name::vocabulary_words, vocabulary_.table().words);
  }
  file.group("documents");
  file.array<std::int64_t>(name::offsets, offsets_);
  file.array<std::int32_t>(name::words, words_);
  file.array<float>(name::weights, weights_);
  file.strings(name::ids, ids_);
  if (has_labels()) file.strings(name::labels, labels_);
  if (has_texts()) file.strings(name::texts, texts_);
  file.finish();
}

Collection Collection::load(const std::string& path, int rank, int size) {
  if (size < 1 || rank < 0 || rank >= size) {
    throw ArgumentError("rank", fmt::format("{} of {} processes", rank, size));
  }
  Collection collection;
  internal::RawVectors raw;
  bool unit_length = true;
  ReadDocuments read;
  {
    const Hdf5Reader file(path);
    require_format(file);
    collection.options_ = read_options(file);
    unit_length = flag(file, "unit_length");
    collection.used_words_ = file.number_attribute("used_words");
    raw = read_vectors(file);
    if (collection.used_words_ < 0 || collection.used_words_ > raw.num_words) {
      file.refuse(fmt::format("{} words occur, the vocabulary has {}", collection.used_words_,
                              raw.num_words));
    }
    read = read_documents(file, rank, size, collection.used_words_);
  }
  collection.vocabulary_ = make_vectors(std::move(raw), unit_length, path);
  auto& [documents, ids, labels, texts] = read.arrivals;
  collection.offsets_ = std::move(documents.offsets);
  collection.words_ = std::move(documents.words);
  collection.weights_ = std::move(documents.weights);
  collection.ids_ = std::move(ids);
  collection.labels_ = std::move(labels);
  collection.texts_ = std::move(texts);
  collection.first_document_ = read.first;
  collection.total_documents_ = read.total;
  const auto id_of = [&](Count i) -> const std::string& { return collection.ids_[i]; };
  if (const auto same = internal::add_ids(collection.id_slots_, 0, collection.size(), id_of)) {
    throw FileError(
        path, fmt::format("documents {} and {} have the same id, '{}'", read.first + same->first,
                          read.first + same->second, texts::printable(id_of(same->first))));
  }
  return collection;
}

}  // namespace talvik
