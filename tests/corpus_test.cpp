// The reader of text corpora: how a text becomes a document, and a directory tree a collection.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/files.hpp"
#include "support/output.hpp"
#include "talvik.hpp"

namespace talvik::test {
namespace {

constexpr int no_limit = 1000;
constexpr int skip_nothing = -1;
constexpr int unit_sum = 1;
constexpr int unit_length = 2;

Document document_of(const std::string& text, VocabularyMap voc, int max_words = no_limit,
                     int skip_index = skip_nothing, int norm_type = unit_sum) {
  Document doc;
  const int entries = parse_single_doc(text, voc, doc, max_words, skip_index, norm_type);
  EXPECT_EQ(entries, static_cast<int>(doc.size())) << text;
  return doc;
}

const VocabularyMap the_cat_sat{{"the", 0}, {"cat", 1}, {"sat", 2}};
const std::string story = "The cat (sat), the cat's mat.";

TEST(Text, KnownWordsAboveTheSkippedOnesAreCounted) {
  constexpr int skip_the = 0;
  EXPECT_EQ(document_of(story, the_cat_sat, no_limit, skip_the),
            (Document{{1, static_cast<float>(2 / 3.0)}, {2, static_cast<float>(1 / 3.0)}}));
  EXPECT_EQ(document_of(story, the_cat_sat),
            (Document{{0, 0.25f}, {1, 0.5f}, {2, 0.25f}}));  // index order, not text order
  EXPECT_TRUE(document_of("nothing known", the_cat_sat).empty());
  EXPECT_TRUE(document_of("", the_cat_sat).empty());
}

TEST(Text, TokensAreCleanedInOrder) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"cat", "cat"},         {"cat:;.,", "cat"}, {"('cat')", "cat"},  {"cat's", "cat"},
      {"'cat's'", "cat"},     {"U.S.", "U.S"},    {"cat!", "cat!"},    {"\"cat\"", "\"cat\""},
      {"cat-sat", "cat-sat"}, {"...", "..."},     {"(.'", "(."},       {"''", ""},
      {"cat.\n", "cat.\n"},   {"Cat", "Cat"},     {"(a)b(c)", "a)b(c"}};
  for (const auto& [token, word] : cases) {
    // The token as it stands is in the vocabulary too: only the right spelling may count.
    VocabularyMap voc{{word, 1}};
    voc.emplace(token, 0);
    EXPECT_EQ(document_of(token, voc), (Document{{1, 1.0f}})) << token;
  }
}

TEST(Text, OnlySpacesSeparateTokens) {
  const VocabularyMap voc{{"", 5}, {"a", 6}, {"b", 7}, {"a\nb", 8}, {"a\tb", 9}};
  EXPECT_EQ(document_of("a\nb a\tb", voc), (Document{{8, 0.5f}, {9, 0.5f}}));
  EXPECT_EQ(document_of("a  b", voc), (Document{{5, 1 / 3.0f}, {6, 1 / 3.0f}, {7, 1 / 3.0f}}));
  EXPECT_EQ(document_of(" a b ", voc),  // empty before the first space, none after the last
            (Document{{5, 1 / 3.0f}, {6, 1 / 3.0f}, {7, 1 / 3.0f}}));
}

TEST(Text, TheMostFrequentWordsAreKeptAndOfEqualOnesTheLowerIndex) {
  EXPECT_EQ(document_of(story, the_cat_sat, 1), (Document{{1, 1.0f}}));
  const VocabularyMap voc{{"d", 0}, {"c", 1}, {"b", 2}, {"a", 3}, {"e", 4}};
  const std::string text = "a b c d e a b e";  // a, b, e twice; c, d once
  EXPECT_EQ(document_of(text, voc, 4),
            (Document{{2, 2 / 7.0f}, {3, 2 / 7.0f}, {4, 2 / 7.0f}, {0, 1 / 7.0f}}));
  EXPECT_EQ(document_of(text, voc, 2), (Document{{2, 0.5f}, {3, 0.5f}}));
  EXPECT_EQ(document_of(text, voc, 5).front().first, 0u);  // nothing dropped: index order
  EXPECT_TRUE(document_of(text, voc, 0).empty());
  EXPECT_TRUE(document_of(text, voc, -3).empty());
}

