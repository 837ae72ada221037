// One of the two sides of a search, as the engine takes it.
#ifndef TALVIK_SEARCH_SIDE_HPP
#define TALVIK_SEARCH_SIDE_HPP

#include <span>
#include <vector>

#include "internal/index.hpp"
#include "libwmd/word_distance.hpp"
#include "search/checks.hpp"
#include "search/vector_table.hpp"
#include "talvik/search.hpp"

namespace talvik::internal {

/// Documents and the rows of their words.  Borrows the collection.
class Side {
 public:
  /// For the cosine the rows are those of length 1: copies, unless the table has such already.
  /// Where many words do not occur, as in a slice of a collection, those that do are copied, too,
  /// unless they are side by side.
  Side(const Collection& documents, talvik::Metric metric, int threads);
  Side(const Side&) = delete;
  Side& operator=(const Side&) = delete;

  const Collection& documents() const { return documents_; }
  Count size() const { return documents_.size(); }
  int words() const { return num_words_; }
  int dimensions() const { return table().dimensions; }
  const VectorTable& table() const { return documents_.vocabulary().table(); }

  /// Per entry of the documents, its word: a number of this side, not of the vocabulary.
  const int* entry_words() const { return entry_words_; }
  /// words() x dimensions()
  const float* rows() const { return rows_; }
  /// The number of a word in the vocabulary; ascends with the words.
  int table_word(int word) const { return table_words_.empty() ? word : table_words_[word]; }
  /// The row of a word as it is in the vocabulary.
  const float* table_row(int word) const {
    return table().rows.data() + elements(table_word(word), dimensions());
  }
  /// Squared norms of the rows, readable up to a multiple of line_floats.
  const float* norms() const { return norms_; }
  std::span<const RowHash> row_hash() const { return row_hash_; }
  double largest_norm() const { return largest_norm_; }  ///< squared, at least 0
  double largest_weight() const {
    return largest_weight_;
  }                                           ///< of a document: the sum of its weights
  Count longest() const { return longest_; }  ///< entries of a document at most

  /// Entries of document i.
  Index begin(Count i) const { return documents_.offsets()[i]; }
  Index end(Count i) const { return documents_.offsets()[i + 1]; }
  bool empty(Count i) const { return begin(i) == end(i); }

 private:
  void leave_out_unused_words();
  void scale_rows(int threads);

  const Collection& documents_;
  int num_words_;
  std::vector<int> own_entry_words_;
  std::vector<int> table_words_;  // per word, its number in the vocabulary; empty: the same
  std::vector<float> own_rows_, own_norms_;
  std::vector<RowHash> own_hash_;
  const int* entry_words_;
  const float* rows_;
  const float* norms_;
  std::span<const RowHash> row_hash_;
  double largest_norm_ = 0, largest_weight_ = 0;
  Count longest_ = 0;
};

/// What the engine's scores mean for the search.
constexpr Metric engine_metric(talvik::Metric metric) {
  // Rows of length 1 go by their norms, too: among them may be zeros, whose distance to the others
  // is 1.
  return metric == talvik::Metric::cosine ? Metric::unit_cosine : Metric::euclidean;
}

}  // namespace talvik::internal

#endif
