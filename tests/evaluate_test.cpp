// The precision of neighbour lists.  On several processes the queries are split between them.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "support/pipelines.hpp"
#include "talvik.hpp"

namespace talvik::test {
namespace {

const auto* const environment = testing::AddGlobalTestEnvironment(new ProcessGroup);

constexpr bool skip_first = true, score_all = false, print = true, silent = false;

/// Distribution info for groups of these lengths, for the scope's duration.
class Split {
 public:
  explicit Split(std::vector<int> lengths) : length_(lengths), start_(length_.size()) {
    for (size_t p = 1; p < length_.size(); ++p) start_[p] = start_[p - 1] + length_[p - 1];
    grp_length = length_.data();
    grp_start = start_.data();
  }
  ~Split() { grp_length = grp_start = nullptr; }
  Split(const Split&) = delete;
  Split& operator=(const Split&) = delete;

 private:
  std::vector<int> length_, start_;
};

/// So many queries on every process but the last, which has what remains.
std::vector<int> lengths(int each, int queries) {
  std::vector<int> lengths(static_cast<size_t>(num_procs), each);
  lengths.back() = queries - each * (num_procs - 1);
  return lengths;
}

TEST(Precision, EveryLevelCountsTheHitsOfItsFirstNeighbours) {
  constexpr int queries = 23, residents = 40, most = 9;
  std::mt19937 random(5);
  const unsigned long some_labels[] = {1, 1ul << 32 | 1, 2};  // all bits are compared
  std::vector<unsigned long> query_labels(queries), resident_labels(residents);
  for (auto& label : query_labels) label = some_labels[random() % 3];
  for (auto& label : resident_labels) label = some_labels[random() % 3];
  const std::vector<std::vector<int>> expected_cut_offs{
      {1},          {1, 2},       {1, 2, 3},    {1, 2, 4},      {1, 2, 4, 5},
      {1, 2, 4, 6}, {1, 2, 4, 7}, {1, 2, 4, 8}, {1, 2, 4, 8, 9}};
  for (int scored = 1; scored <= most; ++scored) {
    for (const int skipped : {0, 1}) {
      const int k = scored + skipped;
      std::vector<int> rows(static_cast<size_t>(queries * k));
      for (int& r : rows) r = static_cast<int>(random() % residents);
      std::vector<float> expected, times_processes;
      for (const int cut_off : expected_cut_offs[static_cast<size_t>(scored) - 1]) {
        int hits = 0;
        for (int q = 0; q < queries; ++q) {
          for (int j = 0; j < cut_off; ++j)
            hits += resident_labels[rows[q * k + skipped + j]] == query_labels[q];
        }
        expected.push_back(static_cast<float>(hits / static_cast<double>(queries * cut_off)));
        times_processes.push_back(
            static_cast<float>(hits * num_procs / static_cast<double>(queries * cut_off)));
      }
      // A skipped neighbour is not looked at.
      for (int q = 0; q < queries && skipped == 1; ++q) rows[q * k] = -1;
      const auto evaluate = [&](int first) {
        return evaluate_topk_precision(queries, k, &rows[first * k], query_labels.data(),
                                       resident_labels.data(), skipped == 1, silent);
      };
      EXPECT_EQ(evaluate(0), times_processes) << "without a split every process scores all";
      for (const int each : {0, 7}) {
        const Split split(lengths(each, queries));
        EXPECT_EQ(evaluate(grp_length[myid] > 0 ? grp_start[myid] : 0), expected)
            << scored << " scored, " << skipped << " skipped, " << each << " on each process";
      }
    }
  }
}

TEST(Precision, ProcessZeroAlonePrintsTheReport) {
  // Labels 7 and 9; resident documents 10 and 12 share the first, 21 the second.
  std::vector<unsigned long> queries{7, 9}, resident(24, 1);
  resident[10] = resident[12] = 7;
  resident[21] = 9;
  std::vector<int> rows{10, 11, 12, 13, 20, 21, 22, 23};
  const Split split(lengths(0, 2));
  const auto printed = [&](bool print_results) {
    testing::internal::CaptureStdout();
    evaluate_topk_precision(2, 4, rows.data(), queries.data(), resident.data(), score_all,
                            print_results);
    return testing::internal::GetCapturedStdout();
  };
  EXPECT_EQ(printed(print), myid == 0 ? "Averaged accuracy results\n"
                                        "1 0.500000\n2 0.500000\n4 0.375000\n\n"
                                      : "");
  EXPECT_EQ(printed(silent), "");
}

TEST(Precision, NothingToScoreNeedsNoOtherProcess) {
  {
    const Split split(lengths(0, 0));
    EXPECT_EQ(evaluate_topk_precision(0, 2, nullptr, nullptr, nullptr, score_all, silent),
              (std::vector<float>{0.0f, 0.0f}));
  }
  // Only one process calls: with a collective inside this would hang.
  if (myid != 0) return;
  std::vector<unsigned long> label{1};
  std::vector<int> row{0};
  for (const int k : {1, 0, -4}) {
    EXPECT_TRUE(
        evaluate_topk_precision(1, k, row.data(), label.data(), label.data(), skip_first, silent)
            .empty());
  }
}

}  // namespace
}  // namespace talvik::test
