// The pipelines on either engine against the definition of the distances: the same files and
// matrices whatever the number of processes and the size of the batches.  14 documents are split: 9
// processes get groups of unequal size, some of them empty.
#include "support/pipelines.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "support/device.hpp"
#include "talvik/pipelines.hpp"

namespace talvik {
namespace {

using internal::LabelledDocuments;
using internal::RunParameters;
using test::Matrix;

const auto* const environment = testing::AddGlobalTestEnvironment(new test::ProcessGroup);

// The rows of this process's group.
std::vector<float> own_rows(const Matrix& distances) {
  std::vector<float> rows;
  for (int r = grp_start[myid]; r < grp_start[myid] + grp_length[myid]; ++r) {
    const auto& row = distances[static_cast<size_t>(r)];
    rows.insert(rows.end(), row.begin(), row.end());
  }
  return rows;
}

std::vector<float> own_rows(const float* D, size_t columns) {
  const test::OwnedMatrix owner(const_cast<float*>(D));
  return {D, D + static_cast<size_t>(grp_length[myid]) * columns};
}

Matrix transposed(const Matrix& rows) {
  Matrix columns(rows.at(0).size());
  for (const auto& row : rows) {
    for (size_t i = 0; i < row.size(); ++i) columns[i].push_back(row[i]);
  }
  return columns;
}

// On the CPU engine and, with true, on the GPU engine.
class Pipelines : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    test::set_devices(num_procs);
    if (use_gpu && count_gpu_devices() == 0) GTEST_SKIP() << "no GPU";
  }
  ~Pipelines() override {
    cleanup_distribution_info();
    EXPECT_TRUE(test::nothing_is_held());
    test::set_devices(1);
  }

  RunParameters run(int k, int steps, bool compute_topk) {
    return {.voc_size = world.shape.voc_size,
            .embeddings = world.embeddings.data(),
            .vec_size = world.shape.vec_size,
            .k = k,
            .delta_iterations = steps,
            .compute_topk = compute_topk,
            .output_file = path.c_str(),
            .use_gpu = use_gpu};
  }
  static LabelledDocuments collection(const DocumentSet& docs, const LabelList& labels) {
    return {docs, labels, static_cast<int>(docs.size()), test::count_entries(docs)};
  }
  LabelledDocuments resident() const { return collection(world.resident, world.resident_labels); }
  LabelledDocuments queries() const { return collection(world.queries, world.query_labels); }

  Matrix expected(int steps) const {
    return test::expected_distances(world, world.resident, world.queries, steps, use_gpu);
  }

  // The text of process 0's result file.
  std::string split_lists(const RunParameters& parameters) const {
    float* untouched = nullptr;
    EXPECT_EQ(internal::split_resident_run(parameters, resident(), queries(), &untouched), 0);
    EXPECT_EQ(untouched, nullptr);
    barrier_mpi();
    return myid == 0 ? test::take_file(path) : "";
  }
  std::string expected_split_lists(int k, int steps) const {
    if (myid != 0) return "";
    return test::expected_lines(expected(steps), 0, static_cast<int>(world.queries.size()), k,
                                world.query_labels, world.resident_labels);
  }
  std::vector<float> split_matrix(const RunParameters& parameters) const {
    float* D = nullptr;
    EXPECT_EQ(internal::split_resident_run(parameters, resident(), queries(), &D), 0);
    return own_rows(D, world.queries.size());
  }

  std::string take_own_file() const {
    return test::take_file(path + ".thread" + std::to_string(local_id) + "-" +
                           std::to_string(myid));
  }
  static std::string own_lines(const Matrix& distances, int k, const LabelList& rows,
                               const LabelList& columns) {
    return test::expected_lines(distances, grp_start[myid], grp_length[myid], k, rows, columns);
  }

  const bool use_gpu = GetParam();
  test::World world = test::with_empty_documents(test::exact_world(11));
  const std::string path = test::scratch_path("out.csv");
};

INSTANTIATE_TEST_SUITE_P(Engines, Pipelines, testing::Bool());

