// The block computation under budgets so small that every loop over tiles, windows, sections and
// passes runs, and the pieces below it.
#include "libwmd/cpu/distance_block.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <new>  // bad_alloc
#include <random>
#include <vector>

#include "internal/team.hpp"
#include "libwmd/cpu/blas_threads.hpp"
#include "libwmd/cpu/select_smallest.hpp"
#include "libwmd/embedding_rows.hpp"
#include "support/engine.hpp"
#include "support/instruction_sets.hpp"
#include "support/oracle.hpp"
#include "support/pipelines.hpp"  // nearest_first
#include "support/world.hpp"

namespace talvik::internal {
namespace {

using test::Csr;
using test::World;

struct Limits {
  EngineBudget budget;
  int max_rows;
  int threads = 3;
};

// The block of a world whose resident documents ascend by word, from working memory of exactly the
// sizes that the budget asks for.
std::vector<float> block_within(const Limits& limits, const World& world, int steps,
                                DistanceSource source) {
  const int threads = limits.threads;
  const int voc_size = world.shape.voc_size, m = world.shape.vec_size;
  const Csr resident(world.resident), batch(world.queries);
  std::vector<float> W = world.embeddings, norms(round_up(voc_size, line_floats));
  norm_and_normalise(W.data(), voc_size, m, norms.data(), false, threads);
  const std::vector<float> D = test::ground_matrix(world);

  DistinctRows distinct = find_distinct_rows(batch.ind.data(), sizeof(int), batch.start.data(),
                                             batch.num_docs, limits.max_rows, threads);
  for (const RowPass& pass : distinct.passes) {  // every word at most once
    EXPECT_LE(pass.last_row - pass.first_row, std::min(limits.max_rows, voc_size));
  }
  EXPECT_EQ(distinct.passes.size() == 1, limits.max_rows >= voc_size);
  if (source != DistanceSource::vectors) order_rows(batch.ind.data(), distinct);
  std::vector<float> rows, row_norms;
  for (const int entry : distinct.entry_of_row) {
    const int word = batch.ind[entry];
    rows.insert(rows.end(), &W[word * m], &W[word * m] + m);
    row_norms.push_back(norms[word]);
  }
  const std::vector<RowHash> hashes = hash_rows(W.data(), m * sizeof(float), voc_size, threads);
  const Vocabulary vocabulary{voc_size, m, W.data(), norms.data(), false, hashes};
  const QueryBatch queries{
      batch.num_docs, batch.start.data(), batch.weight.data(), batch.ind.data(),
      &distinct,      rows.data(),        row_norms.data(),    false};
  const BlockRequest request{source,  Metric::euclidean, D.data(), steps, NearestRule::halving,
                             threads, limits.budget};
  const BlockSizes sizes = block_sizes(vocabulary, queries, request);
  const int nearest = nearest_of_batch(queries, steps, NearestRule::halving);
  std::vector<float> panels(sizes.panels), Z(resident.num_docs * batch.num_docs, -1.0f);
  std::vector<std::vector<float>> tables(2 * nearest - 1, std::vector<float>(sizes.table));
  BlockBuffers buffers{panels.data(), {}, {}};
  for (int t = 0; t < 2 * nearest - 1; ++t) {
    (t < nearest ? buffers.distance : buffers.capacity).push_back(tables[t].data());
  }
  compute_distance_block(
      vocabulary,
      {resident.num_docs, resident.start.data(), resident.ind.data(), resident.weight.data()},
      queries, request, buffers, Z.data());
  return Z;
}

TEST(DistanceBlock, IsTheSameUnderEveryBudget) {
  World world = test::crowded_world();
  for (Document& doc : world.resident) std::sort(doc.begin(), doc.end());
  // Documents of up to 12 entries, and one of 40, in passes of 5 and 25 rows: several passes for
  // one document, and several documents for one pass.  The last one has several strips in a panel.
  const EngineBudget tiny{1, 1, 1}, small{3000, 3000, 3000}, wide{30'000, 30'000, 1};
  const Limits all_limits[] = {{tiny, 5},    {small, 5}, {small, 25},
                               {tiny, 1000}, {wide, 25}, {{}, 5, 1}};
  for (const int steps : {0, 1, 2, 7, 15, 20}) {
    const std::vector<double> expected = test::oracle_block(world, steps, test::StepRule::halving);
    for (const DistanceSource source : {DistanceSource::vectors, DistanceSource::ground_of_word,
                                        DistanceSource::ground_of_entry}) {
      for (const Limits& limits : all_limits) {
        SCOPED_TRACE(testing::Message()
                     << "steps " << steps << ", budget " << &limits - all_limits);
        const auto compare = [&] {
          test::expect_near(expected, block_within(limits, world, steps, source));
        };
        &limits == &all_limits[2] ? test::on_every_instruction_set(compare) : compare();
      }
    }
  }
}

// Expects the k first of a full sort in which NaN comes last and equal values keep their order.
void expect_smallest(const std::vector<float>& values, int k) {
  std::vector<int> order = test::nearest_first(values, 0, static_cast<int>(values.size()));
  order.resize(k);
  test::on_every_instruction_set([&] {
    std::vector<Candidate> smallest;
    select_smallest(values.data(), static_cast<int>(values.size()), k, smallest);
    ASSERT_TRUE(std::equal(order.begin(), order.end(), smallest.begin(), smallest.end(),
                           [](int i, const Candidate& found) { return i == found.second; }))
        << values.size() << " values, k " << k;
  });
}

TEST(Selection, MatchesAFullSortForEveryK) {
  std::mt19937 random(3);
  for (const int n : {1, 2, 63, 64, 65, 1000, 5000}) {
    std::vector<float> values(n);
    for (float& v : values) {
      const unsigned drawn = random() % 41;
      v = drawn == 0 ? NAN : drawn == 1 ? INFINITY : drawn;
    }
    if (n == 5000) std::fill_n(values.begin(), 4990, NAN);  // few numbers, late
    for (const int k : {1, 2, 10, 16, 300, n}) expect_smallest(values, std::min(k, n));
  }
  // NaN hides no smaller value of its block, here in the second half of a block.
  for (const int at : {257, 273, 297, 305, 320}) {
    std::vector<float> values(417, 10.0f);
    values[289] = NAN, values[at] = 1;
    expect_smallest(values, 1);
  }
}

TEST(Team, ExceptionOfAThreadReachesTheCaller) {
  for (const int failing : {0, 9}) {
    const auto fail = [&](int first, int last, int) {
      if (first <= failing && failing < last) throw std::bad_alloc();
    };
    EXPECT_THROW(for_each_share(3, 10, fail), std::bad_alloc);
  }
}

TEST(Blas, SettingOfTheHostProgramIsBackAfterwards) {
  if (!openblas_set_num_threads) GTEST_SKIP() << "built without OpenBLAS";
  openblas_set_num_threads(2);
  EXPECT_EQ((SingleThreadedBlas(), openblas_get_num_threads()), 1);  // while the temporary lives
  EXPECT_EQ(openblas_get_num_threads(), 2);
}

}  // namespace
}  // namespace talvik::internal
