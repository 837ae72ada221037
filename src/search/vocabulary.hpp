// How the words of appended documents enter the vocabulary of a collection.
#ifndef TALVIK_SEARCH_VOCABULARY_HPP
#define TALVIK_SEARCH_VOCABULARY_HPP

#include <span>
#include <vector>

#include "talvik/vectors.hpp"

namespace talvik::internal {

/// A vocabulary whose first words are those that occur.
struct GrowingVocabulary {
  Vectors vectors;
  int used_words = 0;
};

struct Extended {
  GrowingVocabulary vocabulary;
  std::vector<int> number;  ///< per word of the appended vectors that occurs, its number now
};

/// The vocabulary with words that are going to occur.  Words that occurred keep their numbers;
/// those that occur now for the first time follow, ordered by their numbers in `vectors`.
///   * all_words: then come the others, of the vocabulary and of `vectors`.
///   * Rows without words: the vocabulary is the table as a whole, under its own numbers.
/// @param occurring  numbers in `vectors`, in any order, repeated or not
/// @throws ArgumentError  where dimensions, scaling, or the row of a word differ
Extended extend(const GrowingVocabulary& vocabulary, const Vectors& vectors,
                std::span<const int> occurring, bool all_words);

}  // namespace talvik::internal

#endif
