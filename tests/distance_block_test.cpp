// The block computation under budgets so small that every loop over tiles, windows, groups and
// passes runs, and the pieces below it.
#include "libwmd/cpu/distance_block.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <new>  // bad_alloc
#include <random>
#include <set>
#include <vector>

#include "internal/team.hpp"
#include "libwmd/cpu/blas_threads.hpp"
#include "libwmd/cpu/select_smallest.hpp"
#include "support/engine.hpp"
#include "support/instruction_sets.hpp"
#include "support/oracle.hpp"
#include "support/world.hpp"

namespace talvik::internal {
namespace {

using test::Csr;
using test::csr_of;
using test::World;

// The rows of a batch's entries, one after the other.
std::vector<float> entry_rows(const World& world, const Csr& batch) {
  const size_t m = static_cast<size_t>(world.shape.vec_size);
  std::vector<float> rows;
  for (const int word : batch.ind) {
    const float* row = world.embeddings.data() + static_cast<size_t>(word) * m;
    rows.insert(rows.end(), row, row + m);
  }
  return rows;
}

void expect_block(const World& world, const std::vector<double>& expected, int steps, int max_rows,
                  const EngineBudget& budget, DistanceSource source) {
  const Csr resident = csr_of(world.resident);
  Csr batch = csr_of(world.queries);
  const int m = world.shape.vec_size;
  const int threads = 3;
  std::vector<float> X = entry_rows(world, batch);
  std::vector<float> norms(static_cast<size_t>(world.shape.voc_size + line_floats));
  const auto norm = [m](const float* row) {
    float sum = 0;
    for (int j = 0; j < m; ++j) sum += row[j] * row[j];
    return sum;
  };
  for (int v = 0; v < world.shape.voc_size; ++v) norms[v] = norm(&world.embeddings[v * m]);
  std::vector<float> D(static_cast<size_t>(world.shape.voc_size * world.shape.voc_size));
  for (int u = 0; u < world.shape.voc_size; ++u) {
    for (int v = 0; v < world.shape.voc_size; ++v) {
      D[u * world.shape.voc_size + v] =
          static_cast<float>(test::oracle_word_distance(world.embeddings.data(), m, u, v));
    }
  }

  DistinctRows distinct =
      find_distinct_rows(X.data(), m * sizeof(float), batch.start.data(),
                         static_cast<int>(world.queries.size()), max_rows, threads);
  if (source != DistanceSource::vectors) order_rows(batch.ind.data(), distinct);
  std::vector<float> rows, row_norms;
  for (const int entry : distinct.entry_of_row) {
    rows.insert(rows.end(), &X[entry * m], &X[entry * m] + m);
    row_norms.push_back(norm(&X[entry * m]));
  }
  const Vocabulary vocabulary{world.shape.voc_size, m, world.embeddings.data(), norms.data()};
  const QueryBatch queries{static_cast<int>(world.queries.size()),
                           batch.start.data(),
                           batch.weight.data(),
                           batch.ind.data(),
                           &distinct,
                           rows.data(),
                           row_norms.data()};
  const BlockRequest request{
      source, Metric::euclidean, D.data(), steps, NearestRule::halving, threads, budget};
  const BlockSizes sizes = block_sizes(vocabulary, queries, request);
  const int nearest = nearest_of_batch(queries, steps, NearestRule::halving);
  std::vector<float> panels(static_cast<size_t>(sizes.panels));
  std::vector<std::vector<float>> tables(static_cast<size_t>(2 * nearest - 1),
                                         std::vector<float>(static_cast<size_t>(sizes.table)));
  BlockBuffers buffers{panels.data(), {}, {}};
  for (int t = 0; t < nearest; ++t) buffers.distance.push_back(tables[t].data());
  for (int t = nearest; t < 2 * nearest - 1; ++t) buffers.capacity.push_back(tables[t].data());
  test::on_every_instruction_set([&] {
    std::vector<float> Z(expected.size(), -1.0f);
    compute_distance_block(vocabulary,
                           {static_cast<int>(world.resident.size()), resident.start.data(),
                            resident.ind.data(), resident.weight.data()},
                           queries, request, buffers, Z.data());
    SCOPED_TRACE("steps " + std::to_string(steps) + ", rows " + std::to_string(max_rows));
    test::expect_near(expected, Z, world.resident.size());
  });
}

// A world whose resident documents ascend by word, as the block computation wants them.
World sorted_world(unsigned seed) {
  World world = test::random_world({.seed = seed,
                                    .voc_size = 101,
                                    .num_resident = 35,
                                    .num_queries = 90,
                                    .min_words = 0,
                                    .max_words = 30,
                                    .repeated_words = true});
  for (Document& doc : world.resident) std::sort(doc.begin(), doc.end());
  return world;
}

TEST(DistanceBlock, IsTheSameUnderEveryBudget) {
  const World world = sorted_world(11);
  const EngineBudget tiny{1, 1, 1}, small{3000, 3000, 3000};
  for (const int steps : {0, 1, 2, 7, 15, 20}) {
    const std::vector<double> expected = test::oracle_block(world, steps, test::StepRule::halving);
    for (const DistanceSource source : {DistanceSource::vectors, DistanceSource::ground_of_word,
                                        DistanceSource::ground_of_entry}) {
      // Documents of up to 30 entries in passes of 5 and 25 rows: several passes for one document,
      // and several documents for one pass.
      expect_block(world, expected, steps, 5, tiny, source);
      expect_block(world, expected, steps, 5, small, source);
      expect_block(world, expected, steps, 25, small, source);
      expect_block(world, expected, steps, 1000, tiny, source);
    }
  }
}

TEST(DistinctRows, PassesHoldNoMoreRowsThanMayBeAndSeveralPassesOneDocument) {
  const World world = sorted_world(12);
  const Csr batch = csr_of(world.queries);
  const int num_docs = static_cast<int>(world.queries.size());
  for (const int max_rows : {1, 7, 40, 100000}) {
    const DistinctRows found = find_distinct_rows(batch.ind.data(), sizeof(int), batch.start.data(),
                                                  num_docs, max_rows, 2);
    EXPECT_EQ(found.passes.size() == 1, max_rows == 100000);
    for (const BatchSection& group : found.sections) {
      const bool several_passes = group.last_pass - group.first_pass > 1;
      EXPECT_FALSE(several_passes && group.last_doc - group.first_doc > 1);
    }
    for (const RowPass& pass : found.passes) {
      EXPECT_LE(pass.last_row - pass.first_row, max_rows);
      std::set<int> words;
      for (int r = pass.first_row; r < pass.last_row; ++r) {
        EXPECT_TRUE(words.insert(batch.ind[found.entry_of_row[r]]).second);
      }
      for (int e = pass.first_entry; e < pass.last_entry; ++e) {
        ASSERT_EQ(batch.ind[e],
                  batch.ind[found.entry_of_row[pass.first_row + found.row_of_entry[e]]]);
      }
    }
  }
}

TEST(Selection, MatchesAFullSortForEveryK) {
  std::mt19937 random(3);
  std::uniform_int_distribution<int> few_values(0, 40);
  for (const int n : {1, 2, 63, 64, 65, 1000, 5000}) {
    std::vector<float> values(static_cast<size_t>(n));
    for (float& v : values) {
      const int drawn = few_values(random);
      v = drawn == 0 ? NAN : drawn == 1 ? INFINITY : static_cast<float>(drawn);
    }
    if (n == 5000) std::fill(values.begin(), values.begin() + 4990, NAN);  // few numbers, late
    std::vector<Candidate> sorted, smallest;
    for (int i = 0; i < n; ++i) sorted.emplace_back(values[i], i);
    std::stable_sort(sorted.begin(), sorted.end(), [](const Candidate& a, const Candidate& b) {
      return std::isnan(b.first) ? !std::isnan(a.first) : a.first < b.first;
    });
    for (const int k : {1, 2, 10, 16, 300, n}) {
      if (k > n) continue;
      test::on_every_instruction_set([&] {
        select_smallest(values.data(), n, k, smallest);
        ASSERT_EQ(static_cast<int>(smallest.size()), k);
        for (int j = 0; j < k; ++j)
          ASSERT_EQ(smallest[j].second, sorted[j].second) << n << " " << k;
      });
    }
  }
}

TEST(Selection, NaNHidesNoSmallerValueOfItsBlock) {
  const int first = 257 + 32;  // of the second half of a block, behind what is taken at once
  for (const int distance : {8, 16, 32 - 1, -16, -32}) {
    std::vector<float> values(first + 128, 10.0f);
    values[first] = NAN;
    values[first + distance] = 1;
    test::on_every_instruction_set([&] {
      std::vector<Candidate> smallest;
      select_smallest(values.data(), static_cast<int>(values.size()), 1, smallest);
      EXPECT_EQ(smallest.at(0).second, first + distance);
    });
  }
}

TEST(Partition, ExceptionOfAThreadReachesTheCaller) {
  const auto fail_at = [](int item) {
    for_each_share(3, 10, [item](int first, int last, int) {
      if (first <= item && item < last) throw std::bad_alloc();
    });
  };
  EXPECT_NO_THROW(fail_at(10));
  EXPECT_THROW(fail_at(0), std::bad_alloc);
  EXPECT_THROW(fail_at(9), std::bad_alloc);
}

TEST(Blas, SettingOfTheHostProgramIsBackAfterwards) {
  if (!openblas_set_num_threads) GTEST_SKIP() << "built without OpenBLAS";
  openblas_set_num_threads(2);
  {
    const SingleThreadedBlas single;
    EXPECT_EQ(openblas_get_num_threads(), 1);
  }
  EXPECT_EQ(openblas_get_num_threads(), 2);
}

}  // namespace
}  // namespace talvik::internal
