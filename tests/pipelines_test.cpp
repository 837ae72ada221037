// The pipelines on either engine against the definition of the distances: the same files and
// matrices whatever the number of processes and the size of the batches.  14 documents are split: 9
// processes get groups of unequal size, some of them empty.  More than one capacity step costs the
// CPU engine a second under the address sanitizer, so few runs ask for them.
#include "support/pipelines.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "support/device.hpp"
#include "support/output.hpp"
#include "talvik/pipelines.hpp"

namespace {

std::atomic<int> allocations_left = -1;  // until one fails; negative: none does

}  // namespace

// Every allocation that tells of a failure by an exception.
[[gnu::noinline]] void* operator new(size_t bytes) {
  void* memory = allocations_left-- == 0 ? nullptr : std::malloc(std::max<size_t>(bytes, 1));
  if (!memory) throw std::bad_alloc();
  return memory;
}
[[gnu::noinline]] void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
  return std::malloc(std::max<size_t>(bytes, 1));
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { std::free(memory); }

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
    rows.insert(rows.end(), distances[r].begin(), distances[r].end());
  }
  return rows;
}

std::vector<float> own_rows(float* D, size_t columns) {
  const test::OwnedMatrix owner(D);
  return {D, D + grp_length[myid] * columns};
}

// On the CPU engine and, with true, on the GPU engine.
class Pipelines : public testing::TestWithParam<bool> {
 protected:
  Pipelines() {
    world.resident.at(3).clear();
    world.resident.at(13).clear();
  }
  void SetUp() override {
    test::set_devices(num_procs);
    if (use_gpu && count_gpu_devices() == 0) GTEST_SKIP() << "no GPU";
  }
  ~Pipelines() override {
    use_cosine = false;
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
  Matrix expected_two_way(int steps) const {
    return test::larger_of(
        test::expected_distances(world, world.queries, world.resident, steps, use_gpu),
        test::transposed(expected(steps)));
  }

  // Process 0's result file against the definition.
  void expect_split_lists(const RunParameters& parameters) const {
    float* untouched = nullptr;
    EXPECT_EQ(internal::split_resident_run(parameters, resident(), queries(), &untouched), 0);
    EXPECT_EQ(untouched, nullptr);
    barrier_mpi();
    if (myid != 0) return;
    EXPECT_EQ(test::take_file(path),
              test::expected_lines(expected(parameters.delta_iterations), 0,
                                   static_cast<int>(world.queries.size()), parameters.k,
                                   world.query_labels, world.resident_labels));
  }
  void expect_split_matrix(const RunParameters& parameters) const {
    float* D = nullptr;
    EXPECT_EQ(internal::split_resident_run(parameters, resident(), queries(), &D), 0);
    EXPECT_EQ(own_rows(D, world.queries.size()),
              own_rows(test::transposed(expected(parameters.delta_iterations))));
    EXPECT_FALSE(myid == 0 && std::filesystem::exists(path));
  }

  // Every process's own result file: lists of 4 over the rows of its group.
  void expect_own_lists(const Matrix& distances, const LabelList& rows,
                        const LabelList& columns) const {
    EXPECT_EQ(
        test::take_file(path + ".thread" + std::to_string(local_id) + "-" + std::to_string(myid)),
        test::expected_lines(distances, grp_start[myid], grp_length[myid], 4, rows, columns));
  }

  // A two-way run by a public function, and what it prints.
  enum class TwoWay { plain, compressed, ground };
  std::string two_way(TwoWay form, int steps, float** D, int allocations = -1) {
    const auto call = [&](auto function, auto... vocabulary) {
      return test::printed_by([&] {
        allocations_left = allocations;
        EXPECT_EQ(function(50, vocabulary..., 4, steps, world.resident, world.resident_labels,
                           world.queries, world.query_labels, D, true, path.c_str(), use_gpu),
                  1);
        allocations_left = -1;
      });
    };
    if (form == TwoWay::plain) return call(rwmd2_twoway_wrapper, world.embeddings.data(), 1);
    if (form == TwoWay::compressed) return call(remd2_twoway_wrapper, world.embeddings.data(), 1);
    std::vector<float> ground;
    for (unsigned pair = 0; pair < 2500; ++pair) {
      ground.push_back(static_cast<float>(
          test::oracle_word_distance(world.embeddings, 1, pair / 50, pair % 50)));
    }
    return call(remd2_twoway_ground, ground.data());
  }
  void expect_two_way(TwoWay form, int steps) {
    std::set<unsigned> words;
    for (const DocumentSet* docs : {&world.resident, &world.queries}) {
      for (const Document& doc : *docs) {
        for (const auto& entry : doc) words.insert(entry.first);
      }
    }
    float* D = nullptr;
    EXPECT_EQ(two_way(form, steps, &D), form == TwoWay::compressed
                                            ? "Compressed vocabulary. Vocabulary size = " +
                                                  std::to_string(words.size()) + "\n"
                                            : "");
    const Matrix larger = expected_two_way(steps);
    EXPECT_EQ(own_rows(D, world.queries.size()), own_rows(larger));
    expect_own_lists(larger, world.resident_labels, world.query_labels);
  }
  static constexpr TwoWay every_form[] = {TwoWay::plain, TwoWay::compressed, TwoWay::ground};

  const bool use_gpu = GetParam();
  test::World world = test::exact_world(11);
  const std::string path = test::scratch_path("out.csv");
};

INSTANTIATE_TEST_SUITE_P(Engines, Pipelines, testing::Bool());

TEST_P(Pipelines, SplitResidentGivesTheListsAndTheRowsOfTheDefinition) {
  expect_split_lists(run(5, 0, true));
  expect_split_lists(run(1000, 1, true));
  expect_split_lists(run(0, 0, true));
  expect_split_lists(run(-3, 0, true));
  for (const int steps : {0, 1, 4}) expect_split_matrix(run(5, steps, false));
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
    expect_split_lists(parameters);
    std::vector<int> batches;
    for (const BatchResult& batch : watch.batches) batches.push_back(batch.num_queries);
    std::vector<int> common = batches;
    ASSERT_GT(batches.size(), 1u);
    broadcast_mpi(common.data(), static_cast<int>(common.size() * sizeof(int)), 0);
    EXPECT_EQ(batches, common);
    watch.expect_batches(0, 11, myid == 0 ? 2 : 0);
    parameters.compute_topk = false;
    expect_split_matrix(parameters);
  }
}

