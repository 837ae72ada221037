// What must hold between the distances whatever the world.  The exact transport knows nothing of
// nearest words: it is a witness against an oracle that makes the engine's own mistakes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include "support/engine.hpp"
#include "support/oracle.hpp"
#include "support/world.hpp"
#include "talvik.hpp"

namespace talvik::test {
namespace {

constexpr int units = 6;  // of weight in every document, so that a transport moves whole units

// Least cost of moving one document's units to the other's: the best of all assignments.
double exact_transport(const World& world, const Document& a, const Document& b) {
  const auto unit_words = [](const Document& doc) {
    std::vector<unsigned> words;
    for (const auto& [word, weight] : doc) {
      words.insert(words.end(), static_cast<size_t>(std::lround(weight * units)), word);
    }
    return words;
  };
  const std::vector<unsigned> from = unit_words(a), to = unit_words(b);
  double cost[units][units];
  for (int i = 0; i < units; ++i) {
    for (int j = 0; j < units; ++j) {
      cost[i][j] =
          oracle_word_distance(world.embeddings.data(), world.shape.vec_size, from.at(i), to.at(j));
    }
  }
  int target[units];
  std::iota(target, target + units, 0);
  double least = INFINITY;
  do {
    double sum = 0;
    for (int i = 0; i < units; ++i) sum += cost[i][target[i]];
    least = std::min(least, sum / units);
  } while (std::next_permutation(target, target + units));
  return least;
}

// Documents of 4 to 6 distinct words, among which 6 units of weight are spread.
World unit_world(unsigned seed) {
  World world = random_world({.seed = seed,
                              .voc_size = 25,
                              .num_resident = 15,
                              .num_queries = 15,
                              .min_words = 4,
                              .max_words = units});
  for (DocumentSet* docs : {&world.resident, &world.queries}) {
    for (Document& doc : *docs) {
      for (auto& entry : doc) entry.second = 1.0f / units;
      doc[0].second += static_cast<float>(units - static_cast<int>(doc.size())) / units;
    }
  }
  return world;
}

class EverySeed : public ::testing::TestWithParam<unsigned> {};

TEST_P(EverySeed, DistancesGrowWithTheStepsAndStayBelowTheExactTransport) {
  const World world = unit_world(GetParam());
  const size_t n = world.resident.size();
  std::vector<float> fewer(n * n, 0);
  for (const int steps : {0, 1, 2, 3}) {  // of 4 words nothing is halved
    const std::vector<float> Z = distance_block(world, steps, StepRule::halving, false);
    for (size_t at = 0; at < Z.size(); ++at) {
      const double exact = exact_transport(world, world.resident[at % n], world.queries[at / n]);
      ASSERT_LE(Z[at], exact + 1e-3) << "steps " << steps << ", at " << at;
      ASSERT_GE(Z[at], fewer[at] - 1e-5) << "steps " << steps << ", at " << at;
    }
    fewer = Z;
  }
}

INSTANTIATE_TEST_SUITE_P(Worlds, EverySeed, ::testing::Values(1u, 2u, 3u));

}  // namespace
}  // namespace talvik::test
