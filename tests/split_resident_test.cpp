// Split-resident runs against the definition of the distances: the same result file whatever the
// number of processes.  14 documents: 9 processes get groups of unequal size, some of them empty.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "support/pipelines.hpp"
#include "talvik/pipelines.hpp"

namespace talvik {
namespace {

using internal::Collection;
using internal::RunParameters;

const auto* const environment = testing::AddGlobalTestEnvironment(new test::ProcessGroup);

Collection collection(const DocumentSet& docs, const LabelList& labels) {
  return {docs, labels, static_cast<int>(docs.size()), test::count_entries(docs)};
}

class SplitResident : public testing::Test {
 protected:
  ~SplitResident() override { cleanup_distribution_info(); }

  RunParameters run(int k, int delta_iterations) {
    return {.voc_size = world.shape.voc_size,
            .embeddings = world.embeddings.data(),
            .vec_size = world.shape.vec_size,
            .k = k,
            .delta_iterations = delta_iterations,
            .output_file = path.c_str()};
  }

  // The text of process 0's result file; a file on another process would be its own.
  std::string topk(RunParameters parameters) {
    parameters.compute_topk = true;
    float* untouched = nullptr;
    EXPECT_EQ(internal::split_resident_run(parameters, resident(), queries(), &untouched), 0);
    EXPECT_EQ(untouched, nullptr);
    barrier_mpi();
    return myid == 0 ? test::take_file(path) : "";
  }

  std::string expected_topk(int k, int delta_iterations) const {
    if (myid != 0) return "";
    return test::expected_lines(
        test::expected_distances(world, world.resident, world.queries, delta_iterations), 0,
        static_cast<int>(world.queries.size()), k, world.query_labels, world.resident_labels);
  }

  // This process's rows, compared with the definition.
  void check_matrix(const float* D, int delta_iterations) const {
    const auto expected =
        test::expected_distances(world, world.resident, world.queries, delta_iterations);
    for (int r = 0; r < grp_length[myid]; ++r) {
      for (size_t q = 0; q < expected.size(); ++q) {
        ASSERT_EQ(D[static_cast<size_t>(r) * expected.size() + q],
                  expected[q][static_cast<size_t>(grp_start[myid] + r)]);
      }
    }
  }

  Collection resident() const { return collection(world.resident, world.resident_labels); }
  Collection queries() const { return collection(world.queries, world.query_labels); }

  test::World world = test::with_empty_documents(test::exact_world(11));
  std::string path = test::scratch_path("split.csv");
};

TEST_F(SplitResident, TheResultFileIsThatOfTheDefinition) {
  for (const int delta_iterations : {-1, 0, 1, 2, 4}) {
    EXPECT_EQ(topk(run(5, delta_iterations)), expected_topk(5, delta_iterations))
        << "delta_iterations " << delta_iterations;
  }
}

TEST_F(SplitResident, ListLengthsEndAtNothingAndAtTheWholeCollection) {
  EXPECT_EQ(topk(run(1000, 0)), expected_topk(14, 0));
  EXPECT_EQ(topk(run(0, 0)), "");
  EXPECT_EQ(topk(run(-3, 0)), "");
}

TEST_F(SplitResident, BatchesOfEveryProcessCoverTheSameQueries) {
  test::BatchWatch watch;
  load_balancing(world.resident, 14, test::count_entries(world.resident));
  const int largest_group = *std::max_element(grp_length, grp_length + num_procs);
  RunParameters parameters = run(2, 0);
  parameters.budget_floats = 4LL * std::max(largest_group, 8);  // word vectors: up to 8 an entry
  EXPECT_EQ(topk(parameters), expected_topk(2, 0));

  std::vector<int> batches(watch.seen.num_queries), common = batches;
  ASSERT_GT(batches.size(), 1u);
  broadcast_mpi(common.data(), static_cast<int>(common.size() * sizeof(int)), 0);
  EXPECT_EQ(batches, common);
  int next = 0;
  for (size_t b = 0; b < batches.size(); ++b) {
    EXPECT_EQ(watch.seen.first_query[b], next);
    EXPECT_EQ(watch.seen.end_query[b], 11);
    EXPECT_EQ(watch.seen.k[b], myid == 0 ? 2 : 0);
    next += batches[b];
  }
  EXPECT_EQ(next, 11);
  EXPECT_EQ(watch.seen.neighbours.size(), myid == 0 ? 22u : 0u);

  parameters.budget_floats = 0;  // a query at a time
  EXPECT_EQ(topk(parameters), expected_topk(2, 0));
}

TEST_F(SplitResident, AMatrixHoldsTheRowsOfTheGroupInEveryBatchSize) {
  for (const long long budget : {0LL, 45LL, internal::batch_budget_floats}) {
    RunParameters parameters = run(3, 1);
    parameters.budget_floats = budget;
    float* D = nullptr;
    EXPECT_EQ(internal::split_resident_run(parameters, resident(), queries(), &D), 0);
    const test::OwnedMatrix owner(D);
    check_matrix(D, 1);
  }
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(SplitResident, ALoadedCollectionAnswersSeveralQueryCollections) {
  test::World untouched = world;
  auto& w = world;
  EXPECT_EQ(rwmd2_parallel_init(w.shape.voc_size, w.embeddings.data(), w.shape.vec_size, false,
                                w.resident, w.resident_labels, 14, test::count_entries(w.resident),
                                false),
            0);
  EXPECT_EQ(w.resident, untouched.resident);
  for (const int first : {0, 4}) {
    w.queries.assign(untouched.queries.begin() + first, untouched.queries.end());
    float* D = nullptr;
    const int num_queries = static_cast<int>(w.queries.size());
    EXPECT_EQ(rwmd2_parallel_query(w.embeddings.data(), w.shape.vec_size, 1, 0, false, 14, {},
                                   w.queries, {}, num_queries, test::count_entries(w.queries), &D,
                                   false, nullptr, false),
              grp_length[myid] * num_queries * 4);
    const test::OwnedMatrix owner(D);
    check_matrix(D, 0);
  }
  EXPECT_EQ(rwmd2_parallel_cleanup(false, false), 0);
}

TEST_F(SplitResident, AnEmptyQueryDocumentIsFarFromAllAndStillGetsItsNeighbours) {
  world.queries[2].clear();
  test::BatchWatch watch;
  topk(run(14, 0));
  if (myid != 0) return;
  std::vector<int> neighbours(&watch.seen.neighbours[28], &watch.seen.neighbours[28] + 14);
  for (size_t j = 0; j < 14; ++j) {
    double weight = 0;
    for (const auto& entry : world.resident[static_cast<size_t>(neighbours[j])]) {
      weight += entry.second;
    }
    EXPECT_NEAR(watch.seen.distances[28 + j], 1e30 * weight, 1e24 * weight);
  }
  std::sort(neighbours.begin(), neighbours.end());
  for (int i = 0; i < 14; ++i) EXPECT_EQ(neighbours[static_cast<size_t>(i)], i);
}

TEST_F(SplitResident, EmptyCollectionsGiveEmptyResults) {
  const test::World whole = world;
  world.queries.clear();
  EXPECT_EQ(topk(run(3, 0)), "");
  world.queries.assign(11, {});  // a batch without entries
  topk(run(3, 2));
  cleanup_distribution_info();
  world = whole;
  world.resident.clear();
  EXPECT_EQ(topk(run(3, 0)), "");
  float* D = nullptr;
  EXPECT_EQ(internal::split_resident_run(run(3, 0), resident(), queries(), &D), 0);
  std::free(D);
}

}  // namespace
}  // namespace talvik
