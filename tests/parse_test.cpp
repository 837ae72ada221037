// Whole-file reads and the readers of embedding, vocabulary and IDX files.
#include <gtest/gtest.h>
#include <sys/resource.h>  // setrlimit
#include <unistd.h>        // dup2, sysconf

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "support/files.hpp"
#include "support/output.hpp"
#include "talvik.hpp"

namespace talvik::test {
namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool address_sanitizer = true;
#elif defined(__has_feature)
constexpr bool address_sanitizer = __has_feature(address_sanitizer);
#else
constexpr bool address_sanitizer = false;
#endif

constexpr const char* verification_failed = "Verification failed!!!\n";

TEST(WholeFiles, EveryByteArrivesWithAZeroBehindTheBuffer) {
  const TempDir dir;
  const std::string bytes("a\0\r\n\xff", 5);
  write_file(dir / "five", bytes);
  for (const bool binary : {true, false}) {
    char* buffer = nullptr;
    ASSERT_EQ(ReadFileIntoBuffer((dir / "five").c_str(), &buffer, binary), 5);
    const std::unique_ptr<char[]> owner(buffer);
    EXPECT_EQ(std::string(buffer, 6), bytes + '\0');

    std::string text = "what was there before, and longer";
    EXPECT_EQ(ReadFileIntoString((dir / "five").c_str(), text, binary), 5);
    EXPECT_EQ(text, bytes);
  }
}

TEST(WholeFiles, WhatCannotBeReadLeavesTheOutputsAlone) {
  const TempDir dir;
  write_file(dir / "empty", "");
  write_file(dir / "subdirectory/file", "x");
  const struct {
    std::string path, printed;
  } cases[] = {{dir / "missing", ""},
               {dir / "subdirectory", ""},  // opens like a file, but is none
               {dir / "empty", "File size is zero\n"}};
  for (const auto& [path, printed] : cases) {
    char content = 'c';
    char* buffer = &content;
    std::string text = "text";
    const char* const name = path.c_str();
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(ReadFileIntoBuffer(name, &buffer, true), 0); }), printed);
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(ReadFileIntoString(name, text, false), 0); }), printed);
    EXPECT_EQ(buffer, &content) << path;
    EXPECT_EQ(text, "text") << path;
  }
}

TEST(Normalisation, WeightsSumToTheTarget) {
  DocumentSet docs{{{4, 1.0f}, {7, 3.0f}}, {}, {{5, 2.0f}, {6, -2.0f}}, {{0, 16777216.0f}}};
  // Small weights that single precision would drop from the sum one by one.
  for (unsigned w = 1; w <= 1u << 16; ++w) docs[3].emplace_back(w, 1.0f);
  L1norm(docs, 2.0);
  EXPECT_EQ(docs[0], (Document{{4, 0.5f}, {7, 1.5f}}));
  EXPECT_TRUE(docs[1].empty());
  EXPECT_EQ(docs[2], (Document{{5, 2.0f}, {6, -2.0f}}));  // their sum is zero
  EXPECT_EQ(docs[3][0].second, static_cast<float>(2 * 16777216.0 / (16777216.0 + 65536.0)));
}

/// One load of an embedding file, with outputs whose initial values show whether they were touched.
struct Load {
  float untouched = 0;
  VocabularyMap voc;
  float* vectors = &untouched;
  long long vec_size = -7, voc_size = -8;
  bool loaded = false;
  std::string printed;

  std::vector<float> rows() const { return {vectors, vectors + voc_size * vec_size}; }
  bool outputs_untouched() const {
    return vectors == &untouched && vec_size == -7 && voc_size == -8;
  }
  ~Load() {
    if (vectors != &untouched) delete[] vectors;
  }
};

/// @param vocabulary_file where the words go; empty: into load.voc
void load_embeddings(Load& load, const std::string& path, const std::string& vocabulary_file = "") {
  load.printed = printed_by([&] {
    load.loaded =
        parse_embedding_file(path.c_str(), !vocabulary_file.empty(), vocabulary_file.c_str(),
                             load.voc, &load.vectors, load.vec_size, load.voc_size);
  });
}

const std::vector<WordVector> cat_and_dog{{"cat", {3, 0, 4}}, {"dog", {0, 0, 2}}};
const std::vector<float> cat_and_dog_rows{0.6f, 0, 0.8f, 0, 0, 1};