TEST_P(Pipelines, SplitResidentGivesTheListsAndTheRowsOfTheDefinition) {
  // More than one step costs the address sanitizer a second each: few runs ask for them.
  for (const int steps : {0, 1, 4}) {
    SCOPED_TRACE(steps);
    if (steps < 2) {
      EXPECT_EQ(split_lists(run(5, steps, true)), expected_split_lists(5, steps));
    }
    EXPECT_EQ(split_matrix(run(5, steps, false)), own_rows(transposed(expected(steps))));
    EXPECT_FALSE(myid == 0 && std::filesystem::exists(path));
  }
  EXPECT_EQ(split_lists(run(1000, 0, true)), expected_split_lists(14, 0));
  EXPECT_EQ(split_lists(run(0, 0, true)), "");
  EXPECT_EQ(split_lists(run(-3, 0, true)), "");
}

TEST_P(Pipelines, SplitResidentBatchesOfEveryProcessCoverTheSameQueries) {
  // One long document: groups of very different numbers of documents.
  for (unsigned word = 0; word < 50; ++word) world.resident[0].emplace_back(word, 0.125f);
  load_balancing(world.resident, 14, test::count_entries(world.resident));
  const int largest_group = *std::max_element(grp_length, grp_length + num_procs);
  for (const long long budget : {0LL, 4LL * std::max(largest_group, 8)}) {  // 1 and some queries
    const test::BatchWatch watch;
    RunParameters parameters = run(2, 0, true);
    parameters.budget_floats = budget;
    EXPECT_EQ(split_lists(parameters), expected_split_lists(2, 0));
    std::vector<int> batches;
    for (const BatchResult& batch : watch.batches) batches.push_back(batch.num_queries);
    std::vector<int> common = batches;
    ASSERT_GT(batches.size(), 1u);
    broadcast_mpi(common.data(), static_cast<int>(common.size() * sizeof(int)), 0);
    EXPECT_EQ(batches, common);
    watch.expect_batches(0, 11, myid == 0 ? 2 : 0);
    parameters.compute_topk = false;
    EXPECT_EQ(split_matrix(parameters), own_rows(transposed(expected(0))));
  }
}

TEST_P(Pipelines, ALoadedCollectionAnswersSeveralQueryCollections) {
  test::World& w = world;
  const test::World whole = w;
  const int released = use_gpu ? 1 : 0;
  EXPECT_EQ(rwmd2_parallel_init(50, w.embeddings.data(), 1, false, w.resident, w.resident_labels,
                                14, test::count_entries(w.resident), use_gpu),
            released);
  EXPECT_EQ(w.resident, whole.resident);
  if (use_gpu) {
    EXPECT_EQ(dev_id, local_id);
    if (test::device_is_emulated) {
      EXPECT_EQ(test::device_in_use(), local_id);
    }
  }
  for (const int first : {0, 4}) {
    w.queries.assign(whole.queries.begin() + first, whole.queries.end());
    float* D = nullptr;
    const int num_queries = static_cast<int>(w.queries.size());
    EXPECT_EQ(rwmd2_parallel_query(w.embeddings.data(), 1, 1, 1, false, 14, {}, w.queries, {},
                                   num_queries, test::count_entries(w.queries), &D, false, nullptr,
                                   use_gpu),
              grp_length[myid] * num_queries * 4);
    EXPECT_EQ(own_rows(D, w.queries.size()), own_rows(transposed(expected(1))));
  }
  EXPECT_EQ(rwmd2_parallel_cleanup(use_gpu, false), released);
  // With ground distances no vocabulary is loaded or released.
  EXPECT_EQ(rwmd2_scaleout_init(0, nullptr, 0, true, w.resident, w.resident_labels, 14,
                                test::count_entries(w.resident), use_gpu),
            released);
  EXPECT_EQ(rwmd2_scaleout_cleanup(use_gpu, true), released);
}

TEST_P(Pipelines, ScaleOutKeepsTheLargerValueAndRanksByIt) {
  load_balancing(world.queries, 11, test::count_entries(world.queries));
  const int first = grp_start[myid], count = grp_length[myid];
  for (const int steps : {0, 1}) {
    for (const bool over_zeros : {true, false}) {
      Matrix larger = expected(steps), before = larger;
      for (size_t q = 0; q < larger.size(); ++q) {
        for (size_t i = 0; i < larger[q].size(); ++i) {
          before[q][i] = over_zeros ? 0.f : static_cast<float>((q + 3 * i) % 5);
          larger[q][i] = std::max(larger[q][i], before[q][i]);
        }
      }
      for (const long long budget : {0LL, 60LL, internal::batch_budget_floats}) {
        const test::BatchWatch watch;
        RunParameters parameters = run(4, steps, true);
        parameters.budget_floats = budget;
        std::vector<float> D_max = own_rows(before);
        internal::scale_out_run(parameters, resident(), queries(), D_max.data());
        EXPECT_EQ(take_own_file(), own_lines(larger, 4, world.query_labels, world.resident_labels));
        EXPECT_EQ(D_max, own_rows(larger));
        watch.expect_batches(first, count, 4);
      }
    }
  }
  std::vector<float> D_max(static_cast<size_t>(count) * 14);
  internal::scale_out_run(run(4, 0, false), resident(), queries(), D_max.data());
  EXPECT_EQ(D_max, own_rows(expected(0)));
  EXPECT_EQ(take_own_file(), "(no file)");
}

