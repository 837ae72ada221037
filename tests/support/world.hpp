// Generated collections for tests: deterministic, with the shapes that engines trip over.
#ifndef TALVIK_TESTS_WORLD_HPP
#define TALVIK_TESTS_WORLD_HPP

#include <algorithm>
#include <random>
#include <vector>

#include "talvik.hpp"

namespace talvik::test {

struct WorldShape {
  unsigned seed = 1;
  int voc_size = 50;
  int vec_size = 5;
  int num_resident = 12;
  int num_queries = 9;
  int min_words = 1;  ///< entries per document; 0 allows empty ones
  int max_words = 12;
  bool whole_numbers = false;   ///< small integer vectors and dyadic weights: results are exact
  bool repeated_words = false;  ///< a document may hold a word in several entries
};

/// Two collections over one embedding matrix (voc_size x vec_size).  Labels are 100, 101, ... and
/// 7000, 7001, ...: never equal to an index.
struct World {
  WorldShape shape;
  std::vector<float> embeddings;
  DocumentSet resident, queries;
  LabelList resident_labels, query_labels;
};

inline int count_entries(const DocumentSet& docs) {
  int entries = 0;
  for (const Document& doc : docs) entries += static_cast<int>(doc.size());
  return entries;
}

inline DocumentSet random_documents(const WorldShape& shape, int count, std::mt19937& random) {
  std::uniform_int_distribution<int> length(shape.min_words, shape.max_words);
  std::uniform_int_distribution<unsigned> word(0, static_cast<unsigned>(shape.voc_size) - 1);
  std::uniform_real_distribution<float> weight(0.05f, 1.0f);
  std::uniform_int_distribution<int> eighths(1, 8);
  DocumentSet docs(static_cast<size_t>(count));
  for (Document& doc : docs) {
    const int words = length(random);
    for (int attempt = 0; static_cast<int>(doc.size()) < words && attempt < 20 * words; ++attempt) {
      const unsigned w = word(random);
      const bool known = std::any_of(doc.begin(), doc.end(), [w](auto& e) { return e.first == w; });
      if (known && !shape.repeated_words) continue;
      doc.emplace_back(
          w, shape.whole_numbers ? static_cast<float>(eighths(random)) / 8 : weight(random));
    }
    if (!shape.whole_numbers) {
      float sum = 0;
      for (const auto& entry : doc) sum += entry.second;
      for (auto& entry : doc) entry.second /= sum;
    }
  }
  return docs;
}

inline World random_world(const WorldShape& shape) {
  std::mt19937 random(shape.seed);
  World world{shape, {}, {}, {}, {}, {}};
  world.embeddings.resize(static_cast<size_t>(shape.voc_size) *
                          static_cast<size_t>(shape.vec_size));
  std::normal_distribution<float> component;
  std::uniform_int_distribution<int> whole(-3, 3);
  for (float& x : world.embeddings) {
    x = shape.whole_numbers ? static_cast<float>(whole(random)) : component(random);
  }
  world.resident = random_documents(shape, shape.num_resident, random);
  world.queries = random_documents(shape, shape.num_queries, random);
  for (int i = 0; i < shape.num_resident; ++i) world.resident_labels.push_back(100ul + i);
  for (int i = 0; i < shape.num_queries; ++i) world.query_labels.push_back(7000ul + i);
  return world;
}

}  // namespace talvik::test

#endif
