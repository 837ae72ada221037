// The host program as its user meets it: runs of the binary on one and several processes, their
// results against the slow oracle, and what it says to bad input.
#include <fmt/core.h>
#include <gtest/gtest.h>
#include <sys/stat.h>  // mkfifo
#include <unistd.h>    // gethostname

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <numeric>
#include <sstream>
#include <utility>

#include "support/files.hpp"
#include "support/oracle.hpp"
#include "support/program.hpp"
#include "support/world.hpp"

namespace talvik::test {
namespace {

constexpr int num_words = 30, vec_size = 4;
// A word and itself are 3e-4 apart: the root of what rounding leaves of 2 - 2.
constexpr double tolerance = 1e-3;

/// Document number i of n in the program's order, by class and number: 9 before 12.
std::string place_of(size_t i, size_t n) {
  return std::string(1, "abc"[i * 3 / n]) + "/" + std::to_string(9 + 3 * i);
}

/// Word vectors and two corpora in files, and the same documents in memory.
class CorpusRun : public testing::Test {
 protected:
  void SetUp() override {
    std::vector<WordVector> records;
    for (int w = 0; w < num_words; ++w) {
      float* row = world_.embeddings.data() + w * vec_size;
      records.push_back({std::string("w").append(std::to_string(w)), {row, row + vec_size}});
      const float norm = std::sqrt(std::inner_product(row, row + vec_size, row, 0.0f));
      for (int j = 0; j < vec_size; ++j) row[j] /= norm;
    }
    write_file(dir_ / "words.bin", embedding_bytes(records));
    write_corpus("resident", world_.resident);
    write_corpus("queries", world_.queries);
    write_file(dir_ / "queries/c/1000", "");
    write_file(dir_ / "queries/c/1001", "unknown words only");
  }

  // A word of weight t / 8 stands t times in its text.  The last document's file is made first.
  void write_corpus(const std::string& name, DocumentSet& docs) const {
    for (size_t i = docs.size(); i-- > 0;) {
      std::string text = "Unknown";
      float tokens = 0;
      for (auto& [word, weight] : docs[i]) {
        for (int t = 0; t < std::lround(8 * weight); ++t) text += fmt::format(" (w{})", word);
        tokens += weight;
      }
      for (auto& entry : docs[i]) entry.second /= tokens;
      write_file(dir_ / (name + "/" + place_of(i, docs.size())), text);
    }
  }

  std::string search(const std::string& embeddings, const std::string& resident,
                     const std::string& out = "out") const {
    return "corpus --embeddings " + (dir_ / embeddings) + " --resident " + (dir_ / resident) +
           " --threads 1 --out " + (out == "-" ? out : dir_ / out) + " ";
  }
  std::string self_run() const { return search("words.bin", "resident"); }
  std::string query_run(const std::string& out = "out") const {
    return search("words.bin", "resident", out) + "--queries " + (dir_ / "queries") + " ";
  }

  /// Distance from query to resident document as a mode defines it.
  double expected(const Document& query, const Document& resident, bool two_way, int steps) const {
    const StepRule rule = steps > 1 ? StepRule::halving : StepRule::single;
    const auto there = [&](const Document& to, const Document& from) {
      return oracle_distance(world_.embeddings, vec_size, to, from, steps, rule);
    };
    return std::max(there(resident, query), two_way ? there(query, resident) : 0);
  }

  /// Compares a tabbed result file by index with the oracle.
  void check_lists(const DocumentSet& queries, size_t k, bool two_way, int steps,
                   bool self_run) const {
    std::istringstream lines(read_file(dir_ / "out"));
    std::string header, rest;
    std::getline(lines, header);
    for (size_t q = 0; q < queries.size(); ++q) {
      std::vector<double> distances;  // the query's own last
      for (size_t i = 0; i < world_.resident.size(); ++i) {
        distances.push_back(
            self_run && i == q ? 9 : expected(queries[q], world_.resident[i], two_way, steps));
      }
      std::vector<double> sorted = distances;
      std::sort(sorted.begin(), sorted.end());
      for (size_t rank = 0; rank < k; ++rank) {
        size_t query = 0, neighbour = 0, given_rank = 0;
        double distance = 0;
        ASSERT_TRUE(lines >> query >> neighbour >> given_rank >> distance);
        EXPECT_EQ(std::pair(query, given_rank), std::pair(q, rank + 1));
        EXPECT_NEAR(distance, sorted[rank], tolerance);
        EXPECT_NEAR(distance, distances.at(neighbour), tolerance);
      }
    }
    EXPECT_FALSE(lines >> rest);
  }

