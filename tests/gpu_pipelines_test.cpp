// The pipelines on the GPU engine: the distances of its rule, whatever the number of processes, the
// results of the steps, and a device for each process.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/device.hpp"
#include "support/pipelines.hpp"
#include "talvik.hpp"

namespace talvik {
namespace {

const auto* const environment = testing::AddGlobalTestEnvironment(new test::ProcessGroup);

constexpr bool use_gpu = true;

class GpuPipelines : public testing::Test {
 protected:
  void SetUp() override {
    test::set_devices(num_procs);
    if (count_gpu_devices() == 0) GTEST_SKIP() << "no GPU";
  }
  ~GpuPipelines() override {
    cleanup_distribution_info();
    EXPECT_TRUE(test::nothing_is_held());
    test::set_devices(1);
  }

  test::World world = test::with_empty_documents(test::exact_world(17));
  const int resident_entries = test::count_entries(world.resident);
  const int query_entries = test::count_entries(world.queries);
  float* embeddings = world.embeddings.data();
  const std::string path = test::scratch_path("out.csv");
};

TEST_F(GpuPipelines, SplitResidentRunWritesTheListsOfAllProcesses) {
  for (const int steps : {0, 1, 3}) {
    float* untouched = nullptr;
    EXPECT_EQ(
        rwmd2_parallel(50, embeddings, 1, 4, steps, false, world.resident, world.resident_labels,
                       14, resident_entries, world.queries, world.query_labels, 11, query_entries,
                       &untouched, true, path.c_str(), use_gpu),
        0);
    barrier_mpi();
    if (myid != 0) continue;
    const auto expected =
        test::expected_distances(world, world.resident, world.queries, steps, use_gpu);
    EXPECT_EQ(test::take_file(path),
              test::expected_lines(expected, 0, 11, 4, world.query_labels, world.resident_labels));
  }
}

TEST_F(GpuPipelines, StepsReturnOneAndUseTheDeviceOfTheLocalRank) {
  EXPECT_EQ(rwmd2_parallel_init(50, embeddings, 1, false, world.resident, world.resident_labels, 14,
                                resident_entries, use_gpu),
            1);
  EXPECT_EQ(dev_id, local_id);
  if (test::device_is_emulated) {
    EXPECT_EQ(test::device_in_use(), local_id);
  }
  for (int run = 0; run < 2; ++run) {
    float* D = nullptr;
    const int bytes =
        rwmd2_parallel_query(embeddings, 1, 0, 3, false, 14, world.resident_labels, world.queries,
                             world.query_labels, 11, query_entries, &D, false, nullptr, use_gpu);
    const test::OwnedMatrix matrix(D);
    EXPECT_EQ(bytes, grp_length[myid] * 11 * 4);
    const auto expected =
        test::expected_distances(world, world.resident, world.queries, 3, use_gpu);
    for (int r = 0; r < grp_length[myid]; ++r) {
      for (size_t q = 0; q < 11; ++q) {
        EXPECT_EQ(D[static_cast<size_t>(r) * 11 + q],
                  expected[q][static_cast<size_t>(grp_start[myid] + r)]);
      }
    }
  }
  EXPECT_EQ(rwmd2_parallel_cleanup(use_gpu, false), 1);

  EXPECT_EQ(rwmd2_scaleout_init(50, embeddings, 1, false, world.resident, world.resident_labels, 14,
                                resident_entries, use_gpu),
            1);
  EXPECT_EQ(rwmd2_scaleout_cleanup(use_gpu, false), 1);
  // With ground distances no vocabulary is loaded or released.
  EXPECT_EQ(rwmd2_scaleout_init(0, nullptr, 0, true, world.resident, world.resident_labels, 14,
                                resident_entries, use_gpu),
            1);
  EXPECT_EQ(rwmd2_scaleout_cleanup(use_gpu, true), 1);
}

TEST_F(GpuPipelines, TwoWayRunsMergeBothDirections) {
  world = test::exact_world(17);
  embeddings = world.embeddings.data();
  for (const auto entry : {rwmd2_twoway_wrapper, remd2_twoway_wrapper}) {
    for (const int steps : {0, 2}) {
      float* D = nullptr;
      EXPECT_EQ(entry(50, embeddings, 1, 3, steps, world.resident, world.resident_labels,
                      world.queries, world.query_labels, &D, true, path.c_str(), use_gpu),
                1);
      const test::OwnedMatrix matrix(D);
      const test::Matrix expected = test::expected_two_way(world, steps, use_gpu);
      size_t at = 0;
      for (int r = grp_start[myid]; r < grp_start[myid] + grp_length[myid]; ++r) {
        for (const float distance : expected[static_cast<size_t>(r)]) EXPECT_EQ(D[at++], distance);
      }
      const std::string own =
          path + ".thread" + std::to_string(local_id) + "-" + std::to_string(myid);
      EXPECT_EQ(test::take_file(own),
                test::expected_lines(expected, grp_start[myid], grp_length[myid], 3,
                                     world.resident_labels, world.query_labels));
    }
  }
}

}  // namespace
}  // namespace talvik
