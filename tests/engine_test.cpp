// The engines against the oracle: every metric, normalisation, form and number of steps.
#include "support/engine.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <tuple>
#include <vector>

#include "support/instruction_sets.hpp"
#include "support/oracle.hpp"
#include "support/world.hpp"
#include "talvik.hpp"

namespace talvik::test {
namespace {

struct Settings {
  bool cosine, normalise;
};

// metric, ground distances, capacity steps, engine function
using Mode = std::tuple<Settings, bool, int, StepRule>;

class EveryMode : public ::testing::TestWithParam<Mode> {
 protected:
  void SetUp() override {
    if (!can_run(std::get<3>(GetParam()))) GTEST_SKIP() << "no GPU";
    use_cosine = std::get<0>(GetParam()).cosine;
    normalize_embeddings = std::get<0>(GetParam()).normalise;
    num_cpu_threads = 3;
  }
  void TearDown() override {
    use_cosine = normalize_embeddings = false;
    num_cpu_threads = 8;
  }
};

// Distances that reach the oracle within float rounding; squared distances near 0 lose half of
// their digits in sqrt(|a.a + b.b - 2 a.b|).
void expect_near(double expected, float actual, const std::string& where) {
  EXPECT_NEAR(expected, actual, 2e-3 + 1e-5 * std::fabs(expected)) << where;
}

void expect_block_matches_oracle(const World& world, bool ground, int steps, StepRule rule) {
  std::vector<double> expected;
  for (const Document& query : world.queries) {
    for (const Document& resident : world.resident) {
      expected.push_back(
          oracle_distance(world.embeddings, world.shape.vec_size, resident, query, steps, rule));
    }
  }
  const auto compare = [&] {
    const std::vector<float> Z = distance_block(world, steps, rule, ground);
    for (size_t at = 0; at < Z.size(); ++at) {
      expect_near(expected[at], Z[at],
                  "resident " + std::to_string(at % world.resident.size()) + ", query " +
                      std::to_string(at / world.resident.size()));
    }
  };
  rule == StepRule::powers_of_two ? compare() : on_every_instruction_set(compare);
}

TEST_P(EveryMode, MatchesTheOracle) {
  const auto [settings, ground, steps, rule] = GetParam();
  const unsigned seed = 1 + static_cast<unsigned>(steps + 1 + ground) % 2;
  WorldShape shape;
  shape.seed = seed;
  shape.min_words = 0;
  shape.repeated_words = seed % 2 == 1;
  shape.max_words = seed % 2 == 1 ? 40 : 12;
  shape.voc_size = 70 + static_cast<int>(seed);
  shape.num_resident = 37;
  shape.num_queries = 83;  // more than one chunk of the tables
  SCOPED_TRACE("seed " + std::to_string(seed));
  expect_block_matches_oracle(random_world(shape), ground, steps, rule);
}

constexpr Settings every_setting[] = {{false, false}, {false, true}, {true, false}, {true, true}};

INSTANTIATE_TEST_SUITE_P(SingleStep, EveryMode,
                         ::testing::Combine(::testing::ValuesIn(every_setting), ::testing::Bool(),
                                            ::testing::Values(-1, 0, 1, 5),
                                            ::testing::Values(StepRule::single)));

INSTANTIATE_TEST_SUITE_P(SeveralSteps, EveryMode,
                         ::testing::Combine(::testing::ValuesIn(every_setting), ::testing::Bool(),
                                            ::testing::Values(-1, 0, 1, 2, 3, 7, 20),
                                            ::testing::Values(StepRule::halving)));

// 2 steps: documents of 3 entries take one.  20 steps: 15 at most, and lists of every length.
INSTANTIATE_TEST_SUITE_P(Gpu, EveryMode,
                         ::testing::Combine(::testing::ValuesIn(every_setting), ::testing::Bool(),
                                            ::testing::Values(-1, 1, 2, 20),
                                            ::testing::Values(StepRule::powers_of_two)));

// Words on a 3-4-5 line: resident word at (0,0), query words at distances 5 and 10.
class ExactLine : public ::testing::TestWithParam<StepRule> {
 protected:
  void SetUp() override {
    if (!can_run(GetParam())) GTEST_SKIP() << "no GPU";
  }
  static float distance(const Document& query, int steps) {
    World world{{}, {0, 0, 3, 4, 6, 8, -3, -4}, {{{0, 1.0f}}}, {query}, {}, {}};
    world.shape.voc_size = 4;
    world.shape.vec_size = 2;
    return distance_block(world, steps, GetParam(), false).at(0);
  }
};

TEST_P(ExactLine, PoursTheRestIntoTheNextNearestWord) {
  const Document query{{2, 0.75f}, {1, 0.25f}};
  EXPECT_EQ(distance(query, 0), 5);
  EXPECT_EQ(distance(query, 1), 0.25f * 5 + 0.75f * 10);
}

TEST_P(ExactLine, OfEqualDistancesTheFirstEntryIsTheNearest) {
  // Words 1 and 3 are both 5 away, word 2 is 10 away.
  const Document query{{1, 0.125f}, {3, 0.5f}, {2, 0.375f}};
  const Document repeated{{2, 0.5f}, {1, 0.25f}, {1, 0.25f}};
  on_every_instruction_set([&] {
    EXPECT_EQ(distance(query, 1), 5);
    EXPECT_EQ(distance(repeated, 1), 5) << "the repeated word is the second nearest, too";
  });
}

TEST_P(ExactLine, EmptyDocumentIsFarAway) {
  EXPECT_EQ(distance({}, 0), 1e30f);
  EXPECT_EQ(distance({}, 1), 1e30f);
}

TEST_P(ExactLine, SingleEntryTakesAllOrWhatItCan) {
  const Document query{{1, 0.25f}};
  if (GetParam() != StepRule::single) {
    EXPECT_EQ(distance(query, 1), 5);
  } else {
    EXPECT_EQ(distance(query, 1), 0.25f * 5 + 0.75f * 1e30f);
  }
}

constexpr StepRule every_rule[] = {StepRule::single, StepRule::halving, StepRule::powers_of_two};

INSTANTIATE_TEST_SUITE_P(Rules, ExactLine, ::testing::ValuesIn(every_rule));

TEST(Engine, BlockDoesNotDependOnThreadsOrBatches) {
  WorldShape shape;
  shape.seed = 5;
  shape.whole_numbers = true;  // exact sums: == must hold
  shape.num_resident = 50;
  shape.num_queries = 70;
  World world = random_world(shape);
  for (const int steps : {0, 1, 3}) {
    num_cpu_threads = 1;
    const std::vector<float> one = distance_block(world, steps, StepRule::halving, false);
    num_cpu_threads = 7;
    const std::vector<float> seven = distance_block(world, steps, StepRule::halving, false);
    std::vector<float> rounding;
    World part = world;
    for (const Document& query : world.queries) {
      part.queries = {query};
      const std::vector<float> row = distance_block(part, steps, StepRule::halving, false);
      rounding.insert(rounding.end(), row.begin(), row.end());
    }
    num_cpu_threads = 8;
    ASSERT_EQ(one.size(), rounding.size());
    for (size_t i = 0; i < one.size(); ++i) {
      EXPECT_NEAR(one[i], seven[i], 1e-4);
      EXPECT_NEAR(one[i], rounding[i], 1e-4);
    }
  }
}

TEST(Engine, InstructionSetsAgreeWithinRounding) {
  // Dimensions and words in the hundreds, of which the dense product has whole tiles and a rest.
  const World world = random_world({.seed = 12,
                                    .voc_size = 1100,
                                    .vec_size = 300,
                                    .num_resident = 30,
                                    .num_queries = 70,
                                    .max_words = 60});
  for (const Settings settings : every_setting) {
    use_cosine = settings.cosine;
    normalize_embeddings = settings.normalise;
    for (const int steps : {0, 3}) {
      std::vector<float> best;
      on_every_instruction_set([&] {
        const std::vector<float> Z = distance_block(world, steps, StepRule::halving, false);
        if (best.empty()) best = Z;
        for (size_t at = 0; at < Z.size(); ++at) ASSERT_NEAR(Z[at], best[at], 1e-3);
      });
    }
  }
  use_cosine = normalize_embeddings = false;
}

TEST(Engine, UnsortedResidentEntriesGiveTheSameDistances) {
  WorldShape shape;
  shape.seed = 6;
  shape.num_resident = 20;
  World world = random_world(shape);
  const std::vector<float> shuffled = distance_block(world, 1, StepRule::single, false);
  for (Document& doc : world.resident) std::sort(doc.begin(), doc.end());
  const std::vector<float> sorted = distance_block(world, 1, StepRule::single, false);
  for (size_t i = 0; i < sorted.size(); ++i) EXPECT_NEAR(shuffled[i], sorted[i], 1e-4);
}

TEST(Engine, NothingToDoIsNoFailure) {
  WorldShape shape;
  for (const bool ground : {false, true}) {
    for (const StepRule rule : every_rule) {
      if (!can_run(rule)) continue;
      World world = random_world(shape);
      world.queries.clear();
      EXPECT_TRUE(distance_block(world, 1, rule, ground).empty());
      world = random_world(shape);
      world.resident.clear();
      EXPECT_TRUE(distance_block(world, 1, rule, ground).empty());
      world = random_world(shape);
      for (Document& doc : world.queries) doc.clear();
      for (const float z : distance_block(world, 0, rule, ground)) EXPECT_NEAR(z, 1e30, 1e25);
      world = random_world(shape);
      for (Document& doc : world.resident) doc.clear();
      for (const float z : distance_block(world, 1, rule, ground)) EXPECT_EQ(z, 0);
    }
  }
}

TEST(Engine, ZeroRowStaysZeroUnderNormalisation) {
  World world{{}, {0, 0, 3, 4, 5, 0}, {{{0, 1.0f}}}, {{{1, 1.0f}}, {{2, 1.0f}}}, {}, {}};
  world.shape.voc_size = 3;
  world.shape.vec_size = 2;
  normalize_embeddings = true;
  for (const StepRule rule : every_rule) {
    if (!can_run(rule)) continue;
    const std::vector<float> Z = distance_block(world, 0, rule, false);
    EXPECT_FLOAT_EQ(Z[0], std::sqrt(2.0f));  // |2 - 2*0|: the zero row counts as of unit length
    EXPECT_FLOAT_EQ(Z[1], std::sqrt(2.0f));
  }
  normalize_embeddings = false;
}

TEST(Engine, WordWithoutAVectorIsFarAway) {
  World world{{}, {NAN, 0, 3, 4, 5, 0}, {{{0, 1.0f}}}, {{{1, 1.0f}, {2, 1.0f}}}, {}, {}};
  world.shape.voc_size = 3;
  world.shape.vec_size = 2;
  for (const StepRule rule : every_rule) {
    for (const bool ground : {false, true}) {
      if (!can_run(rule)) continue;
      on_every_instruction_set([&] {
        EXPECT_EQ(distance_block(world, 0, rule, ground).at(0), 1e30f);
        EXPECT_EQ(distance_block(world, 1, rule, ground).at(0), 1e30f);
      });
    }
  }
}

TEST(Engine, RowsOfNoLengthAreAllInOnePlace) {
  WorldShape shape;
  shape.vec_size = 0;
  const World world = random_world(shape);
  for (const StepRule rule : every_rule) {
    if (!can_run(rule)) continue;
    for (const float z : distance_block(world, 0, rule, false)) EXPECT_EQ(z, 0);
  }
}

TEST(Engine, AsymmetricGroundDistancesAreReadByRowOfTheRightWord) {
  float D[] = {0, 1, 2, 0};  // D[word 0][word 1] = 1, D[word 1][word 0] = 2
  int start[] = {0, 1}, resident_word[] = {0}, query_word[] = {1};
  float weight[] = {1};
  copy_raw_data_cpu(1, resident_word, weight, 1, start);
  copy_ground_distances_cpu(2, D);
  copy_raw_data2_cpu(1, query_word, weight, 1, start);
  const bool precompute = true;
  float plain = -1, multi = -1;
  ed_min_vocab_cpu(&plain, 0, precompute);
  ed_min_vocab_cpu_multi(&multi, 0, precompute);
  remove_raw_data2_cpu();
  remove_raw_data_cpu();
  remove_ground_distances_cpu();
  EXPECT_EQ(plain, 1);  // row of the vocabulary word
  EXPECT_EQ(multi, 2);  // row of the query word

  if (!can_run(StepRule::powers_of_two)) return;
  copy_raw_data(1, resident_word, weight, 1, start);
  copy_ground_distances(2, D);
  copy_raw_data2(1, query_word, weight, 1, start);
  ed_min_vocab_multi(&multi, 0, precompute);
  remove_raw_data2();
  remove_raw_data();
  remove_ground_distances();
  EXPECT_EQ(multi, 2);
}

TEST(GroundDistances, AreTheWordDistancesOfEveryPair) {
  WorldShape shape;
  shape.seed = 9;
  shape.voc_size = 600;  // several tiles, the last one partial
  World world = random_world(shape);
  for (const Settings settings :
       {Settings{false, false}, Settings{false, true}, Settings{true, true}}) {
    use_cosine = settings.cosine;
    normalize_embeddings = settings.normalise;
    for (const StepRule rule : {StepRule::single, StepRule::powers_of_two}) {
      if (!can_run(rule)) continue;
      const std::vector<float> D = ground_matrix(world, engine_of(rule));
      for (unsigned u = 0; u < 600; ++u) {
        for (unsigned v = 0; v < 600; ++v) {
          ASSERT_NEAR(oracle_word_distance(world.embeddings.data(), shape.vec_size, u, v),
                      D[u * 600 + v], u == v ? 5e-3 : 1e-4)
              << u << ", " << v;
        }
      }
    }
  }
  use_cosine = normalize_embeddings = false;
}

}  // namespace
}  // namespace talvik::test