  void expect_failure(const Ran& ran, const std::string& line) const {
    EXPECT_EQ(ran.status, 1) << ran.output;
    EXPECT_EQ(complaints(ran), std::vector<std::string>{"talvik: " + line}) << ran.output;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
      EXPECT_NE(entry.path().filename().string().rfind("out", 0), 0u) << entry.path();
    }
  }

  TempDir dir_;
  World world_ = random_world({.seed = 20,
                               .voc_size = num_words,
                               .vec_size = vec_size,
                               .num_resident = 15,
                               .num_queries = 7,
                               .whole_numbers = true});
};

TEST_F(CorpusRun, EveryModeGivesTheOraclesListsOnAnyNumberOfProcesses) {
  const size_t cells = world_.queries.size() * world_.resident.size();
  for (const std::string mode : {"two-way", "ground", "split", "scale-out"}) {
    const bool two_way = mode == "two-way" || mode == "ground";
    const int steps = mode == "ground" ? 2 : mode == "split" ? 1 : 0;
    std::string lists, matrix;
    for (const int processes : {1, 2, 4}) {
      SCOPED_TRACE(mode + " on " + std::to_string(processes));
      const bool with_matrix = processes != 1 || mode != "split";  // split: both ways to the lists
      const Ran ran = run(processes, query_run() + "--k 4 --by index --format tsv --mode " + mode +
                                         " --steps " + std::to_string(steps) +
                                         (with_matrix ? " --matrix " + (dir_ / "m.npy") : ""));
      ASSERT_EQ(ran.status, 0) << ran.output;
      EXPECT_TRUE(complaints(ran).empty()) << ran.output;
      EXPECT_EQ(ran.output.find("Compressed vocabulary") != std::string::npos, mode == "ground");
      EXPECT_EQ(ran.output.find("asked for"), std::string::npos);
      check_lists(world_.queries, 4, two_way, steps, false);
      if (lists.empty()) lists = read_file(dir_ / "out");
      EXPECT_EQ(read_file(dir_ / "out"), lists);
      if (!with_matrix) continue;
      if (matrix.empty()) matrix = read_file(dir_ / "m.npy");
      EXPECT_EQ(read_file(dir_ / "m.npy"), matrix);
    }
    // Nothing but the inputs and the results is left behind.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.path()), {}), 5);
    std::vector<float> distances(cells);
    ASSERT_EQ(matrix.size() % 64, cells * sizeof(float) % 64);
    std::memcpy(distances.data(), &*(matrix.end() - cells * sizeof(float)), cells * sizeof(float));
    for (size_t at = 0; at < cells; ++at) {
      const size_t q = at / world_.resident.size(), i = at % world_.resident.size();
      EXPECT_NEAR(distances[at], expected(world_.queries[q], world_.resident[i], two_way, steps),
                  tolerance);
    }
  }
}

TEST_F(CorpusRun, OnAGpuTheListsAreTheOracles) {
  for (const std::string mode : {"two-way", "ground", "split"}) {
    SCOPED_TRACE(mode);
    const Ran ran = run(2, query_run() + "--gpu --k 4 --by index --format tsv --mode " + mode);
    if (count_gpu_devices() == 0) {
      expect_failure(ran, "--gpu: no GPU that CUDA can use was found on this machine");
      continue;
    }
    ASSERT_EQ(ran.status, 0) << ran.output;
    check_lists(world_.queries, 4, mode != "split", 0, false);
    const std::string device = gpu_is_emulated() ? ", GPU emulated on the CPU (slow)" : ", GPU\n";
    EXPECT_NE(ran.output.find("2, 1 thread(s) each" + device), std::string::npos) << ran.output;
  }
}

TEST_F(CorpusRun, ReportsWhatItReadAndHowWellItDid) {
  write_file(dir_ / "words.bin", read_file(dir_ / "words.bin") + "more");
  const Ran ran = run(1, query_run() + "--k 100 --verbose");
  ASSERT_EQ(ran.status, 0) << ran.output;
  int hits = 0;  // queries whose nearest document is of their class
  for (size_t q = 0; q < 7; ++q) {
    const auto nearest = std::min_element(
        world_.resident.begin(), world_.resident.end(), [&](const auto& a, const auto& b) {
          return expected(world_.queries[q], a, true, 0) < expected(world_.queries[q], b, true, 0);
        });
    hits += place_of(nearest - world_.resident.begin(), 15)[0] == place_of(q, 7)[0];
  }
  for (const std::string& line :
       {std::string("documents                     15           7\n"),
        std::string("empty, left out                0           2\n"),
        // "Unknown" in every document, and the three words of the document without a known one
        std::string("out of vocabulary             15          10\n"),
        std::string(
            "neighbours                    15 (100 asked for, the collection has no more)\n"),
        std::string("queries/c/1000: empty\n"), std::string("queries/c/1001: no known word\n"),
        fmt::format("Averaged accuracy results\n1 {:f}\n", hits / 7.0),
        fmt::format("by majority vote\n1 {:f}\n", 1 - hits / 7.0)}) {
    EXPECT_NE(ran.output.find(line), std::string::npos) << line << "in\n" << ran.output;
  }
  EXPECT_EQ(complaints(ran),
            std::vector<std::string>{
                "talvik: warning: " + (dir_ / "words.bin") +
                ": 4 bytes follow the last of 30 records and are not read (a wrong header?)"});
}

TEST_F(CorpusRun, ASelfRunLeavesEveryDocumentItselfOut) {
  // A copy of a document, earlier in the order: at distance 0 it stands before the document itself.
  write_file(dir_ / "resident/a/1", read_file(dir_ / ("resident/" + place_of(7, 15))));
  world_.resident.insert(world_.resident.begin(), Document(world_.resident[7]));
  for (const auto& [mode, processes] :
       std::map<std::string, int>{{"two-way", 1}, {"split", 2}, {"scale-out", 3}, {"ground", 4}}) {
    SCOPED_TRACE(mode);
    const bool all = mode == "ground";  // 15 others
    const Ran ran = run(processes, self_run() + (all ? "--k 99" : "--k 2") +
                                       " --by index --format tsv --mode " + mode);
    ASSERT_EQ(ran.status, 0) << ran.output;
    check_lists(world_.resident, all ? 15 : 2, mode == "two-way" || all, 0, true);
    // Its own class has no vote: of 2 neighbours, 3 cannot vote.
    const std::string votes = ran.output.substr(ran.output.find("majority vote"));
    EXPECT_EQ(votes.find("\n3 ") != std::string::npos, all) << votes;
  }
}

TEST_F(CorpusRun, MoreProcessesThanDocumentsIsNoObstacle) {
  for (const std::string mode : {"two-way", "split"}) {
    const Ran ran = run(4, query_run() + "--limit-resident 2 --limit-queries 2 --metric cosine " +
                               "--keep-shards --matrix " + (dir_ / "m.npy") + " --mode " + mode);
    EXPECT_EQ(ran.status, 0) << mode << ran.output;
    EXPECT_NE(ran.output.find("cosine, normalised"), std::string::npos) << ran.output;
    size_t shard_bytes = 0;
    for (const char* shard : {"m.npy.0", "m.npy.1", "m.npy.2", "m.npy.3"}) {
      shard_bytes += std::filesystem::file_size(dir_ / shard);
    }
    constexpr size_t header_bytes = 128, cells = 2 * 2;
    EXPECT_EQ(shard_bytes, 4 * header_bytes + cells * sizeof(float)) << mode;
    const std::string lists = read_file(dir_ / "out");
    EXPECT_EQ(std::count(lists.begin(), lists.end(), '\n'), 4) << mode << ran.output;
  }
}

TEST_F(CorpusRun, BadInputEndsWithOneLineAndNoResult) {
  const std::string files = self_run();
  const struct {
    int processes;
    std::string arguments, line;
  } cases[] = {
      {1, search("none", "resident"), (dir_ / "none") + ": no such file"},
      {2, files + "--max-words 1 --skip-index 29",
       (dir_ / "resident") + ": none of the 15 documents holds a word of the vocabulary"},
      {1, files + "--limit-resident 1", "a self run needs two documents, the collection has one"},
      {2, query_run("none/out"),
       (dir_ / "none/out") + ": cannot be created: No such file or directory"}};
  for (const auto& [processes, arguments, line] : cases) {
    expect_failure(run(processes, arguments), line);
  }
  const Ran refused = run(2, files + "--memory-limit 0.000001");
  EXPECT_EQ(refused.status, 1);
  ASSERT_EQ(complaints(refused).size(), 1u) << refused.output;
  EXPECT_NE(complaints(refused)[0].find("over the memory limit"), std::string::npos);
}

TEST_F(CorpusRun, AProcessOfItsOwnKindEndsAllOfThem) {
  const std::string bytes = read_file(dir_ / "words.bin");
  write_file(dir_ / "words.bin0", bytes);
  write_file(dir_ / "words.bin1", bytes.substr(0, bytes.size() - 9));
  for (const char* copy : {"resident0", "resident1"}) {
    std::filesystem::copy(dir_ / "resident", dir_ / copy, std::filesystem::copy_options::recursive);
  }
  std::filesystem::remove_all(dir_ / "resident1/c");
  std::array<char, 256> machine{};
  gethostname(machine.data(), machine.size());
  // The shell between the launcher and the program gives every process a text of its own.
  const std::string own = "$OMPI_COMM_WORLD_RANK";
  const std::pair<std::string, std::string> cases[] = {
      {search("words.bin" + own, "resident"),
       (dir_ / "words.bin1") + ": ends within record 30 of 30"},
      {search("words.bin", "resident" + own),
       "the collection of resident documents is not what process 0 has"},
      {self_run() + "--steps " + own, "--steps is not what process 0 has"}};
  for (const auto& [arguments, line] : cases) {
    expect_failure(run(2, arguments, "sh -c 'exec "),
                   std::string("process 1 on ") + machine.data() + ": " + line);
  }
}

TEST_F(CorpusRun, OutputsGoWhereTheyAreNamed) {
  const auto listed = [&](const std::string& more, const std::string& out = "out") {
    return run(1, query_run(out) + "--k 1 --format tsv " + more);
  };
  ASSERT_EQ(listed("").status, 0);
  const std::string lists = read_file(dir_ / "out");
  EXPECT_EQ(listed("2>/dev/null #", "-").output, lists);
  EXPECT_EQ(listed("--quiet").output, "");
  EXPECT_EQ(listed(">/dev/full #").status, 1);
  EXPECT_EQ(listed(">/dev/null 2>/dev/full #").status, 0);
  EXPECT_EQ(read_file(dir_ / "out"), lists);
  std::filesystem::create_symlink("words.bin", dir_ / "link");
  EXPECT_EQ(listed("", "link").status, 2);  // it leads to an input
}

TEST_F(CorpusRun, AnAddressSpaceThatIsTooSmallIsToldInOneLine) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's own address space is beyond any limit";
#endif
  for (const std::string kilobytes : {"100000", "500000"}) {
    const Ran ran = run(1, query_run("out"), "sh -c 'ulimit -v " + kilobytes + "; exec ");
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(complaints(ran).size(), 1u) << ran.output;
    EXPECT_NE(ran.output.find("the limit on the address space (ulimit -v) is too low"),
              std::string::npos);
  }
}