TEST(Text, ManyEqualCountsStayInIndexOrder) {
  // Long enough that an unstable sort reorders equal counts.
  VocabularyMap voc;
  std::string text;
  for (int w = 0; w < 500; ++w) {
    const std::string word = "w" + std::to_string(w);
    voc.emplace(word, w);
    text = word + " " + text;
  }
  const Document doc = document_of(text, voc, 400);
  ASSERT_EQ(doc.size(), 400u);
  EXPECT_TRUE(std::is_sorted(doc.begin(), doc.end()));
  EXPECT_EQ(doc.back().first, 399u);
}

TEST(Text, LengthsAreNormalisedOverTheWholeDocument) {
  EXPECT_EQ(document_of("a b a b b a b", {{"a", 0}, {"b", 1}}, no_limit, skip_nothing, unit_length),
            (Document{{0, 0.6f}, {1, 0.8f}}));
  // What the document held before the call is scaled with the rest, and not counted.
  VocabularyMap voc{{"a", 0}};
  Document doc{{9, 3.0f}};
  EXPECT_EQ(parse_single_doc("a", voc, doc, no_limit, skip_nothing, unit_sum), 1);
  EXPECT_EQ(doc, (Document{{9, 0.75f}, {0, 0.25f}}));
  EXPECT_EQ(voc.size(), 1u);
}

TEST(CorpusWalk, ListsRegularFilesOfTheWholeTree) {
  const TempDir dir;
  write_file(dir.path() / "root/7", "x");
  write_file(dir.path() / "root/A/1", "x");
  write_file(dir.path() / "root/A/deep/2", "x");
  std::filesystem::create_directories(dir.path() / "root/empty");
  std::filesystem::create_symlink(dir.path() / "root/A/1", dir.path() / "root/A/link");
  const std::string root = dir / "root";

  std::vector<std::string> files{"already there"}, dirs{"before"};
  ASSERT_TRUE(get_docs_20(root, files, dirs));
  ASSERT_EQ(files.size(), dirs.size());
  EXPECT_EQ(files[0], "already there");
  std::set<std::string> listed;
  for (size_t i = 1; i < files.size(); ++i) listed.insert(dirs[i] + "|" + files[i]);
  EXPECT_EQ(listed, (std::set<std::string>{root + "|7", root + "/A/|1", root + "/A//deep/|2"}));

  EXPECT_FALSE(get_docs_20(dir / "missing", files, dirs));
  EXPECT_FALSE(get_docs_20(dir / "root/A/1", files, dirs));  // a file is no directory
  EXPECT_EQ(files.size(), 4u);
}

/// Everything that the corpus reader fills.
struct Corpus {
  DocumentSet docs;
  LabelList ids, labels;
  int num_docs = -1, num_words = -1;
  VocabularyMap voc{{"the", 0}, {"cat", 1}, {"sat", 2}};
};

int read_corpus(const char* dir, Corpus& corpus, int max_words = no_limit) {
  constexpr int skip_the = 0;
  return parse_docs_20(dir, max_words, skip_the, corpus.docs, corpus.ids, corpus.labels,
                       corpus.num_docs, corpus.num_words, corpus.voc);
}