TEST(Embeddings, RecordsBecomeUnitRowsAndWords) {
  const TempDir dir;
  const std::string packed =  // no newline before the first record, none at the end
      "\t2\n 3" + embedding_record(cat_and_dog[0]) + embedding_record(cat_and_dog[1]);
  for (const std::string& bytes : {embedding_bytes(cat_and_dog), packed}) {
    write_file(dir / "vectors", bytes);
    Load load;
    load_embeddings(load, dir / "vectors");
    ASSERT_TRUE(load.loaded);
    EXPECT_EQ(load.vec_size, 3);
    EXPECT_EQ(load.rows(), cat_and_dog_rows);
    EXPECT_EQ(load.voc, (VocabularyMap{{"cat", 0}, {"dog", 1}}));
    EXPECT_EQ(load.printed, "");
  }
  // A vocabulary file that cannot be created is done without.
  Load load;
  load_embeddings(load, dir / "vectors", dir / "no such directory/words");
  ASSERT_TRUE(load.loaded);
  EXPECT_EQ(load.rows(), cat_and_dog_rows);
}

TEST(Embeddings, ValuesMayLookLikeTextAndWordsLikeAnything) {
  // 0x20202020 and 0x0a0a0a0a: spaces and newlines inside a vector separate nothing.
  const float spaces = std::bit_cast<float>(0x20202020u);
  const float newlines = std::bit_cast<float>(0x0a0a0a0au);
  const TempDir dir;
  write_file(
      dir / "vectors",
      embedding_bytes({{"", {1, 0}}, {"tab\tbed", {spaces, newlines}}, {"\xc3\xa9", {0, 1}}}));
  Load load;
  load_embeddings(load, dir / "vectors");
  ASSERT_TRUE(load.loaded);
  EXPECT_EQ(load.voc, (VocabularyMap{{"", 0}, {"tab\tbed", 1}, {"\xc3\xa9", 2}}));
  EXPECT_EQ(load.rows()[5], 1.0f);
}

TEST(Embeddings, AKnownWordKeepsItsIndexAndAWrittenVocabularyReadsBackTheSame) {
  const TempDir dir;
  write_file(dir / "vectors", embedding_bytes({{"b", {1}}, {"new", {-2}}, {"b", {3}}, {"c", {0}}}));
  write_file(dir / "words", "an older and longer vocabulary file");
  Load into_map, into_file;
  into_map.voc = {{"a", 0}, {"b", 1}};
  load_embeddings(into_map, dir / "vectors");
  load_embeddings(into_file, dir / "vectors", dir / "words");
  ASSERT_TRUE(into_file.loaded);
  EXPECT_EQ(into_map.voc, (VocabularyMap{{"a", 0}, {"b", 1}, {"new", 2}, {"c", 3}}));
  EXPECT_EQ(into_map.rows(), (std::vector<float>{1, -1, 1, 0}));  // a zero row stays zero
  EXPECT_EQ(into_file.rows(), into_map.rows());
  EXPECT_TRUE(into_file.voc.empty());
  EXPECT_EQ(read_file(dir / "words"), "b\nnew\nb\nc\n");
  VocabularyMap read_back{{"a", 0}, {"b", 1}};
  EXPECT_EQ(parse_vocabulary((dir / "words").c_str(), read_back), 4);
  EXPECT_EQ(read_back, into_map.voc);
}

