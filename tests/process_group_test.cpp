// The process's identity and the collectives, on as many processes as the launcher starts.
#include <gtest/gtest.h>
#include <mpi.h>

#include <array>
#include <cstdlib>
#include <vector>

#include "support/pipelines.hpp"

namespace talvik {
namespace {

const auto* const environment = testing::AddGlobalTestEnvironment(new test::ProcessGroup);

TEST(Identity, ComesFromTheLauncherAndIsPrinted) {
  int rank = -1, mpi_rank = -1, size = -1, local_rank = -1, local_size = -1;
  testing::internal::CaptureStdout();
  init_mpi(&rank, &size, &local_rank, &local_size);  // a second time
  const std::string line = testing::internal::GetCapturedStdout();
  char node[MPI_MAX_PROCESSOR_NAME] = "";
  int length = 0;
  MPI_Get_processor_name(node, &length);
  MPI_Comm_rank(MPI_COMM_WORLD, &mpi_rank);
  EXPECT_EQ(line, "Process " + std::to_string(mpi_rank) + " of " + std::to_string(size) +
                      " is on " + node + " (local id: " + std::to_string(local_rank) +
                      ", local procs: " + std::to_string(local_size) + ")\n");
  EXPECT_EQ((std::vector{rank, size, local_rank, local_size}),
            (std::vector{myid, num_procs, local_id, num_local_procs}));

  setenv("OMPI_COMM_WORLD_LOCAL_RANK", " +5th", 1);
  setenv("OMPI_COMM_WORLD_LOCAL_SIZE", "12", 1);
  init_mpi(&rank, &size, &local_rank, &local_size);
  EXPECT_EQ((std::vector{local_rank, local_size}), (std::vector{5, 12}));
  unsetenv("OMPI_COMM_WORLD_LOCAL_RANK");
  unsetenv("OMPI_COMM_WORLD_LOCAL_SIZE");
  init_mpi(&rank, &size, &local_rank, &local_size);
  EXPECT_EQ((std::vector{local_rank, local_size}), (std::vector{0, 1}));
}

TEST(Collectives, ReductionsReachEveryProcess) {
  std::array<int, 2> counts{myid, 10}, sums{};
  reduce_mpi_sum_int(counts.data(), sums.data(), 2);
  EXPECT_EQ(sums[0], num_procs * (num_procs - 1) / 2);
  EXPECT_EQ(sums[1], 10 * num_procs);

  const auto rank = static_cast<float>(myid);
  std::array<float, 2> values{rank + 0.5f, -rank}, minima{};
  reduce_mpi_min_float(values.data(), minima.data(), 2);
  EXPECT_EQ(minima[0], 0.5f);
  EXPECT_EQ(minima[1], static_cast<float>(1 - num_procs));
}

TEST(Collectives, BroadcastCountsBytes) {
  const int root = num_procs - 1;
  const bool sender = myid == root;
  std::array<float, 4> values{};
  if (sender) values = {1, 2, 3, 4};
  broadcast_mpi(values.data(), 12, root);
  EXPECT_EQ(values, (std::array<float, 4>{1, 2, 3, sender ? 4.f : 0.f}));
}

TEST(Collectives, BlocksOfEveryLengthArriveAtTheirPlaces) {
  const std::vector<int> lengths = {3, 0, 2, 1};
  grp_start = new int[static_cast<size_t>(num_procs)];
  grp_length = new int[static_cast<size_t>(num_procs)];
  int total = 0;
  for (int p = 0; p < num_procs; ++p) {
    grp_start[p] = total;
    grp_length[p] = lengths[static_cast<size_t>(p)];
    total += grp_length[p];
  }
  std::vector<int> items(static_cast<size_t>(total), -1), expected;
  for (int i = 0; i < total; ++i) expected.push_back(100 + i);
  for (int i = grp_start[myid]; i < grp_start[myid] + grp_length[myid]; ++i) {
    items[static_cast<size_t>(i)] = 100 + i;
  }
  all_gather_mpi(items.data());
  EXPECT_EQ(items, expected);
  cleanup_distribution_info();
}

// Last, because nothing can follow it.
TEST(Shutdown, EndingTwiceIsHarmless) {
  barrier_mpi();
  finalize_mpi();
  finalize_mpi();
  int finalized = 0;
  MPI_Finalized(&finalized);
  EXPECT_EQ(finalized, 1);
}

}  // namespace
}  // namespace talvik
