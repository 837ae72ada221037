// The engines against the oracle: every metric, normalisation, form and number of steps.
#include "support/engine.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>
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

void apply_settings(const Mode& mode) {
  use_cosine = mode.cosine;
  normalize_embeddings = mode.normalise;
}

class Engine : public ::testing::TestWithParam<Mode> {
 protected:
  ~Engine() override { apply_settings({}); }
};

TEST_P(Engine, MatchesTheOracle) {
  const Mode& mode = GetParam();
  const World world = crowded_world();
  apply_settings(mode);
  num_cpu_threads = 1 + (mode.steps + 1) % 4;
  const std::vector<double> expected = oracle_block(world, mode.steps, mode.rule);
  const auto compare = [&] {
    expect_near(expected, distance_block(world, mode.steps, mode.rule, mode.ground));
  };
  // The other rule's longer lists meet every instruction set in the tests of the block itself.
  mode.rule == StepRule::single ? on_every_instruction_set(compare) : compare();
}

INSTANTIATE_TEST_SUITE_P(Modes, Engine, ::testing::ValuesIn(every_mode()));

TEST(Engines, EntriesInAnyOrderMeetTheBlockOfTheirWord) {
  // 41 tables for 83 documents: the words fill two blocks of tables.
  const World world = random_world({.voc_size = 6000,
                                    .vec_size = 1,
                                    .num_resident = 5,
                                    .num_queries = 83,
                                    .max_words = 40,
                                    .whole_numbers = true});
  expect_near(oracle_block(world, 20, StepRule::halving),
              distance_block(world, 20, StepRule::halving, false));
}

TEST(Engines, NothingToDoIsNoFailure) {
  std::vector<World> worlds(5, random_world({}));
  worlds[0].queries.clear();
  worlds[1].resident.clear();
  worlds[2].queries.assign(9, {});
  worlds[3].resident.assign(12, {});
  worlds[4] = random_world({.vec_size = 0});  // all words in one place
  for (const World& world : worlds) {
    for (const StepRule rule : rules_to_run()) {
      expect_near(oracle_block(world, 1, rule), distance_block(world, 1, rule, false));
      if (rule == StepRule::halving) continue;  // slow, and nothing of its own
      expect_near(oracle_block(world, 1, rule), distance_block(world, 1, rule, true));
    }
  }
}

// Only one rule has a longest distance, none a largest weight; and the negative weights of a long
// document mean nothing to a short one beside it.
TEST(Engines, DistancesAndWeightsOfAnySizeAndSignMatchTheOracle) {
  const DocumentSet queries{{{2, 1.0f}},
                            {{0, .5f}, {3, -1.0f}},
                            {{3, -1.0f}, {0, .5f}, {1, .5f}},
                            {{0, .5f}, {3, -1.0f}, {4, -.25f}, {2, .5f}}};
  const DocumentSet resident{{{1, 1.0f}}, {{4, -.5f}, {0, 1.0f}}, {{2, 2.0f}, {3, .125f}}};
  const World worlds[] = {
      {{.voc_size = 5, .vec_size = 1}, {0, 1e16f, -1e16f, 1, 2}, resident, queries, {}, {}},
      {{.voc_size = 3, .vec_size = 1},
       {0, 1, 2},
       {{{0, 3e30f}}},
       {{{1, 2e30f}, {2, 5e30f}}},
       {},
       {}}};
  for (const World& world : worlds) {
    for (const bool cosine : {false, true}) {
      apply_settings({.rule = StepRule::single, .steps = 0, .cosine = cosine});
      for (const StepRule rule : rules_to_run()) {
        for (const int steps : {0, 1, 3}) {
          SCOPED_TRACE(testing::Message()
                       << "steps " << steps << ", rule " << static_cast<int>(rule));
          expect_near(oracle_block(world, steps, rule), distance_block(world, steps, rule, false));
        }
      }
    }
  }
  apply_settings({});
}

