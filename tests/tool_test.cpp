// The host program's parts by themselves: files, formats, selection, checks.
#include "support/tool.hpp"

#include <gtest/gtest.h>
#include <unistd.h>  // getpid

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <numeric>

#include "atomic_output.hpp"
#include "idx_input.hpp"
#include "load_corpus.hpp"
#include "majority_vote.hpp"
#include "memory_plan.hpp"
#include "npy.hpp"
#include "progress.hpp"
#include "result_lists.hpp"
#include "result_writer.hpp"
#include "run_error.hpp"
#include "silence.hpp"
#include "support/files.hpp"
#include "texts/embedding_input.hpp"
#include "unfinished.hpp"

namespace talvik::tool {
namespace {

using test::embedding_bytes;
using test::embedding_record;
using test::error_of;
using test::read_file;
using test::TempDir;
using test::WordVector;
using test::write_file;

std::string written(const ResultLists& lists, bool skip_first, Format format,
                    const DocumentNames& names) {
  std::string all;
  write_results(lists, skip_first, format, names, [&](const std::string& text) { all += text; });
  return all;
}

const ResultLists two_lists{2, 2, {1, 0, 0, 1}, {0.73182f, 2.0f / 3, 0.0f, 1e30f}};
const LabelList query_ids{5, 6}, resident_ids{10, 18446744073709551615ul};

TEST(ResultFile, EveryFormatHasItsLines) {
  EXPECT_EQ(written(two_lists, false, Format::tsv, {}),
            "query\tneighbour\trank\tdistance\n0\t1\t1\t0.731819987\n0\t0\t2\t0.666666687\n"
            "1\t0\t1\t0\n1\t1\t2\t1.00000002e+30\n");
  const DocumentNames names{&query_ids, &resident_ids};
  EXPECT_EQ(written({1, 2, {1, 0}, {0.73182f, 2.0f}}, false, Format::library, names),
            "\"5\", \"18446744073709551615\", \"0.731820\"\n\"5\", \"10\", \"2.000000\"\n");
  // The query itself stands first in a self run: ranks count from the entry after it.
  EXPECT_EQ(written({1, 3, {0, 1, 0}, {0, 0.5f, NAN}}, true, Format::jsonl, names),
            "{\"query\": 5, \"neighbour\": 18446744073709551615, \"rank\": 1, \"distance\": 0.5}\n"
            "{\"query\": 5, \"neighbour\": 10, \"rank\": 2, \"distance\": null}\n");
}

TEST(ResultFile, ComesWholeInItsPieces) {
  constexpr int queries = 100'000;
  const std::string text = written(empty_lists(queries, 1), false, Format::tsv, {});
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), queries + 1);
  EXPECT_GT(text.size(), size_t{1} << 20);
}

TEST(SelfRun, TheQueryComesFirstAndTheOthersKeepTheirOrder) {
  // 0: at the front; 1: behind a duplicate; 2: pushed out by duplicates, takes the last place
  ResultLists lists{3, 3, {0, 4, 5, 3, 4, 1, 6, 7, 8}, {0, .1f, .2f, 0, 0, .3f, 0, 0, 0.5f}};
  put_self_first(lists, {0, 1, 2});
  EXPECT_EQ(lists.neighbours, (std::vector<int>{0, 4, 5, 1, 3, 4, 2, 6, 7}));
  EXPECT_EQ(lists.distances, (std::vector<float>{0, .1f, .2f, .3f, 0, 0, 0, 0, 0}));
}

TEST(MajorityVote, TiedClassesGoToTheNearestMember) {
  EXPECT_EQ(vote_sizes(9), (std::vector<int>{1, 3, 5, 9}));
  EXPECT_EQ(vote_sizes(2), (std::vector<int>{1}));
  EXPECT_TRUE(vote_sizes(0).empty());
  const LabelList resident{7, 8, 8, 9};
  // First row: 7, then 7:1 8:1 9:1 (7 is nearest), then 8 has two.  Second: always 8 but for the
  // skipped entry.
  const ResultLists lists{2, 5, {3, 0, 1, 3, 2, 0, 1, 2, 1, 2}, {0, 1, 2, 3, 4, 0, 1, 2, 3, 4}};
  EXPECT_EQ(vote_errors(lists, {1, 3, 4}, true, {7, 8}, resident),
            (std::vector<double>{0, 0, 0.5}));
}

