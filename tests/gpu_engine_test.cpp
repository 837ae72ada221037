// The GPU engine below and beside its distances: blocks too small for a batch, more rows than a row
// of blocks, state on the device, and what a failure leaves behind.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <tuple>
#include <vector>

#include "libwmd/gpu/engine.hpp"
#include "libwmd/gpu/platform/device.hpp"
#include "support/device.hpp"
#include "support/engine.hpp"
#include "support/oracle.hpp"
#include "support/world.hpp"
#include "talvik.hpp"

// Large host allocations from now on; the one that counts down to 0 fails.
static std::atomic<int> large_allocations = 0;

// Inlined, they would pass for an allocation and its release by the wrong function.
[[gnu::noinline]] void* operator new(std::size_t bytes) {
  const bool fails = bytes >= 2000 && --large_allocations == 0;
  if (void* memory = fails ? nullptr : std::malloc(bytes)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace talvik {

#ifndef TALVIK_DEVICE_CUDA
__global__ void final_sqrt2(int rows, int cols, int col_offset, float* D, float* col_norms,
                            float* row_norms);
#endif

namespace test {
namespace {

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

// The worlds of these tests have their words on a line at whole numbers, and dyadic weights:
// results are exact floats, however they are computed.
void expect_exact(const World& world, int steps, bool ground, const internal::GpuBudget& budget) {
  SCOPED_TRACE("steps " + std::to_string(steps) + (ground ? ", ground" : ""));
  const std::vector<double> oracle = oracle_block(world, steps, StepRule::powers_of_two);
  const auto compute = [&](float* Z) { internal::compute_gpu_block(Z, steps, ground, budget); };
  EXPECT_EQ(distance_block(world, gpu_engine, ground, compute),
            std::vector<float>(oracle.begin(), oracle.end()));
}

TEST_F(GpuEngine, SmallBlocksGiveTheSameDistances) {
  const World world = random_world({.seed = 31,
                                    .voc_size = 41,  // rows start at odd addresses
                                    .vec_size = 1,
                                    .num_resident = 9,
                                    .num_queries = 12,
                                    .min_words = 0,
                                    .max_words = 30,
                                    .whole_numbers = true,
                                    .repeated_words = true});
  // 1 row: every distinct row by itself.  3, 9: most documents in parts.  30: groups of some.
  for (const long long rows : {1, 3, 9, 30, 100'000}) {
    for (const int group_docs : {1, 5, 256}) {
      SCOPED_TRACE(std::to_string(rows) + " rows, groups of " + std::to_string(group_docs));
      for (const int steps : {0, 1, 3, 20}) {
        for (const bool ground : {false, true}) {
          expect_exact(world, steps, ground, {rows * world.shape.voc_size, group_docs});
        }
      }
    }
  }
}

// A launch by rows or documents has 1,024 blocks side by side; the others lie below.
TEST_F(GpuEngine, RowsAndDocumentsFillMoreThanOneRowOfBlocks) {
  constexpr unsigned words = 1100, query_words = 110;
  World world = random_world({.voc_size = words, .vec_size = 1, .num_resident = 0});
  world.queries.assign(words / query_words, {});
  world.queries[0] = {{0, 0.25f}};  // a word that comes again, so that rows are gathered
  for (unsigned w = 0; w < words; ++w) {
    world.embeddings[w] = static_cast<float>(w);
    world.resident.push_back({{w, 0.5f}, {w * 7 % words, 0.25f}});
    world.queries[w / query_words].emplace_back(w, 0.25f);
  }
  for (const bool cosine : {false, true}) {
    use_cosine = cosine;
    for (const bool ground : {false, true}) {
      for (const int steps : {0, 1}) expect_exact(world, steps, ground, {});
    }
  }
}

#ifndef TALVIK_DEVICE_CUDA  // a plain compiler launches kernels on the stand-in only
TEST_F(GpuEngine, ConversionReadsTheNormsFromItsFirstColumn) {
  // A dot product, the norms of two columns, the norm of the row.
  std::vector<float> values{0, 100, 9, 16};
  float* memory = nullptr;
  cudaMalloc(&memory, sizeof(float) * values.size());
  cudaMemcpy(memory, values.data(), sizeof(float) * values.size(), cudaMemcpyHostToDevice);
  constexpr int rows = 1, cols = 1, col_offset = 1;
  launch(final_sqrt2, 1, 128, rows, cols, col_offset, memory, memory + 1, memory + 3);
  cudaMemcpy(values.data(), memory, sizeof(float) * values.size(), cudaMemcpyDeviceToHost);
  cudaFree(memory);
  EXPECT_EQ(values, (std::vector<float>{5, 100, 9, 16}));
}
#endif

TEST_F(GpuEngine, ExportedStateTellsWhatIsHeld) {
  std::vector<float> W{3, 4, 0, 0}, X{0, 5, 6, 8}, D(9), weight{1, 1};
  std::vector<int> ind{0, 1}, start{0, 1, 2};
  for (const bool normalise : {false, true}) {
    normalize_embeddings = normalise;
    EXPECT_EQ(copy_vocabulary(0, 2, 2, W.data()), 1);
    EXPECT_EQ(copy_vectors2(2, 2, X.data(), weight.data(), 2, start.data()), 1);
    EXPECT_EQ(std::tuple(dev_id, voc_size, vec_size), std::tuple(0, 2, 2));
    EXPECT_EQ(std::tuple(num_vecs2, num_docs2, start2), std::tuple(2, 2, start.data()));
    EXPECT_EQ(std::tuple(RW_dev == nullptr, Rn2_dev == nullptr), std::tuple(normalise, normalise));
    EXPECT_EQ(std::tuple(remove_vectors2(), remove_vocabulary()), std::tuple(1, 1));
  }
  EXPECT_EQ(W, (std::vector<float>{0.6f, 0.8f, 0, 0}));  // in place; a zero row stays zero
  EXPECT_EQ(X, (std::vector<float>{0, 1, 0.6f, 0.8f}));

  EXPECT_EQ(copy_raw_data(2, ind.data(), weight.data(), 2, start.data()), 1);
  EXPECT_EQ(copy_raw_data2(1, ind.data(), weight.data(), 1, start.data()), 1);
  EXPECT_EQ(std::tuple(num_vecs, num_docs, num_vecs2, num_docs2), std::tuple(2, 2, 1, 1));
  EXPECT_EQ(std::tuple(remove_raw_data(), remove_raw_data2()), std::tuple(1, 1));

  copy_ground_distances(2, D.data());
  const float* const first = D_ground_dev;
  copy_ground_distances(3, D.data());  // the first matrix stays until it is removed
  EXPECT_EQ(std::tuple(D_ground_dev, voc_size), std::tuple(first, 3));
  EXPECT_EQ(remove_ground_distances(), 1);
  EXPECT_EQ(D_ground_dev, nullptr);
}

// Calls again and again, failing a later allocation each time, until a call gets through.
template <class Call>
int failed_calls(const Call& call) {
  for (int n = 1;; ++n) {
    try {
      large_allocations = n;
      call();
      large_allocations = 0;
      return n - 1;
    } catch (const std::bad_alloc&) {
    }
  }
}

TEST_F(GpuEngine, HostMemoryThatRunsOutLeavesTheStateAsItWas) {
  const World world = random_world({.num_queries = 200, .min_words = 12});
  Csr batch(world.queries);
  const int n2 = batch.entries, m = world.shape.vec_size;
  std::vector<float> X(batch.entries * m);
  const auto state = [] { return std::tuple(X2_dev, num_vecs2, num_docs2, start2); };
  const int loads_failed = failed_calls([&, before = state()] {
    EXPECT_EQ(state(), before);
    EXPECT_TRUE(nothing_is_held());
    copy_vectors2(n2, m, X.data(), batch.weight.data(), 200, batch.start.data());
  });
  EXPECT_GE(loads_failed, 2);  // norms, distinct rows
  remove_vectors2();
  const auto compute = [](float* Z) {
    EXPECT_GE(failed_calls([Z] { ed_min_vocab_multi(Z, 1, false); }), 1);
  };
  expect_near(oracle_block(world, 1, StepRule::powers_of_two),
              distance_block(world, gpu_engine, false, compute));
}

}  // namespace
}  // namespace test
}  // namespace talvik