// Products are rounded in many ways, so that near words may come out nearer than equal ones.
TEST(Engines, WordsThatDocumentsShareAreAtDistanceZero) {
  constexpr int m = 33;
  const WorldShape shape{.vec_size = m, .num_resident = 40, .max_words = 20};
  World world = random_world(shape);
  const auto scale = [&](int from, int to, float factor) {
    const float* row = &world.embeddings[from * m];
    std::transform(row, row + m, &world.embeddings[to * m], [=](float x) { return factor * x; });
  };
  for (int word = 0; word < shape.voc_size; ++word) scale(word, word, 30);
  scale(4, 5, 1), scale(6, 7, 3), scale(8, 9, 1.0000001f);  // equal, of one direction, nearly equal
  world.resident.push_back({{4, .5f}, {5, .5f}, {6, .5f}, {7, .5f}, {8, .5f}, {9, .5f}});
  world.queries = world.resident;
  const size_t docs = world.queries.size();
  for (const Mode& mode : every_mode()) {
    // The products of rows of any length have no bound, so none is nearest to itself.
    if (mode.ground || (mode.cosine && !mode.normalise)) continue;
    apply_settings(mode);
    const auto compare = [&] {
      const std::vector<float> Z = distance_block(world, mode.steps, mode.rule, false);
      for (size_t d = 0; d < docs; ++d) ASSERT_EQ(Z[d * docs + d], 0) << "document " << d;
    };
    mode.rule == StepRule::single ? on_every_instruction_set(compare) : compare();
  }
  apply_settings({});
}

// Scaling may be done in the caller's array, from which query rows are taken afterwards.
TEST(Engines, EqualRowsAreKnownWhicheverIsCopiedFirst) {
  const World world = random_world({.voc_size = 30, .vec_size = 33});
  std::vector<int> words(30), start(31);
  std::iota(words.begin(), words.end(), 0);
  std::iota(start.begin(), start.end(), 0);
  std::vector<float> weight(30, 1.0f), Z(900);
  normalize_embeddings = true;
  for (const StepRule rule : rules_to_run()) {
    const bool use_gpu = engine_of(rule);
    for (const bool vocabulary_first : {false, true}) {
      std::vector<float> W = world.embeddings, X = W;
      if (vocabulary_first) internal::load_vocabulary(use_gpu, 30, 33, W.data());
      if (vocabulary_first) X = W;
      internal::load_batch_vectors(use_gpu, 30, 33, X.data(), weight.data(), 30, start.data());
      if (!vocabulary_first) internal::load_vocabulary(use_gpu, 30, 33, W.data());
      internal::load_resident(use_gpu, 30, words.data(), weight.data(), 30, start.data());
      function_of(rule)(Z.data(), 0, false);
      for (int word = 0; word < 30; ++word) EXPECT_EQ(Z[word * 31], 0) << "word " << word;
      internal::release_batch(use_gpu, false);
      internal::release_vocabulary(use_gpu);
      internal::release_resident(use_gpu);
    }
  }
  apply_settings({});
}

TEST(Engines, CosineOfRowsThatCameAtUnitLengthIsZeroForEqualOnes) {
  // Their squared norms are 1 up to rounding.  Word 1 has no direction, word 2 is of length 2.
  World world = random_world({.voc_size = 40, .vec_size = 33, .num_resident = 0});
  for (unsigned word = 0; word < 40; ++word) {
    float* row = &world.embeddings[word * 33];
    const float length = std::sqrt(std::inner_product(row, row + 33, row, 0.0f));
    const float wanted = word == 1 ? 0 : word == 2 ? 2 : 1;
    std::transform(row, row + 33, row, [=](float x) { return x * (wanted / length); });
    world.resident.push_back({{word, 1.0f}});
  }
  world.queries = world.resident;
  apply_settings({.rule = StepRule::single, .steps = 0, .cosine = true});
  for (const StepRule rule : rules_to_run()) {
    const std::vector<float> Z = distance_block(world, 0, rule, false);
    for (int word = 0; word < 40; ++word) {
      EXPECT_NEAR(Z[word * 41],
                  word == 1   ? 1
                  : word == 2 ? -3
                              : 0,
                  word == 2 ? 1e-6 : 0)
          << "word " << word;
    }
  }
  apply_settings({});
}

TEST(Engines, NormalisationSwitchedAfterTheCopiesKeepsTheOrderOfDistances) {
  struct Switch {
    bool at_copies;
    float words[2];
    double square;  // of the distance of word 0 to the nearer of both
  };
  const Switch switches[] = {{false, {1, 3}, 0}, {false, {2, 3}, 6}, {true, {.1f, .2f}, 1.95}};
  for (const auto& [at_copies, words, square] : switches) {
    World world{{.voc_size = 2, .vec_size = 1}, {words[0], words[1]}, {}, {}, {}, {}};
    world.resident = {{{0, 1.0f}}};
    world.queries = {{{0, 0.5f}, {1, 0.5f}}};
    for (const auto function : {ed_min_vocab_cpu, ed_min_vocab_cpu_multi}) {
      normalize_embeddings = at_copies;
      const std::vector<float> Z = distance_block(world, cpu_engine, false, [&](float* out) {
        normalize_embeddings = !at_copies;
        function(out, 0, false);
      });
      EXPECT_NEAR(Z[0], std::sqrt(square), 1e-6);
    }
  }
  apply_settings({});
}

