// Shrinks an embedding matrix to the words in use.  One algorithm for words that stand in documents
// and for words that stand in a flat array.
#ifndef TALVIK_TALVIK_COMPRESS_HPP
#define TALVIK_TALVIK_COMPRESS_HPP

#include <algorithm>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "internal/failure.hpp"
#include "internal/large_pages.hpp"
#include "internal/team.hpp"

namespace talvik::internal {

struct CompressedVocabulary {
  int voc_size;                         // words in use
  std::unique_ptr<float[]> embeddings;  // voc_size x vec_size, never null
};

[[noreturn]] inline void fail_unknown_word(size_t word, size_t voc_size) {
  fail("A document holds word " + std::to_string(word) + ", but the vocabulary has " +
       std::to_string(voc_size) + " words");
}

/// Gives the words in use new numbers 0, 1, ... in their old order, writes these in place of the
/// old ones, and copies the words' embedding rows, by a team.
/// @param visit_words  visit_words(body) calls body(word) with a reference to the word of every
///                     entry; it is called twice
template <class VisitWords>
CompressedVocabulary compress_words(int voc_size, const float* embeddings, int vec_size,
                                    int threads, const VisitWords& visit_words) {
  constexpr int unused = -1, used = 0;
  std::vector<int> new_number(static_cast<size_t>(std::max(voc_size, 0)), unused);
  visit_words([&](auto& word) {
    if (static_cast<size_t>(word) >= new_number.size()) {
      fail_unknown_word(static_cast<size_t>(word), new_number.size());
    }
    new_number[static_cast<size_t>(word)] = used;
  });

  int count = 0;
  for (int& number : new_number) {
    if (number == used) number = count++;
  }

  const size_t row_floats = static_cast<size_t>(std::max(vec_size, 0));
  CompressedVocabulary result{count, std::unique_ptr<float[]>(new float[count * row_floats])};
  begin_on_large_pages(result.embeddings.get(), count * row_floats * sizeof(float));
  for_each_share(threads, static_cast<int>(new_number.size()), [&](int first, int last, int) {
    for (size_t v = static_cast<size_t>(first); v < static_cast<size_t>(last); ++v) {
      if (new_number[v] == unused) continue;
      std::copy_n(embeddings + v * row_floats, row_floats,
                  result.embeddings.get() + static_cast<size_t>(new_number[v]) * row_floats);
    }
  });

  visit_words([&](auto& word) {
    word =
        static_cast<std::remove_reference_t<decltype(word)>>(new_number[static_cast<size_t>(word)]);
  });
  return result;
}

}  // namespace talvik::internal

#endif
