// The private side of collections, for the functions of the library that make them.
#ifndef TALVIK_SEARCH_COLLECTION_PARTS_HPP
#define TALVIK_SEARCH_COLLECTION_PARTS_HPP

#include <string>
#include <utility>
#include <vector>

#include "search/documents.hpp"
#include "talvik/collection.hpp"

namespace talvik {

struct CollectionParts {
  /// Documents on their way into a collection.
  struct Arrivals {
    internal::Documents documents;  ///< in numbers of the vectors
    std::vector<std::string> ids;
    std::vector<std::string> labels;  ///< per document, or none
    std::vector<std::string> texts;   ///< per document, or none
  };

  /// @param place_of  names an arrival, by its number among them
  template <class PlaceOf>
  static void append(Collection& to, Arrivals&& arrivals, const Vectors& vectors,
                     const PlaceOf& place_of);

  /// Appends the documents [begin, end) of another collection, but not its vocabulary.
  static void copy(const Collection& from, Count begin, Count end, Collection& to);

  /// Documents without ids, labels and texts, over the vocabulary of another collection, of which
  /// they are a slice.
  static Collection bare(const Collection& like, std::vector<Count> offsets, std::vector<int> words,
                         std::vector<float> weights, Count first_document);

  /// Gives copied documents the vocabulary, and makes their ids known.
  static void finish(const Collection& like, Collection& made);
};

namespace internal {

/// The documents of process `rank` of `size`: [first, second), of about the same number of entries.
/// Empty documents count, too, so that they do not pile up on one process.
/// @param offsets  documents + 1
std::pair<Count, Count> slice_of(std::span<const Count> offsets, int rank, int size);

}  // namespace internal
}  // namespace talvik

#endif