TEST(Engines, WordWithoutAVectorIsFarAway) {
  World world{{.voc_size = 3, .vec_size = 2}, {NAN, 0, 3, 4, 6, 8}, {}, {}, {}, {}};
  world.resident = {{{0, 1.0f}}, {{1, 1.0f}}};
  world.queries = {{{2, 1.0f}, {1, 1.0f}}, {{2, 1.0f}, {0, 1.0f}}, {{0, 1.0f}, {2, 1.0f}}};
  for (const StepRule rule : rules_to_run()) {
    for (const bool ground : {false, true}) {
      const auto compare = [&] {
        for (const int steps : {0, 1}) {
          EXPECT_EQ(distance_block(world, steps, rule, ground),
                    (std::vector<float>{1e30f, 0, 1e30f, 5, 1e30f, 5}));
        }
      };
      rule == StepRule::single ? on_every_instruction_set(compare) : compare();
    }
  }
}

TEST(Engines, AsymmetricGroundDistancesAreReadByRowOfTheRightWord) {
  World world{{.voc_size = 2}, {}, {{{0, 1.0f}}}, {{{1, 1.0f}}}, {}, {}};
  world.ground = {0, 1, 2, 0};  // [word 0][word 1] = 1, [word 1][word 0] = 2
  for (const StepRule rule : rules_to_run()) {
    const float expected = rule == StepRule::single ? 1 : 2;  // row of the vocabulary, or the query
    EXPECT_EQ(distance_block(world, 0, rule, true), std::vector{expected});
  }
}

TEST(Engines, GroundDistancesAreTheWordDistancesOfEveryPair) {
  const World world = random_world({.voc_size = 600});  // the last tile is partial
  for (const Mode& mode : every_mode()) {
    if (mode.steps != 1 || mode.rule == StepRule::halving) continue;  // every setting, once
    apply_settings(mode);
    const std::vector<float> D = ground_matrix(world, engine_of(mode.rule));
    for (unsigned pair = 0; pair < D.size(); ++pair) {
      const unsigned u = pair / 600, v = pair % 600;
      ASSERT_NEAR(oracle_word_distance(world.embeddings, world.shape.vec_size, u, v), D[pair],
                  u == v ? 1e-5 : 1e-4)
          << u << ", " << v;
      ASSERT_TRUE(D[pair] == D[v * 600 + u] || engine_of(mode.rule) == gpu_engine);
    }
  }
  apply_settings({});
}

// The least cost of moving one document's weight to the other's, for words on a line: the area
// between their distribution functions.  It knows nothing of nearest words, and so is a witness
// against an oracle that makes the engine's own mistakes.
double exact_transport(const World& world, const Document& from, const Document& to) {
  std::map<float, double> excess;
  for (const auto& [word, weight] : from) excess[world.embeddings[word]] += weight;
  for (const auto& [word, weight] : to) excess[world.embeddings[word]] -= weight;
  double area = 0, carried = 0, last = 0;
  for (const auto& [place, weight] : excess) {
    area += std::fabs(carried) * (place - last);
    carried += weight;
    last = place;
  }
  return area;
}

TEST(Engines, DistancesGrowWithTheStepsAndStayBelowTheExactTransport) {
  const World world = random_world(
      {.vec_size = 1, .num_resident = 40, .num_queries = 40, .min_words = 4});  // nothing is halved
  std::vector<float> fewer(1600, 0);
  for (const int steps : {0, 1, 3}) {
    const std::vector<float> Z = distance_block(world, steps, StepRule::halving, false);
    for (size_t at = 0; at < Z.size(); ++at) {
      ASSERT_LE(Z[at],
                exact_transport(world, world.resident[at % 40], world.queries[at / 40]) + 1e-3);
      ASSERT_GE(Z[at], fewer[at] - 1e-5) << "steps " << steps << ", at " << at;
    }
    fewer = Z;
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
