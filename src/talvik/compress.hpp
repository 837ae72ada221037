// Shrinks an embedding matrix to the words in use, be they words of documents or of a flat array.
#ifndef TALVIK_TALVIK_COMPRESS_HPP
#define TALVIK_TALVIK_COMPRESS_HPP

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "internal/failure.hpp"
#include "internal/index.hpp"
#include "internal/large_pages.hpp"
#include "internal/team.hpp"

namespace talvik::internal {

struct CompressedVocabulary {
  int voc_size;                         ///< words in use
  std::unique_ptr<float[]> embeddings;  ///< voc_size x vec_size, never null
};

[[noreturn]] inline void fail_unknown_word(unsigned word, int voc_size) {
  fail("A document holds word " + std::to_string(word) + ", but the vocabulary has " +
       std::to_string(voc_size) + " words");
}

/// Renumbers the words in use as 0, 1, ... in their old order, in place, and copies their embedding
/// rows.
/// @param visit_words  visit_words(body) calls body(word) with a reference to the word of every
///                     entry; it is called twice
template <class VisitWords>
CompressedVocabulary compress_words(int voc_size, const float* embeddings, int vec_size,
                                    int threads, const VisitWords& visit_words) {
  constexpr int unused = -1, used = 0;
  if (voc_size < 0) throw std::bad_array_new_length();
  std::vector<int> new_number(voc_size, unused);
  visit_words([&](auto& word) {
    const auto index = static_cast<unsigned>(word);  // as documents hold it
    if (index >= new_number.size()) fail_unknown_word(index, voc_size);
    new_number[index] = used;
  });

  int count = 0;
  for (int& number : new_number) {
    if (number == used) number = count++;
  }

  const int row_floats = std::max(vec_size, 0);
  const Index floats = elements(count, vec_size);  // negative: the array-length exception
  CompressedVocabulary result{count, std::make_unique_for_overwrite<float[]>(floats)};
  begin_on_large_pages(result.embeddings.get(), floats * sizeof(float));
  for_each_share(threads, voc_size, [&](int first, int last, int) {
    for (int v = first; v < last; ++v) {
      if (new_number[v] == unused) continue;
      std::copy_n(embeddings + elements(v, row_floats), row_floats,
                  result.embeddings.get() + elements(new_number[v], row_floats));
    }
  });

  visit_words([&](auto& word) { word = new_number[word]; });
  return result;
}

}  // namespace talvik::internal

#endif
