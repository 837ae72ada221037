// The precision of neighbour lists.  On several processes the queries are split between them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/output.hpp"
#include "support/pipelines.hpp"
#include "talvik.hpp"

namespace talvik::test {
namespace {

const auto* const environment = testing::AddGlobalTestEnvironment(new ProcessGroup);

constexpr int queries = 4;
unsigned long labels[] = {1, 1ul << 32 | 1, 2, 3, 1ul << 33 | 1};  // of the queries, and of none

// Lists of k, in which 1 is a resident document with the query's label.
std::vector<int> lists(int k) {
  constexpr const char* hits[queries] = {"110010", "011001", "100000", "010111"};
  std::vector<int> rows;
  for (int q = 0; q < queries; ++q) {
    for (int j = 0; j < k; ++j) rows.push_back(hits[q][j] == '1' ? q : queries);
  }
  return rows;
}

struct Case {
  int k;
  bool skip_first;
  std::vector<double> hits;  // among the first 1, 2, 4, ... and all scored neighbours
  std::string report;
};

TEST(Precision, EveryLevelCountsTheHitsOfItsFirstNeighbours) {
  const std::string title = "Averaged accuracy results\n";
  const Case cases[] = {
      {6, false, {2, 5, 7, 11}, title + "1 0.500000\n2 0.625000\n4 0.437500\n6 0.458333\n\n"},
      {6, true, {3, 4, 7, 9}, title + "1 0.750000\n2 0.500000\n4 0.437500\n5 0.450000\n\n"},
      {4, false, {2, 5, 7}, title + "1 0.500000\n2 0.625000\n4 0.437500\n\n"},
      {1, false, {2}, title + "1 0.500000\n\n"}};
  for (const Case& expected : cases) {
    SCOPED_TRACE(expected.k);
    std::vector<int> rows = lists(expected.k);
    const auto evaluate = [&](int first_query, bool print) {
      return evaluate_topk_precision(queries, expected.k, rows.data() + first_query * expected.k,
                                     labels, labels, expected.skip_first, print);
    };
    std::vector<float> precisions;
    split_evenly(queries);
    const std::string report = printed_by([&] { precisions = evaluate(grp_start[myid], true); });
    EXPECT_EQ(report, myid == 0 ? expected.report : "");
    EXPECT_EQ(printed_by([&] { evaluate(grp_start[myid], false); }), "");
    cleanup_distribution_info();
    const std::vector<float> times_processes = evaluate(0, false);  // all score all
    ASSERT_EQ(precisions.size(), expected.hits.size());
    for (size_t level = 0; level < precisions.size(); ++level) {
      const int scored = expected.k - (expected.skip_first ? 1 : 0);
      const double compared = queries * std::min(1 << level, scored);
      EXPECT_FLOAT_EQ(precisions[level], expected.hits[level] / compared);
      EXPECT_FLOAT_EQ(times_processes[level], num_procs * precisions[level]);
    }
  }
}

TEST(Precision, NothingToScoreNeedsNoOtherProcess) {
  EXPECT_EQ(evaluate_topk_precision(0, 2, nullptr, nullptr, nullptr, false, false),
            (std::vector<float>{0, 0}));
  if (myid != 0) return;  // with a collective inside, the calls below would hang
  for (const int k : {1, 0, -4}) {
    EXPECT_TRUE(evaluate_topk_precision(1, k, nullptr, labels, labels, true, false).empty());
  }
}

}  // namespace
}  // namespace talvik::test