TEST(Embeddings, ABadFileIsNamedAndChangesNothing) {
  const std::string whole = embedding_bytes(cat_and_dog);
  const std::string no_counts = "it does not begin with two counts";
  const struct {
    std::string bytes, fault;
  } cases[] = {
      {"cat 3", no_counts},
      {"2", no_counts},
      {"2 x", no_counts},
      {"-2 3\n", no_counts},
      {"2 99999999999999999999\n", no_counts},
      {"2 3\n", "it announces 2 words of 3 floats and ends within word 1"},
      // the second record lacks its last byte
      {whole.substr(0, whole.size() - 2),
       "it announces 2 words of 3 floats and ends within word 2"},
      {"9000000000000000000 0\na b ",
       "it announces 9000000000000000000 words of 0 floats and ends within word 3"},
  };
  const TempDir dir;
  for (const auto& [bytes, fault] : cases) {
    write_file(dir / "vectors", bytes);
    Load load;
    load_embeddings(load, dir / "vectors");
    EXPECT_FALSE(load.loaded) << bytes;
    EXPECT_EQ(load.printed,
              "Failed to read the embedding file " + (dir / "vectors") + ": " + fault + "\n");
    EXPECT_TRUE(load.outputs_untouched() && load.voc.empty()) << bytes;

    load_embeddings(load, dir / "vectors", dir / "words");
    EXPECT_FALSE(std::filesystem::exists(dir / "words")) << bytes;
  }
  Load load;
  // A product of these sizes wraps to a small number in 64 bits.
  write_file(dir / "vectors", "4 4611686018427387905\ncat abcdefgh");
  EXPECT_THROW(load_embeddings(load, dir / "vectors"), std::bad_array_new_length);
  load_embeddings(load, dir / "missing");
  EXPECT_FALSE(load.loaded);
  EXPECT_EQ(load.printed, "");
  EXPECT_TRUE(load.outputs_untouched());
}

/// Limits the address space to what is in use and some more.
void limit_memory(long long more_bytes) {
  long long pages_in_use = 0;
  std::ifstream("/proc/self/statm") >> pages_in_use;
  const auto bytes = static_cast<rlim_t>(pages_in_use * sysconf(_SC_PAGESIZE) + more_bytes);
  const rlimit limit{bytes, bytes};
  if (setrlimit(RLIMIT_AS, &limit) != 0) std::abort();
}

TEST(EmbeddingsDeathTest, AMatrixThatDoesNotFitEndsTheProcess) {
  if (address_sanitizer) GTEST_SKIP() << "the sanitizer's own memory exceeds any limit";
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // For the new process: the threads of OpenBLAS map memory while they start, and where the limit
  // comes first they try again for ever.
  setenv("OPENBLAS_NUM_THREADS", "1", 1);
  constexpr long long floats = 16 << 20;
  constexpr long long file_bytes = floats * static_cast<long long>(sizeof(float));
  const TempDir dir;
  const std::string head = "1 16777216\nw ";
  write_file(dir / "vectors", head);
  std::filesystem::resize_file(dir / "vectors", head.size() + file_bytes);
  Load load;
  EXPECT_EXIT(
      {
        dup2(STDERR_FILENO, STDOUT_FILENO);
        limit_memory(file_bytes + file_bytes / 2);  // room for the text, not for the matrix too
        parse_embedding_file((dir / "vectors").c_str(), false, nullptr, load.voc, &load.vectors,
                             load.vec_size, load.voc_size);
      },
      testing::ExitedWithCode(255),
      "Failed to load the embedding vectors into a memory buffer \\(size: 16777216 floats\\)\n$");
}

TEST(Vocabulary, LinesAreWordsWhateverTheyHold) {
  const struct {
    std::string bytes;
    VocabularyMap voc;
  } cases[] = {{"a\r\ntwo words\nlast", {{"a\r", 0}, {"two words", 1}, {"last", 2}}},
               {"a\n\n\nb\na\n", {{"a", 0}, {"", 1}, {"b", 2}}},
               {"\n", {{"", 0}}}};
  const TempDir dir;
  VocabularyMap voc;
  for (const auto& [bytes, expected] : cases) {
    write_file(dir / "words", bytes);
    voc.clear();
    EXPECT_EQ(parse_vocabulary((dir / "words").c_str(), voc), static_cast<int>(expected.size()));
    EXPECT_EQ(voc, expected) << bytes;
  }
  EXPECT_EQ(parse_vocabulary((dir / "missing").c_str(), voc), 0);
  EXPECT_EQ(voc.size(), 1u);
}

/// Everything that the MNIST reader fills.
struct Digits {
  DocumentSet docs;
  LabelList ids, labels;
  std::unique_ptr<float[]> vectors;
  long long vec_size = 0, voc_size = 0;
  int num_docs = -1, num_words = -1;
};

int read_digits(const TempDir& dir, Digits& digits) {
  float* vectors = digits.vectors.release();  // the reader releases it
  const int result = parse_docs_mnist((dir / "images").c_str(), (dir / "labels").c_str(),
                                      digits.docs, digits.ids, digits.labels, digits.num_docs,
                                      digits.num_words, &vectors, digits.vec_size, digits.voc_size);
  digits.vectors.reset(vectors);
  return result;
}

