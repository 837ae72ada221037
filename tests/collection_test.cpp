// Vectors, and collections in memory: from texts and bags of words to compressed sparse rows.
#include "talvik/collection.hpp"

#include <gtest/gtest.h>
#include <omp.h>

#include <climits>
#include <cmath>
#include <limits>
#include <random>
#include <set>

#include "parse/embedding_file.hpp"
#include "support/collections.hpp"
#include "talvik.hpp"

using namespace talvik;
using namespace talvik::test;

namespace {

constexpr float infinite = std::numeric_limits<float>::infinity();

TEST(VectorTables, ArraysThatMakeNoTableAreRefusedByName) {
  struct Case {
    std::vector<std::string> words;
    std::vector<float> rows;
    int dimensions;
    const char* message;
  };
  const Case cases[] = {
      {{"a", "b"}, {1, 2, 3}, 2, "rows: 3 numbers are no multiple of the 2 dimensions"},
      {{"a", "b"}, {1, 2}, 2, "rows: 1 rows of 2 numbers for 2 words"},
      {{"a"}, {}, 0, "dimensions: 0, must be positive"},
      {{"a"}, {1}, -1, "dimensions: -1, must be positive"},
      {{"a", "b", "a"}, {1, 2, 3}, 1, "words: 'a' comes twice, as number 0 and number 2"},
      {{"a", "b"}, {1, 2, infinite, 4}, 2, "rows: component 0 of word 1 ('b') is inf"},
      {{}, {1, NAN}, 2, "rows: component 1 of word 0 is nan"},
      {{"a"}, {1e30F}, 1, "rows: the numbers of word 0 ('a') are too large"},
  };
  for (const Case& c : cases) {
    const std::string message =
        message_of<ArgumentError>([&] { Vectors::from_arrays(c.words, c.rows, c.dimensions); });
    EXPECT_EQ(message.substr(0, std::string(c.message).size()), c.message);
  }
}

TEST(VectorTables, RowsAreScaledAsTheEmbeddingReaderDoes) {
  std::mt19937 random(1);
  std::normal_distribution<float> component;
  const int words = 17, dimensions = 33;
  std::vector<float> rows(words * dimensions);
  for (float& x : rows) x = component(random);
  std::fill_n(rows.begin() + 2 * dimensions, dimensions, 0.0F);
  std::vector<float> scaled(rows.size());
  for (int v = 0; v < words; ++v) {
    const auto* bytes = reinterpret_cast<const char*>(rows.data() + v * dimensions);
    internal::copy_unit_vector({bytes, dimensions * sizeof(float)}, scaled.data() + v * dimensions);
  }
  const Vectors vectors = Vectors::from_arrays({}, rows, dimensions);
  EXPECT_EQ(copy_of(vectors.rows()), scaled);
  EXPECT_FALSE(vectors.has_words());
  const auto& norms = vectors.table().norms;
  ASSERT_EQ(norms.size(), 32U);  // whole lines of 16
  for (int v = 0; v < 32; ++v) EXPECT_NEAR(norms[v], v < words && v != 2 ? 1 : 0, 1e-6) << v;
}

TEST(VectorTables, WordsAreSelectedAndJoined) {
  const Vectors all = six_words();
  const std::vector<int> numbers = {4, 0};
  const Vectors some = all.select(numbers);
  expect_same_vectors(
      some, Vectors::from_arrays({"eel", "ant"}, std::vector<float>{-6, 8, 3, 4}, 2, false));
  // Of a word that both have the first row counts.
  const std::vector<float> rows = {7, 7, 9, 9};
  const Vectors joined = some.with(Vectors::from_arrays({"ant", "fox"}, rows, 2, false));
  expect_same_vectors(
      joined,
      Vectors::from_arrays({"eel", "ant", "fox"}, std::vector<float>{-6, 8, 3, 4, 9, 9}, 2, false));
  EXPECT_THROW(all.select(std::vector<int>{6}), ArgumentError);
  EXPECT_THROW(all.select(std::vector<int>{1, 1}), ArgumentError);
  EXPECT_THROW(all.with(six_words(true)), ArgumentError);
}

std::vector<Text> random_texts(int count, int seed) {
  const std::vector<std::string> words = {"ant", "bee", "Cat", "dog", "eel", "fox", "well-known"};
  std::mt19937 random(seed);
  std::vector<Text> texts(count);
  for (int i = 0; i < count; ++i) {
    texts[i].id = std::to_string(i);
    const auto length = random() % 9;
    for (unsigned w = 0; w < length; ++w) texts[i].text += words[random() % words.size()] + " ";
  }
  return texts;
}

class MostWords : public testing::TestWithParam<int> {};

// As many texts as are tokenized at a time, and some more.
TEST_P(MostWords, TextsHaveTheWeightsOfTheCorpusReaderOnAnyNumberOfThreads) {
  const std::vector<Text> texts = random_texts(66'000, 7);
  VocabularyMap numbers;
  const Vectors vectors = six_words();
  for (int v = 0; v < vectors.size(); ++v) numbers.emplace(vectors.word(v), v);
  CollectionOptions options;
  options.rules.max_words = GetParam();
  Collection one_thread(options), collection(options);
  omp_set_num_threads(1);
  one_thread.append(texts, vectors);
  omp_set_num_threads(3);
  const AppendReport report = collection.append(texts, vectors);
  expect_same(collection, one_thread);
  const auto bags = bags_of(collection);
  Count empty = 0;
  for (size_t i = 0; i < texts.size(); ++i) {
    std::string text = texts[i].text;
    for (char& c : text) c = static_cast<char>(std::tolower(c));
    Document document;
    parse_single_doc(text, numbers, document, options.rules.max_words, -1, 1);
    std::map<std::string, float> wanted;
    for (const auto& [word, weight] : document) wanted.emplace(vectors.word(word), weight);
    ASSERT_EQ(bags[i], wanted) << texts[i].text;
    empty += wanted.empty();
  }
  EXPECT_EQ(report.documents, 66'000);
  EXPECT_EQ(report.empty, empty);
  EXPECT_GT(report.unknown_tokens, report.tokens / 8);  // one word of seven is unknown
  EXPECT_LT(report.unknown_tokens, report.tokens / 6);
}
INSTANTIATE_TEST_SUITE_P(Limits, MostWords, testing::Values(1, 2, INT_MAX));

// Words take their numbers as they come to occur; documents and rows do not depend on it.
TEST(Collections, AppendingInPartsSaysTheSame) {
  const Vectors vectors = six_words();
  const std::vector<Text> texts = random_texts(40, 3);
  for (const bool all_words : {false, true}) {
    CollectionOptions options;
    options.all_words = all_words;
    Collection whole(options), parts(options);
    const AppendReport wanted = whole.append(texts, vectors);
    AppendReport found;
    for (int i = 0; i < 40; i += 4) {
      const AppendReport part = parts.append(std::span(texts).subspan(i, 4), vectors);
      found.tokens += part.tokens;
      found.unknown_tokens += part.unknown_tokens;
      found.empty += part.empty;
      const auto words = parts.words();
      ASSERT_EQ(*std::max_element(words.begin(), words.end()), parts.used_words() - 1);
      ASSERT_EQ(parts.vocabulary().size(), all_words ? 6 : parts.used_words());
      for (Count d = 0; d < parts.size(); ++d) {
        const auto first = words.begin() + parts.offsets()[d];
        const auto last = words.begin() + parts.offsets()[d + 1];
        ASSERT_TRUE(std::is_sorted(first, last, std::less_equal<>())) << d;
      }
    }
    EXPECT_EQ(bags_of(parts), bags_of(whole));
    EXPECT_EQ(copy_of(parts.ids()), copy_of(whole.ids()));
    EXPECT_EQ(found.tokens, wanted.tokens);
    EXPECT_EQ(found.unknown_tokens, wanted.unknown_tokens);
    EXPECT_EQ(found.empty, wanted.empty);
    for (int v = 0; v < parts.vocabulary().size(); ++v) {
      const int number = *vectors.find(parts.vocabulary().word(v));
      EXPECT_EQ(copy_of(parts.vocabulary().row(v)), copy_of(vectors.row(number)));
    }
  }
}

TEST(Collections, QueriesTakeTheWordsTheyUse) {
  CollectionOptions options;
  options.rules.stop_words = {"eel"};
  for (const bool all_words : {false, true}) {
    options.all_words = all_words;
    Collection collection(options);
    collection.append(std::vector<Text>{{"x", "dog bee well-known", {}, ""}}, six_words());
    Collection queries = collection.for_queries();
    queries.append(std::vector<Text>{{"q", "Bee ant eel well-known", {}, ""}},
                   collection.vocabulary());
    std::set<std::string> wanted = {"bee", "well-known"};
    if (all_words) wanted.insert("ant");
    std::set<std::string> found;
    const auto bags = bags_of(queries);
    for (const auto& [word, weight] : bags[0]) found.insert(word);
    EXPECT_EQ(found, wanted);
    EXPECT_EQ(queries.vocabulary().size(), std::ssize(wanted));
  }
}

DocumentArrays arrays_of(std::span<const Count> offsets, std::span<const int> words,
                         std::span<const float> weights, bool normalise) {
  return {.offsets = offsets, .words = words, .weights = weights, .normalise = normalise};
}

TEST(Collections, BagsAreSortedAndSummed) {
  const std::vector<Count> offsets = {0, 4, 4, 6};
  const std::vector<int> words = {3, 0, 3, 1, 5, 4};
  const std::vector<float> weights = {1, 2, 5, 0, 1, 1};
  Collection plain;
  const auto report = plain.append(arrays_of(offsets, words, weights, false), six_words());
  using Bags = std::vector<std::map<std::string, float>>;
  EXPECT_EQ(bags_of(plain), (Bags{{{"ant", 2}, {"dog", 6}}, {}, {{"well-known", 1}, {"eel", 1}}}));
  EXPECT_EQ(report.empty_ids, std::vector<std::string>{"1"});
  Collection scaled;
  scaled.append(arrays_of(std::span(offsets).first(3), std::span(words).first(4),
                          std::span(weights).first(4), true),
                six_words());
  EXPECT_EQ(bags_of(scaled), (Bags{{{"ant", 0.25F}, {"dog", 0.75F}}, {}}));
}

TEST(Collections, BagsThatAreNoneAreRefusedByPlace) {
  struct Case {
    std::vector<Count> offsets;
    std::vector<int> words;
    std::vector<float> weights;
    const char* message;
  };
  const Case cases[] = {
      {{}, {}, {}, "documents.offsets: empty"},
      {{1, 2}, {0, 0}, {1, 1}, "documents.offsets: begin with 1"},
      {{0, 2, 1}, {0}, {1}, "documents.offsets: fall from 2 to 1 at document 1"},
      {{0, 2}, {0}, {1, 1}, "documents.words: 1 of them for 2"},
      {{0, 1}, {0}, {1, 1}, "documents.weights: 2 of them for 1"},
      {{0, 1, 3}, {0, 1, 6}, {1, 1, 1}, "documents: document 1: entry 1 has word 6"},
      {{0, 1}, {-1}, {1}, "documents: document 0: entry 0 has word -1"},
      {{0, 1, 2}, {0, 1}, {1, NAN}, "documents: document 1: entry 0 has weight nan"},
      {{0, 2}, {1, 1}, {3e38F, 3e38F}, "documents: document 0: the weights of word 1 add up to 6"},
      {{0, 2}, {0, 1}, {1, -1}, "documents: document 0: entry 1 has weight -1"},
  };
  const Collection before;
  Collection collection;
  for (const Case& c : cases) {
    const std::string message = message_of<ArgumentError>(
        [&] { collection.append(arrays_of(c.offsets, c.words, c.weights, true), six_words()); });
    EXPECT_EQ(message.substr(0, std::string(c.message).size()), c.message);
    expect_same(collection, before);
  }
}

TEST(Collections, WhatCannotBeAppendedLeavesTheCollectionAsItWas) {
  const Vectors vectors = six_words();
  Collection collection;
  collection.append(std::vector<Text>{{"x", "ant", "A", ""}, {"y", "bee", "B", ""}}, vectors);
  const Collection before = collection;
  std::vector<float> other_rows = copy_of(vectors.rows());
  other_rows[5] += 1;  // of cat
  const auto& words = vectors.table().words;
  const Vectors other_file = Vectors::from_arrays(words, other_rows, 2, false);
  const Vectors wide = Vectors::from_arrays({"ant"}, std::vector<float>{1, 2, 3}, 3, false);
  const Vectors nameless = Vectors::from_arrays({}, vectors.rows(), 2, false);
  struct Case {
    std::vector<Text> texts;
    Vectors vectors;
    const char* message;
  };
  const Case cases[] = {
      {{{"z", "eel", "A", "f:1"}, {"y", "eel", "A", "f:2"}},
       vectors,
       "f:2: the id 'y' is that of document 1, too"},
      {{{"z", "eel", "A", "f:1"}, {"z", "eel", "A", ""}},
       vectors,
       "document 3: the id 'z' is that of f:1, too"},
      {{{"", "eel", "A", "f:1"}}, vectors, "f:1: the id is empty"},
      {{{"z", "eel", {}, "f:1"}}, vectors, "labels: none, but the documents before have labels"},
      {{{"z", "eel", "A", "f:1"}, {"u", "eel", {}, "f:2"}}, vectors, "f:2: no label, unlike f:1"},
      {{{"z", "eel", "A", ""}}, six_words(true), "vectors: the rows are scaled to unit length"},
      {{{"z", "ant", "A", ""}}, wide, "vectors: rows of 3 dimensions"},
      {{{"z", "ant", "A", ""}}, nameless, "vectors: rows without words"},
  };
  for (const Case& c : cases) {
    const std::string message =
        message_of<ArgumentError>([&] { collection.append(c.texts, c.vectors); });
    EXPECT_EQ(message.substr(0, std::string(c.message).size()), c.message);
    expect_same(collection, before);
  }
  // Another file of vectors may serve as long as the words that are there have the same rows.
  collection.append(std::vector<Text>{{"z", "ant cat", "A", ""}}, other_file);
  EXPECT_EQ(message_of<ArgumentError>([&] {
              collection.append(std::vector<Text>{{"u", "cat", "A", ""}}, vectors);
            }),
            "vectors: another row for word 2 ('cat') than the collection has");
}

// Rows without words keep the numbers of their table, which has to be the same every time.
TEST(Collections, NamelessRowsAreKeptAsATable) {
  const Vectors table = Vectors::from_arrays({}, six_words().rows(), 2, false);
  const std::vector<Count> offsets = {0, 2};
  const std::vector<int> words = {4, 2};
  const std::vector<float> weights = {1, 3};
  const DocumentArrays bag = arrays_of(offsets, words, weights, false);
  Collection collection;
  collection.append(bag, table);
  EXPECT_EQ(copy_of(collection.words()), (std::vector{2, 4}));
  EXPECT_EQ(&collection.vocabulary().table(), &table.table());
  const Vectors again = Vectors::from_arrays({}, six_words().rows(), 2, false);
  collection.append(bag, again);
  EXPECT_EQ(collection.size(), 2);
  EXPECT_THROW(collection.append(bag, table.select(std::vector<int>{0, 1, 2, 3, 4})),
               ArgumentError);
  EXPECT_THROW(collection.append(bag, table.select(std::vector<int>{0, 1, 3, 2, 4, 5})),
               ArgumentError);
  EXPECT_THROW(collection.append(bag, six_words()), ArgumentError);
}

Collection labelled_collection() {
  CollectionOptions options;
  options.keep_texts = true;
  Collection collection(options);
  std::vector<Text> texts = random_texts(30, 5);
  for (size_t i = 0; i < texts.size(); ++i) texts[i].label = std::to_string(i % 3);
  collection.append(texts, six_words());
  return collection;
}

TEST(Collections, RemovedDocumentsAreGone) {
  const Collection whole = labelled_collection();
  const std::vector<Count> removed = {29, 3, 0, 4};
  Collection collection = whole;
  collection.remove(removed);
  ASSERT_EQ(collection.size(), 26);
  auto bags = bags_of(whole);
  auto ids = copy_of(whole.ids()), labels = copy_of(whole.labels()), texts = copy_of(whole.texts());
  for (const int at : {29, 4, 3, 0}) {
    bags.erase(bags.begin() + at);
    for (auto* strings : {&ids, &labels, &texts}) strings->erase(strings->begin() + at);
  }
  EXPECT_EQ(bags_of(collection), bags);
  EXPECT_EQ(copy_of(collection.ids()), ids);
  EXPECT_EQ(copy_of(collection.labels()), labels);
  EXPECT_EQ(copy_of(collection.texts()), texts);
  EXPECT_EQ(collection.find("5"), 2);
  EXPECT_EQ(collection.find("4"), std::nullopt);
  // What was removed may come again.
  collection.append(std::vector<Text>{{"4", "ant", "1", ""}}, six_words());
  EXPECT_EQ(collection.find("4"), 26);
  EXPECT_THROW(collection.remove(std::vector<Count>{27}), ArgumentError);
}

TEST(Collections, SlicesAreTheWholeInPieces) {
  const Collection whole = labelled_collection();
  const auto bags = bags_of(whole);
  for (const int size : {1, 2, 3, 7, 30, 41}) {
    Count next = 0;
    for (int rank = 0; rank < size; ++rank) {
      Collection slice = whole.slice(rank, size);
      ASSERT_EQ(slice.first_document(), next);
      ASSERT_EQ(slice.total_documents(), 30);
      for (const auto& bag : bags_of(slice)) EXPECT_EQ(bag, bags[next++]);
      const Count first = slice.first_document();
      for (Count i = 0; i < slice.size(); ++i) {
        EXPECT_EQ(slice.id(i), whole.id(first + i));
        EXPECT_EQ(slice.labels()[i], whole.labels()[first + i]);
        EXPECT_EQ(slice.texts()[i], whole.texts()[first + i]);
        EXPECT_EQ(slice.find(whole.id(first + i)), i);
      }
      // No slice is off the equal share by more than a document, which has at most 6 entries.
      EXPECT_NEAR(static_cast<double>(slice.entries() + slice.size()),
                  static_cast<double>(whole.entries() + 30) / size, 7);
      if (size > 1) {
        EXPECT_THROW(slice.remove({}), ArgumentError);
      }
    }
    EXPECT_EQ(next, 30);
  }
  EXPECT_THROW(whole.slice(2, 2), ArgumentError);
}

}  // namespace
