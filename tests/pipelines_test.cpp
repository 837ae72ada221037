// The pipelines on either engine against the definition of the distances: the same files and
// matrices whatever the number of processes and the size of the batches.  14 documents are split: 9
// processes get groups of unequal size, some of them empty.  More than one capacity step costs the
// CPU engine a second under the address sanitizer, so one run asks for them.
#include "support/pipelines.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/allocations.hpp"
#include "support/device.hpp"
#include "support/output.hpp"
#include "talvik/pipelines.hpp"

namespace talvik {
namespace {

using internal::LabelledDocuments;
using internal::RunParameters;
using test::Matrix;

const auto* const environment = testing::AddGlobalTestEnvironment(new test::ProcessGroup);

// D holds the rows of this process's group.
void expect_own_rows(const float* D, const Matrix& distances) {
  for (int r = grp_start[myid]; r < grp_start[myid] + grp_length[myid]; ++r) {
    for (const float distance : distances[r]) ASSERT_EQ(*D++, distance) << "row " << r;
  }
}

Matrix larger_of(Matrix a, const Matrix& b) {
  for (size_t r = 0; r < a.size(); ++r) {
    for (size_t c = 0; c < a[r].size(); ++c) a[r][c] = std::max(a[r][c], b[r][c]);
  }
  return a;
}

// Runs the code, whose batches must be queries first .. first + count - 1 in their order, with
// lists of k.  Returns the number of batches.
int expect_batches(int first, int count, int k, const std::function<void()>& code) {
  std::vector<BatchResult> batches;  // their lists are gone
  batch_finished_context = &batches;
  batch_finished = [](const BatchResult& batch, void* context) {
    static_cast<std::vector<BatchResult>*>(context)->push_back(batch);
    EXPECT_TRUE(std::is_sorted(batch.distances, batch.distances + batch.k));  // none with k = 0
  };
  code();
  batch_finished = nullptr;
  int next = first;
  for (const BatchResult& batch : batches) {
    EXPECT_EQ(std::tuple(batch.first_query, batch.end_query, batch.k, batch.neighbours != nullptr),
              std::tuple(next, first + count, k, k > 0));
    next += batch.num_queries;
  }
  EXPECT_EQ(next, first + count);
  return static_cast<int>(batches.size());
}

enum class TwoWay { plain, compressed, ground };
constexpr TwoWay every_form[] = {TwoWay::plain, TwoWay::compressed, TwoWay::ground};

// On the CPU engine and, with true, on the GPU engine.
class Pipelines : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    test::set_devices(num_procs);
    if (use_gpu && count_gpu_devices() == 0) GTEST_SKIP() << "no GPU";
    world.resident.at(3).clear();
    world.resident.at(13).clear();
  }
  ~Pipelines() override {
    use_cosine = false;
    cleanup_distribution_info();
    EXPECT_TRUE(test::nothing_is_held());
  }

  RunParameters run(int k, int steps, bool compute_topk = true,
                    long long budget = internal::batch_budget_floats) {
    return {.voc_size = 50,
            .embeddings = world.embeddings.data(),
            .vec_size = 1,
            .k = k,
            .delta_iterations = steps,
            .compute_topk = compute_topk,
            .output_file = path.c_str(),
            .use_gpu = use_gpu,
            .budget_floats = budget};
  }
  LabelledDocuments resident() const {
    return internal::counted(world.resident, world.resident_labels);
  }
  LabelledDocuments queries() const { return internal::counted(world.queries, world.query_labels); }

  Matrix expected(int steps, bool by_resident = false) const {
    return test::expected_distances(world, world.resident, world.queries, steps, use_gpu,
                                    by_resident);
  }

  // Process 0's lists and every process's rows.
  void expect_split(RunParameters parameters) const {
    const int steps = parameters.delta_iterations;
    float* D = nullptr;
    EXPECT_EQ(internal::split_resident_run(parameters, resident(), queries(), &D), 0);
    EXPECT_EQ(D, nullptr);
    barrier_mpi();
    EXPECT_EQ(myid == 0 ? test::take_file(path) : "",
              test::expected_lines(expected(steps), 0, myid == 0 ? queries().num_docs : 0,
                                   parameters.k, world.query_labels, world.resident_labels));
    parameters.compute_topk = false;
    EXPECT_EQ(internal::split_resident_run(parameters, resident(), queries(), &D), 0);
    expect_own_rows(D, expected(steps, true));
    std::free(D);
    EXPECT_FALSE(myid == 0 && std::filesystem::exists(path));
  }

