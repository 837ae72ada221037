// Generated, deterministic collections with the word statistics of text.
#include "zipf_world.hpp"

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <unordered_set>

namespace talvik::bench {
namespace {

// Draws words with the frequencies of the shape; the most frequent kept word has index 0.
class ZipfWords {
 public:
  explicit ZipfWords(const ZipfShape& shape) {
    double sum = 0;
    for (int word = 0; word < shape.voc_size; ++word) {
      sum += std::pow(word + 1 + shape.skipped_words, -shape.exponent);
      cumulated_.push_back(sum);
    }
  }
  unsigned operator()(std::mt19937& random) const {
    const double at = std::uniform_real_distribution<>(0, cumulated_.back())(random);
    return static_cast<unsigned>(std::upper_bound(cumulated_.begin(), cumulated_.end(), at) -
                                 cumulated_.begin());
  }

 private:
  std::vector<double> cumulated_;
};

DocumentSet draw_documents(const ZipfShape& shape, int count, const ZipfWords& words,
                           std::mt19937& random) {
  std::uniform_int_distribution<int> length(shape.words_per_doc / 2,
                                            shape.words_per_doc + shape.words_per_doc / 2);
  DocumentSet docs(static_cast<size_t>(count));
  for (Document& doc : docs) {
    const size_t wanted = static_cast<size_t>(length(random));
    std::unordered_set<unsigned> used;
    while (used.size() < wanted) used.insert(std::min(words(random), unsigned(shape.voc_size - 1)));
    for (const unsigned word : used) doc.emplace_back(word, 1.0f / static_cast<float>(wanted));
    std::sort(doc.begin(), doc.end());
  }
  return docs;
}

int entries_of(const DocumentSet& docs) {
  int entries = 0;
  for (const Document& doc : docs) entries += static_cast<int>(doc.size());
  return entries;
}

}  // namespace

ZipfWorld make_zipf_world(const ZipfShape& shape) {
  std::mt19937 random(shape.seed);
  std::vector<float> embeddings(static_cast<size_t>(shape.voc_size) *
                                static_cast<size_t>(shape.vec_size));
  std::normal_distribution<float> component(0, 1 / std::sqrt(static_cast<float>(shape.vec_size)));
  for (float& x : embeddings) x = component(random);
  const ZipfWords words(shape);
  DocumentSet resident = draw_documents(shape, shape.num_resident, words, random);
  DocumentSet queries = draw_documents(shape, shape.num_queries, words, random);

  ZipfWorld world;
  world.shape = shape;
  world.resident = resident;
  const size_t n2 = static_cast<size_t>(entries_of(queries));
  world.start2.resize(queries.size() + 1);
  world.ind2.resize(n2);
  world.weight2.resize(n2);
  world.X2.resize(n2 * static_cast<size_t>(shape.vec_size));
  setup_vectors(embeddings.data(), shape.vec_size, queries, 0, shape.num_queries, world.X2.data(),
                world.start2.data(), world.weight2.data());
  setup_raw_data(queries, 0, shape.num_queries, world.ind2.data(), world.start2.data(),
                 world.weight2.data());

  float* compressed = nullptr;
  compress_vocabulary(shape.voc_size, embeddings.data(), &world.comp_voc_size, &compressed,
                      shape.vec_size, resident, 0, shape.num_resident);
  const std::unique_ptr<float[]> owned(compressed);
  world.comp_embeddings.assign(compressed, compressed + static_cast<size_t>(world.comp_voc_size) *
                                                            static_cast<size_t>(shape.vec_size));
  const size_t n = static_cast<size_t>(entries_of(resident));
  world.start.resize(resident.size() + 1);
  world.ind.resize(n);
  world.weight.resize(n);
  setup_raw_data(resident, 0, shape.num_resident, world.ind.data(), world.start.data(),
                 world.weight.data());
  world.embeddings = std::move(embeddings);
  world.queries = std::move(queries);
  return world;
}

}  // namespace talvik::bench
