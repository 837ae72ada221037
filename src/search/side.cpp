#include "search/side.hpp"

#include <algorithm>

#include "libwmd/cpu/sizes.hpp"
#include "libwmd/embedding_rows.hpp"

namespace talvik::internal {

Side::Side(const Collection& documents, talvik::Metric metric, int threads)
    : documents_(documents),
      num_words_(documents.used_words()),
      entry_words_(documents.words().data()),
      rows_(table().rows.data()),
      norms_(table().norms.data()),
      row_hash_(std::span(table().row_hash).first(num_words_)) {
  leave_out_unused_words();
  if (metric == talvik::Metric::cosine && !table().unit_length) scale_rows(threads);
  for (int word = 0; word < words(); ++word) {
    largest_norm_ = std::max(largest_norm_, static_cast<double>(norms_[word]));
  }
  for (Count i = 0; i < size(); ++i) {
    double weight = 0;
    for (Index entry = begin(i); entry < end(i); ++entry) {
      weight += documents_.weights()[entry];
    }
    largest_weight_ = std::max(largest_weight_, weight);
    longest_ = std::max<Count>(longest_, end(i) - begin(i));
  }
}

// A product with a word that no document has is in vain.
void Side::leave_out_unused_words() {
  std::vector<int> number(num_words_, -1);
  for (const int word : documents_.words()) number[word] = 0;
  int used = 0, first = 0, last = -1;
  for (int word = 0; word < num_words_; ++word) {
    if (number[word] < 0) continue;
    if (used == 0) first = word;
    last = word;
    number[word] = used++;
  }
  constexpr double worth_a_copy = 0.95;
  if (used >= worth_a_copy * num_words_) return;
  const bool side_by_side = last - first + 1 == used;
  const Index m = dimensions();
  own_rows_.resize(side_by_side ? 0 : elements(used, m));
  own_norms_.resize(round_up(used, line_floats));
  own_hash_.resize(used);
  table_words_.resize(used);
  for (int word = first; word <= last; ++word) {
    const int n = number[word];
    if (n < 0) continue;
    if (!side_by_side) {
      std::copy_n(rows_ + elements(word, m), m, own_rows_.data() + elements(n, m));
    }
    own_norms_[n] = norms_[word];
    own_hash_[n] = row_hash_[word];
    table_words_[n] = word;
  }
  own_entry_words_.reserve(documents_.words().size());
  for (const int word : documents_.words()) own_entry_words_.push_back(number[word]);
  num_words_ = used;
  entry_words_ = own_entry_words_.data();
  rows_ = side_by_side ? rows_ + elements(first, m) : own_rows_.data();
  norms_ = own_norms_.data();
  row_hash_ = own_hash_;
}

void Side::scale_rows(int threads) {
  if (rows_ != own_rows_.data()) own_rows_.assign(rows_, rows_ + elements(words(), dimensions()));
  own_norms_.resize(round_up(words(), line_floats));
  norm_and_normalise(own_rows_.data(), words(), dimensions(), own_norms_.data(), true, threads);
  // Those are the norms from before.
  for (float& norm : own_norms_) norm = norm > 0 ? 1 : 0;
  own_hash_ = hash_rows(own_rows_.data(), elements(dimensions(), sizeof(float)), words(), threads);
  rows_ = own_rows_.data();
  norms_ = own_norms_.data();
  row_hash_ = own_hash_;
}

}  // namespace talvik::internal
