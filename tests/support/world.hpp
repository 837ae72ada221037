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
  LabelList resident_labels = {}, query_labels = {};
  std::vector<float> ground = {};  ///< word distances, where they are not those of embeddings
};

inline int count_entries(const DocumentSet& docs) {
  int entries = 0;
  for (const Document& doc : docs) entries += static_cast<int>(doc.size());
  return entries;
}

inline DocumentSet random_documents(const WorldShape& shape, int count, std::mt19937& random) {
  std::uniform_int_distribution<size_t> length(shape.min_words, shape.max_words);
  std::uniform_int_distribution<unsigned> any_word(0, shape.voc_size - 1);
  std::uniform_real_distribution<float> weight(0.05f, 1.0f);
  std::uniform_int_distribution<int> eighths(1, 8);
  DocumentSet docs(count);
  for (Document& doc : docs) {
    float sum = 0;
    for (const size_t words = length(random); doc.size() < words;) {
      const unsigned word = any_word(random);
      const bool known =
          std::any_of(doc.begin(), doc.end(), [&](auto& e) { return e.first == word; });
      if (known && !shape.repeated_words) continue;
      doc.emplace_back(word, shape.whole_numbers ? eighths(random) / 8.f : weight(random));
      sum += doc.back().second;
    }
    for (auto& entry : doc) entry.second /= shape.whole_numbers ? 1 : sum;
  }
  return docs;
}

inline World random_world(const WorldShape& shape) {
  std::mt19937 random(shape.seed);
  World world{shape, std::vector<float>(shape.voc_size * shape.vec_size), {}, {}};
  std::normal_distribution<float> component;
  std::uniform_int_distribution<int> whole(-3, 3);
  for (float& x : world.embeddings) x = shape.whole_numbers ? whole(random) : component(random);
  world.resident = random_documents(shape, shape.num_resident, random);
  world.queries = random_documents(shape, shape.num_queries, random);
  for (int i = 0; i < shape.num_resident; ++i) world.resident_labels.push_back(100ul + i);
  for (int i = 0; i < shape.num_queries; ++i) world.query_labels.push_back(7000ul + i);
  return world;
}

/// A world that runs every loop of a block: more resident documents than a tile of sums, more
/// queries than a chunk of a table, empty documents, one that is longer than a list in registers,
/// and rows long enough for a matrix unit, one of them zero.
inline World crowded_world() {
  const WorldShape shape{.voc_size = 71,
                         .vec_size = 33,
                         .num_resident = 67,
                         .num_queries = 70,
                         .min_words = 0,
                         .repeated_words = true};
  World world = random_world(shape);
  std::fill_n(world.embeddings.begin(), shape.vec_size, 0.0f);
  std::mt19937 random(2);
  world.queries[8] = world.resident[65] =
      random_documents({.voc_size = 71, .min_words = 40, .max_words = 40}, 1, random)[0];
  return world;
}

}  // namespace talvik::test

#endif
