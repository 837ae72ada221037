// What must hold between the distances, whatever the world: bounds, monotony, symmetry of roles.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "support/engine.hpp"
#include "support/oracle.hpp"
#include "support/world.hpp"
#include "talvik.hpp"

namespace talvik::test {
namespace {

constexpr int units = 8;  // of weight in every document, so that a transport moves whole units

// Least cost of moving one document's units to the other's, exactly: the assignment of units to
// units, by the Hungarian method with potentials.
double exact_transport(const World& world, const Document& a, const Document& b) {
  const auto unit_words = [](const Document& doc) {
    std::vector<unsigned> words;
    for (const auto& [word, weight] : doc) {
      words.insert(words.end(), static_cast<size_t>(std::lround(weight * units)), word);
    }
    return words;
  };
  const std::vector<unsigned> from = unit_words(a), to = unit_words(b);
  const int n = static_cast<int>(from.size());
  const double inf = std::numeric_limits<double>::infinity();
  std::vector<double> u(n + 1), v(n + 1);
  std::vector<int> match(n + 1), way(n + 1);
  for (int i = 1; i <= n; ++i) {
    match[0] = i;
    int j0 = 0;
    std::vector<double> least(n + 1, inf);
    std::vector<bool> used(n + 1);
    do {
      used[j0] = true;
      const int i0 = match[j0];
      int j1 = 0;
      double delta = inf;
      for (int j = 1; j <= n; ++j) {
        if (used[j]) continue;
        const double cost = oracle_word_distance(world.embeddings.data(), world.shape.vec_size,
                                                 from[i0 - 1], to[j - 1]) -
                            u[i0] - v[j];
        if (cost < least[j]) least[j] = cost, way[j] = j0;
        if (least[j] < delta) delta = least[j], j1 = j;
      }
      for (int j = 0; j <= n; ++j) {
        if (used[j]) {
          u[match[j]] += delta;
          v[j] -= delta;
        } else {
          least[j] -= delta;
        }
      }
      j0 = j1;
    } while (match[j0] != 0);
    for (; j0 != 0; j0 = way[j0]) match[j0] = match[way[j0]];
  }
  return -v[0] / units;
}

// Documents of distinct words whose weights are eighths that sum to 1.
World eighths_world(unsigned seed) {
  WorldShape shape;
  shape.seed = seed;
  shape.voc_size = 25;
  shape.num_resident = 15;
  shape.num_queries = 15;
  shape.min_words = 4;
  shape.max_words = units;
  World world = random_world(shape);
  for (DocumentSet* docs : {&world.resident, &world.queries}) {
    for (Document& doc : *docs) {
      for (auto& entry : doc) entry.second = 1.0f / units;
      doc[0].second += static_cast<float>(units - static_cast<int>(doc.size())) / units;
    }
  }
  return world;
}

World swapped(const World& world) {
  World other = world;
  std::swap(other.resident, other.queries);
  return other;
}

class EverySeed : public ::testing::TestWithParam<unsigned> {};

TEST_P(EverySeed, RelaxedDistancesStayBelowTheExactTransport) {
  const World world = eighths_world(GetParam());
  const size_t n = world.resident.size();
  for (const int steps : {0, 1, 3, 7}) {
    const std::vector<float> Z = distance_block(world, steps, StepRule::halving, false);
    const std::vector<float> back = distance_block(swapped(world), steps, StepRule::halving, false);
    for (size_t d = 0; d < world.queries.size(); ++d) {
      for (size_t i = 0; i < n; ++i) {
        const double exact = exact_transport(world, world.resident[i], world.queries[d]);
        const double two_way = std::max(Z[d * n + i], back[i * world.queries.size() + d]);
        ASSERT_LE(two_way, exact + 1e-3) << "steps " << steps << ", pair " << i << ", " << d;
      }
    }
  }
}

TEST_P(EverySeed, DistancesDoNotFallWithMoreSteps) {
  const World world = eighths_world(GetParam());
  // Documents have at least 4 words: up to 3 steps nothing is halved.
  std::vector<float> fewer = distance_block(world, 0, StepRule::halving, false);
  for (const int steps : {1, 2, 3}) {
    const std::vector<float> more = distance_block(world, steps, StepRule::halving, false);
    for (size_t z = 0; z < more.size(); ++z) ASSERT_GE(more[z], fewer[z] - 1e-5) << steps;
    fewer = more;
  }
}

TEST_P(EverySeed, ADocumentIsNearestToItself) {
  World world = eighths_world(GetParam());
  world.queries = world.resident;
  const size_t n = world.resident.size();
  for (const int steps : {0, 1, 3}) {
    const std::vector<float> Z = distance_block(world, steps, StepRule::halving, false);
    for (size_t d = 0; d < n; ++d) EXPECT_NEAR(Z[d * n + d], 0, 2e-3) << steps;
  }
}

INSTANTIATE_TEST_SUITE_P(Worlds, EverySeed, ::testing::Values(1u, 2u, 3u));

}  // namespace
}  // namespace talvik::test