TEST(Npy, HeaderIsAlignedAndStatesTheShape) {
  const std::string header = npy_header(500, 60000);
  ASSERT_EQ(header.size(), 128u);  // a multiple of 64
  EXPECT_EQ(header.substr(0, 78),
            std::string("\x93NUMPY\x01\x00\x76\x00", 10) +  // 118 bytes follow
                "{'descr': '<f4', 'fortran_order': False, 'shape': (500, 60000), }   ");
  EXPECT_EQ(header.back(), '\n');
}

TEST(Npy, BandsOfATransposedMatrixFollowOneAnother) {
  const TempDir dir;
  constexpr int rows = 5'000'000, cols = 2;  // a band is one column
  std::vector<float> data(rows * cols);
  std::iota(data.begin(), data.end(), 0.0f);
  AtomicFile file(dir / "m.npy");
  write_npy_transposed(file, data.data(), rows, cols);
  file.commit();
  const std::string bytes = read_file(dir / "m.npy");
  float second_column = 0;
  std::memcpy(&second_column, bytes.data() + bytes.size() - rows * sizeof(float), sizeof(float));
  EXPECT_EQ(second_column, 1.0f);
}

TEST(AtomicFile, AppearsOnlyWhenItIsWhole) {
  const TempDir dir;
  write_file(dir / "result", "old");
  {
    AtomicFile abandoned(dir / "result");
    abandoned.write("half");
  }
  AtomicFile file(dir / "result"), later(dir / "result");  // two jobs do not meet
  later.write("later");
  file.write("whole");
  EXPECT_EQ(read_file(dir / "result"), "old");
  file.commit();
  EXPECT_EQ(read_file(dir / "result"), "whole");
  later.commit();
  EXPECT_EQ(read_file(dir / "result"), "later");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 1);
  // What a rename would replace is refused.
  EXPECT_EQ(error_of([&] { AtomicFile(dir.path().string()); }),
            dir.path().string() + ": is a directory, the name of a result file was expected");
  // A link leads to what is replaced, and stays.
  std::filesystem::create_symlink("result", dir / "link");
  AtomicFile linked(dir / "link");
  linked.write("through the link");
  linked.commit();
  EXPECT_TRUE(std::filesystem::is_symlink(dir / "link"));
  EXPECT_EQ(read_file(dir / "result"), "through the link");
  // What nobody wants takes no space.
  make_discarded(dir / "none");
  std::ofstream(dir / "none") << "lists";
  EXPECT_EQ(read_file(dir / "none"), "");
}

// What the check of a file says, without its path.
template <class Check>
std::string defect(const std::string& bytes, const Check& check) {
  const TempDir dir;
  const std::string path = dir / "file";
  write_file(path, bytes);
  const std::string text = error_of([&] { check(path); });
  return text.substr(text.find(path) == 0 ? path.size() + 2 : 0);
}

TEST(EmbeddingInput, EveryDefectIsNamedWithItsPlace) {
  const std::string bytes =
      embedding_bytes({{"cat", {0.5f, 0.25f}}, {"dog", {0, 0}}, {"g\xc3\xa4ns", {1, 2}}});
  std::string shorter = bytes;  // one float less than there are
  shorter[2] = '1';
  // Bytes turned round: 0.5 reads as 8.8e-44, 0.25 as 4.6e-41.
  std::string swapped = "1 2\ncat ";
  for (const float value : {0.5f, 0.25f}) {
    const std::string record = embedding_record({"", {value}});
    swapped.append(record.rbegin(), record.rend() - 1);
  }
  const std::pair<std::string, std::string> cases[] = {
      {bytes, "no error"},
      {"1 1\ncat abc=", "no error"},  // the bytes of 0.0555, which are no text of a number
      {"1 1\ncat 0.12", "is a text file (talvik convert makes an embedding file of it)"},
      {"", "is empty"},
      {"cat 0.1 0.2\n",
       "does not begin with two integers, records and floats per vector (talvik convert makes "
       "embedding files from text)"},
      {"0 2\n", "the header announces 0 records of 2 floats"},
      {"4000000000000000000 4000000000000000000" + bytes.substr(3),
       "the header announces 4000000000000000000 records of 4000000000000000000 floats, which do "
       "not fit into the file's 81 bytes (cut short, or a wrong header)"},
      {bytes.substr(0, bytes.size() - 2), "ends within record 3 of 3"},
      {"2 2\ncat 0.1 0.2\ndog 0.3 0.4\n",
       "is a text file (talvik convert makes an embedding file of it)"},
      {embedding_bytes({{"cat", {1, 2}}, {"dog", {0, NAN}}}),
       "value 2 of record 2, word 'dog', is not a finite number"},
      {embedding_bytes({{"cat", {1, 2}}, {"cat", {3, 4}}}),
       "records 1 and 2 are of the same word 'cat'"},
      {shorter,
       "the word of record 2, '\\x00\uFFFD>\\x0adog', holds a line break (a wrong header?)"},
      {embedding_bytes({{"cat", {1, 1e20f}}}),
       "the values of record 1, word 'cat', are implausible (magnitude 1e+20): the floats must be "
       "little-endian"},
      {swapped,
       "the values of record 1, word 'cat', are implausible (magnitude 4.6e-41): the floats must "
       "be little-endian"}};
  const auto read = [](const std::string& path) { texts::read_word_vectors(path); };
  for (const auto& [file, expected] : cases) EXPECT_EQ(defect(file, read), expected);
  // Neither room is made for the words of a file with holes, nor is a hole searched to its end.
  const auto with_hole = [](const std::string& path) {
    constexpr std::uintmax_t hole_bytes = 100'000'000'000;
    std::filesystem::resize_file(path, hole_bytes);
    texts::read_embedding_words(path);
  };
  EXPECT_EQ(defect("9000000000 1\n", with_hole),
            "the word of record 1 has no end (a wrong header, or a file with holes?)");
}