using TwoWay = int (*)(int, float*, int, int, int, DocumentSet, LabelList, DocumentSet, LabelList,
                       float**, bool, const char*, bool);

// Words that stand in either collection.
size_t words_in_use(const test::World& world) {
  std::set<unsigned> words;
  for (const DocumentSet* docs : {&world.resident, &world.queries}) {
    for (const Document& doc : *docs) {
      for (const auto& entry : doc) words.insert(entry.first);
    }
  }
  return words.size();
}

TEST_P(Pipelines, TwoWayKeepsTheLargerDirectionInTheMatrixAndTheLists) {
  for (const TwoWay function : {rwmd2_twoway_wrapper, remd2_twoway_wrapper}) {
    const bool ground = function == remd2_twoway_wrapper;
    for (const int steps : {0, ground ? 2 : 1}) {
      world = test::exact_world(3 + steps);  // every run drops the split of the one before
      float* D = nullptr;
      testing::internal::CaptureStdout();
      EXPECT_EQ(
          function(50, world.embeddings.data(), 1, 3, steps, world.resident, world.resident_labels,
                   world.queries, world.query_labels, &D, true, path.c_str(), use_gpu),
          1);
      EXPECT_EQ(testing::internal::GetCapturedStdout(),
                ground ? "Compressed vocabulary. Vocabulary size = " +
                             std::to_string(words_in_use(world)) + "\n"
                       : "");
      EXPECT_LT(words_in_use(world), 50u);
      const Matrix larger = test::expected_two_way(world, steps, use_gpu);
      EXPECT_EQ(own_rows(D, 11), own_rows(larger));
      EXPECT_EQ(take_own_file(), own_lines(larger, 3, world.resident_labels, world.query_labels));
    }
  }
}

TEST_P(Pipelines, AGroundMatrixOfTheCallersIsReadAsItIs) {
  world = test::exact_world(6);
  // Every word 2 apart: the distance is twice the larger total weight of the pair.
  const auto total = [](const Document& doc) {
    float weight = 0;
    for (const auto& entry : doc) weight += entry.second;
    return weight;
  };
  for (const float apart : {0.f, 2.f}) {
    std::vector<float> ground(2500, apart);
    Matrix expected;
    for (const Document& doc : world.resident) {
      auto& row = expected.emplace_back();
      for (const Document& query : world.queries) {
        row.push_back(apart * std::max(total(doc), total(query)));
      }
    }
    float* D = nullptr;
    EXPECT_EQ(remd2_twoway_ground(50, ground.data(), 3, 0, world.resident, world.resident_labels,
                                  world.queries, world.query_labels, &D, false, nullptr, use_gpu),
              1);
    EXPECT_EQ(own_rows(D, 11), own_rows(expected));
  }
}

TEST_P(Pipelines, EmptyCollectionsGiveEmptyResults) {
  const test::World whole = world;
  const auto two_way = [&](TwoWay function) {
    float* D = nullptr;
    function(50, world.embeddings.data(), 1, 3, 1, world.resident, world.resident_labels,
             world.queries, world.query_labels, &D, true, path.c_str(), use_gpu);
    EXPECT_TRUE(own_rows(D, world.queries.size()).empty());
    EXPECT_EQ(take_own_file(), "");
    cleanup_distribution_info();
  };
  for (const bool queries_too : {false, true}) {
    (queries_too ? world.queries : world.resident).clear();
    EXPECT_EQ(split_lists(run(3, 0, true)), "");
    cleanup_distribution_info();
    internal::scale_out_run(run(3, 0, true), resident(), queries(), nullptr);
    EXPECT_EQ(take_own_file(), "");
    two_way(rwmd2_twoway_wrapper);
    two_way(remd2_twoway_wrapper);
    world = whole;
  }
  world.queries.assign(11, {});  // a batch without entries
  split_lists(run(3, 1, true));
}

}  // namespace
}  // namespace talvik
