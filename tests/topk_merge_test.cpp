// The merge of per-process lists.  7 documents: 2 processes hold 4 and 3, 3 hold 3, 2 and 2, and of
// 9 some hold none.
#include "libmpi/topk_merge.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>
#include <utility>
#include <vector>

#include "internal/team.hpp"
#include "support/pipelines.hpp"
#include "talvik/batch_sizes.hpp"

namespace talvik {
namespace {

const auto* const environment = testing::AddGlobalTestEnvironment(new test::ProcessGroup);

constexpr int num_docs = 7;
constexpr float nan_distance = std::numeric_limits<float>::quiet_NaN();

bool is_nearer(float a, float b) { return a < b || (std::isnan(b) && !std::isnan(a)); }

class Merge : public testing::Test {
 protected:
  Merge() {
    grp_start = new int[static_cast<size_t>(num_procs)];
    grp_length = new int[static_cast<size_t>(num_procs)];
    for (int p = 0; p < num_procs; ++p) {
      const auto [first, last] = internal::share_of(p, num_procs, num_docs);
      grp_start[p] = first;
      grp_length[p] = last - first;
    }
  }
  ~Merge() override { cleanup_distribution_info(); }

  // Merges what this process holds of the full matrix and checks the lists of every process.
  static void check(const test::Matrix& distances, int k,
                    long long budget = internal::gather_budget_entries) {
    const int n = grp_length[myid], first = grp_start[myid];
    std::vector<float> own;
    for (const auto& row : distances) own.insert(own.end(), &row[first], &row[first] + n);
    std::vector<int> ind(distances.size() * static_cast<size_t>(k), -7);
    std::vector<float> val(ind.size(), -7);
    internal::merge_topk(static_cast<int>(distances.size()), n, k, own.data(), ind.data(),
                         val.data(), budget);
    const bool merged = myid == 0;
    for (size_t q = 0; q < distances.size(); ++q) {
      auto [expected_ind, expected_val] =
          merged ? nearest(distances[q], 0, num_docs, k) : nearest(distances[q], first, n, k);
      for (size_t j = 0; j < static_cast<size_t>(k); ++j) {
        const size_t at = q * static_cast<size_t>(k) + j;
        EXPECT_EQ(ind[at], expected_ind[j]) << "process " << myid << ", query " << q << ", k " << k;
        EXPECT_TRUE(val[at] == expected_val[j] ||
                    (std::isnan(val[at]) && std::isnan(expected_val[j])));
      }
    }
  }

  // The k nearest of documents first .. first+n-1, padded.
  static std::pair<std::vector<int>, std::vector<float>> nearest(const std::vector<float>& row,
                                                                 int first, int n, int k) {
    std::vector<int> ind(static_cast<size_t>(n));
    std::iota(ind.begin(), ind.end(), first);
    const auto at = [&](int i) { return row[static_cast<size_t>(i)]; };
    std::stable_sort(ind.begin(), ind.end(), [&](int a, int b) { return is_nearer(at(a), at(b)); });
    std::vector<float> val;
    for (const int i : ind) val.push_back(at(i));
    ind.resize(static_cast<size_t>(k), -1);
    val.resize(static_cast<size_t>(k), 1e6f);
    return {ind, val};
  }
};

TEST_F(Merge, FindsTheNearestOfAllProcessesForEveryListLength) {
  test::Matrix distances(5, std::vector<float>(num_docs));
  for (size_t q = 0; q < distances.size(); ++q) {
    for (size_t i = 0; i < num_docs; ++i) {
      distances[q][i] = static_cast<float>((q * 5 + i * i) % 4);  // many equal ones
    }
  }
  for (int k = 0; k <= num_docs; ++k) {
    check(distances, k);
    const long long one_query_at_a_time = 1, two_queries_at_a_time = 2LL * num_procs * k;
    check(distances, k, one_query_at_a_time);
    check(distances, k, two_queries_at_a_time);
  }
  check({}, 3);
}

TEST_F(Merge, PaddingLosesAgainstEveryRealDistance) {
  const float inf = std::numeric_limits<float>::infinity();
  check({{1e30f, 2e6f, 1e30f, 5e29f, 1e6f, 1e30f, 3e8f},
         {nan_distance, 2, nan_distance, inf, nan_distance, 1e30f, nan_distance},
         std::vector<float>(num_docs, nan_distance)},
        num_docs);
}

TEST(KthValue, IsTheSameOnEveryProcessAndCountsDuplicates) {
  const auto p = static_cast<float>(myid);
  const float last = static_cast<float>(num_procs - 1);
  std::vector<float> offered = {9 + p, -p, 4 + p};
  // 1 process: 0 4 9   2: -1 0 4   more: the smallest are -last, 1 - last, 2 - last
  const float third = num_procs == 1 ? 9 : num_procs == 2 ? 4 : 2 - last;
  EXPECT_EQ(compute_kth_parallel(3, offered.data()), third);

  std::vector<float> same = {1, myid == 0 ? 1.f : 5.f, 6};
  EXPECT_EQ(compute_kth_parallel(2, same.data()), 1);

  std::vector<float> unordered = {nan_distance, 3};
  const float second = compute_kth_parallel(2, unordered.data());
  EXPECT_TRUE(num_procs == 1 ? std::isnan(second) : second == 3);
}

}  // namespace
}  // namespace talvik
