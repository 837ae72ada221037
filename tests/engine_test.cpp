// The engines against the oracle: every metric, normalisation, form and number of steps.
#include "support/engine.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <tuple>
#include <vector>

#include "support/instruction_sets.hpp"
#include "support/oracle.hpp"
#include "support/world.hpp"
#include "talvik.hpp"

namespace talvik::test {
namespace {

struct Mode {
  StepRule rule;
  int steps;
  bool ground = false, cosine = false, normalise = false;
};

std::vector<Mode> every_mode() {
  std::vector<Mode> modes;
  const auto add = [&](StepRule rule, const std::vector<int>& all_steps) {
    for (const int steps : all_steps) {
      for (const bool ground : {false, true}) modes.push_back({rule, steps, ground});
    }
    // The metric ends where the steps begin: one number of steps meets them all.
    for (const bool normalise : {false, true}) modes.push_back({rule, 1, false, true, normalise});
    modes.push_back({rule, 1, false, false, true});
  };
  add(StepRule::single, {-1, 0, 1, 5});
  // A call of this function asks for 2 GiB, for which the address sanitizer marks 768 MiB.
  add(StepRule::halving, {-1, 1, 2, 7, 20});
  // 2 steps: documents of 3 entries take one.  20 steps: 15 at most, and lists of every length.
  if (count_gpu_devices() > 0) add(StepRule::powers_of_two, {-1, 1, 2, 20});
  return modes;
}

struct Engines : testing::Test {
  ~Engines() override { use_cosine = normalize_embeddings = false; }
};

// Calls body under the mode's settings, once for each instruction set if the rule is the one-step
// rule.  Longer lists meet every instruction set in the tests of the block itself.
template <class Body>
void run(const Mode& mode, const Body& body) {
  SCOPED_TRACE(testing::Message() << "rule " << static_cast<int>(mode.rule) << ", steps "
                                  << mode.steps << ", ground " << mode.ground << ", cosine "
                                  << mode.cosine << ", normalise " << mode.normalise);
  use_cosine = mode.cosine;
  normalize_embeddings = mode.normalise;
  num_cpu_threads = 1 + (mode.steps + 1) % 4;
  mode.rule == StepRule::single ? on_every_instruction_set(body) : body();
}

void expect_oracle(const World& world, const Mode& mode) {
  run(mode, [&] {
    expect_near(oracle_block(world, mode.steps, mode.rule),
                distance_block(world, mode.steps, mode.rule, mode.ground));
  });
}

TEST_F(Engines, MatchTheOracle) {
  for (const Mode& mode : every_mode()) expect_oracle(crowded_world(), mode);
}

TEST_F(Engines, EntriesInAnyOrderMeetTheBlockOfTheirWord) {
  // 41 tables for 83 documents: the words fill two blocks of tables.
  expect_oracle(random_world({.voc_size = 6000, .vec_size = 1, .num_queries = 83, .max_words = 40}),
                {StepRule::halving, 20});
}

TEST_F(Engines, NothingToDoIsNoFailure) {
  std::vector<World> worlds(5, random_world({}));
  worlds[0].queries.clear();
  worlds[1].resident.clear();
  worlds[2].queries.assign(9, {});
  worlds[3].resident.assign(12, {});
  worlds[4] = random_world({.vec_size = 0});  // all words in one place
  for (const World& world : worlds) {
    for (const StepRule rule : rules_to_run()) {
      expect_oracle(world, {rule, 1});
      // The halving rule is slow, and its ground distances are those of the one-step rule.
      if (rule != StepRule::halving) expect_oracle(world, {rule, 1, true});
    }
  }
}

// Only one rule has a longest distance, none a largest weight; and the negative weights of a long
// document mean nothing to a short one beside it.
TEST_F(Engines, DistancesAndWeightsOfAnySizeAndSignMatchTheOracle) {
  const DocumentSet queries{{{2, 1.0f}},
                            {{0, .5f}, {3, -1.0f}},
                            {{3, -1.0f}, {0, .5f}, {1, .5f}},
                            {{0, .5f}, {3, -1.0f}, {4, -.25f}, {2, .5f}}};
  const DocumentSet resident{{{1, 1.0f}}, {{4, -.5f}, {0, 1.0f}}, {{2, 2.0f}, {3, .125f}}};
  const World worlds[] = {
      {{.voc_size = 5, .vec_size = 1}, {0, 1e16f, -1e16f, 1, 2}, resident, queries},
      {{.voc_size = 3, .vec_size = 1}, {0, 1, 2}, {{{0, 3e30f}}}, {{{1, 2e30f}, {2, 5e30f}}}}};
  for (const World& world : worlds) {
    for (const StepRule rule : rules_to_run()) {
      for (const int steps : {0, 1, 3}) {
        for (const bool cosine : {false, true}) expect_oracle(world, {rule, steps, false, cosine});
      }
    }
  }
}

// An example beside the oracle, which could make the engines' own mistakes.
TEST_F(Engines, WeightMovesToTheNearestWordsInTurn) {
  // Word 0 has the words 1, 2, 3 and 4 at distances 1, 3, 7 and 20, and each takes a quarter.
  const World world{{.voc_size = 5, .vec_size = 1},
                    {0, 1, 3, 7, 20},
                    {{{0, 1.0f}}},
                    {{{3, .25f}, {1, .25f}, {4, .25f}, {2, .25f}}}};
  const std::vector<float> expected{1, 2.5f, 4.5f, 7.75f};  // the last is the exact transport
  for (const StepRule rule : rules_to_run()) {
    for (const int steps : {0, 1, 2, 3}) {
      const float distance = expected[rule == StepRule::single ? std::min(steps, 1) : steps];
      EXPECT_EQ(distance_block(world, steps, rule, false), std::vector{distance});
    }
  }
}

// Products are rounded in many ways, so that near words may come out nearer than equal ones.
TEST_F(Engines, WordsThatDocumentsShareAreAtDistanceZero) {
  constexpr int m = 33;
  for (const Mode& mode : every_mode()) {
    if (mode.ground) continue;
    // The cosine of rows as they come knows equal words where their length is 1, up to rounding.
    // Even then it has no lower bound, so that a document may not hold a nearly equal word.
    const bool unit = mode.cosine && !mode.normalise;
    World world = random_world({.vec_size = m, .num_resident = 40, .max_words = unit ? 1 : 20});
    const auto scale = [&](int from, int to, float factor) {
      const float* row = &world.embeddings[from * m];
      std::transform(row, row + m, &world.embeddings[to * m], [=](float x) { return factor * x; });
    };
    for (int word = 0; word < world.shape.voc_size; ++word) {
      const float* row = &world.embeddings[word * m];
      const float length = std::sqrt(std::inner_product(row, row + m, row, 0.0f));
      // Long rows have larger roundings; rows as drawn are changed by a second scaling.
      scale(word, word, unit ? 1 / length : mode.normalise ? 1 : 30);
    }
    if (!unit) {  // words that are equal, of one direction, nearly equal
      scale(4, 5, 1), scale(6, 7, 3), scale(8, 9, 1.0000001f);
      world.resident.push_back({{4, .5f}, {5, .5f}, {6, .5f}, {7, .5f}, {8, .5f}, {9, .5f}});
    }
    world.queries = world.resident;
    const size_t next = world.queries.size() + 1;  // from a document's distance to itself
    for (const CopyOrder order : {CopyOrder::rows_as_given, CopyOrder::vocabulary_first,
                                  CopyOrder::batch_first, CopyOrder::by_words}) {
      if (order != CopyOrder::rows_as_given && !mode.normalise) continue;
      if (order == CopyOrder::by_words && mode.rule != StepRule::powers_of_two) continue;
      run(mode, [&] {
        const std::vector<float> Z = distance_block(world, mode.steps, mode.rule, false, order);
        for (size_t at = 0; at < Z.size(); at += next) ASSERT_EQ(Z[at], 0) << "at " << at;
      });
    }
  }
}

TEST_F(Engines, NormalisationSwitchedAfterTheCopiesKeepsTheOrderOfDistances) {
  const std::tuple<bool, float, float, double> switches[] = {
      {false, 1, 3, 0}, {false, 2, 3, 6}, {true, .1f, .2f, 1.95}};
  for (const auto& [at_copies, first, second, square] : switches) {
    const World world{
        {.voc_size = 2, .vec_size = 1}, {first, second}, {{{0, 1.0f}}}, {{{0, .5f}, {1, .5f}}}};
    for (const auto function : {ed_min_vocab_cpu, ed_min_vocab_cpu_multi}) {
      normalize_embeddings = at_copies;
      const std::vector<float> Z = distance_block(world, cpu_engine, false, [&](float* out) {
        normalize_embeddings = !normalize_embeddings;
        function(out, 0, false);
      });
      EXPECT_NEAR(Z[0], std::sqrt(square), 1e-6);  // to the nearer of the two words
    }
  }
}

TEST_F(Engines, WordWithoutAVectorIsFarAway) {
  const World world{{.voc_size = 3, .vec_size = 2},
                    {NAN, 0, 3, 4, 6, 8},
                    {{{0, 1.0f}}, {{1, 1.0f}}},
                    {{{2, 1.0f}, {1, 1.0f}}, {{2, 1.0f}, {0, 1.0f}}, {{0, 1.0f}, {2, 1.0f}}}};
  const std::vector<float> expected{1e30f, 0, 1e30f, 5, 1e30f, 5};
  // The square of its length, and its product with the other, are no floats.
  const World endless{
      {.voc_size = 2, .vec_size = 1}, {1e30f, 1e10f}, {{{0, 1.0f}}}, {{{1, 1.0f}}, {{1, 1.0f}}}};
  for (const Mode& mode : every_mode()) {
    if (mode.steps > 1 || mode.cosine || mode.normalise) continue;
    run(mode, [&] {
      EXPECT_EQ(distance_block(world, mode.steps, mode.rule, mode.ground), expected);
      EXPECT_EQ(distance_block(endless, mode.steps, mode.rule, mode.ground),
                std::vector<float>(2, 1e30f));
    });
  }
}

TEST_F(Engines, AsymmetricGroundDistancesAreReadByRowOfTheRightWord) {
  World world{{.voc_size = 2}, {}, {{{0, 1.0f}}}, {{{1, 1.0f}}}};
  world.ground = {0, 1, 2, 0};  // [word 0][word 1] = 1, [word 1][word 0] = 2
  for (const StepRule rule : rules_to_run()) {
    const float expected = rule == StepRule::single ? 1 : 2;  // row of the vocabulary, or the query
    EXPECT_EQ(distance_block(world, 0, rule, true), std::vector{expected});
  }
}

TEST_F(Engines, GroundDistancesAreTheWordDistancesOfEveryPair) {
  const World world = random_world({.voc_size = 600, .vec_size = 5});  // the last tile is partial
  for (const Mode& mode : every_mode()) {
    if (mode.steps != 1 || mode.rule == StepRule::halving) continue;  // every setting, once
    use_cosine = mode.cosine;
    normalize_embeddings = mode.normalise;
    const std::vector<float> D = ground_matrix(world, engine_of(mode.rule));
    for (unsigned pair = 0; pair < D.size(); ++pair) {
      const unsigned u = pair / 600, v = pair % 600;
      const double expected = oracle_word_distance(world.embeddings, 5, u, v);
      ASSERT_NEAR(expected, D[pair], u == v ? 1e-5 : 1e-4) << u << ", " << v;
      ASSERT_TRUE(D[pair] == D[v * 600 + u] || engine_of(mode.rule) == gpu_engine);
    }
  }
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
