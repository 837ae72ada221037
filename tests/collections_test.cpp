// Ranges of documents as flat arrays, vocabularies shrunk to them, and the split over processes.
#include <gtest/gtest.h>
#include <omp.h>

#include <memory>
#include <new>
#include <numeric>
#include <utility>
#include <vector>

#include "talvik.hpp"

namespace talvik {
namespace {

using Raised = std::bad_array_new_length;

DocumentSet docs_of(unsigned a, unsigned b, unsigned c, unsigned d, unsigned e, unsigned f) {
  return {{{a, 0.1f}}, {{b, 0.5f}, {c, 0.25f}}, {}, {{d, 1.f}, {e, 2.f}}, {{f, 3.f}}};
}
const DocumentSet some_docs = docs_of(9, 7, 2, 9, 7, 1);

// Word w has the vector (2w, 2w + 1).
float embeddings[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19};

TEST(Conversion, ARangeKeepsItsOrderAndCountsFromItsOwnStart) {
  std::vector<int> ind(4), start(4, -1);
  std::vector<float> weight(4), X(8);
  EXPECT_EQ(setup_raw_data(some_docs, 1, 3, ind.data(), start.data(), weight.data()), 0);
  EXPECT_EQ(start, (std::vector<int>{0, 2, 2, 4}));
  EXPECT_EQ(ind, (std::vector<int>{7, 2, 9, 7}));
  EXPECT_EQ(weight, (std::vector<float>{0.5f, 0.25f, 1, 2}));
  setup_vectors(embeddings, 2, some_docs, 1, 3, X.data(), start.data(), weight.data());
  EXPECT_EQ(X, (std::vector<float>{14, 15, 4, 5, 18, 19, 14, 15}));
  // An empty range writes one offset.
  start.assign(2, -1);
  setup_vectors(nullptr, 3, some_docs, 2, -1, nullptr, start.data(), nullptr);
  EXPECT_EQ(start, (std::vector<int>{0, -1}));
}

TEST(Compression, KeepsTheOrderOfTheWordsAndTheDocumentsOutsideTheRanges) {
  DocumentSet docs = some_docs, docs1 = some_docs, docs2 = some_docs;
  int size = -1;
  float* rows = nullptr;
  EXPECT_EQ(compress_vocabulary(10, embeddings, &size, &rows, 2, docs, 1, 3), 1);
  std::unique_ptr<float[]> owner(rows);
  ASSERT_EQ(size, 3);
  EXPECT_EQ(std::vector<float>(rows, rows + 6), (std::vector<float>{4, 5, 14, 15, 18, 19}));
  EXPECT_EQ(docs, docs_of(9, 1, 0, 2, 1, 1));

  // Two ranges share one numbering: 2 and 7 of the one, 1, 7 and 9 of the other.
  EXPECT_EQ(compress_vocabulary_cosine(10, embeddings, &size, &rows, 2, docs1, 1, 2, docs2, 3, 2),
            1);
  owner.reset(rows);
  ASSERT_EQ(size, 4);
  EXPECT_EQ(std::vector<float>(rows, rows + 8), (std::vector<float>{2, 3, 4, 5, 14, 15, 18, 19}));
  EXPECT_EQ(docs1, docs_of(9, 2, 1, 9, 7, 1));
  EXPECT_EQ(docs2, docs_of(9, 7, 2, 3, 2, 0));

  // A vocabulary without words is an empty one; one of fewer cannot be.
  EXPECT_EQ(compress_vocabulary(0, nullptr, &size, &rows, 2, docs, 2, 1), 1);
  owner.reset(rows);
  EXPECT_TRUE(size == 0 && rows != nullptr);
  for (const auto& [voc, vec] : {std::pair{-1, 2}, {10, -2}}) {
    EXPECT_THROW(compress_vocabulary(voc, embeddings, &size, &rows, vec, docs, 1, 2), Raised);
  }
  EXPECT_FALSE(use_cosine) << "the metric is the host program's choice";
}

TEST(Copies, NegativeCountsRaiseTheArrayLengthException) {
  int ints[3] = {0, 1, 2};
  float floats[4] = {};
  for (const auto& [n, m] : {std::pair{-1, 2}, {2, -2}}) {
    EXPECT_THROW(copy_vocabulary_cpu(n, m, floats), Raised);
    EXPECT_THROW(copy_raw_data_cpu(n, ints, floats, m, ints), Raised);
    EXPECT_THROW(copy_raw_data2_cpu(n, ints, floats, m, ints), Raised);
    EXPECT_THROW(copy_vectors2_cpu(n, m, floats, floats, 2, ints), Raised);
    EXPECT_THROW(copy_vectors2_cpu(n, 2, floats, floats, m, ints), Raised);
  }
  EXPECT_EQ(copy_vectors2_cpu(0, -1, nullptr, nullptr, 0, ints), 1);
  remove_raw_data_cpu();
  update_weights_delta(floats, floats, floats, floats);  // nothing is loaded, nothing is done
}

TEST(Teams, LeaveTheHostsTeamsAloneAndMayGrowBetweenCopyAndComputation) {
  constexpr int entries = 20'000;  // more than the panels of 64 threads hold together
  const int host_threads = omp_get_max_threads();
  std::vector<float> X(entries), weight(entries, 1.f);
  std::iota(X.rbegin(), X.rend(), 1.f);  // the nearest entry is the last one
  float W = 0, Z = 0;
  int word = 0, starts[2] = {0, 1}, starts2[2] = {0, entries};
  num_cpu_threads = 1;
  copy_vocabulary_cpu(1, 1, &W);
  copy_raw_data_cpu(1, &word, weight.data(), 1, starts);
  copy_vectors2_cpu(entries, 1, X.data(), weight.data(), 1, starts2);
  num_cpu_threads = 64;
  ed_min_vocab_cpu(&Z, 0, false);
  EXPECT_EQ(Z, 1);
  EXPECT_EQ(omp_get_max_threads(), host_threads);
  remove_vectors2_cpu();
  remove_raw_data_cpu();
  remove_vocabulary_cpu();
}

TEST(Split, GroupsReachTheirTargetAndGiveBackWhatMakesThemOverfull) {
  const struct {
    std::vector<int> sizes, lengths;  // entries of each document, documents of each process
  } cases[] = {
      {{4, 10, 2, 4, 1}, {1, 1, 3}},
      {{3, 2, 2, 1}, {1, 3}},     // 3 + 2 is exactly a quarter above the target of 4
      {{7, 1, 9, 1}, {2, 2}},     // 7 + 1 < 9, the target; 17 is given back
      {{1, 10, 1}, {1, 2}},       // what is left over goes to the last group
      {{1, 0, 1}, {0, 0, 0, 3}},  // less than an entry per process: no other group takes any
      {{9, 9}, {1, 1, 0, 0}},
      {{}, {0, 0}}};
  for (const auto& [sizes, lengths] : cases) {
    const int num_docs = static_cast<int>(sizes.size());
    num_procs = static_cast<int>(lengths.size());
    DocumentSet docs;
    for (const int size : sizes) docs.emplace_back(size);
    EXPECT_EQ(load_balancing(docs, num_docs, std::reduce(sizes.begin(), sizes.end())), 0);
    EXPECT_EQ(std::vector<int>(grp_length, grp_length + num_procs), lengths);
    int doc = 0, entries = 0;
    for (int p = 0; p < num_procs; ++p) {
      EXPECT_EQ(grp_start[p], doc);
      EXPECT_EQ(grp_data_start[p], entries);
      for (; doc < grp_start[p] + lengths[p]; ++doc) entries += sizes[doc];
      EXPECT_EQ(grp_data_length[p], entries - grp_data_start[p]);
    }
    cleanup_distribution_info();
    EXPECT_EQ(grp_data_length, nullptr);
  }
  num_procs = 0;
}

}  // namespace
}  // namespace talvik