  // This process's own result file: lists of 4 over the rows of its group.
  void expect_own_lists(const Matrix& distances, const LabelList& rows,
                        const LabelList& columns) const {
    EXPECT_EQ(test::take_file(own_path()),
              test::expected_lines(distances, grp_start[myid], grp_length[myid], 4, rows, columns));
  }
  std::string own_path() const {
    return path + ".thread" + std::to_string(local_id) + "-" + std::to_string(myid);
  }

  // A two-way run of one step by a public function, and what it prints.
  std::string two_way(TwoWay form, float** D, int allocations = -1) {
    const auto call = [&](auto function, auto... vocabulary) {
      return test::printed_by([&] {
        allocations_left = allocations;
        EXPECT_EQ(function(50, vocabulary..., 4, 1, world.resident, world.resident_labels,
                           world.queries, world.query_labels, D, true, path.c_str(), use_gpu),
                  1);
        allocations_left = -1;
      });
    };
    if (form == TwoWay::plain) return call(rwmd2_twoway_wrapper, world.embeddings.data(), 1);
    if (form == TwoWay::compressed) return call(remd2_twoway_wrapper, world.embeddings.data(), 1);
    std::vector<float> ground;
    for (unsigned pair = 0; pair < 2500; ++pair) {
      ground.push_back(test::oracle_word_distance(world.embeddings, 1, pair / 50, pair % 50));
    }
    return call(remd2_twoway_ground, ground.data());
  }
  void expect_two_way(TwoWay form) {
    std::set<unsigned> words;
    for (const DocumentSet* docs : {&world.resident, &world.queries}) {
      for (const Document& doc : *docs) {
        for (const auto& entry : doc) words.insert(entry.first);
      }
    }
    const std::string line =
        "Compressed vocabulary. Vocabulary size = " + std::to_string(words.size()) + "\n";
    float* D = nullptr;
    EXPECT_EQ(two_way(form, &D), form == TwoWay::compressed ? line : "");
    const Matrix larger =
        larger_of(test::expected_distances(world, world.queries, world.resident, 1, use_gpu),
                  expected(1, true));
    expect_own_rows(D, larger);
    std::free(D);
    expect_own_lists(larger, world.resident_labels, world.query_labels);
  }

  const bool use_gpu = GetParam();
  test::World world = test::exact_world(11);
  const std::string path = test::scratch_path("out.csv");
};

INSTANTIATE_TEST_SUITE_P(Engines, Pipelines, testing::Bool());

TEST_P(Pipelines, SplitResidentGivesTheListsAndTheRowsOfTheDefinition) {
  for (const int k : {-3, 0, 5, 1000}) expect_split(run(k, 0));
  for (const int steps : {1, 4}) expect_split(run(5, steps));
}

TEST_P(Pipelines, SplitResidentBatchesOfEveryProcessCoverTheSameQueries) {
  // One long document: groups of very different numbers of documents.
  for (unsigned word = 0; word < 50; ++word) world.resident[0].emplace_back(word, 0.125f);
  load_balancing(world.resident, 14, test::count_entries(world.resident));
  const int largest_group = *std::max_element(grp_length, grp_length + num_procs);
  for (const long long budget : {0LL, 4LL * std::max(largest_group, 8)}) {  // 1 and some queries
    expect_split(run(2, 0, true, budget));
    const int batches = expect_batches(0, 11, myid == 0 ? 2 : 0, [&] {
      internal::split_resident_run(run(2, 0, true, budget), resident(), queries(), nullptr);
    });
    EXPECT_GT(batches, 1);
    int common = batches;
    broadcast_mpi(&common, sizeof common, 0);
    EXPECT_EQ(batches, common);
  }
}

