// Ranges of documents as flat arrays, vocabularies shrunk to them, and the split over processes.
#include <gtest/gtest.h>

#include <memory>
#include <numeric>
#include <random>

#include "talvik.hpp"

namespace talvik {
namespace {

const DocumentSet some_docs = {
    {{9, 0.1f}}, {{7, 0.5f}, {2, 0.25f}}, {}, {{9, 1.f}, {7, 2.f}}, {{1, 3.f}}};

std::vector<float> counting_embeddings(int rows, int vec_size) {
  std::vector<float> embeddings(static_cast<size_t>(rows * vec_size));
  std::iota(embeddings.begin(), embeddings.end(), 0.f);
  return embeddings;
}

TEST(Conversion, ARangeKeepsItsOrderAndCountsFromItsOwnStart) {
  std::vector<int> ind(4), start(4, -1);
  std::vector<float> weight(4), X(8);
  auto embeddings = counting_embeddings(10, 2);
  EXPECT_EQ(setup_raw_data(some_docs, 1, 3, ind.data(), start.data(), weight.data()), 0);
  EXPECT_EQ(start, (std::vector<int>{0, 2, 2, 4}));
  EXPECT_EQ(ind, (std::vector<int>{7, 2, 9, 7}));
  EXPECT_EQ(weight, (std::vector<float>{0.5f, 0.25f, 1, 2}));
  setup_vectors(embeddings.data(), 2, some_docs, 1, 3, X.data(), start.data(), weight.data());
  EXPECT_EQ(X, (std::vector<float>{14, 15, 4, 5, 18, 19, 14, 15}));
  // An empty range writes one offset.
  start.assign(2, -1);
  setup_vectors(nullptr, 3, some_docs, 2, -1, nullptr, start.data(), nullptr);
  EXPECT_EQ(start, (std::vector<int>{0, -1}));
}

TEST(Compression, KeepsTheOrderOfTheWordsAndTheDocumentsOutsideTheRange) {
  DocumentSet docs = some_docs;
  auto embeddings = counting_embeddings(10, 2);
  int size = -1;
  float* rows = nullptr;
  EXPECT_EQ(compress_vocabulary(10, embeddings.data(), &size, &rows, 2, docs, 1, 3), 1);
  const std::unique_ptr<float[]> owner(rows);
  ASSERT_EQ(size, 3);
  EXPECT_EQ(std::vector<float>(rows, rows + 6), (std::vector<float>{4, 5, 14, 15, 18, 19}));
  EXPECT_EQ(docs, (DocumentSet{
                      {{9, 0.1f}}, {{1, 0.5f}, {0, 0.25f}}, {}, {{2, 1.f}, {1, 2.f}}, {{1, 3.f}}}));
}

class Split : public testing::Test {
 protected:
  ~Split() override {
    cleanup_distribution_info();
    num_procs = 0;
  }

  static void make(int procs, const std::vector<int>& sizes) {
    cleanup_distribution_info();
    num_procs = procs;
    DocumentSet docs;
    for (const int size : sizes) docs.emplace_back(static_cast<size_t>(size));
    const int entries = std::accumulate(sizes.begin(), sizes.end(), 0);
    EXPECT_EQ(load_balancing(docs, static_cast<int>(sizes.size()), entries), 0);
  }

  static std::vector<int> list(const int* values) { return {values, values + num_procs}; }
};

TEST_F(Split, AnOverfullGroupGivesBackItsLastDocumentUnlessItIsTheOnlyOne) {
  make(3, {4, 10, 2, 4, 1});
  EXPECT_EQ(list(grp_start), (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(list(grp_length), (std::vector<int>{1, 1, 3}));
  EXPECT_EQ(list(grp_data_length), (std::vector<int>{4, 10, 7}));
  EXPECT_EQ(list(grp_data_start), (std::vector<int>{0, 4, 14}));

  make(2, {3, 2, 2, 1});  // 3 + 2 is exactly a quarter above the target of 4
  EXPECT_EQ(list(grp_length), (std::vector<int>{1, 3}));

  make(2, {7, 1, 9, 1});  // 7 + 1 < 9, the target; 17 is given back; 9 + 1 are the last group
  EXPECT_EQ(list(grp_length), (std::vector<int>{2, 2}));
}

TEST_F(Split, WhatIsLeftOverGoesToTheLastGroupAndTheLastGroupsMayBeEmpty) {
  make(2, {1, 10, 1});
  EXPECT_EQ(list(grp_length), (std::vector<int>{1, 2}));
  make(4, {1, 0, 1});  // less than an entry per process: no group takes any
  EXPECT_EQ(list(grp_length), (std::vector<int>{0, 0, 0, 3}));
  make(4, {9, 9});
  EXPECT_EQ(list(grp_length), (std::vector<int>{1, 1, 0, 0}));
  EXPECT_EQ(list(grp_start), (std::vector<int>{0, 1, 2, 2}));
}

TEST_F(Split, EveryDocumentBelongsToExactlyOneGroup) {
  std::mt19937 random(5);
  for (int round = 0; round < 200; ++round) {
    const int procs = std::uniform_int_distribution<int>(1, 9)(random);
    std::vector<int> sizes(std::uniform_int_distribution<size_t>(0, 30)(random));
    for (int& size : sizes) size = std::uniform_int_distribution<int>(0, 20)(random);
    make(procs, sizes);
    size_t doc = 0;
    int entries = 0;
    for (int p = 0; p < procs; ++p) {
      ASSERT_EQ(grp_start[p], static_cast<int>(doc));
      ASSERT_EQ(grp_data_start[p], entries);
      int own = 0;
      for (int i = 0; i < grp_length[p]; ++i) own += sizes.at(doc++);
      ASSERT_EQ(grp_data_length[p], own);
      entries += own;
    }
    ASSERT_EQ(doc, sizes.size());
  }
}

}  // namespace
}  // namespace talvik
