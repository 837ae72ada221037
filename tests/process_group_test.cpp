// The process's identity and the collectives, on as many processes as the launcher starts.
#include <gtest/gtest.h>
#include <mpi.h>

#include <array>
#include <cstdlib>
#include <ctime>
#include <numeric>
#include <string>
#include <vector>

#include "support/output.hpp"
#include "support/pipelines.hpp"

namespace talvik {
namespace {

const auto* const environment = testing::AddGlobalTestEnvironment(new test::ProcessGroup);

TEST(Identity, ComesFromTheLauncherAndIsPrinted) {
  int rank = -1, size = -1, local_rank = -1, local_size = -1;
  const auto init = [&] { init_mpi(&rank, &size, &local_rank, &local_size); };
  const std::string line = test::printed_by(init);  // a second time
  char node[MPI_MAX_PROCESSOR_NAME] = "";
  int length = 0, mpi_rank = -1;
  MPI_Get_processor_name(node, &length);
  MPI_Comm_rank(MPI_COMM_WORLD, &mpi_rank);
  EXPECT_EQ(line, "Process " + std::to_string(mpi_rank) + " of " + std::to_string(size) +
                      " is on " + node + " (local id: " + std::to_string(local_rank) +
                      ", local procs: " + std::to_string(local_size) + ")\n");
  EXPECT_EQ((std::vector{rank, size, local_rank, local_size}),
            (std::vector{myid, num_procs, local_id, num_local_procs}));

  setenv("OMPI_COMM_WORLD_LOCAL_RANK", " +5th", 1);
  setenv("OMPI_COMM_WORLD_LOCAL_SIZE", "12", 1);
  init();
  EXPECT_EQ((std::vector{local_rank, local_size}), (std::vector{5, 12}));
  unsetenv("OMPI_COMM_WORLD_LOCAL_RANK");
  unsetenv("OMPI_COMM_WORLD_LOCAL_SIZE");
  init();
  EXPECT_EQ((std::vector{local_rank, local_size}), (std::vector{0, 1}));
}

TEST(Clock, ShowsTheTimeOfDay) { EXPECT_NEAR(When(), static_cast<double>(std::time(nullptr)), 2); }

TEST(Collectives, ReachEveryProcess) {
  std::array<int, 2> counts{myid, 10}, sums{};
  reduce_mpi_sum_int(counts.data(), sums.data(), 2);
  EXPECT_EQ(sums, (std::array{num_procs * (num_procs - 1) / 2, 10 * num_procs}));

  const auto rank = static_cast<float>(myid), last = static_cast<float>(num_procs - 1);
  std::array<float, 2> values{rank + 0.5f, -rank}, minima{};
  reduce_mpi_min_float(values.data(), minima.data(), 2);
  EXPECT_EQ(minima, (std::array{0.5f, -last}));

  // The last process sends; the count is of bytes.
  const bool sender = myid == num_procs - 1;
  std::array<float, 4> sent{};
  if (sender) sent = {1, 2, 3, 4};
  broadcast_mpi(sent.data(), 12, num_procs - 1);
  EXPECT_EQ(sent, (std::array{1.f, 2.f, 3.f, sender ? 4.f : 0.f}));

  for (const int num_items : {2, 7}) {  // of 2 some processes have none
    test::split_evenly(num_items);
    std::vector<int> items(num_items, -1), expected(num_items);
    std::iota(expected.begin(), expected.end(), 100);
    int* own = items.data() + grp_start[myid];
    std::iota(own, own + grp_length[myid], 100 + grp_start[myid]);
    all_gather_mpi(items.data());
    EXPECT_EQ(items, expected);
    cleanup_distribution_info();
  }
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
