// The precision of neighbour lists.  On several processes the queries are split between them.
#include <gtest/gtest.h>

#include <random>
#include <utility>
#include <vector>

#include "support/output.hpp"
#include "talvik.hpp"

namespace talvik::test {
namespace {

constexpr bool skip_first = true;
constexpr bool score_all = false;
constexpr bool print = true;
constexpr bool silent = false;

/// Distribution info for groups of these lengths, for the scope's duration.
class Split {
 public:
  explicit Split(std::vector<int> lengths) : length_(std::move(lengths)), start_(length_.size()) {
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

/// All queries on the last process, none on the others.
std::vector<int> all_on_the_last(int queries) {
  std::vector<int> lengths(static_cast<size_t>(num_procs), 0);
  lengths.back() = queries;
  return lengths;
}

/// Process 0 has twice as many as the others, and the last one what remains.
std::vector<int> uneven(int queries) {
  std::vector<int> lengths(static_cast<size_t>(num_procs), queries / (num_procs + 1));
  lengths[0] *= 2;
  for (const int length : lengths) queries -= length;
  lengths.back() += queries;
  return lengths;
}

/// The rows of this process, out of those of all queries.
std::vector<int> own_rows(const std::vector<int>& rows, int k) {
  const auto first = rows.begin() + static_cast<long>(grp_start[myid]) * k;
  return {first, first + static_cast<long>(grp_length[myid]) * k};
}

// Labels 7 and 9; resident documents 10 and 12 share the first, 21 the second.
std::vector<unsigned long> two_queries{7, 9};
const std::vector<int> two_rows{10, 11, 12, 13, 20, 21, 22, 23};
std::vector<unsigned long> worked_resident_labels() {
  std::vector<unsigned long> labels(24, 1);
  labels[10] = labels[12] = 7;
  labels[21] = 9;
  return labels;
}

TEST(Precision, HitsAddUpOverCutOffsAndProcesses) {
  std::vector<unsigned long> resident = worked_resident_labels();
  for (const std::vector<int>& lengths : {all_on_the_last(2), uneven(2)}) {
    const Split split(lengths);
    std::vector<int> rows = own_rows(two_rows, 4);
    EXPECT_EQ(evaluate_topk_precision(2, 4, rows.data(), two_queries.data(), resident.data(),
                                      score_all, silent),
              (std::vector<float>{0.5f, 0.5f, 0.375f}));
  }
}

TEST(Precision, WithoutASplitEveryProcessScoresEveryQuery) {
  std::vector<unsigned long> resident = worked_resident_labels();
  std::vector<int> rows = two_rows;
  const auto n = static_cast<float>(num_procs);
  EXPECT_EQ(evaluate_topk_precision(2, 4, rows.data(), two_queries.data(), resident.data(),
                                    score_all, silent),
            (std::vector<float>{0.5f * n, 0.5f * n, 0.375f * n}));
}

TEST(Precision, ProcessZeroAlonePrintsTheReport) {
  const Split split(all_on_the_last(2));
  std::vector<unsigned long> resident = worked_resident_labels();
  std::vector<int> rows = own_rows(two_rows, 4);
  const auto evaluate = [&](bool print_results) {
    return printed_by([&] {
      evaluate_topk_precision(2, 4, rows.data(), two_queries.data(), resident.data(), score_all,
                              print_results);
    });
  };
  EXPECT_EQ(evaluate(print), myid == 0 ? "Averaged accuracy results\n"
                                         "1 0.500000\n2 0.500000\n4 0.375000\n\n"
                                       : "");
  EXPECT_EQ(evaluate(silent), "");
}

TEST(Precision, ASkippedFirstNeighbourIsNotLookedAt) {
  const Split split(all_on_the_last(1));
  std::vector<unsigned long> query{7}, resident{7, 8};
  std::vector<int> rows = own_rows({-1, 0, 1, 1, 0}, 5);
  EXPECT_EQ(
      evaluate_topk_precision(1, 5, rows.data(), query.data(), resident.data(), skip_first, silent),
      (std::vector<float>{1.0f, 0.5f, 0.5f}));  // of 1, 2 and 4 scored neighbours
}

TEST(Precision, LabelsAreComparedInAllTheirBits) {
  const Split split(all_on_the_last(1));
  std::vector<unsigned long> query{1}, resident{1ul << 32 | 1, 1};
  std::vector<int> rows = own_rows({0, 1}, 2);
  EXPECT_EQ(
      evaluate_topk_precision(1, 2, rows.data(), query.data(), resident.data(), score_all, silent),
      (std::vector<float>{0.0f, 0.5f}));
}

TEST(Precision, NothingToScoreNeedsNoOtherProcess) {
  // Only one process calls: with a collective inside this would hang.
  if (myid != 0) return;
  std::vector<unsigned long> label{1};
  std::vector<int> row{0};
  for (const int k : {1, 0, -4}) {
    EXPECT_EQ(printed_by([&] {
                EXPECT_TRUE(evaluate_topk_precision(1, k, row.data(), label.data(), label.data(),
                                                    skip_first, print)
                                .empty());
              }),
              "");
  }
}

TEST(Precision, WithoutQueriesItIsZero) {
  const Split split(all_on_the_last(0));
  EXPECT_EQ(evaluate_topk_precision(0, 2, nullptr, nullptr, nullptr, score_all, silent),
            (std::vector<float>{0.0f, 0.0f}));
}

TEST(Precision, EveryLevelCountsItsFirstNeighbours) {
  constexpr int queries = 23, residents = 40;
  std::mt19937 random(5);
  std::uniform_int_distribution<int> resident(0, residents - 1);
  std::uniform_int_distribution<unsigned long> label(0, 3);
  std::vector<unsigned long> query_labels(queries), resident_labels(residents);
  for (auto& l : query_labels) l = label(random);
  for (auto& l : resident_labels) l = label(random);

  const Split split(uneven(queries));
  const std::vector<std::vector<int>> expected_cut_offs{
      {1},          {1, 2},       {1, 2, 3},    {1, 2, 4},      {1, 2, 4, 5},
      {1, 2, 4, 6}, {1, 2, 4, 7}, {1, 2, 4, 8}, {1, 2, 4, 8, 9}};
  for (int k = 1; k <= 9; ++k) {
    std::vector<int> rows(static_cast<size_t>(queries * k));
    for (int& r : rows) r = resident(random);
    std::vector<float> expected;
    for (const int cut_off : expected_cut_offs[static_cast<size_t>(k) - 1]) {
      int hits = 0;
      for (int q = 0; q < queries; ++q) {
        for (int j = 0; j < cut_off; ++j)
          hits += resident_labels[rows[q * k + j]] == query_labels[q];
      }
      expected.push_back(static_cast<float>(hits / static_cast<double>(queries * cut_off)));
    }
    std::vector<int> own = own_rows(rows, k);
    EXPECT_EQ(evaluate_topk_precision(queries, k, own.data(), query_labels.data(),
                                      resident_labels.data(), score_all, silent),
              expected)
        << "k = " << k;
  }
}

}  // namespace
}  // namespace talvik::test

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  talvik::init_mpi(&talvik::myid, &talvik::num_procs, &talvik::local_id, &talvik::num_local_procs);
  const int status = RUN_ALL_TESTS();
  talvik::finalize_mpi();
  return status;
}