const std::string corners = idx_image({{0, 0, 255}, {27, 27, 255}});
const std::string blank = idx_image({});
const std::string shades = idx_image({{1, 2, 30}, {1, 3, 10}});

TEST(Digits, PixelsAreWordsAtTheirPositions) {
  const TempDir dir;
  write_file(dir / "images", idx_image_header(3) + corners + blank + shades);
  write_file(dir / "labels", idx_label_header(3) + "\x07\xff\x01");
  Digits digits;
  digits.vectors = std::make_unique<float[]>(3);  // an earlier matrix: replaced and released
  EXPECT_EQ(read_digits(dir, digits), 2);
  EXPECT_EQ(digits.docs, (DocumentSet{{{0, 0.5f}, {783, 0.5f}}, {}, {{30, 0.75f}, {31, 0.25f}}}));
  EXPECT_EQ(digits.num_docs, 2);  // the blank image stays, uncounted
  EXPECT_EQ(digits.num_words, 4);
  EXPECT_EQ(digits.ids, (LabelList{0, 1, 2}));
  EXPECT_EQ(digits.labels, (LabelList{7, 255, 1}));
  ASSERT_EQ(digits.vec_size, 2);
  ASSERT_EQ(digits.voc_size, 784);
  for (int word = 0; word < 784; ++word) {
    EXPECT_EQ(digits.vectors[2 * word], static_cast<float>(word / 28));
    EXPECT_EQ(digits.vectors[2 * word + 1], static_cast<float>(word % 28));
  }
}

TEST(Digits, AnImageFileThatIsNoneIsRefused) {
  const std::string cases[] = {
      idx_image_header(1, 32, 32) + std::string(32 * 32, 'x'),
      idx_image_header(1, 28, 27) + corners,
      idx_image_header(1).substr(0, 15),
      idx_image_header(2) + corners + blank.substr(1),
      idx_image_header(std::numeric_limits<std::uint32_t>::max()) + corners,
  };
  const TempDir dir;
  for (const std::string& bytes : cases) {
    write_file(dir / "images", bytes);
    DocumentSet docs{{{1, 3.0f}}};
    float kept = 0;
    float* vectors = &kept;
    long long vec_size = -1, voc_size = -1;
    EXPECT_EQ(printed_by([&] {
                EXPECT_FALSE(parse_mnist_images((dir / "images").c_str(), docs, &vectors, vec_size,
                                                voc_size));
              }),
              verification_failed);
    EXPECT_EQ(docs, (DocumentSet{{{1, 3.0f}}}));
    EXPECT_EQ(vectors, &kept);
  }
}

TEST(Digits, HalvesThatDoNotFitCountNothing) {
  const std::string image_file = idx_image_header(1) + corners;
  const TempDir dir;
  const struct {
    std::string images, labels, printed;
    int counted;
  } cases[] = {
      {"", "", "", 0},
      {image_file, "", "", 0},
      {image_file, idx_label_header(3) + "\x01\x02", verification_failed, 0},
      {image_file, idx_label_header(0).substr(1), verification_failed, 0},
      {image_file, idx_label_header(2) + "\x01\x02",
       "Failed to pair " + (dir / "labels") + " with " + (dir / "images") +
           ": 2 labels, 1 images\n",
       0},
      // More than the headers announce is left alone, and one label counts one document.
      {idx_image_header(2) + corners + corners + shades, idx_label_header(1) + "\x01\x02", "", 1}};
  for (const auto& [images, labels, printed, counted] : cases) {
    if (!images.empty()) write_file(dir / "images", images);
    if (!labels.empty()) write_file(dir / "labels", labels);
    Digits digits;
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(read_digits(dir, digits), counted); }), printed);
    EXPECT_EQ(digits.num_docs, counted);
    EXPECT_EQ(digits.num_words, 2 * counted);
    if (counted > 0) {
      EXPECT_EQ(digits.docs.size(), 2u);
      EXPECT_EQ(digits.labels, LabelList{1});
    }
  }
}

}  // namespace
}  // namespace talvik::test