TEST(Corpus, DocumentsIdentifiersAndClassesStayParallel) {
  const TempDir dir;
  const std::map<unsigned long, std::string> texts{
      {101, "cat"}, {102, "sat cat"}, {103, "no known word"}, {205, "sat"}, {301, "dog"}};
  const std::map<unsigned long, Document> expected{
      {101, {{1, 1.0f}}}, {102, {{1, 0.5f}, {2, 0.5f}}}, {205, {{2, 1.0f}}}};
  const std::string root = dir / "root";
  for (const auto& [id, text] : texts) {
    // Classes A, B and C; no file of C becomes a document.
    const std::string name(1, static_cast<char>('A' + id / 100 - 1));
    write_file(root + "/" + name + "/" + std::to_string(id), text);
  }
  write_file(root + "/A/104", "");
  write_file(root + "/999", "cat");  // directly in the root, whose path does not end with "/"

  Corpus corpus;
  EXPECT_EQ(printed_by([&] { EXPECT_EQ(read_corpus(root.c_str(), corpus), 3); }),
            "File size is zero\n");
  EXPECT_EQ(corpus.num_docs, 3);
  EXPECT_EQ(corpus.num_words, 4);
  ASSERT_EQ(corpus.docs.size(), 3u);
  ASSERT_EQ(corpus.ids.size(), 3u);
  ASSERT_EQ(corpus.labels.size(), 3u);

  // Classes are numbered as the system lists them; directories without documents have a number.
  std::vector<std::string> files, dirs;
  ASSERT_TRUE(get_docs_20(root, files, dirs));
  std::map<std::string, unsigned long> class_of_dir;
  std::map<std::string, unsigned long> class_of_file;
  for (size_t i = 0; i < files.size(); ++i) {
    class_of_file[files[i]] = class_of_dir.emplace(dirs[i], class_of_dir.size()).first->second;
  }
  std::map<unsigned long, Document> read;
  for (size_t n = 0; n < corpus.docs.size(); ++n) {
    read[corpus.ids[n]] = corpus.docs[n];
    EXPECT_EQ(corpus.labels[n], class_of_file.at(std::to_string(corpus.ids[n])));
  }
  EXPECT_EQ(read, expected);
}

TEST(Corpus, FilesInTheRootNeedATrailingSlashAndAddToWhatIsThere) {
  const TempDir dir;
  write_file(dir.path() / "12 and more", "cat");  // digits up to the first other character
  Corpus corpus;
  corpus.docs = {{{5, 2.0f}}};
  corpus.ids = {70};
  corpus.labels = {3};
  EXPECT_EQ(read_corpus(dir.path().c_str(), corpus), 0);
  EXPECT_EQ(read_corpus((dir.path().string() + "/").c_str(), corpus, 0), 0) << "no word has room";
  EXPECT_EQ(corpus.docs.size(), 1u);
  EXPECT_EQ(read_corpus((dir.path().string() + "/").c_str(), corpus), 1);
  EXPECT_EQ(corpus.docs, (DocumentSet{{{5, 2.0f}}, {{1, 1.0f}}}));
  EXPECT_EQ(corpus.ids, (LabelList{70, 12}));
  EXPECT_EQ(corpus.labels, (LabelList{3, 0}));
}

TEST(Corpus, ANameThatIsNoNumberThrows) {
  const TempDir dir;
  // It harms nothing as long as the file holds no known word.
  write_file(dir.path() / "A/readme", "nothing known");
  write_file(dir.path() / "A/18446744073709551615", "cat");
  Corpus corpus;
  EXPECT_EQ(read_corpus(dir.path().c_str(), corpus), 1);
  EXPECT_EQ(corpus.ids, LabelList{18446744073709551615ul});
  write_file(dir.path() / "A/readme", "cat");
  EXPECT_THROW(read_corpus(dir.path().c_str(), corpus), std::invalid_argument);
  std::filesystem::remove(dir.path() / "A/readme");
  write_file(dir.path() / "A/18446744073709551616", "cat");
  EXPECT_THROW(read_corpus(dir.path().c_str(), corpus), std::out_of_range);
}

TEST(Corpus, WithoutARootTheCountersAreZero) {
  const TempDir dir;
  Corpus missing, null;
  EXPECT_EQ(read_corpus((dir / "missing").c_str(), missing), 0);
  EXPECT_THROW(read_corpus(nullptr, null), std::logic_error);
  for (const Corpus& corpus : {missing, null}) {
    EXPECT_EQ(corpus.num_docs, 0);
    EXPECT_EQ(corpus.num_words, 0);
  }
}

}  // namespace
}  // namespace talvik::test
