// The reader of text corpora: how a text becomes a document, and a directory tree a collection.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/files.hpp"
#include "support/output.hpp"
#include "talvik.hpp"

namespace talvik::test {
namespace {

constexpr int all = 1000, skip_nothing = -1, skip_the = 0, unit_sum = 1, unit_length = 2;

TEST(Text, KnownWordsAreCountedAndTheMostFrequentKept) {
  const std::string story = "The cat (sat), the cat's mat.", long_word(100'000, 'x');
  const std::string frequent = "e d c b a e d a";  // a, d, e twice; b, c once
  const std::string spellings =                    // five times cat
      "cat cat:;., ('cat') cat's 'cat's' cat! \"cat\" cat-sat cat.\n Cat ... (.' U.S. (b)c(d) ''";
  VocabularyMap voc{{"the", 0},  {"cat", 1},     {"sat", 2},      {"", 3},      {"cat!", 4},
                    {"...", 5},  {"(.", 6},      {"\"cat\"", 7},  {"U.S", 8},   {"cat-sat", 9},
                    {"Cat", 10}, {"cat.\n", 11}, {"b)c(d", 12},   {"\n", 13},   {"a\tb\n", 14},
                    {"\r", 15},  {"U.S.", 16},   {"(b)c(d)", 17}, {"cat.", 18}, {long_word, 19}};
  // More words of one count than an unstable sort leaves in order.
  const std::string alphabet = "z y x w v u t s r q p o n m l k j i h g f e d c b a";
  Document first_twenty, cleaned{{1, 5 / 15.0f}, {3, 1 / 15.0f}};
  for (unsigned w = 0; w < 26; ++w) {
    voc.emplace(alphabet.substr(50 - 2 * w, 1), 100 + w);
    if (w < 20) first_twenty.emplace_back(100 + w, 1 / 20.0f);
  }
  for (unsigned w = 4; w <= 12; ++w) cleaned.emplace_back(w, 1 / 15.0f);
  const struct {
    std::string text;
    Document doc;
    int max_words = all, skip_index = skip_nothing, norm_type = unit_sum;
  } cases[] = {
      {story, {{0, 0.25f}, {1, 0.5f}, {2, 0.25f}}},
      {story, {{1, float(2 / 3.0)}, {2, float(1 / 3.0)}}, all, skip_the},
      {story, {{1, 1.0f}}, 1},
      {spellings, cleaned},
      {"nothing known", {}},
      {"", {}},
      {long_word + "y " + long_word, {{19, 1.0f}}},
      {"a\tb\n \r", {{14, 0.5f}, {15, 0.5f}}},              // only spaces separate
      {" a  b ", {{3, 0.5f}, {100, 0.25f}, {101, 0.25f}}},  // none after the last space
      {frequent, {{100, 2 / 7.0f}, {103, 2 / 7.0f}, {104, 2 / 7.0f}, {101, 1 / 7.0f}}, 4},
      {"b a b", {{100, float(1 / 3.0)}, {101, float(2 / 3.0)}}, 2},  // nothing dropped, no sorting
      {frequent, {}, -3},
      {alphabet, first_twenty, 20},
      {"a b a b b a b", {{100, 0.6f}, {101, 0.8f}}, all, skip_nothing, unit_length}};
  for (const auto& [text, expected, max_words, skip_index, norm_type] : cases) {
    Document doc;
    EXPECT_EQ(parse_single_doc(text, voc, doc, max_words, skip_index, norm_type),
              std::ssize(expected));
    EXPECT_EQ(doc, expected) << text;
  }
  EXPECT_EQ(voc.size(), 46u);
  // What the document holds before is scaled with the rest, and not counted.
  Document doc{{9, 3.0f}};
  EXPECT_EQ(parse_single_doc("the", voc, doc, all, skip_nothing, unit_sum), 1);
  EXPECT_EQ(doc, (Document{{9, 0.75f}, {0, 0.25f}}));
}

/// Everything that the corpus reader fills, beside what is there already.
struct Corpus {
  DocumentSet docs{{{5, 2.0f}}};
  LabelList ids{70}, labels{3};
  int num_docs = -1, num_words = -1;

  int read(const char* dir, int max_words = all) {
    VocabularyMap voc{{"the", 0}, {"cat", 1}, {"sat", 2}};
    return parse_docs_20(dir, max_words, skip_the, docs, ids, labels, num_docs, num_words, voc);
  }
};

TEST(Corpus, TheFilesOfATreeBecomeDocumentsOfNumberedClasses) {
  const TempDir dir;
  const std::string root = dir / "root";
  const std::pair<const char*, const char*> texts[] = {
      {"/A/101", "cat"},      {"/A/102", "sat cat"}, {"/A/103", "?"}, {"/A/104", ""},
      {"/A/deep/201", "sat"}, {"/B/301", "dog"},     {"/999", "cat"}};
  for (const auto& [name, text] : texts) write_file(root + name, text);
  std::filesystem::create_symlink(root + "/A/101", root + "/A/105");
  std::vector<std::string> files{"before"}, dirs{"before"};
  ASSERT_TRUE(get_docs_20(root, files, dirs));
  EXPECT_FALSE(get_docs_20(root + "/A/101", files, dirs));  // a file is no directory
  ASSERT_EQ(files.size(), dirs.size());
  std::set<std::string> listed;
  std::map<std::string, unsigned long> class_of_dir, class_of_file;
  for (size_t i = 1; i < files.size(); ++i) {
    listed.insert(dirs[i].substr(root.size()) + ":" + files[i]);
    // Directories without documents have a number, too.
    class_of_file[files[i]] = class_of_dir.emplace(dirs[i], class_of_dir.size()).first->second;
  }
  EXPECT_EQ(listed, (std::set<std::string>{":999", "/A/:101", "/A/:102", "/A/:103", "/A/:104",
                                           "/A//deep/:201", "/B/:301"}));
  Corpus corpus;  // 999 is missing: there is no "/" between its directory and its name
  EXPECT_EQ(printed_by([&] { EXPECT_EQ(corpus.read(root.c_str()), 3); }), "File size is zero\n");
  EXPECT_EQ(std::pair(corpus.num_docs, corpus.num_words), std::pair(3, 4));
  std::map<unsigned long, Document> read;
  for (size_t n = 1; n < corpus.docs.size(); ++n) {
    read[corpus.ids.at(n)] = corpus.docs[n];
    EXPECT_EQ(corpus.labels.at(n), class_of_file.at(std::to_string(corpus.ids[n])));
  }
  EXPECT_EQ(read, (std::map<unsigned long, Document>{
                      {101, {{1, 1.0f}}}, {102, {{1, 0.5f}, {2, 0.5f}}}, {201, {{2, 1.0f}}}}));
}

TEST(Corpus, NamesAreNumbersAndARootWithoutDocumentsGivesNone) {
  const TempDir dir;
  Corpus corpus;
  write_file(dir / "a/12 and more", "cat");       // a number up to the first other character
  write_file(dir / "a/readme", "nothing known");  // no document, so no matter
  EXPECT_EQ(corpus.read((dir / "a/").c_str(), 0), 0) << "no word has room";
  EXPECT_EQ(corpus.read((dir / "missing").c_str()), 0);
  EXPECT_THROW(corpus.read(nullptr), std::logic_error);
  EXPECT_EQ(corpus.num_docs + corpus.num_words, 0);
  EXPECT_EQ(corpus.read((dir / "a/").c_str()), 1);
  write_file(dir / "b/18446744073709551615", "cat");
  EXPECT_EQ(corpus.read((dir / "b/").c_str()), 1);
  EXPECT_EQ(corpus.docs, (DocumentSet{{{5, 2.0f}}, {{1, 1.0f}}, {{1, 1.0f}}}));
  EXPECT_EQ(corpus.ids, (LabelList{70, 12, 18446744073709551615ul}));
  EXPECT_EQ(corpus.labels, (LabelList{3, 0, 0}));
  write_file(dir / "c/18446744073709551616", "cat");
  EXPECT_THROW(corpus.read((dir / "c/").c_str()), std::out_of_range);
  write_file(dir / "d/readme", "cat");
  EXPECT_THROW(corpus.read((dir / "d/").c_str()), std::invalid_argument);
}

}  // namespace
}  // namespace talvik::test
