// Whole-file reads and the readers of embedding, vocabulary and IDX files: a table for each.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/files.hpp"
#include "support/output.hpp"
#include "talvik.hpp"

namespace talvik::test {
namespace {

TEST(WholeFiles, ArriveWithEveryByteOrLeaveTheOutputsAlone) {
  const TempDir dir;
  write_file(dir / "five", std::string_view("a\0\r\n\xff", 5));
  write_file(dir / "empty", "");
  for (const std::string name : {"five", "missing", "", "empty"}) {  // "": the directory opens, too
    char before[] = "before";
    char* buffer = before;
    std::string text = before;
    const std::string path = dir / name, bytes = name == "five" ? read_file(path) : before;
    const long long size = name == "five" ? 5 : 0;
    EXPECT_EQ(ReadFileIntoString(nullptr, text, true), 0);
    const std::string printed = printed_by([&] {
      EXPECT_EQ(ReadFileIntoBuffer(path.c_str(), &buffer, true), size);
      EXPECT_EQ(ReadFileIntoString(path.c_str(), text, false), size);
    });
    EXPECT_EQ(printed, name == "empty" ? "File size is zero\nFile size is zero\n" : "");
    EXPECT_EQ(text, bytes);
    EXPECT_EQ(std::string(buffer, bytes.size() + 1), bytes + '\0');
    if (buffer != before) delete[] buffer;
  }
}

TEST(Normalisation, WeightsSumToTheTarget) {
  DocumentSet docs{{{4, 1.0f}, {7, 3.0f}}, {}, {{5, 2.0f}, {6, -2.0f}}, {{0, 16777216.0f}}};
  // Small weights that single precision would drop from the sum one by one.
  for (unsigned w = 1; w <= 1u << 16; ++w) docs[3].emplace_back(w, 1.0f);
  L1norm(docs, 2.0);
  EXPECT_EQ(docs[3][0].second, static_cast<float>(2 * 16777216.0 / (16777216.0 + 65536.0)));
  docs.pop_back();  // documents without a weight, and of weights whose sum is zero, stay
  EXPECT_EQ(docs, (DocumentSet{{{4, 0.5f}, {7, 1.5f}}, {}, {{5, 2.0f}, {6, -2.0f}}}));
}

/// The reader's lines, the rows and voc.  A name says in which file the words go instead of voc.
std::string read_embeddings(const std::string& path, VocabularyMap& voc,
                            const std::string& file = "") {
  float kept = 0;
  float* vectors = &kept;
  long long vec_size = -7, voc_size = -8;
  bool loaded = false;
  std::ostringstream read;
  read.precision(9);
  read << printed_by([&] {
    loaded = parse_embedding_file(path.c_str(), !file.empty(), file.c_str(), voc, &vectors,
                                  vec_size, voc_size);
  });
  EXPECT_TRUE(loaded || (vectors == &kept && vec_size == -7 && voc_size == -8));
  for (long long i = 0; loaded && i < voc_size * vec_size; ++i) read << vectors[i] << ' ';
  for (const auto& [word, index] : voc) read << word << '=' << index << ' ';
  if (loaded) delete[] vectors;
  return read.str();
}

TEST(Embeddings, AFileGivesItsWordsAndUnitRowsOrALineAboutItsFault) {
  const TempDir dir;
  const std::string path = dir / "vectors", long_word(100'000, 'x');
  const std::string cat = embedding_record({"cat", {3, 0, 4}});
  const std::string dog = embedding_record({"dog", {0, 0, 2}});
  const std::string rows = "0.600000024 0 0.800000012 0 0 1 cat=0 dog=1 ";
  const std::string fault = "Failed to read the embedding file " + path + ": it ";
  const std::string ends = fault + "announces 2 words of 3 floats and ends within word ";
  std::vector<std::pair<std::string, std::string>> cases{
      {"\t2\n +3" + cat + dog, rows},
      {"2 3\n" + cat + "\n" + dog + "more than announced", rows},
      // Vectors of newlines, whose square is zero as a float, and of spaces separate nothing.
      {"3 1 \n\n\n\n\na\tb     " + embedding_record({"\xc3\xa9", {-1}}),
       "6.64634645e-33 1 -1 =0 a\tb=1 \xc3\xa9=2 "},
      {"1 1" + embedding_record({"\r\nw", {-2}}), "-1 \nw=0 "},
      {"2 0\r\na\nb\r\nc \n d ", "\nb\r\nc=0  d=1 "},
      {embedding_bytes({{long_word, {0}}}), "0 " + long_word + "=0 "},
      {"0 3", ""},
      {"-5 0", ""},
      {"2 3\n", ends + "1\n"},
      {"2 3\n" + cat + dog.substr(0, dog.size() - 1), ends + "2\n"},
      {"9000000000000000000 0\na b ",
       fault + "announces 9000000000000000000 words of 0 floats and ends within word 3\n"}};
  for (const char* header : {"cat 3", "2", "2 x", "2 +-0", "- 3\n"}) {
    cases.emplace_back(header, fault + "does not begin with two integers\n");
  }
  for (const auto& [bytes, expected] : cases) {
    write_file(path, bytes);
    VocabularyMap voc, untouched;
    EXPECT_EQ(read_embeddings(path, voc), expected);
    read_embeddings(path, untouched, dir / "words");
    EXPECT_EQ(std::filesystem::remove(dir / "words"), expected.find(fault) != 0) << bytes;
  }
}

TEST(Embeddings, AKnownWordKeepsItsIndexAndAWrittenVocabularyHoldsEveryLine) {
  const TempDir dir;
  const std::string vectors = dir / "vectors", words = dir / "words";
  write_file(vectors, embedding_bytes({{"b", {1}}, {"new", {-2}}, {"b", {3}}, {"c", {0}}}));
  write_file(words, "an older and longer vocabulary file");
  VocabularyMap voc{{"a", 0}, {"b", 1}}, untouched, lines{{"last", 0}};
  for (const std::string& vocabulary_file : {words, dir / "no directory/words"}) {
    EXPECT_EQ(read_embeddings(vectors, untouched, vocabulary_file), "1 -1 1 0 ");
  }
  EXPECT_EQ(read_embeddings(vectors, voc), "1 -1 1 0 a=0 b=1 c=3 new=2 ");
  EXPECT_EQ(read_file(words), "b\nnew\nb\nc\n");
  write_file(words, "a\r\n\n\ntwo words\na\r\nlast");
  EXPECT_EQ(parse_vocabulary(words.c_str(), lines), 4);
  EXPECT_EQ(lines, (VocabularyMap{{"last", 0}, {"a\r", 1}, {"", 2}, {"two words", 3}}));
  EXPECT_EQ(parse_vocabulary((dir / "missing").c_str(), lines), 0);
}

TEST(EmbeddingsDeathTest, AMatrixThatCannotBeHeldEndsTheReader) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a new process, with this environment
  setenv("ASAN_OPTIONS", "allocator_may_return_null=1:detect_leaks=0", 1);
  const TempDir dir;
  const std::string path = dir / "vectors";
  VocabularyMap voc;
  EXPECT_EQ(read_embeddings(dir / "missing", voc), "");
  // 64 bits do not hold the first product nor the third's counts; the second one is negative.
  for (const char* header : {"4 4611686018427387905\ncat abcdefgh", "-2 3\ncat abcdefgh",
                             "2 99999999999999999999\ncat abcdefgh"}) {
    write_file(path, header);
    EXPECT_THROW(read_embeddings(path, voc), std::bad_array_new_length) << header;
  }
  write_file(path, "1 4000000000000000\nw ");
  EXPECT_EXIT(std::cout.rdbuf(std::cerr.rdbuf());
              read_embeddings(path, voc), testing::ExitedWithCode(255),
              "Failed to load the embedding vectors into a memory buffer "
              "\\(size: 4000000000000000 floats\\)\n$");
}

/// The reader's lines and counts, the documents, and the labels by identifier.
std::string read_digits(const std::string& images, const std::string& labels) {
  DocumentSet docs;
  LabelList ids, classes;
  auto* vectors = new float[3];  // an earlier matrix, which the reader replaces and releases
  long long vec_size = 0, voc_size = 0;
  int num_docs = -1, num_words = -1;
  std::ostringstream read;
  read << printed_by([&] {
    const int result = parse_docs_mnist(images.c_str(), labels.c_str(), docs, ids, classes,
                                        num_docs, num_words, &vectors, vec_size, voc_size);
    EXPECT_EQ(result, num_docs);
  });
  read << num_docs << " docs, " << num_words << " entries:";
  for (const Document& doc : docs) {
    for (const auto& [word, weight] : doc) read << ' ' << word << '=' << weight;
    read << ';';
  }
  for (size_t i = 0; i < ids.size(); ++i) read << ' ' << ids[i] << '=' << classes.at(i);
  EXPECT_EQ(vec_size * voc_size, docs.empty() ? 0 : 2 * 784);
  for (int w = 0; w < voc_size; ++w) {
    EXPECT_TRUE(vectors[2 * w] == w / 28 && vectors[2 * w + 1] == w % 28) << w;
  }
  delete[] vectors;
  return read.str();
}

TEST(Digits, PixelsAreWordsAtTheirPositionsAndBadHalvesCountNothing) {
  const std::string corners = idx_image({{0, 0, 255}, {27, 27, 255}}), blank = idx_image({});
  const std::string shades = idx_image({{1, 2, 30}, {1, 3, 10}});
  const std::string nothing = "0 docs, 0 entries:", refused = "Verification failed!!!\n" + nothing;
  const TempDir dir;
  const std::string images = dir / "images", labels = dir / "labels";
  const std::string docs = " 0=0.5 783=0.5;; 30=0.75 31=0.25;";
  const std::string three = idx_image_header(3) + corners + blank + shades;
  const std::vector<std::array<std::string, 3>> cases{
      {"", "", nothing},  // no files yet
      {idx_image_header(1, 32, 28) + std::string(32 * 28, 'x'), "", refused},
      {idx_image_header(1, 28, 27) + corners, "", refused},
      {idx_image_header(1).substr(0, 15), "", refused},
      {three.substr(0, three.size() - 1), "", refused},
      {idx_image_header(0xffffffff) + corners, "", refused},
      {three + corners, "", nothing + docs},
      {three, idx_label_header(3) + "\1\2", refused + docs},
      {three, idx_label_header(0).substr(1), refused + docs},
      {three, idx_label_header(4) + "\1\2\3\4",
       "Failed to pair " + labels + " with " + images + ": 4 labels, 3 images\n" + nothing + docs +
           " 0=1 1=2 2=3 3=4"},
      {three, idx_label_header(3) + "\x07\xff\1", "2 docs, 4 entries:" + docs + " 0=7 1=255 2=1"},
      {three, idx_label_header(1) + "\x07\xff", "1 docs, 2 entries:" + docs + " 0=7"}};
  for (const auto& [image_bytes, label_bytes, read] : cases) {
    if (!image_bytes.empty()) write_file(images, image_bytes);
    if (!label_bytes.empty()) write_file(labels, label_bytes);
    EXPECT_EQ(read_digits(images, labels), read);
  }
}

}  // namespace
}  // namespace talvik::test
