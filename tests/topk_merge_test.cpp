// The merge of per-process lists.  7 documents: 2 processes hold 3 and 4, 3 hold 2, 2 and 3, and of
// 9 the last one holds all.
#include "libmpi/topk_merge.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "support/pipelines.hpp"

namespace talvik {
namespace {

const auto* const environment = testing::AddGlobalTestEnvironment(new test::ProcessGroup);

constexpr int num_docs = 7;

// Merges what this process holds of the full matrix and checks the lists of every process.
void expect_merged(const test::Matrix& distances, int k,
                   long long budget = internal::gather_budget_entries) {
  test::split_evenly(num_docs);
  const int n = grp_length[myid], first = grp_start[myid];
  std::vector<float> own;
  for (const auto& row : distances)
    own.insert(own.end(), row.data() + first, row.data() + first + n);
  std::vector<int> ind(distances.size() * k, -7);
  std::vector<float> val(ind.size(), -7);
  internal::merge_topk(static_cast<int>(distances.size()), n, k, own.data(), ind.data(), val.data(),
                       budget);
  for (size_t q = 0; q < distances.size(); ++q) {
    const auto& row = distances[q];
    std::vector<int> expected =
        myid == 0 ? test::nearest_first(row, 0, num_docs) : test::nearest_first(row, first, n);
    expected.resize(k, -1);
    EXPECT_EQ(std::vector<int>(ind.data() + q * k, ind.data() + q * k + k), expected)
        << "process " << myid << ", query " << q;
    for (int j = 0; j < k; ++j) {
      const float found = val[q * k + j], wanted = expected[j] < 0 ? 1e6f : row[expected[j]];
      EXPECT_TRUE(found == wanted || (std::isnan(found) && std::isnan(wanted)));
    }
  }
  cleanup_distribution_info();
}

TEST(Merge, FindsTheNearestOfAllProcessesForEveryListLength) {
  test::Matrix distances(5, std::vector<float>(num_docs));
  for (int at = 0; at < 5 * num_docs; ++at) {
    const int q = at / num_docs, i = at % num_docs;
    distances[q][i] = static_cast<float>((q * 5 + i * i) % 4);  // many equal ones
  }
  for (int k = 0; k <= num_docs; ++k) {
    for (const long long queries_at_a_time : {1, 2, 5}) {
      expect_merged(distances, k, queries_at_a_time * num_procs * k);
    }
  }
  expect_merged({}, 3);
}

TEST(Merge, PaddingLosesAgainstEveryRealDistance) {
  expect_merged({{1e30f, 2e6f, 1e30f, 5e29f, 1e6f, 1e30f, 3e8f},
                 {NAN, 2, NAN, INFINITY, NAN, 1e30f, NAN},
                 std::vector<float>(num_docs, NAN)},
                num_docs);
}

TEST(KthValue, IsTheSameOnEveryProcessAndCountsDuplicates) {
  const auto p = static_cast<float>(myid), last = static_cast<float>(num_procs - 1);
  std::vector<float> offered{9 + p, -p, 4 + p}, same{1, myid == 0 ? 1.f : 5.f}, unordered{NAN, 3};
  // 1 process: 0 4 9   2: -1 0 4   more: the smallest are -last, 1 - last, 2 - last
  const float third = num_procs == 1 ? 9 : num_procs == 2 ? 4 : 2 - last;
  EXPECT_EQ(compute_kth_parallel(3, offered.data()), third);
  EXPECT_EQ(compute_kth_parallel(2, same.data()), 1);
  const float second = compute_kth_parallel(2, unordered.data());
  EXPECT_TRUE(num_procs == 1 ? std::isnan(second) : second == 3);
}

}  // namespace
}  // namespace talvik
