// Documents as bags of weighted words, with what is needed to search them.
#ifndef TALVIK_COLLECTION_HPP
#define TALVIK_COLLECTION_HPP

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "talvik/api.hpp"
#include "talvik/texts.hpp"
#include "talvik/vectors.hpp"

namespace talvik {

/// How a collection treats its texts, and what of them it keeps.
struct CollectionOptions {
  TextRules rules = {};     ///< by which texts become words
  bool keep_texts = false;  ///< the texts stay in memory, and in the saved file
  /// The vectors of all words stay, so that queries may use words that no document has; else those
  /// of the words that occur.
  bool all_words = false;

  /// Whether all are the same.
  bool operator==(const CollectionOptions&) const = default;
};

/// Documents as compressed sparse rows: document i has the entries
/// [offsets[i], offsets[i + 1]) of words and weights.
struct DocumentArrays {
  std::span<const Count> offsets;            ///< documents + 1, ascending from 0
  std::span<const int> words;                ///< per entry, a number in the vectors
  std::span<const float> weights;            ///< per entry, finite, not negative
  std::span<const std::string> ids = {};     ///< per document; none: the document's number
  std::span<const std::string> labels = {};  ///< per document, or none
  /// Weights are counts: the document's sum becomes 1.  Else they are taken as they are.
  bool normalise = true;
};

/// What became of texts.
struct AppendReport {
  Count documents = 0;       ///< appended
  Count tokens = 0;          ///< words of the texts after the rules
  Count unknown_tokens = 0;  ///< of these, words without a vector
  Count empty = 0;           ///< documents without a known word: infinitely far from every other
  std::vector<std::string> empty_ids;  ///< the first few of them
};

/// Documents in compressed sparse rows over the words that occur, with ids, labels and texts.  A
/// value: copies are independent; any number of threads may read one at the same time.  Within a
/// document the words ascend and none comes twice.  A slice of a larger collection cannot be
/// changed (ArgumentError); saved, it is a collection of its own.
///
/// Rows without words are kept as a table, under their own numbers; further documents need the same
/// table.
class TALVIK_API Collection {
 public:
  /// No documents yet.
  explicit Collection(CollectionOptions options = {});

  /// Appends texts.  Their weights are the words' shares of the document: counts, scaled to the
  /// sum 1.
  /// @param vectors  where words are looked up; dimensions and scaling as those of the collection,
  ///                 and the same rows for words that it has
  /// @throws ArgumentError  where an id is empty or there already, naming both places, where some
  ///                        documents have labels and others none, and for other vectors
  AppendReport append(std::span<const Text> texts, const Vectors& vectors);

  /// Appends documents that are bags of words already.  A word that comes twice in a document
  /// counts with the sum of its weights; entries of weight 0 are left out.  The texts are empty.
  /// @throws ArgumentError  as above; for arrays that do not agree, and entries that are no word or
  ///                        no number, by document and entry; for counts whose sum is not positive
  AppendReport append(const DocumentArrays& documents, const Vectors& vectors);

  /// No documents, but the rules of this collection.  Queries that are appended to it with
  /// vocabulary() are treated as the documents were, and take only the words that they use.
  Collection for_queries() const;

  /// Takes documents out; those behind move up.  The vocabulary stays.
  /// @param documents  numbers, in any order
  void remove(std::span<const Count> documents);

  Count size() const { return static_cast<Count>(offsets_.size()) - 1; }  ///< documents held
  Count entries() const { return offsets_.back(); }                       ///< of all documents

  /// Of a slice the number of its first document in the whole collection; else 0.
  Count first_document() const { return first_document_; }
  /// Of a slice how many documents the whole collection has; else size().
  Count total_documents() const { return total_documents_; }
  /// The part of process `rank` of `size`: contiguous, of about the same number of entries.
  Collection slice(int rank, int size) const;

  /// As given, or as saved.
  const CollectionOptions& options() const { return options_; }
  /// The words, numbered as words() numbers them: first those that occur, then the others.
  const Vectors& vocabulary() const { return vocabulary_; }
  int used_words() const { return used_words_; }  ///< words that may occur

  std::span<const Count> offsets() const { return offsets_; }  ///< size() + 1
  std::span<const int> words() const { return words_; }        ///< per entry
  std::span<const float> weights() const { return weights_; }  ///< per entry

  /// Documents are numbered from 0 in a slice, too; in the whole collection by first_document()
  /// more, which is how Neighbours names them.
  const std::string& id(Count document) const { return ids_[document]; }
  std::span<const std::string> ids() const { return ids_; }        ///< per document
  bool has_labels() const { return !labels_.empty(); }             ///< false without documents
  std::span<const std::string> labels() const { return labels_; }  ///< per document, or none
  bool has_texts() const { return !texts_.empty(); }               ///< false without documents
  std::span<const std::string> texts() const { return texts_; }    ///< per document, or none
  /// The number of the document with an id, which must be in this slice.
  std::optional<Count> find(std::string_view id) const;

  /// Writes one file (docs/formats.md): to a temporary beside it, which is then renamed, so that
  /// the old contents stay until the new ones are whole.
  ///
  /// Saving and loading take turns, as HDF5 is built without support of threads.  A host that uses
  /// the same HDF5 library itself must not do so meanwhile.
  /// @throws FileError
  void save(const std::string& path) const;
  /// Reads what save() has written.
  /// @param rank, size  of the processes: only this one's slice is read
  /// @throws FileError  a file that is cut, damaged, foreign or of a newer version
  static Collection load(const std::string& path, int rank = 0, int size = 1);

 private:
  friend struct CollectionParts;
  CollectionOptions options_;
  Vectors vocabulary_;
  int used_words_ = 0;
  Count first_document_ = 0;
  Count total_documents_ = 0;
  std::vector<Count> offsets_ = {0};
  std::vector<int> words_;
  std::vector<float> weights_;
  std::vector<std::string> ids_;
  std::vector<std::string> labels_;
  std::vector<std::string> texts_;
  std::vector<Count> id_slots_;  // where ids are found
};

}  // namespace talvik

#endif
