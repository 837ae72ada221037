// How texts and bags of words become documents in compressed sparse rows.
#ifndef TALVIK_SEARCH_DOCUMENTS_HPP
#define TALVIK_SEARCH_DOCUMENTS_HPP

#include <span>
#include <vector>

#include "talvik/collection.hpp"

namespace talvik::internal {

/// Documents over the words of some vectors; document i has the entries
/// [offsets[i], offsets[i + 1]), words ascending.
struct Documents {
  std::vector<Count> offsets = {0};
  std::vector<int> words;
  std::vector<float> weights;
};

/// What was met on the way from texts to documents.
struct TokenCounts {
  Count tokens = 0;
  Count unknown = 0;
};

/// Counts the words of every text, keeps the most frequent ones and scales their counts to the
/// sum 1.  The result does not depend on the threads.
Documents count_words(std::span<const Text> texts, const TextRules& rules, const Vectors& vectors,
                      TokenCounts& counts, int threads);

/// Sorts the entries of every document, adds up repeated words, and leaves out what is 0.
/// @throws ArgumentError  naming document and entry
Documents sort_entries(const DocumentArrays& arrays, int num_words);

}  // namespace talvik::internal

#endif