TEST_P(Pipelines, ALoadedCollectionAnswersSeveralQueryCollections) {
  const test::World whole = world;
  const int released = use_gpu ? 1 : 0, entries = test::count_entries(world.resident);
  EXPECT_EQ(rwmd2_parallel_init(50, world.embeddings.data(), 1, false, world.resident,
                                world.resident_labels, 14, entries, use_gpu),
            released);
  EXPECT_EQ(world.resident, whole.resident);
  if (use_gpu) {
    EXPECT_EQ(dev_id, local_id);
    EXPECT_TRUE(!test::device_is_emulated || test::device_in_use() == local_id);
  }
  for (const int first : {0, 4}) {
    world.queries.assign(whole.queries.begin() + first, whole.queries.end());
    const int num_queries = 11 - first;
    float* D = nullptr;
    EXPECT_EQ(rwmd2_parallel_query(world.embeddings.data(), 1, 1, 1, false, 14, {}, world.queries,
                                   {}, num_queries, test::count_entries(world.queries), &D, false,
                                   nullptr, use_gpu),
              grp_length[myid] * num_queries * 4);
    EXPECT_EQ(own_rows(D, num_queries), own_rows(test::transposed(expected(1))));
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
  for (const bool over_zeros : {true, false}) {
    Matrix before = expected(1);
    for (size_t q = 0; q < before.size(); ++q) {
      for (size_t i = 0; i < before[q].size(); ++i) {
        before[q][i] = over_zeros ? 0.f : static_cast<float>((q + 3 * i) % 5);
      }
    }
    const Matrix larger = test::larger_of(before, expected(1));
    for (const long long budget : {0LL, 60LL, internal::batch_budget_floats}) {
      const test::BatchWatch watch;
      RunParameters parameters = run(4, 1, true);
      parameters.budget_floats = budget;
      std::vector<float> D_max = own_rows(before);
      internal::scale_out_run(parameters, resident(), queries(), D_max.data());
      EXPECT_EQ(D_max, own_rows(larger));
      expect_own_lists(larger, world.query_labels, world.resident_labels);
      watch.expect_batches(grp_start[myid], grp_length[myid], 4);
    }
  }
  std::vector<float> D_max(grp_length[myid] * 14);
  internal::scale_out_run(run(4, 0, false), resident(), queries(), D_max.data());
  EXPECT_EQ(D_max, own_rows(expected(0)));
  EXPECT_FALSE(std::filesystem::exists(path + ".thread0-0"));
}

TEST_P(Pipelines, TwoWayKeepsTheLargerDirectionInTheMatrixAndTheLists) {
  for (const TwoWay form : every_form) {
    for (const int steps : {0, form == TwoWay::compressed ? 2 : 1}) {
      world = test::exact_world(3 + steps);  // every run drops the split of the one before
      use_cosine = steps > 0;
      expect_two_way(form, steps);
    }
  }
}

TEST_P(Pipelines, EmptyCollectionsGiveEmptyResults) {
  const test::World whole = world;
  for (const bool queries_too : {false, true}) {
    (queries_too ? world.queries : world.resident).clear();
    expect_split_lists(run(3, 0, true));
    cleanup_distribution_info();
    internal::scale_out_run(run(3, 0, true), resident(), queries(), nullptr);
    expect_own_lists(expected(0), world.query_labels, world.resident_labels);
    for (const TwoWay form : every_form) expect_two_way(form, 1);
    cleanup_distribution_info();
    world = whole;
  }
  world.queries.assign(11, {});  // a batch without entries, 1e30 away
  world.resident.assign(14, {{0, 1.0f}});
  expect_split_lists(run(3, 1, true));
}

TEST_P(Pipelines, TheRunAfterAFailedAllocationIsRight) {
  if (use_gpu || num_procs > 1) GTEST_SKIP() << "ends the process, or leaves the others waiting";
  world = test::exact_world(3);
  test::World sorted = test::exact_world(4);  // its entries need no arrays of their own
  for (Document& doc : sorted.resident) std::sort(doc.begin(), doc.end());
  for (Document& doc : sorted.queries) std::sort(doc.begin(), doc.end());
  for (const TwoWay form : every_form) {
    bool failed = true;
    for (int allocations = 0; failed; ++allocations) {
      SCOPED_TRACE(allocations);
      float* D = nullptr;
      failed = false;
      try {
        two_way(form, 1, &D, allocations);
      } catch (const std::bad_alloc&) {
        failed = true;
      }
      allocations_left = -1;
      std::free(D);
      std::swap(world, sorted);
      expect_two_way(TwoWay::plain, 1);
      std::swap(world, sorted);
      if (HasFailure()) return;
    }
  }
}

}  // namespace
}  // namespace talvik