TEST(EmbeddingInput, NumbersScalesAndWarns) {
  const TempDir dir;
  const std::string path = dir / "words.bin";
  std::vector<WordVector> records;
  for (const char* word : {"a", "b", "c", "d", "e", "f"}) records.push_back({word, {0, 0}});
  records.push_back({"g", {3, -4}});
  write_file(path, embedding_bytes(records) + "\n more");
  const texts::WordVectors read = texts::read_word_vectors(path);
  EXPECT_EQ(read.voc_size, 7);
  EXPECT_EQ(read.vocabulary.at("g"), 6);
  EXPECT_EQ(std::vector<float>(&read.vectors[0], &read.vectors[14]),
            (std::vector<float>{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0.6f, -0.8f}));
  EXPECT_EQ(read.warnings,
            (std::vector<std::string>{
                path + ": 6 word(s) with a zero vector: 'a', 'b', 'c', 'd', 'e', ...",
                path + ": 4 bytes follow the last of 7 records and are not read (a wrong "
                       "header?)"}));
}

TEST(IdxInput, EveryDefectIsNamed) {
  const std::string image = test::idx_image({{1, 1, 9}});
  const std::string no_image = "not an IDX image file (begins with ";
  const std::pair<std::string, std::string> cases[] = {
      {test::idx_image_header(1) + image, "no error"},
      {"", "is empty"},
      {"short", "holds 5 bytes, less than an IDX header of 16"},
      {test::idx_label_header(2) + "abcdefgh", no_image + "00000801, not 00000803)"},
      {std::string("\x1f\x8b\x08\0", 4) + std::string(20, 'x'),
       no_image + "1f8b0800, not 00000803): it is compressed with gzip"},
      {test::idx_image_header(1, 32, 32) + image,
       "holds images of 32 x 32 pixels, 28 x 28 were expected"},
      {test::idx_image_header(4000000000u) + image,
       "the header announces 4000000000 images, which need 3136000000016 bytes; the file holds "
       "800"},
      {test::idx_image_header(0), "holds no images"}};
  for (const auto& [file, expected] : cases) EXPECT_EQ(defect(file, check_idx_images), expected);
  EXPECT_EQ(defect(test::idx_label_header(2) + "ab", check_idx_labels), "no error");
  EXPECT_EQ(defect(std::string("\x01\x08\0\0\x02\0\0\0ab", 10), check_idx_labels),
            "not an IDX label file (begins with 01080000, not 00000801): its header must be "
            "big-endian");
}

