// Small collections, and what makes two of them the same.
#ifndef TALVIK_TESTS_SUPPORT_COLLECTIONS_HPP
#define TALVIK_TESTS_SUPPORT_COLLECTIONS_HPP

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "search/vector_table.hpp"
#include "talvik/collection.hpp"
#include "talvik/error.hpp"

namespace talvik::test {

template <class Range>
auto copy_of(const Range& range) {
  return std::vector<std::decay_t<decltype(*range.begin())>>(range.begin(), range.end());
}

/// Documents by what they say, whatever the numbers of the words.
inline std::vector<std::map<std::string, float>> bags_of(const Collection& collection) {
  std::vector<std::map<std::string, float>> bags(collection.size());
  for (Count i = 0; i < collection.size(); ++i) {
    for (Count p = collection.offsets()[i]; p < collection.offsets()[i + 1]; ++p) {
      bags[i].emplace(collection.vocabulary().word(collection.words()[p]), collection.weights()[p]);
    }
  }
  return bags;
}

inline void expect_same_vectors(const Vectors& found, const Vectors& wanted) {
  const internal::VectorTable& a = found.table();
  const internal::VectorTable& b = wanted.table();
  EXPECT_EQ(a.num_words, b.num_words);
  EXPECT_EQ(a.dimensions, b.dimensions);
  EXPECT_EQ(a.unit_length, b.unit_length);
  EXPECT_EQ(a.words, b.words);
  EXPECT_EQ(a.numbers, b.numbers);
  EXPECT_EQ(a.rows, b.rows);
  EXPECT_EQ(a.norms, b.norms);
  EXPECT_EQ(a.row_hash, b.row_hash);
}

inline void expect_same(const Collection& found, const Collection& wanted) {
  EXPECT_EQ(found.options(), wanted.options());
  EXPECT_EQ(found.used_words(), wanted.used_words());
  EXPECT_EQ(found.first_document(), wanted.first_document());
  EXPECT_EQ(found.total_documents(), wanted.total_documents());
  EXPECT_EQ(copy_of(found.offsets()), copy_of(wanted.offsets()));
  EXPECT_EQ(copy_of(found.words()), copy_of(wanted.words()));
  EXPECT_EQ(copy_of(found.weights()), copy_of(wanted.weights()));
  EXPECT_EQ(copy_of(found.ids()), copy_of(wanted.ids()));
  EXPECT_EQ(copy_of(found.labels()), copy_of(wanted.labels()));
  EXPECT_EQ(copy_of(found.texts()), copy_of(wanted.texts()));
  expect_same_vectors(found.vocabulary(), wanted.vocabulary());
  for (Count i = 0; i < wanted.size(); ++i) EXPECT_EQ(found.find(wanted.id(i)), i);
}

/// Runs what is to throw an Error and gives its message.
template <class Exception, class Action>
std::string message_of(const Action& action) {
  try {
    action();
  } catch (const Exception& error) {
    return error.what();
  }
  ADD_FAILURE() << "nothing was thrown";
  return {};
}

/// Six words in two dimensions; not scaled, the rows are whole numbers.
inline Vectors six_words(bool unit_length = false) {
  const std::vector<float> rows = {3, 4, 0, 0, 1, 0, 0, 2, -6, 8, 5, 12};
  return Vectors::from_arrays({"ant", "bee", "cat", "dog", "eel", "well-known"}, rows, 2,
                              unit_length);
}

}  // namespace talvik::test

#endif
