// The GPU engine below and beside its distances: blocks too small for a batch, more rows than a row
// of blocks, state on the device, and what a failure leaves behind.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <new>
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

// Weak: the thread sanitizer has its own, which stay.
[[gnu::weak]] void* operator new(std::size_t bytes) {
  const bool fails = bytes >= 2000 && --large_allocations == 0;
  if (void* memory = fails ? nullptr : std::malloc(bytes)) return memory;
  throw std::bad_alloc();
}
[[gnu::weak]] void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
  return std::malloc(bytes);
}
[[gnu::weak]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::weak]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace talvik::test {
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
  SCOPED_TRACE(testing::Message() << "steps " << steps << ", ground " << ground << ", floats "
                                  << budget.block_floats << ", group " << budget.group_docs
                                  << ", tile " << budget.tile_words);
  const std::vector<double> oracle = oracle_block(world, steps, StepRule::powers_of_two);
  const auto compute = [&](float* Z) { internal::compute_gpu_block(Z, steps, ground, budget); };
  for (const CopyOrder order : {CopyOrder::rows_as_given, CopyOrder::by_words}) {
    const std::vector<float> Z = distance_block(world, gpu_engine, ground, compute, order);
    ASSERT_EQ(Z.size(), oracle.size());
    for (size_t at = 0; at < Z.size(); ++at) {
      constexpr double an_empty_document = 1e29;  // 1e30 per weight is no exact float
      const double rounding = oracle[at] > an_empty_document ? 1e-6 * oracle[at] : 0;
      ASSERT_NEAR(Z[at], oracle[at], rounding) << "at " << at;
    }
    if (ground) return;
  }
}