TEST_F(CorpusRun, ASignalLeavesNothingUnfinished) {
  ASSERT_EQ(mkfifo((dir_ / "words").c_str(), 0600), 0);
  // The list of stop words is a pipe that nobody writes to: prepare waits, its output begun.
  const Ran ran = run(1, "prepare --input " + (dir_ / "queries") + " --output " + (dir_ / "out") +
                             " --stop-words " + (dir_ / "words") +
                             " & sleep 0.5; kill -TERM $!; wait $!; echo $?");
  EXPECT_EQ(ran.output, "143\n");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.path()), {}), 4);
}

TEST(Usage, MistakesAreToldOnceWithStatusTwo) {
  const std::string files = "corpus --embeddings e --resident r --out o ";
  const struct {
    int processes;
    std::string arguments, line;
  } cases[] = {
      {1, "", "A subcommand is required"},
      {1, "korpus", "korpus: no such command (korpus: did you mean corpus?)"},
      {1, files + "--stesp=3",
       "The following argument was not expected: --stesp=3 (--stesp: did you mean --steps?)"},
      {2, files + "--k 0", "--k: Value 0 not in range 1 to 2147483647"},
      {1, files + "--mode 0", "--mode: 0 not in {two-way,ground,split,scale-out}"},
      {1, files + "--matrix o", "--matrix: o is also the name after --out"},
      {1, files + "--matrix ./e", "--matrix: ./e is also an input"},
      {1, "corpus --embeddings e --resident r --out \"\"", "--out: the name is empty"},
      {2, "corpus --resident r --out o", "--embeddings is required"}};
  for (const auto& [processes, arguments, line] : cases) {
    const Ran ran = run(processes, arguments);
    EXPECT_EQ(ran.status, 2) << ran.output;
    EXPECT_EQ(complaints(ran),
              std::vector<std::string>{"talvik: " + line + " (see talvik --help)"});
  }
  const Ran version = run(2, "--version");
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.output, "talvik " TALVIK_VERSION "\n");
  EXPECT_NE(run(1, "corpus --help").output.find("--embeddings FILE"), std::string::npos);
}

