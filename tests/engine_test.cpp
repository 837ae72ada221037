// The engines against the oracle: every metric, normalisation, form and number of steps.
#include "support/engine.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
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

constexpr Settings every_setting[] = {{false, false}, {false, true}, {true, false}, {true, true}};

struct Mode {
  StepRule rule;
  int steps;
  bool ground;
  Settings settings;
};

std::vector<Mode> every_mode() {
  std::vector<Mode> modes;
  const auto add = [&](StepRule rule, const std::vector<int>& all_steps, int metric_steps) {
    for (const int steps : all_steps) {
      for (const bool ground : {false, true}) modes.push_back({rule, steps, ground, {}});
    }
    // The metric ends where the steps begin: one number of steps meets them all.
    for (const Settings settings : every_setting) {
      modes.push_back({rule, metric_steps, false, settings});
    }
  };
  add(StepRule::single, {-1, 0, 1, 5}, 1);
  // A call of this function asks for 2 GiB, for which the address sanitizer marks 768 MiB.
  add(StepRule::halving, {-1, 1, 2, 7, 20}, 3);
  // 2 steps: documents of 3 entries take one.  20 steps: 15 at most, and lists of every length.
  add(StepRule::powers_of_two, {-1, 1, 2, 20}, 1);
  return modes;
}

class EveryMode : public ::testing::TestWithParam<Mode> {
 protected:
  void SetUp() override {
    if (!can_run(GetParam().rule)) GTEST_SKIP() << "no GPU";
    use_cosine = GetParam().settings.cosine;
    normalize_embeddings = GetParam().settings.normalise;
    num_cpu_threads = 1 + (GetParam().steps + 1) % 4;
  }
  void TearDown() override {
    use_cosine = normalize_embeddings = false;
    num_cpu_threads = 8;
  }
};

TEST_P(EveryMode, MatchesTheOracle) {
  const auto [rule, steps, ground, settings] = GetParam();
  World world = random_world({.voc_size = 71,
                              .num_resident = 67,  // more than one tile of sums
                              .num_queries = 70,   // more than one chunk of the tables
                              .min_words = 0,
                              .repeated_words = true});
  world.queries[8] = world.resident[65] =  // more entries than a list in registers has
      random_world({.seed = 2, .voc_size = 71, .num_queries = 1, .min_words = 40, .max_words = 40})
          .queries[0];
  const std::vector<double> expected = oracle_block(world, steps, rule);
  const auto compare = [&, ground = ground, steps = steps, rule = rule] {
    expect_near(expected, distance_block(world, steps, rule, ground), world.resident.size());
  };
  // The other rule's longer lists meet every instruction set in the tests of the block itself.
  rule == StepRule::single ? on_every_instruction_set(compare) : compare();
}

INSTANTIATE_TEST_SUITE_P(All, EveryMode, ::testing::ValuesIn(every_mode()));

constexpr StepRule every_rule[] = {StepRule::single, StepRule::halving, StepRule::powers_of_two};

TEST(Engine, EntriesInAnyOrderMeetTheBlockOfTheirWord) {
  // 41 tables for 83 documents: the words fill two blocks of tables.
  const World world = random_world({.seed = 6,
                                    .voc_size = 6000,
                                    .vec_size = 1,
                                    .num_resident = 5,
                                    .num_queries = 83,
                                    .max_words = 40,
                                    .whole_numbers = true});
  const std::vector<double> expected = oracle_block(world, 20, StepRule::halving);
  expect_near(expected, distance_block(world, 20, StepRule::halving, false), 5);
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
    // A word that occurs on both sides is as far apart as the root of a rounding error of its norm.
    const double length = settings.normalise ? 1 : std::sqrt(world.shape.vec_size);
    for (const int steps : {0, 1}) {
      std::vector<float> best;
      on_every_instruction_set([&] {
        const std::vector<float> Z = distance_block(world, steps, StepRule::single, false);
        if (best.empty()) best = Z;
        for (size_t at = 0; at < Z.size(); ++at) ASSERT_NEAR(Z[at], best[at], 1e-3 * length);
      });
    }
  }
  use_cosine = normalize_embeddings = false;
}