TEST_P(Pipelines, ALoadedCollectionAnswersSeveralQueryCollections) {
  const int released = use_gpu ? 1 : 0, entries = test::count_entries(world.resident);
  EXPECT_EQ(rwmd2_parallel_init(50, world.embeddings.data(), 1, false, world.resident,
                                world.resident_labels, 14, entries, use_gpu),
            released);
  EXPECT_TRUE(!use_gpu || dev_id == local_id);
  EXPECT_TRUE(!use_gpu || !test::device_is_emulated || test::device_in_use() == local_id);
  for (const int first : {0, 4}) {
    world.queries.erase(world.queries.begin(), world.queries.begin() + first);
    float* D = nullptr;
    EXPECT_EQ(rwmd2_parallel_query(world.embeddings.data(), 1, 1, 1, false, 14, {}, world.queries,
                                   {}, 11 - first, test::count_entries(world.queries), &D, false,
                                   nullptr, use_gpu),
              grp_length[myid] * (11 - first) * 4);
    expect_own_rows(D, expected(1, true));
    std::free(D);
  }
  EXPECT_EQ(rwmd2_parallel_cleanup(use_gpu, false), released);
  // With ground distances no vocabulary is loaded or released.
  EXPECT_EQ(rwmd2_scaleout_init(0, nullptr, 0, true, world.resident, world.resident_labels, 14,
                                entries, use_gpu),
            released);
  EXPECT_EQ(rwmd2_scaleout_cleanup(use_gpu, true), released);
}

TEST_P(Pipelines, ScaleOutKeepsTheLargerValueAndRanksByIt) {
  load_balancing(world.queries, 11, test::count_entries(world.queries));
  for (const float before : {0.f, 2.f}) {
    const Matrix larger = larger_of(Matrix(11, std::vector<float>(14, before)), expected(1));
    for (const long long budget : {0LL, 60LL, internal::batch_budget_floats}) {
      std::vector<float> D_max(grp_length[myid] * 14, before);
      expect_batches(grp_start[myid], grp_length[myid], 4, [&] {
        internal::scale_out_run(run(4, 1, true, budget), resident(), queries(), D_max.data());
      });
      expect_own_rows(D_max.data(), larger);
      expect_own_lists(larger, world.query_labels, world.resident_labels);
    }
  }
  std::vector<float> D_max(grp_length[myid] * 14);
  internal::scale_out_run(run(4, 0, false), resident(), queries(), D_max.data());
  expect_own_rows(D_max.data(), expected(0));
  EXPECT_FALSE(std::filesystem::exists(own_path()));
}

TEST_P(Pipelines, TwoWayKeepsTheLargerDirectionInTheMatrixAndTheLists) {
  for (const TwoWay form : every_form) {
    for (const unsigned seed : {3u, 4u}) {  // the second run drops the first one's split
      world = test::exact_world(seed);
      use_cosine = seed == 4;
      expect_two_way(form);
    }
  }
}

TEST_P(Pipelines, EmptyCollectionsGiveEmptyResults) {
  const test::World whole = world;
  for (const bool no_queries : {false, true}) {
    (no_queries ? world.queries : world.resident).clear();
    expect_split(run(3, 0));
    cleanup_distribution_info();
    internal::scale_out_run(run(3, 0), resident(), queries(), nullptr);
    expect_own_lists(expected(0), world.query_labels, world.resident_labels);
    for (const TwoWay form : every_form) expect_two_way(form);
    cleanup_distribution_info();
    world = whole;
  }
  world.queries.assign(11, {});  // a batch without entries, 1e30 away
  world.resident.assign(14, {{0, 1.0f}});
  expect_split(run(3, 1));
  world.queries.back() = {{7, 0.5f}};  // and one that takes half of a weight
  expect_split(run(3, 1));
}

TEST_P(Pipelines, TheRunAfterAFailedAllocationIsRight) {
  if (num_procs > 1) GTEST_SKIP() << "leaves the others waiting";
  world = test::exact_world(3);
  test::World sorted = test::exact_world(4);  // its entries need no arrays of their own
  for (Document& doc : sorted.resident) std::sort(doc.begin(), doc.end());
  for (Document& doc : sorted.queries) std::sort(doc.begin(), doc.end());
  for (const TwoWay form : every_form) {
    bool failed = true;
    for (int allocations = 0; failed && !HasFailure(); ++allocations) {
      SCOPED_TRACE(allocations);
      float unowned = 0, *D = &unowned;
      const int* const split = grp_start;
      try {
        two_way(form, &D, allocations);
        failed = false;
      } catch (const std::bad_alloc&) {
        allocations_left = -1;
      }
      EXPECT_EQ(failed, (D == nullptr || D == &unowned) && grp_start == split);
      EXPECT_TRUE(test::nothing_is_held());
      if (!failed) std::free(D);
      if (!failed && allocations == 0) GTEST_SKIP() << "not with this operator new";
      std::swap(world, sorted);
      expect_two_way(TwoWay::plain);
      std::swap(world, sorted);
    }
  }
}

}  // namespace
}  // namespace talvik
