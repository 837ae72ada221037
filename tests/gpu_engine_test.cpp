// The GPU engine below and beside its distances: blocks too small for a batch, state on the device,
// and what it leaves behind.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "libwmd/gpu/engine.hpp"
#include "support/device.hpp"
#include "support/engine.hpp"
#include "support/oracle.hpp"
#include "support/world.hpp"
#include "talvik.hpp"

namespace talvik::test {
namespace {

using internal::GpuBudget;

class GpuEngine : public testing::Test {
 protected:
  void SetUp() override {
    if (count_gpu_devices() == 0) GTEST_SKIP() << "no GPU";
  }
  void TearDown() override {
    use_cosine = normalize_embeddings = false;
    EXPECT_TRUE(nothing_is_held());
  }
};

TEST_F(GpuEngine, SmallBlocksGiveTheSameDistances) {
  // Words on a line at whole numbers: results are exact floats, however they are computed.
  const World world = random_world({.seed = 31,
                                    .voc_size = 41,  // rows start at odd addresses
                                    .vec_size = 1,
                                    .num_resident = 9,
                                    .num_queries = 12,
                                    .min_words = 0,
                                    .max_words = 30,
                                    .whole_numbers = true,
                                    .repeated_words = true});
  for (const int steps : {0, 1, 3, 20}) {
    const std::vector<double> oracle = oracle_block(world, steps, StepRule::powers_of_two);
    const std::vector<float> expected(oracle.begin(), oracle.end());
    for (const bool ground : {false, true}) {
      // 1 row: every distinct row by itself.  3, 9: most documents in parts.  30: groups of some.
      for (const long long rows : {1, 3, 9, 30, 100'000}) {
        for (const int group_docs : {1, 5, 256}) {
          SCOPED_TRACE(std::to_string(rows) + " rows, groups of " + std::to_string(group_docs) +
                       ", steps " + std::to_string(steps) + (ground ? ", ground" : ""));
          const GpuBudget budget{rows * world.shape.voc_size, group_docs};
          EXPECT_EQ(distance_block(
                        world, gpu_engine, ground,
                        [&](float* Z) { internal::compute_gpu_block(Z, steps, ground, budget); }),
                    expected);
        }
      }
    }
  }
}

TEST_F(GpuEngine, NormalisationRewritesTheCallersRows) {
  normalize_embeddings = true;
  std::vector<float> W{3, 4, 0, 0}, X{0, 5};
  std::vector<float> weight{1};
  std::vector<int> start{0, 1};
  copy_vocabulary(0, 2, 2, W.data());
  EXPECT_EQ(W, (std::vector<float>{0.6f, 0.8f, 0, 0}));
  EXPECT_EQ(RW_dev, nullptr);
  copy_vectors2(1, 2, X.data(), weight.data(), 1, start.data());
  EXPECT_EQ(X, (std::vector<float>{0, 1}));
  EXPECT_EQ(Rn2_dev, nullptr);
  EXPECT_EQ(remove_vectors2(), 1);
  EXPECT_EQ(remove_vocabulary(), 1);
}

TEST_F(GpuEngine, ExportedStateTellsWhatIsHeld) {
  std::vector<float> W{1, 2, 3, 4, 5, 6}, weight{1, 1, 1};
  std::vector<int> ind{0, 2, 1}, start{0, 1, 3};
  EXPECT_EQ(copy_vocabulary(0, 3, 2, W.data()), 1);
  EXPECT_EQ(std::tuple(dev_id, voc_size, vec_size), std::tuple(0, 3, 2));
  EXPECT_EQ(copy_raw_data(3, ind.data(), weight.data(), 2, start.data()), 1);
  EXPECT_EQ(std::tuple(num_vecs, num_docs), std::tuple(3, 2));
  EXPECT_EQ(copy_vectors2(3, 2, W.data(), weight.data(), 2, start.data()), 1);
  EXPECT_EQ(std::tuple(num_vecs2, num_docs2, start2), std::tuple(3, 2, start.data()));
  remove_vectors2();
  EXPECT_EQ(copy_raw_data2(3, ind.data(), weight.data(), 1, start.data()), 1);
  EXPECT_EQ(std::tuple(num_docs2, start2), std::tuple(1, start.data()));
  EXPECT_EQ(compute_ground_distances(nullptr), 1);  // dropped
  EXPECT_EQ(D_ground_dev, nullptr);
  EXPECT_EQ(remove_raw_data2(), 1);
  EXPECT_EQ(remove_raw_data(), 1);
  remove_vocabulary();
}

TEST_F(GpuEngine, TheFirstGroundMatrixStaysUntilItIsRemoved) {
  std::vector<float> first(4, 1), second(9, 2), weight{1};
  std::vector<int> word{0}, start{0, 1};
  copy_raw_data(1, word.data(), weight.data(), 1, start.data());
  copy_raw_data2(1, word.data(), weight.data(), 1, start.data());
  float Z = -1;
  copy_ground_distances(2, first.data());
  copy_ground_distances(2, second.data());
  ed_min_vocab_multi(&Z, 0, true);
  EXPECT_EQ(Z, 1);
  remove_ground_distances();
  copy_ground_distances(3, second.data());
  ed_min_vocab_multi(&Z, 0, true);
  EXPECT_EQ(Z, 2);
  remove_ground_distances();
  remove_raw_data2();
  remove_raw_data();
}

}  // namespace
}  // namespace talvik::test