TEST(Engine, NothingToDoIsNoFailure) {
  const World whole = random_world({});
  World no_queries = whole, no_resident = whole, empty_queries = whole, empty_resident = whole;
  no_queries.queries.clear();
  no_resident.resident.clear();
  for (Document& doc : empty_queries.queries) doc.clear();
  for (Document& doc : empty_resident.resident) doc.clear();
  World no_dimensions = random_world({.vec_size = 0});  // all words in one place
  for (const StepRule rule : every_rule) {
    if (!can_run(rule)) continue;
    for (const bool ground : {false, true}) {
      if (ground && rule == StepRule::halving) continue;  // slow, and nothing of its own
      EXPECT_TRUE(distance_block(no_queries, 1, rule, ground).empty());
      EXPECT_TRUE(distance_block(no_resident, 1, rule, ground).empty());
      for (const float z : distance_block(empty_queries, 0, rule, ground)) {
        EXPECT_NEAR(z, 1e30, 1e25);
      }
      for (const float z : distance_block(empty_resident, 1, rule, ground)) EXPECT_EQ(z, 0);
    }
    for (const float z : distance_block(no_dimensions, 0, rule, false)) EXPECT_EQ(z, 0);
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
  World world{{}, {NAN, 0, 3, 4, 6, 8}, {{{0, 1.0f}}, {{1, 1.0f}}}, {}, {}, {}};
  world.shape.voc_size = 3;
  world.shape.vec_size = 2;
  world.queries = {{{2, 1.0f}, {1, 1.0f}}, {{2, 1.0f}, {0, 1.0f}}, {{0, 1.0f}, {2, 1.0f}}};
  for (const StepRule rule : every_rule) {
    if (!can_run(rule)) continue;
    for (const bool ground : {false, true}) {
      const auto compare = [&, rule = rule, ground = ground] {
        for (const int steps : {0, 1}) {
          EXPECT_EQ(distance_block(world, steps, rule, ground),
                    (std::vector<float>{1e30f, 0, 1e30f, 5, 1e30f, 5}));
        }
      };
      rule == StepRule::single ? on_every_instruction_set(compare) : compare();
    }
  }
}

TEST(Engine, AsymmetricGroundDistancesAreReadByRowOfTheRightWord) {
  float D[] = {0, 1, 2, 0};  // D[word 0][word 1] = 1, D[word 1][word 0] = 2
  int start[] = {0, 1}, resident_word[] = {0}, query_word[] = {1};
  float weight[] = {1};
  for (const StepRule rule : every_rule) {
    if (!can_run(rule)) continue;
    const Engine& engine = engine_of(rule);
    engine.copy_raw_data(1, resident_word, weight, 1, start);
    engine.copy_ground_distances(2, D);
    engine.copy_raw_data2(1, query_word, weight, 1, start);
    float Z = -1;
    const bool precompute = true;
    function_of(rule)(&Z, 0, precompute);
    engine.remove_raw_data2();
    engine.remove_raw_data();
    engine.remove_ground_distances();
    EXPECT_EQ(Z, rule == StepRule::single ? 1 : 2);  // row of the vocabulary, else the query word
  }
}

TEST(GroundDistances, AreTheWordDistancesOfEveryPair) {
  const World world = random_world({.seed = 9, .voc_size = 600});  // the last tile is partial
  for (const Settings settings :
       {Settings{false, false}, Settings{false, true}, Settings{true, true}}) {
    use_cosine = settings.cosine;
    normalize_embeddings = settings.normalise;
    for (const StepRule rule : {StepRule::single, StepRule::powers_of_two}) {
      if (!can_run(rule)) continue;
      const std::vector<float> D = ground_matrix(world, engine_of(rule));
      for (unsigned u = 0; u < 600; ++u) {
        for (unsigned v = 0; v < 600; ++v) {
          ASSERT_NEAR(oracle_word_distance(world.embeddings.data(), world.shape.vec_size, u, v),
                      D[u * 600 + v], u == v ? 5e-3 : 1e-4)
              << u << ", " << v;
        }
      }
    }
  }
  use_cosine = normalize_embeddings = false;
}

TEST(Pieces, OfTheCpuEngineDoWhatTheirNamesSay) {
  // Columns of 3 values: {3, 1, 1}, {NAN, 5, 4}.  Of equal ones the upper row comes first.
  std::vector<float> values{3, NAN, 1, 5, 1, 4}, weights{10, 20, 30}, nearest(4), behind(4);
  topk_single(2, 3, 2, values.data(), nearest.data(), weights.data(), behind.data());
  EXPECT_EQ(nearest, (std::vector<float>{1, 4, 1, 5}));
  EXPECT_EQ(behind, (std::vector<float>{20, 30, 30, 20}));

  std::vector<int> ind{1, 0, 1}, start{0, 2, 3}, rows{2, 0};
  std::vector<float> left{1, 2, 3}, capacity{5, 2}, updated(3), moved(3);
  copy_raw_data_cpu(3, ind.data(), left.data(), 2, start.data());
  update_weights_delta(left.data(), capacity.data(), updated.data(), moved.data());
  remove_raw_data_cpu();
  EXPECT_EQ(moved, (std::vector<float>{1, 2, 2}));
  EXPECT_EQ(updated, (std::vector<float>{0, 0, 1}));

  std::vector<float> matrix{0, 1, 2, 10, 11, 12, 20, 21, 22}, picked(6);
  gather_matrix_rows_cpu(2, 3, 3, matrix.data(), rows.data(), picked.data());
  EXPECT_EQ(picked, (std::vector<float>{20, 21, 22, 0, 1, 2}));
  gather_matrix_columns_cpu(3, 2, 3, matrix.data(), rows.data(), picked.data());
  EXPECT_EQ(picked, (std::vector<float>{2, 0, 12, 10, 22, 20}));
}

}  // namespace
}  // namespace talvik::test
