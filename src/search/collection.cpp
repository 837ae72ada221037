// Collections in memory.  What changes one is built aside and moved in at the end, where nothing
// fails any more.
#include "talvik/collection.hpp"

#include <fmt/core.h>
#include <omp.h>  // omp_get_max_threads

#include <algorithm>
#include <iterator>
#include <tuple>
#include <utility>

#include "search/collection_parts.hpp"
#include "search/documents.hpp"
#include "search/id_table.hpp"
#include "search/vocabulary.hpp"
#include "talvik/error.hpp"
#include "texts/tokenizer.hpp"

namespace talvik {
namespace {

constexpr std::size_t most_empty_ids = 10;  // that a report names

std::string number_name(Count document) { return fmt::format("document {}", document); }

using Arrivals = CollectionParts::Arrivals;

// The entries under the collection's numbers; within a document words ascend again.
void renumber(internal::Documents& documents, const std::vector<int>& number) {
  std::vector<std::pair<int, float>> entries;
  for (std::size_t i = 0; i + 1 < documents.offsets.size(); ++i) {
    const Count first = documents.offsets[i];
    entries.clear();
    for (Count p = first; p < documents.offsets[i + 1]; ++p) {
      entries.emplace_back(number[documents.words[p]], documents.weights[p]);
    }
    std::sort(entries.begin(), entries.end());
    for (Count p = first; p < documents.offsets[i + 1]; ++p) {
      std::tie(documents.words[p], documents.weights[p]) = entries[p - first];
    }
  }
}

// Room for more; the vector grows by half at least, so that many small appends stay cheap.
template <class T>
void make_room(std::vector<T>& values, std::size_t more) {
  const std::size_t wanted = values.size() + more;
  if (wanted > values.capacity()) values.reserve(std::max(wanted, values.size() / 2 * 3));
}

template <class T>
void move_behind(std::vector<T>& values, std::vector<T>&& more) {
  values.insert(values.end(), std::make_move_iterator(more.begin()),
                std::make_move_iterator(more.end()));
}

void require_labels(const Collection& to, const Arrivals& arrivals) {
  if (to.size() == 0 || arrivals.ids.empty() || to.has_labels() == !arrivals.labels.empty()) return;
  throw ArgumentError("labels", to.has_labels() ? "none, but the documents before have labels"
                                                : "the documents before have none");
}

AppendReport report_of(const Arrivals& arrivals) {
  AppendReport report;
  report.documents = std::ssize(arrivals.ids);
  for (Count i = 0; i < report.documents; ++i) {
    if (arrivals.documents.offsets[i] != arrivals.documents.offsets[i + 1]) continue;
    ++report.empty;
    if (report.empty_ids.size() < most_empty_ids) report.empty_ids.push_back(arrivals.ids[i]);
  }
  return report;
}

}  // namespace

namespace internal {

// Document i weighs its entries and 1.  A cut is the first document with as much weight
// before it as the processes before are to hold.
std::pair<Count, Count> slice_of(std::span<const Count> offsets, int rank, int size) {
  const Count documents = std::ssize(offsets) - 1;
  const double total = static_cast<double>(offsets.back() + documents);
  const auto cut = [&](int processes) {
    const double wanted = total * processes / size;
    Count low = 0, high = documents;  // the first document with as much before it
    while (low < high) {
      const Count middle = low + (high - low) / 2;
      const auto before = static_cast<double>(offsets[middle] + middle);
      if (before < wanted)
        low = middle + 1;
      else
        high = middle;
    }
    return low;
  };
  return {cut(rank), rank + 1 == size ? documents : cut(rank + 1)};
}

}  // namespace internal

namespace {

template <class PlaceOf>
void add_ids(internal::IdSlots& slots, std::span<const std::string> held,
             std::span<const std::string> arriving, const PlaceOf& place_of) {
  const Count before = std::ssize(held);
  for (Count i = 0; i < std::ssize(arriving); ++i) {
    if (arriving[i].empty()) throw ArgumentError(place_of(i), "the id is empty");
  }
  const auto id_of = [&](Count i) -> const std::string& {
    return i < before ? held[i] : arriving[i - before];
  };
  const auto same = internal::add_ids(slots, before, before + std::ssize(arriving), id_of);
  if (!same) return;
  const std::string other =
      same->first < before ? number_name(same->first) : place_of(same->first - before);
  throw ArgumentError(
      place_of(same->second - before),
      fmt::format("the id '{}' is that of {}, too", texts::printable(id_of(same->second)), other));
}

void require_whole(const Collection& collection) {
  if (collection.total_documents() == collection.size()) return;
  throw ArgumentError("collection", "a slice of a collection cannot be changed");
}

}  // namespace

// What is left of an append once the documents are made; here it fails as a whole or not at all.
template <class PlaceOf>
void CollectionParts::append(Collection& to, Arrivals&& arrivals, const Vectors& vectors,
                             const PlaceOf& place_of) {
  require_labels(to, arrivals);
  internal::IdSlots slots = to.id_slots_;
  add_ids(slots, to.ids_, arrivals.ids, place_of);
  internal::Extended extended =
      internal::extend({.vectors = to.vocabulary_, .used_words = to.used_words_}, vectors,
                       arrivals.documents.words, to.options_.all_words);
  renumber(arrivals.documents, extended.number);
  for (Count& offset : arrivals.documents.offsets) offset += to.entries();

  make_room(to.offsets_, arrivals.ids.size());
  make_room(to.words_, arrivals.documents.words.size());
  make_room(to.weights_, arrivals.documents.weights.size());
  make_room(to.ids_, arrivals.ids.size());
  make_room(to.labels_, arrivals.labels.size());
  make_room(to.texts_, arrivals.texts.size());
  // From here on nothing fails.
  const auto& offsets = arrivals.documents.offsets;
  to.offsets_.insert(to.offsets_.end(), offsets.begin() + 1, offsets.end());
  move_behind(to.words_, std::move(arrivals.documents.words));
  move_behind(to.weights_, std::move(arrivals.documents.weights));
  move_behind(to.ids_, std::move(arrivals.ids));
  move_behind(to.labels_, std::move(arrivals.labels));
  move_behind(to.texts_, std::move(arrivals.texts));
  to.id_slots_.swap(slots);
  to.vocabulary_ = std::move(extended.vocabulary.vectors);
  to.used_words_ = extended.vocabulary.used_words;
  to.total_documents_ = to.size();
}

Collection::Collection(CollectionOptions options) : options_(std::move(options)) {}

AppendReport Collection::append(std::span<const Text> texts, const Vectors& vectors) {
  require_whole(*this);
  if (vectors.size() > 0 && !vectors.has_words()) {
    throw ArgumentError("vectors", "rows without words, which no text can be looked up in");
  }
  const auto place_of = [&](Count i) {
    return texts[i].place.empty() ? number_name(size() + i) : texts[i].place;
  };
  Arrivals arrivals;
  for (Count i = 0; i < std::ssize(texts); ++i) {
    const Text& text = texts[i];
    if (text.label.has_value() != texts[0].label.has_value()) {
      throw ArgumentError(place_of(i),
                          fmt::format("{} label, unlike {}", text.label ? "a" : "no", place_of(0)));
    }
    arrivals.ids.push_back(text.id);
    if (text.label) arrivals.labels.push_back(*text.label);
    if (options_.keep_texts) arrivals.texts.push_back(text.text);
  }
  internal::TokenCounts counts;
  arrivals.documents =
      internal::count_words(texts, options_.rules, vectors, counts, omp_get_max_threads());
  AppendReport report = report_of(arrivals);
  report.tokens = counts.tokens;
  report.unknown_tokens = counts.unknown;
  CollectionParts::append(*this, std::move(arrivals), vectors, place_of);
  return report;
}

AppendReport Collection::append(const DocumentArrays& documents, const Vectors& vectors) {
  require_whole(*this);
  Arrivals arrivals;
  arrivals.documents = internal::sort_entries(documents, vectors.size());
  const Count count = std::ssize(documents.offsets) - 1;
  arrivals.ids.assign(documents.ids.begin(), documents.ids.end());
  arrivals.labels.assign(documents.labels.begin(), documents.labels.end());
  if (documents.ids.empty()) {
    for (Count i = 0; i < count; ++i) arrivals.ids.push_back(std::to_string(size() + i));
  }
  if (options_.keep_texts) arrivals.texts.resize(count);
  AppendReport report = report_of(arrivals);
  CollectionParts::append(*this, std::move(arrivals), vectors,
                          [&](Count i) { return number_name(size() + i); });
  return report;
}

Collection Collection::for_queries() const {
  CollectionOptions options = options_;
  options.all_words = false;  // else every batch of queries would copy all rows
  options.keep_texts = false;
  return Collection(std::move(options));
}

void Collection::remove(std::span<const Count> documents) {
  require_whole(*this);
  std::vector<char> removed(size(), 0);
  for (const Count document : documents) {
    if (document < 0 || document >= size()) {
      throw ArgumentError("documents",
                          fmt::format("{} is none of the {} documents", document, size()));
    }
    removed[document] = 1;
  }
  Collection kept(options_);
  for (Count begin = 0; begin < size();) {
    Count end = begin;
    while (end < size() && !removed[end]) ++end;
    CollectionParts::copy(*this, begin, end, kept);
    begin = end + 1;
  }
  CollectionParts::finish(*this, kept);
  *this = std::move(kept);
}

Collection Collection::slice(int rank, int size) const {
  if (size < 1 || rank < 0 || rank >= size) {
    throw ArgumentError("rank", fmt::format("{} of {} processes", rank, size));
  }
  const auto [begin, end] = internal::slice_of(offsets_, rank, size);
  Collection part(options_);
  CollectionParts::copy(*this, begin, end, part);
  CollectionParts::finish(*this, part);
  part.first_document_ = first_document_ + begin;
  part.total_documents_ = total_documents_;
  return part;
}

std::optional<Count> Collection::find(std::string_view id) const {
  return internal::find_id(id_slots_, ids_, id);
}

void CollectionParts::copy(const Collection& from, Count begin, Count end, Collection& to) {
  const auto copy_range = [](const auto& source, Count first, Count last, auto& target) {
    target.insert(target.end(), source.begin() + first, source.begin() + last);
  };
  const Count first = from.offsets_[begin];
  const Count moved = to.entries() - first;
  for (Count i = begin; i < end; ++i) to.offsets_.push_back(from.offsets_[i + 1] + moved);
  copy_range(from.words_, first, from.offsets_[end], to.words_);
  copy_range(from.weights_, first, from.offsets_[end], to.weights_);
  copy_range(from.ids_, begin, end, to.ids_);
  if (from.has_labels()) copy_range(from.labels_, begin, end, to.labels_);
  if (from.has_texts()) copy_range(from.texts_, begin, end, to.texts_);
}

Collection CollectionParts::bare(const Collection& like, std::vector<Count> offsets,
                                 std::vector<int> words, std::vector<float> weights,
                                 Count first_document) {
  Collection made(like.options());
  made.vocabulary_ = like.vocabulary_;
  made.used_words_ = like.used_words_;
  made.first_document_ = first_document;
  made.total_documents_ = like.total_documents_;
  made.offsets_ = std::move(offsets);
  made.words_ = std::move(words);
  made.weights_ = std::move(weights);
  return made;
}

void CollectionParts::finish(const Collection& like, Collection& made) {
  made.vocabulary_ = like.vocabulary_;
  made.used_words_ = like.used_words_;
  made.total_documents_ = made.size();
  internal::add_ids(made.id_slots_, 0, made.size(),
                    [&](Count i) -> const std::string& { return made.ids_[i]; });
}

}  // namespace talvik