TEST(ImageRun, ListsAreTheSameOnAnyNumberOfProcesses) {
  const TempDir dir;
  std::string images = idx_image_header(14), labels = idx_label_header(14);
  for (int i = 0; i < 14; ++i) {
    std::vector<Pixel> pixels;
    for (int p = 0; i != 5 && p < 4 + i; ++p) {  // image 5 stays blank
      const int corner = i % 2 == 0 ? 0 : 14;    // of two classes
      pixels.push_back({corner + p % 5, corner + p / 5, static_cast<unsigned char>(1 + p)});
    }
    images += idx_image(pixels);
    labels += static_cast<char>(i % 2);
  }
  write_file(dir / "images", images);
  write_file(dir / "labels", labels);
  const std::string inputs = "mnist --resident-images " + (dir / "images") + " --resident-labels " +
                             (dir / "labels") + " --k 3 --threads 1 --format jsonl --out " +
                             (dir / "out");
  std::string lists;
  for (const int processes : {1, 3}) {
    const Ran ran = run(processes, inputs);
    ASSERT_EQ(ran.status, 0) << ran.output;
    EXPECT_NE(ran.output.find("results\n1 1.000000\n2 1.000000\n3 1.000000\n"), std::string::npos);
    EXPECT_NE(ran.output.find("empty, left out                1\n"), std::string::npos);
    if (lists.empty()) lists = read_file(dir / "out");
    EXPECT_EQ(read_file(dir / "out"), lists);
  }
  EXPECT_EQ(std::count(lists.begin(), lists.end(), '\n'), 13 * 3);
  EXPECT_EQ(lists.find("\"query\": 5,"), std::string::npos);

  EXPECT_NE(run(1, inputs + " --limit-resident 4").output.find("documents                      4"),
            std::string::npos);

  write_file(dir / "labels", idx_label_header(13) + std::string(13, '\0'));
  std::filesystem::remove(dir / "out");
  const Ran ran = run(2, inputs);
  EXPECT_EQ(complaints(ran),
            std::vector<std::string>{"talvik: " + (dir / "labels") +
                                     ": holds 13 labels for the 14 images of " + (dir / "images")});
  EXPECT_FALSE(std::filesystem::exists(dir / "out"));
}

}  // namespace
}  // namespace talvik::test
