// Scale-out runs: every process answers its own queries into its own file and matrix.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/pipelines.hpp"
#include "talvik/pipelines.hpp"

namespace talvik {
namespace {

const auto* const environment = testing::AddGlobalTestEnvironment(new test::ProcessGroup);

class ScaleOut : public testing::Test {
 protected:
  ScaleOut() {
    entries = test::count_entries(world.queries);
    load_balancing(world.queries, 11, entries);
    first = grp_start[myid], count = grp_length[myid];
    D_max.assign(static_cast<size_t>(count) * 14, 0);
  }
  ~ScaleOut() override { cleanup_distribution_info(); }

  // Runs the whole wrapper; the result is the text of this process's own file.
  std::string run(int k, int delta_iterations, bool compute_topk) {
    EXPECT_EQ(rwmd2_scaleout_wrapper(
                  world.shape.voc_size, world.embeddings.data(), world.shape.vec_size, k,
                  delta_iterations, false, world.resident, world.resident_labels, 14,
                  test::count_entries(world.resident), world.queries, world.query_labels, 11,
                  entries, D_max.data(), compute_topk, path.c_str(), false),
              0);
    return take_own_file();
  }

  std::string take_own_file() const {
    return test::take_file(path + ".thread" + std::to_string(local_id) + "-" +
                           std::to_string(myid));
  }

  std::string expected_file(const test::Matrix& distances, int k) const {
    return test::expected_lines(distances, first, count, k, world.query_labels,
                                world.resident_labels);
  }

  std::vector<float> own_rows(const test::Matrix& distances) const {
    std::vector<float> rows;
    for (int q = first; q < first + count; ++q) {
      const auto& row = distances[static_cast<size_t>(q)];
      rows.insert(rows.end(), row.begin(), row.end());
    }
    return rows;
  }

  test::Matrix expected(int delta_iterations) const {
    return test::expected_distances(world, world.resident, world.queries, delta_iterations);
  }

  test::World world = test::with_empty_documents(test::exact_world(23));
  std::string path = test::scratch_path("out.csv");
  int entries = 0, first = 0, count = 0;
  std::vector<float> D_max;
};

TEST_F(ScaleOut, OverZerosItIsAPlainQuery) {
  for (const int delta_iterations : {0, 1, 3}) {
    std::fill(D_max.begin(), D_max.end(), 0.f);
    EXPECT_EQ(run(4, delta_iterations, true), expected_file(expected(delta_iterations), 4));
    EXPECT_EQ(D_max, own_rows(expected(delta_iterations)));
  }
}

TEST_F(ScaleOut, NeighboursRankByTheLargerValue) {
  test::Matrix larger = expected(0), before = larger;
  for (size_t q = 0; q < larger.size(); ++q) {
    for (size_t i = 0; i < larger[q].size(); ++i) {
      before[q][i] = static_cast<float>((q + 3 * i) % 5);
      larger[q][i] = std::max(larger[q][i], before[q][i]);
    }
  }
  D_max = own_rows(before);
  EXPECT_EQ(run(100, 0, true), expected_file(larger, 14));
  EXPECT_EQ(D_max, own_rows(larger));
}

TEST_F(ScaleOut, WithoutListsThereIsNoFile) {
  EXPECT_EQ(run(4, 0, false), "(no file)");
  EXPECT_EQ(D_max, own_rows(expected(0)));
  EXPECT_EQ(run(0, 0, true), "");
}

TEST_F(ScaleOut, SmallBatchesGiveTheSameAndReportTheirLists) {
  test::BatchWatch watch;
  for (const long long budget : {0LL, 60LL}) {
    watch.seen = {};
    std::fill(D_max.begin(), D_max.end(), 0.f);
    internal::scale_out_run(
        {.voc_size = world.shape.voc_size,
         .embeddings = world.embeddings.data(),
         .vec_size = world.shape.vec_size,
         .k = 2,
         .compute_topk = true,
         .output_file = path.c_str(),
         .budget_floats = budget},
        {world.resident, world.resident_labels, 14, test::count_entries(world.resident)},
        {world.queries, world.query_labels, 11, entries}, D_max.data());
    EXPECT_EQ(take_own_file(), expected_file(expected(0), 2));
    EXPECT_EQ(watch.seen.neighbours.size(), 2 * static_cast<size_t>(count));
    int next = first;
    for (size_t b = 0; b < watch.seen.k.size(); ++b) {
      EXPECT_EQ(watch.seen.first_query[b], next);
      EXPECT_EQ(watch.seen.end_query[b], first + count);
      EXPECT_EQ(watch.seen.k[b], 2);
      EXPECT_LE(watch.seen.num_queries[b], budget == 0 ? 1 : 4);
      next += watch.seen.num_queries[b];
    }
    EXPECT_EQ(next, first + count);
  }
}

TEST_F(ScaleOut, SplitsTheQueriesItselfAndAcceptsEmptyCollections) {
  cleanup_distribution_info();
  EXPECT_EQ(run(4, 0, true), expected_file(expected(0), 4));
  EXPECT_EQ(grp_length[myid], count);

  EXPECT_EQ(rwmd2_scaleout_init(50, world.embeddings.data(), 1, false, {}, {}, 0, 0, false), 0);
  EXPECT_EQ(
      rwmd2_scaleout_query(world.embeddings.data(), 1, 3, 0, false, 0, {}, world.queries,
                           world.query_labels, 11, entries, nullptr, true, path.c_str(), false),
      0);
  EXPECT_EQ(take_own_file(), "");
  cleanup_distribution_info();
  EXPECT_EQ(rwmd2_scaleout_query(world.embeddings.data(), 1, 3, 0, false, 0, {}, {}, {}, 0, 0,
                                 nullptr, true, path.c_str(), false),
            0);
  EXPECT_EQ(take_own_file(), "");
  EXPECT_EQ(rwmd2_scaleout_cleanup(false, false), 0);
}

}  // namespace
}  // namespace talvik
