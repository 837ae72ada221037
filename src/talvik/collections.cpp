// Document ranges as flat arrays, and vocabularies shrunk to the words that ranges use.
#include "talvik/collections.hpp"

#include <algorithm>
#include <limits>
#include <string>

#include "internal/failure.hpp"
#include "internal/index.hpp"
#include "internal/team.hpp"
#include "talvik/compress.hpp"

namespace talvik {

namespace internal {

int count_entries(const DocumentSet& docs, int first, int count) {
  constexpr int most = std::numeric_limits<int>::max();
  Index entries = 0;
  for (int d = first; d < first + count; ++d) entries += std::ssize(docs[d]);
  if (entries > most) {
    fail("Documents " + std::to_string(first) + " to " + std::to_string(first + count - 1) +
         " hold " + std::to_string(entries) + " entries; a range holds at most " +
         std::to_string(most));
  }
  return static_cast<int>(entries);
}

}  // namespace internal

namespace {

// Writes the offsets of a range and calls body(r, word, weight) for its entries r = 0, 1, ...
template <class Body>
void convert_range(const DocumentSet& docs, int first, int count, int* start, const Body& body) {
  internal::count_entries(docs, first, count);  // ends the process if int offsets do not reach
  int r = 0;
  for (int d = 0; d < count; ++d) {
    start[d] = r;
    for (const auto& [word, weight] : docs[first + d]) body(r++, word, weight);
  }
  start[std::max(count, 0)] = r;
}

// Calls body with the word of every entry of a range.
template <class Body>
void visit_range(DocumentSet& docs, int first, int count, const Body& body) {
  for (int d = first; d < first + count; ++d) {
    for (auto& entry : docs[d]) body(entry.first);
  }
}

int hand_over(internal::CompressedVocabulary& compressed, int* comp_voc_size,
              float** comp_embeddings) {
  *comp_voc_size = compressed.voc_size;
  *comp_embeddings = compressed.embeddings.release();
  return 1;
}

}  // namespace

int setup_raw_data(const DocumentSet& docs, int first, int count, int* ind, int* start,
                   float* weight) {
  convert_range(docs, first, count, start, [&](int r, unsigned word, float entry_weight) {
    ind[r] = static_cast<int>(word);
    weight[r] = entry_weight;
  });
  return 0;
}

int setup_vectors(float* embeddings, int vec_size, const DocumentSet& docs, int first, int count,
                  float* X, int* start, float* weight) {
  convert_range(docs, first, count, start,
                [&](int r, unsigned, float entry_weight) { weight[r] = entry_weight; });
  const int row_floats = std::max(vec_size, 0);
  internal::for_each_share(num_cpu_threads, count, [&](int first_doc, int last_doc, int) {
    for (int d = first_doc; d < last_doc; ++d) {
      float* row = X + internal::elements(start[d], row_floats);
      for (const auto& entry : docs[first + d]) {
        std::copy_n(embeddings + internal::elements(entry.first, row_floats), row_floats, row);
        row += row_floats;
      }
    }
  });
  return 0;
}

int compress_vocabulary(int voc_size, float* embeddings, int* comp_voc_size,
                        float** comp_embeddings, int vec_size, DocumentSet& docs, int first,
                        int count) {
  auto compressed =
      internal::compress_words(voc_size, embeddings, vec_size, num_cpu_threads,
                               [&](const auto& body) { visit_range(docs, first, count, body); });
  return hand_over(compressed, comp_voc_size, comp_embeddings);
}

int compress_vocabulary_cosine(int voc_size, float* embeddings, int* comp_voc_size,
                               float** comp_embeddings, int vec_size, DocumentSet& docs1,
                               int first1, int count1, DocumentSet& docs2, int first2, int count2) {
  auto compressed = internal::compress_words(voc_size, embeddings, vec_size, num_cpu_threads,
                                             [&](const auto& body) {
                                               visit_range(docs1, first1, count1, body);
                                               visit_range(docs2, first2, count2, body);
                                             });
  return hand_over(compressed, comp_voc_size, comp_embeddings);
}

}  // namespace talvik