TEST(CorpusList, OrderIsByClassAndNumberWhateverTheFileSystem) {
  const TempDir dir;
  for (const char* name : {"b/10", "b/9", "a/x/2", "a/100", "documents.tsv"}) {
    write_file(dir / name, "text");
  }
  std::vector<std::string> order;
  for (const CorpusFile& file : list_corpus(dir.path().string() + "/")) {
    order.push_back(file.class_name + " " + std::to_string(file.id));
  }
  EXPECT_EQ(order, (std::vector<std::string>{"a 100", "a/x 2", "b 9", "b 10"}));

  const std::string root = dir.path();
  const auto found = [&](const std::string& name) {
    write_file(dir / name, "text");
    const std::string text = error_of([&] { list_corpus(root); });
    std::filesystem::remove(dir / name);
    return text;
  };
  EXPECT_EQ(found("a/7.txt"), root + "/a/7.txt: the file's name is not a decimal number");
  EXPECT_EQ(found("a/-7"), root + "/a/-7: the file's name is not a decimal number");
  EXPECT_EQ(found("a/18446744073709551616"),
            root + "/a/18446744073709551616: the file's name is a number of more than 64 bits");
  EXPECT_EQ(error_of([&] { list_corpus(dir / "b/9"); }),
            (dir / "b/9") + ": is a file, a directory was expected");
  EXPECT_EQ(error_of([&] { list_corpus(dir / "b"); }),
            (dir / "b") +
                ": holds no documents (DIR/CLASS/NUMBER was expected; talvik prepare "
                "makes such a tree)");
}

TEST(Problem, CountsWordsOfBothSidesAndSharedIds) {
  Problem problem;
  problem.voc_size = 9;
  problem.resident.docs = {{{1, 1.0f}, {2, 1.0f}}};
  problem.queries.docs = {{{2, 1.0f}, {8, 1.0f}}};
  EXPECT_EQ(count_used_words(problem), 3);
  EXPECT_EQ(count_shared_ids({3, 1, 3, 2, 1, 1}), 2);
}

TEST(Choice, IsSpreadEvenlyAndAscending) {
  EXPECT_EQ(choose_spread(7, 3), (std::vector<int>{0, 2, 4}));
  EXPECT_EQ(choose_spread(3, 5), (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(choose_spread(3, 0), (std::vector<int>{0, 1, 2}));
}

TEST(MemoryPlan, RefusesWithTheNumbers) {
  EXPECT_EQ(default_threads(1 << 20), 1);  // rather than all of the machine
  const RunShape shape{
      .resident = {1 << 20, 1 << 26},  // as read, the library's, the engine's: 1.5 GiB
      .queries = {1 << 10, 1 << 16},
      .two_way = false,
      .voc_size = 1 << 20,
      .vec_size = 256,  // 1 GiB
      .used_words = 1,
      .matrix_rows = 1 << 15,
      .matrix_cols = 1 << 15,    // 4 GiB
      .ground_words = 1 << 14};  // 1 GiB
  const MemoryPlan plan = plan_memory(shape);
  EXPECT_EQ(over_budget(plan, 2, 15.6 * gib), "");
  EXPECT_EQ(over_budget(plan, 2, 15.4 * gib),
            "the run needs 15.50 GiB on this machine, over the memory limit of 15.40 GiB: 2 "
            "process(es), each with 4.00 GiB of distance matrix, 1.00 GiB of ground distances, "
            "2.50 GiB of data, 0.25 GiB of working memory");
}

TEST(Progress, LineStatesShareRateAndRemainingTime) {
  EXPECT_EQ(progress_line("second direction", 0.25, 4e6, 30),
            "second direction  25 %  3.33e+04 pairs/s  1:30 left");
}

TEST(SilenceDeathTest, WhatEndsTheJobIsHeardAndRemovesWhatIsUnfinished) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a new process, with this environment
  setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
  constexpr int keep = 0;  // the new process is to know this one's file
  setenv("TALVIK_TEST_FILE", (testing::TempDir() + "talvik." + std::to_string(getpid())).c_str(),
         keep);
  const std::string path = getenv("TALVIK_TEST_FILE");
  const auto run = [&] {
    init_mpi(&myid, &num_procs, &local_id, &num_local_procs);
    const bool quiet = true;
    const Silence silence(quiet);
    const Unfinished unfinished(path);
    write_file(path, "not whole");
    float embedding = 1;
    rwmd2_parallel(1, &embedding, 1, 1, 0, false, {{{0, 1.0f}}}, {1}, 1, 1, {{{0, 1.0f}}}, {1}, 1,
                   1, nullptr, true, "/nonexistent/out", false);
  };
  EXPECT_EXIT(run(), testing::ExitedWithCode(status_failed),
              "talvik: Failed to open result file: /nonexistent/out\n");
  EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
}  // namespace talvik::tool