TEST_F(GpuEngine, SmallBlocksGiveTheSameDistances) {
  World world = random_world({.voc_size = 41,  // rows start at odd addresses
                              .vec_size = 1,
                              .min_words = 0,
                              .max_words = 30,
                              .whole_numbers = true,
                              .repeated_words = true});
  // Documents of other numbers of steps than their neighbours, one before and one among long ones.
  world.queries[0] = {};
  world.queries[4] = {{3, 0.125f}, {7, 0.125f}, {5, 0.125f}};
  const int voc_size = world.shape.voc_size;
  // 1 row: every distinct row by itself.  3, 9: most documents in parts.  30: groups of some.
  // Narrow tiles: the same floats hold more rows of fewer words.
  struct Way {
    int tile_words, group_docs;
    bool fused;
  };
  const Way ways[] = {{1, 5, false},  {7, 1, false}, {7, 5, true},
                      {7, 256, true}, {41, 1, true}, {41, 256, false}};
  for (const int rows : {1, 3, 9, 30, 100'000}) {
    for (const auto& [tile_words, group_docs, fused] : ways) {
      const internal::GpuBudget budget{.block_floats = 1ll * rows * voc_size,
                                       .table_floats = 3ll * group_docs * voc_size,
                                       .group_docs = group_docs,
                                       .tile_words = tile_words,
                                       .fused_pairs = fused ? 1 : 1'000'000,
                                       .product_elements = 2ll * voc_size};
      for (const int steps : {0, 1, 3, 20}) {
        for (const bool ground : {false, true}) expect_exact(world, steps, ground, budget);
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
      expect_exact(world, 0, ground, {});
      for (const int fused_pairs : {1, 1'000'000}) {
        expect_exact(world, 1, ground, {.fused_pairs = fused_pairs});
      }
    }
  }
}

// Only the rows that are read are written: on the stand-in the others never exist.
TEST_F(GpuEngine, GroundDistancesOfMoreThanTwoToThe31PairsAreReadWhereTheyStand) {
  constexpr int words = 46'400;
  constexpr size_t bytes = sizeof(float) * words * words;
  static_assert(bytes / sizeof(float) > 2'147'483'648u);
  if (cudaMalloc(&D_ground_dev, bytes) != cudaSuccess) {
    D_ground_dev = nullptr;
    GTEST_SKIP() << "a GPU with less memory";
  }
  voc_size = words;
  std::vector<int> query{words - 1, 3, words - 2, words - 2}, query_start{0, 2, 4};
  std::vector<int> resident{words - 3, 3, words - 1, 7}, start{0, 1, 4};
  std::vector<float> weight{.5f, .25f, 1, .5f}, row(words), Z(4);
  for (const int u : query) {
    for (int v = 0; v < words; ++v) row[v] = static_cast<float>(std::abs(u - v));
    cudaMemcpy(D_ground_dev + size_t{words} * u, row.data(), words * sizeof(float),
               cudaMemcpyHostToDevice);
  }
  copy_raw_data(4, resident.data(), weight.data(), 2, start.data());
  copy_raw_data2(4, query.data(), weight.data(), 2, query_start.data());
  for (const int fused_pairs : {1, 1'000'000}) {
    for (const int steps : {0, 1}) {
      // {46397: .5} and {3: .25, 46399: 1, 7: .5} to {46399: .5, 3: .25}, where with a step half of
      // 46399 and of 7 goes the long way, and to {46398: 1, 46398: .5}.
      const std::vector<float> expected{1, steps == 0 ? 2.f : 34'797.f, .5f, 34'795.25f};
      internal::compute_gpu_block(Z.data(), steps, true, {.fused_pairs = fused_pairs});
      EXPECT_EQ(Z, expected) << steps << ' ' << fused_pairs;
    }
  }
  remove_raw_data2();
  remove_raw_data();
  cudaFree(D_ground_dev);
  D_ground_dev = nullptr;
}

// The word 2 is nearer to itself than to 3 then: the squares are |2 - 8| and |2 - 12|.
TEST_F(GpuEngine, NormalisationSwitchedAfterTheCopiesKeepsTheOrderOfDistances) {
  World world{{.voc_size = 2, .vec_size = 1}, {2, 3}, {{{0, 1.0f}}}, {{{0, .5f}, {1, .5f}}}};
  for (const int documents : {1, 2}) {
    const std::vector<float> Z = distance_block(world, gpu_engine, false, [](float* out) {
      normalize_embeddings = true;
      ed_min_vocab_multi(out, 0, false);
      normalize_embeddings = false;
    });
    EXPECT_EQ(Z, std::vector<float>(documents, std::sqrt(6.0f)));
    world.queries.push_back(world.queries[0]);
  }
  // Switched on for the vocabulary and for the computation, not for the queries: |2 - 4|, |2 - 3|.
  std::vector<float> W{1}, X{2, 1.5f, 2, 1.5f}, weight(4, 1), Z(2);
  std::vector<int> ind{0}, start{0, 1}, query_start{0, 2, 4};
  normalize_embeddings = true;
  copy_vocabulary(0, 1, 1, W.data());
  copy_raw_data(1, ind.data(), weight.data(), 1, start.data());
  normalize_embeddings = false;
  copy_vectors2(4, 1, X.data(), weight.data(), 2, query_start.data());
  normalize_embeddings = true;
  ed_min_vocab_multi(Z.data(), 0, false);
  EXPECT_EQ(Z, std::vector<float>(2, 1));
  remove_vectors2();
  remove_raw_data();
  remove_vocabulary();
}

// All metrics; weights of either sign, or words without a vector and out of reach: both together
// would cancel to rounding.
TEST_F(GpuEngine, BothWaysOfPouringGiveTheSameDistances) {
  World sign = random_world({.num_resident = 30, .num_queries = 30}), far = sign;
  for (DocumentSet* docs : {&sign.resident, &sign.queries}) {
    for (Document& doc : *docs) {
      if (doc.size() > 2) doc[1].second *= -1;
    }
  }
  far.embeddings[3] = NAN;
  far.embeddings[27] = 1e16f;
  far.queries[5] = {};
  for (const World& world : {sign, far}) {
    for (const bool cosine : {false, true}) {
      use_cosine = cosine;
      for (const int steps : {1, 2, 7, 20}) {
        SCOPED_TRACE(testing::Message() << "cosine " << cosine << ", steps " << steps);
        const auto compute = [&](int fused_pairs) {
          return distance_block(world, gpu_engine, false, [&](float* Z) {
            internal::compute_gpu_block(Z, steps, false, {.fused_pairs = fused_pairs});
          });
        };
        const std::vector<float> fused = compute(1), named = compute(1'000'000);
        expect_near({named.begin(), named.end()}, fused);
      }
    }
  }
}

TEST_F(GpuEngine, ExportedStateTellsWhatIsHeld) {
  std::vector<float> W{3, 4, 0, 0}, X{0, 5, 6, 8}, D(9), weight{1, 1};
  std::vector<int> ind{0, 1}, start{0, 1, 2};
  for (const bool normalise : {false, true}) {
    normalize_embeddings = normalise;
    copy_vocabulary(0, 2, 2, W.data());
    copy_vectors2(2, 2, X.data(), weight.data(), 2, start.data());
    EXPECT_EQ(std::tuple(dev_id, voc_size, vec_size, num_vecs2, num_docs2, start2),
              std::tuple(0, 2, 2, 2, 2, start.data()));
    EXPECT_EQ(std::tuple(RW_dev == nullptr, Rn2_dev == nullptr), std::tuple(normalise, normalise));
    copy_ground_distances(2, D.data());
    compute_ground_distances(nullptr);
    EXPECT_EQ(D_ground_dev, nullptr);
  }  // nothing is removed: what comes next drops what is still held
  remove_vectors2();
  remove_vocabulary();
  EXPECT_EQ(W, (std::vector<float>{0.6f, 0.8f, 0, 0}));  // in place; a zero row stays zero
  EXPECT_EQ(X, (std::vector<float>{0, 1, 0.6f, 0.8f}));

  for (const int n : {2, 1}) {
    copy_raw_data(n, ind.data(), weight.data(), n, start.data());
    copy_raw_data2(1, ind.data(), weight.data(), 1, start.data());
    EXPECT_EQ(std::tuple(num_vecs, num_docs, num_vecs2, num_docs2), std::tuple(n, n, 1, 1));
  }
  remove_raw_data();
  remove_raw_data2();

  copy_ground_distances(2, D.data());
  const float* const first = D_ground_dev;
  copy_ground_distances(3, D.data());  // the first matrix stays until it is removed
  EXPECT_EQ(std::tuple(D_ground_dev, voc_size), std::tuple(first, 3));
  remove_ground_distances();
  EXPECT_EQ(D_ground_dev, nullptr);
}

// Calls again and again, failing a later allocation each time, until a call gets through.
int failed_calls(const std::function<void()>& call) {
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
  std::vector<float> X, weight(1000);
  std::vector<int> start{0, 1000};
  if (failed_calls([&] { X.resize(1000); }) == 0) GTEST_SKIP() << "not with this operator new";
  const auto state = [] { return std::tuple(X2_dev, num_vecs2, num_docs2, start2); };
  const int failed_loads = failed_calls([&, before = state()] {
    EXPECT_EQ(state(), before);
    EXPECT_TRUE(nothing_is_held());
    copy_vectors2(1000, 1, X.data(), weight.data(), 1, start.data());
  });
  EXPECT_GE(failed_loads, 2);  // norms, distinct rows
  remove_vectors2();

  const World world = random_world({.num_queries = 200, .min_words = 12});
  const auto compute = [](float* Z) {
    EXPECT_GE(failed_calls([Z] { ed_min_vocab_multi(Z, 1, false); }), 1);
  };
  expect_near(oracle_block(world, 1, StepRule::powers_of_two),
              distance_block(world, gpu_engine, false, compute));
}

}  // namespace
}  // namespace talvik::test
