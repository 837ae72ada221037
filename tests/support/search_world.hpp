// Collections to be searched, with what a search trips over, and the slow answers: every distance
// is formed, all of them are sorted.
#ifndef TALVIK_TESTS_SEARCH_WORLD_HPP
#define TALVIK_TESTS_SEARCH_WORLD_HPP

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "search/checks.hpp"
#include "search/pair_distance.hpp"
#include "talvik/search.hpp"

namespace talvik::test {

constexpr double infinite = std::numeric_limits<double>::infinity();

struct SearchShape {
  unsigned seed = 1;
  int documents = 90, queries = 30;
  int max_words = 12;  ///< of a document
  float length = 1;    ///< of rows, about, unless they are scaled to length 1
};

struct SearchWorld {
  Collection documents, queries;
};

/// Rows: zeros, equal ones under several words, and ones that differ from another by the last bits.
inline std::vector<float> search_rows(int words, int dimensions, float length,
                                      std::mt19937& random) {
  std::normal_distribution<float> normal(0, length);
  std::vector<float> rows(words * dimensions);
  for (int w = 0; w < words; ++w) {
    float* const row = rows.data() + w * dimensions;
    std::generate_n(row, dimensions, [&] { return normal(random); });
    const unsigned kind = w > 0 ? random() % 8 : 8;
    if (kind == 0) std::fill_n(row, dimensions, 0.0f);
    if (kind > 3) continue;
    if (kind > 0) std::copy_n(rows.data() + random() % w * dimensions, dimensions, row);
    if (kind > 1) row[random() % dimensions] *= 1 + static_cast<float>(random() % 3) * 0x1p-22f;
  }
  return rows;
}

/// Empty documents, ones of one word, copies of earlier ones and ones that differ by a word.
inline Collection search_documents(int count, int max_words, const Vectors& vectors,
                                   std::mt19937& random) {
  std::vector<Count> offsets = {0};
  std::vector<int> words;
  std::vector<float> weights;
  for (int i = 0; i < count; ++i) {
    const unsigned kind = i > 0 ? random() % 12 : 12;
    if (kind < 3) {
      const size_t other = random() % i;
      for (Count entry = offsets[other]; entry < offsets[other + 1]; ++entry) {
        words.push_back(words[entry]);
        weights.push_back(weights[entry]);
      }
      if (kind == 0 && offsets.back() < std::ssize(words)) words.back() = random() % vectors.size();
    } else if (kind != 3) {
      const unsigned length = kind == 4 ? 1 : 1 + random() % max_words;
      for (unsigned entry = 0; entry < length; ++entry) {
        words.push_back(static_cast<int>(random() % vectors.size()));
        weights.push_back(static_cast<float>(1 + random() % 3));
      }
    }
    offsets.push_back(std::ssize(words));
  }
  Collection result;
  result.append({.offsets = offsets, .words = words, .weights = weights}, vectors);
  return result;
}

/// Odd seeds scale the rows to length 1; of every second pair of seeds the queries number their
/// words otherwise than the documents.
inline SearchWorld search_world(const SearchShape& shape) {
  std::mt19937 random(shape.seed);
  const int num_words = 5 + static_cast<int>(random() % 80);
  const int dimensions = 1 + static_cast<int>(random() % 40);
  const std::vector<float> rows = search_rows(num_words, dimensions, shape.length, random);
  std::vector<std::string> names;
  for (int w = 0; w < num_words && shape.seed % 4 > 1; ++w) names.push_back(std::to_string(w));
  const Vectors vectors = Vectors::from_arrays(names, rows, dimensions, shape.seed % 2 == 1);
  return {search_documents(shape.documents, shape.max_words, vectors, random),
          search_documents(shape.queries, shape.max_words, vectors, random)};
}

/// Of query q and document i: [q][i].
using AllDistances = std::vector<std::vector<double>>;

inline AllDistances all_distances(const Collection& documents, const Collection& queries,
                                  const Distance& distance) {
  internal::PairDistance pair;
  AllDistances all(queries.size(), std::vector<double>(documents.size()));
  for (Count q = 0; q < queries.size(); ++q) {
    const internal::DocumentView query = internal::view_of(queries, q);
    for (Count i = 0; i < documents.size(); ++i) {
      const internal::DocumentView document = internal::view_of(documents, i);
      all[q][i] = distance.measure == Measure::exact ? pair.exact(document, query, distance.metric)
                                                     : pair.relaxed(document, query, distance);
    }
  }
  return all;
}

struct SearchQuestion {
  int k = 0;  ///< 0: all within the radius
  double radius = infinite;
  bool self = false;
};

inline Neighbours ask(const Collection& documents, const Collection& queries,
                      const SearchQuestion& question, const SearchOptions& options) {
  if (question.self) {
    return question.k > 0 ? neighbours(documents, question.k, options)
                          : within(documents, question.radius, options);
  }
  return question.k > 0 ? neighbours(documents, queries, question.k, options)
                        : within(documents, queries, question.radius, options);
}

/// The answer is that of all distances, to the last bit.
inline void expect_answer(const Neighbours& answer, const AllDistances& all,
                          const SearchQuestion& question) {
  ASSERT_EQ(answer.num_queries(), std::ssize(all));
  for (Count q = 0; q < std::ssize(all); ++q) {
    using List = std::vector<std::pair<double, Count>>;
    List expected, found;
    for (Count i = 0; i < std::ssize(all[q]); ++i) {
      const bool counts = question.k > 0 || all[q][i] <= question.radius;
      if (counts && !(question.self && i == q)) expected.emplace_back(all[q][i], i);
    }
    std::sort(expected.begin(), expected.end());
    if (question.k > 0 && std::ssize(expected) > question.k) expected.resize(question.k);
    for (Count place = answer.offsets[q]; place < answer.offsets[q + 1]; ++place) {
      found.emplace_back(answer.distance(place), answer.documents[place]);
    }
    ASSERT_EQ(found, expected) << "query " << q;
  }
}

}  // namespace talvik::test

#endif
