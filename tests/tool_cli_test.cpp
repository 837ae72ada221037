// The host program as its user meets it: runs of the binary on one and several processes, their
// results against the slow oracle, and what it says to bad input.
#include <fmt/core.h>
#include <gtest/gtest.h>
#include <sys/stat.h>  // mkfifo
#include <sys/wait.h>  // WEXITSTATUS
#include <unistd.h>    // gethostname

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <sstream>
#include <tuple>

#include "support/files.hpp"
#include "support/oracle.hpp"

namespace talvik::test {
namespace {

constexpr int num_words = 30, vec_size = 4;
// A word and itself are 3e-4 apart: the root of what rounding leaves of 2 - 2.
constexpr double tolerance = 1e-3;

struct Ran {
  int status = -1;
  std::string output;  // both streams
};

/// Runs the program under the launcher, or by itself for one process.  A hang ends with status 124.
Ran run(int processes, const std::string& arguments, const std::string& before = "") {
  std::string command = "timeout -k 5 60 ";
  if (processes > 1) command += TALVIK_LAUNCH " " + std::to_string(processes) + " ";
  command += before + TALVIK_BINARY " " + arguments + (before.empty() ? " 2>&1" : "' 2>&1");
  Ran ran;
  FILE* pipe = popen(command.c_str(), "r");
  char buffer[4096];
  for (size_t got; (got = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
    ran.output.append(buffer, got);
  const int status = pclose(pipe);
  ran.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return ran;
}

/// The program's own lines about what is wrong.
std::vector<std::string> complaints(const Ran& ran) {
  std::vector<std::string> lines;
  std::istringstream all(ran.output);
  for (std::string line; std::getline(all, line);) {
    if (line.rfind("talvik: ", 0) == 0) lines.push_back(line);
  }
  return lines;
}

/// Embeddings and two corpora in files, and the same documents in memory.
class CorpusRun : public testing::Test {
 protected:
  struct Doc {
    unsigned long id;
    std::string class_name;
    Document entries;
  };

  void SetUp() override {
    std::mt19937 random(20);
    std::normal_distribution<float> component;
    std::vector<WordVector> records;
    for (int w = 0; w < num_words; ++w) {
      WordVector record{std::string("w").append(std::to_string(w)), {}};
      float norm = 0;
      for (int j = 0; j < vec_size; ++j) record.values.push_back(component(random));
      for (const float x : record.values) norm += x * x;
      for (const float x : record.values) embeddings_.push_back(x / std::sqrt(norm));
      records.push_back(record);
    }
    write_file(dir_ / "words.bin", embedding_bytes(records));
    // Directories are made in another order than their names have.
    resident_ = make_corpus("resident", {{"b", 5}, {"a", 6}, {"c", 4}}, random);
    queries_ = make_corpus("queries", {{"c", 3}, {"a", 4}}, random);
    write_file(dir_ / "queries/c/1000", "");
    write_file(dir_ / "queries/c/1001", "unknown words only");
  }

  std::vector<Doc> make_corpus(const std::string& name,
                               const std::vector<std::pair<std::string, int>>& classes,
                               std::mt19937& random) {
    std::vector<Doc> docs;
    unsigned long id = 12;  // 12 .. : identifiers pass from one digit count to the next
    for (const auto& [class_name, count] : classes) {
      for (int d = 0; d < count; ++d, id += 29) {
        std::map<unsigned, float> counts;
        std::string text = "Unknown";
        const int tokens = 3 + static_cast<int>(random() % 12);
        for (int t = 0; t < tokens; ++t) {
          const auto w = static_cast<unsigned>(random() % num_words);
          counts[w] += 1.0f / static_cast<float>(tokens);
          text += " (w" + std::to_string(w) + ")";
        }
        write_file(dir_ / (name + "/" + class_name + "/" + std::to_string(id)), text);
        docs.push_back({id, class_name, Document(counts.begin(), counts.end())});
      }
    }
    std::sort(docs.begin(), docs.end(), [](const Doc& a, const Doc& b) {
      return std::tie(a.class_name, a.id) < std::tie(b.class_name, b.id);
    });
    return docs;
  }

  std::string inputs() const {
    return "corpus --embeddings " + (dir_ / "words.bin") + " --resident " + (dir_ / "resident") +
           " --queries " + (dir_ / "queries") + " ";
  }

  /// Distance from query to resident document as a mode defines it.
  double expected(const Doc& query, const Doc& resident, bool two_way, int steps) const {
    const StepRule rule = steps > 1 ? StepRule::halving : StepRule::single;
    const double there =
        oracle_distance(embeddings_, vec_size, resident.entries, query.entries, steps, rule);
    if (!two_way) return there;
    return std::max(there, oracle_distance(embeddings_, vec_size, query.entries, resident.entries,
                                           steps, rule));
  }

  /// Compares a tabbed result file by index with the oracle.
  void check_lists(const std::string& path, const std::vector<Doc>& queries, size_t k, bool two_way,
                   int steps, bool self_run) const {
    std::istringstream lines(read_file(path));
    std::string header;
    std::getline(lines, header);
    for (size_t q = 0; q < queries.size(); ++q) {
      std::vector<double> sorted;
      for (size_t i = 0; i < resident_.size(); ++i) {
        if (self_run && i == q) continue;
        sorted.push_back(expected(queries[q], resident_[i], two_way, steps));
      }
      std::sort(sorted.begin(), sorted.end());
      for (size_t rank = 0; rank < k; ++rank) {
        size_t query = 0, neighbour = 0, given_rank = 0;
        double distance = 0;
        ASSERT_TRUE(lines >> query >> neighbour >> given_rank >> distance);
        EXPECT_EQ(query, q);
        EXPECT_EQ(given_rank, rank + 1);
        EXPECT_NEAR(distance, sorted[rank], tolerance);
        EXPECT_NEAR(distance, expected(queries[q], resident_.at(neighbour), two_way, steps),
                    tolerance);
      }
    }
    std::string rest;
    EXPECT_FALSE(lines >> rest);
  }

  void expect_failure(const Ran& ran, const std::string& line, const std::string& result) const {
    EXPECT_EQ(ran.status, 1) << ran.output;
    EXPECT_EQ(complaints(ran), std::vector<std::string>{"talvik: " + line}) << ran.output;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
      EXPECT_NE(entry.path().filename().string().rfind(result, 0), 0u) << entry.path();
    }
  }

  TempDir dir_;
  std::vector<float> embeddings_;
  std::vector<Doc> resident_, queries_;
};

TEST_F(CorpusRun, EveryModeGivesTheOraclesListsOnAnyNumberOfProcesses) {
  for (const std::string mode : {"two-way", "ground", "split", "scale-out"}) {
    const bool two_way = mode == "two-way" || mode == "ground";
    const int steps = mode == "ground" ? 2 : mode == "split" ? 1 : 0;
    std::string lists, matrix;
    for (const int processes : {1, 2, 4}) {
      SCOPED_TRACE(mode + " on " + std::to_string(processes));
      const bool with_matrix = processes != 1 || mode != "split";  // split: both ways to the lists
      const Ran ran =
          run(processes, inputs() + "--threads 1 --k 4 --by index --format tsv --mode " + mode +
                             " --steps " + std::to_string(steps) + " --out " + (dir_ / "out") +
                             (with_matrix ? " --matrix " + (dir_ / "m.npy") : ""));
      ASSERT_EQ(ran.status, 0) << ran.output;
      EXPECT_TRUE(complaints(ran).empty()) << ran.output;
      EXPECT_EQ(ran.output.find("Compressed vocabulary") != std::string::npos, mode == "ground");
      EXPECT_EQ(ran.output.find("asked for"), std::string::npos);
      check_lists(dir_ / "out", queries_, 4, two_way, steps, false);
      if (lists.empty()) lists = read_file(dir_ / "out");
      EXPECT_EQ(read_file(dir_ / "out"), lists);
      if (!with_matrix) continue;
      if (matrix.empty()) matrix = read_file(dir_ / "m.npy");
      EXPECT_EQ(read_file(dir_ / "m.npy"), matrix);
    }
    // Nothing but the inputs and the results is left behind.
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.path()), {}), 5);
    const size_t cells = queries_.size() * resident_.size();
    ASSERT_EQ(matrix.size() % 64, cells * sizeof(float) % 64);
    std::vector<float> distances(cells);
    std::memcpy(distances.data(), matrix.data() + matrix.size() - cells * sizeof(float),
                cells * sizeof(float));
    for (size_t q = 0; q < queries_.size(); ++q) {
      for (size_t i = 0; i < resident_.size(); ++i) {
        EXPECT_NEAR(distances[q * resident_.size() + i],
                    expected(queries_[q], resident_[i], two_way, steps), tolerance);
      }
    }
  }
}

TEST_F(CorpusRun, OnAGpuTheListsAreTheOracles) {
  for (const std::string mode : {"two-way", "ground", "split"}) {
    SCOPED_TRACE(mode);
    const Ran ran = run(2, inputs() + "--gpu --threads 1 --k 4 --by index --format tsv --mode " +
                               mode + " --out " + (dir_ / "out"));
    if (count_gpu_devices() == 0) {
      expect_failure(ran, "--gpu: no GPU that CUDA can use was found on this machine", "out");
      continue;
    }
    ASSERT_EQ(ran.status, 0) << ran.output;
    check_lists(dir_ / "out", queries_, 4, mode != "split", 0, false);
    const std::string device = gpu_is_emulated() ? ", GPU emulated on the CPU (slow)" : ", GPU\n";
    EXPECT_NE(ran.output.find("2, 1 thread(s) each" + device), std::string::npos) << ran.output;
  }
}

TEST_F(CorpusRun, ReportsWhatItReadAndHowWellItDid) {
  write_file(dir_ / "words.bin", read_file(dir_ / "words.bin") + "more");
  const Ran ran = run(1, inputs() + "--k 100 --verbose --out " + (dir_ / "out"));
  ASSERT_EQ(ran.status, 0) << ran.output;
  const auto found = [&](const std::string& line) {
    EXPECT_NE(ran.output.find(line), std::string::npos) << line << "in\n" << ran.output;
  };
  for (const char* line :
       {"documents                     15           7\n",
        "empty, left out                0           2\n",
        // "Unknown" in every document, and the three words of the document without a known one
        "out of vocabulary             15          10\n",
        "neighbours                    15 (100 asked for, the collection has no more)\n",
        "queries/c/1000: empty\n", "queries/c/1001: no known word\n", "pairs per second"}) {
    found(line);
  }
  EXPECT_EQ(complaints(ran),
            std::vector<std::string>{
                "talvik: warning: " + (dir_ / "words.bin") +
                ": 4 bytes follow the last of 30 records and are not read (a wrong header?)"});
  // 7 queries: the nearest's class is right or wrong, whoever counts
  const auto hits = std::count_if(queries_.begin(), queries_.end(), [&](const Doc& query) {
    const auto nearest =
        std::min_element(resident_.begin(), resident_.end(), [&](const Doc& a, const Doc& b) {
          return expected(query, a, true, 0) < expected(query, b, true, 0);
        });
    return nearest->class_name == query.class_name;
  });
  found(fmt::format("Averaged accuracy results\n1 {:f}\n", static_cast<double>(hits) / 7));
  found(fmt::format("by majority vote\n1 {:f}\n", 1 - static_cast<double>(hits) / 7));
}

TEST_F(CorpusRun, ASelfRunLeavesEveryDocumentItselfOut) {
  // A copy of a document, earlier in the order: at distance 0 it stands before the document itself.
  const std::string original = dir_ / "resident/b/12";
  write_file(dir_ / "resident/a/1", read_file(original));
  resident_.insert(resident_.begin(), {1, "a", {}});
  for (const Doc& doc : resident_) {
    if (doc.class_name == "b" && doc.id == 12) resident_.front().entries = doc.entries;
  }
  for (const auto& [mode, processes] :
       std::map<std::string, int>{{"two-way", 1}, {"split", 2}, {"scale-out", 3}, {"ground", 4}}) {
    SCOPED_TRACE(mode);
    const bool all = mode == "ground";  // 15 others
    const Ran ran = run(processes, "corpus --embeddings " + (dir_ / "words.bin") + " --resident " +
                                       (dir_ / "resident") + (all ? " --k 99" : " --k 2") +
                                       " --threads 1 --by index --format tsv --mode " + mode +
                                       " --out " + (dir_ / "out"));
    ASSERT_EQ(ran.status, 0) << ran.output;
    check_lists(dir_ / "out", resident_, all ? 15 : 2, mode == "two-way" || all, 0, true);
    // Its own class has no vote: of 2 neighbours, 3 cannot vote.
    const std::string votes = ran.output.substr(ran.output.find("majority vote"));
    EXPECT_EQ(votes.find("\n3 ") != std::string::npos, all) << votes;
  }
}

TEST_F(CorpusRun, MoreProcessesThanDocumentsIsNoObstacle) {
  for (const std::string mode : {"two-way", "split"}) {
    const Ran ran = run(4, inputs() + "--threads 1 --limit-resident 2 --limit-queries 2 --mode " +
                               mode + " --out " + (dir_ / "out") +
                               " --metric cosine --keep-shards --matrix " + (dir_ / "m.npy"));
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
  const auto with = [&](const std::string& embeddings, const std::string& resident) {
    return "corpus --embeddings " + (dir_ / embeddings) + " --resident " + (dir_ / resident) +
           " --out " + (dir_ / "result");
  };
  const struct {
    int processes;
    std::string arguments, line;
  } cases[] = {{1, with("none", "resident"), (dir_ / "none") + ": no such file"},
               {2, with("words.bin", "queries") + " --max-words 1 --skip-index 29",
                (dir_ / "queries") + ": none of the 9 documents holds a word of the vocabulary"},
               {1, with("words.bin", "resident") + " --limit-resident 1",
                "a self run needs two documents, the collection has one"},
               {2, inputs() + "--out " + (dir_ / "none/result"),
                (dir_ / "none/result") + ": cannot be created: No such file or directory"}};
  for (const auto& [processes, arguments, line] : cases) {
    expect_failure(run(processes, arguments), line, "result");
  }
  const Ran refused = run(2, with("words.bin", "resident") + " --memory-limit 0.000001");
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
  const auto with = [&](const std::string& embeddings, const std::string& resident) {
    return "corpus --embeddings " + (dir_ / embeddings) + " --resident " + (dir_ / resident) +
           " --out " + (dir_ / "result");
  };
  // The shell between the launcher and the program gives every process a text of its own.
  const std::string own = "$OMPI_COMM_WORLD_RANK";
  const std::pair<std::string, std::string> cases[] = {
      {with("words.bin" + own, "resident"),
       (dir_ / "words.bin1") + ": ends within record 30 of 30"},
      {with("words.bin", "resident" + own),
       "the collection of resident documents is not what process 0 has"},
      {with("words.bin", "resident") + " --steps " + own, "--steps is not what process 0 has"}};
  for (const auto& [arguments, line] : cases) {
    expect_failure(run(2, arguments, "sh -c 'exec "),
                   std::string("process 1 on ") + machine.data() + ": " + line, "result");
  }
}

TEST_F(CorpusRun, OutputsGoWhereTheyAreNamed) {
  const auto listed = [&](const std::string& arguments) {
    return run(1, inputs() + "--k 1 --format tsv --out " + arguments);
  };
  const std::string out = dir_ / "out";
  ASSERT_EQ(listed(out).status, 0);
  const std::string lists = read_file(out);
  EXPECT_EQ(listed("- 2>/dev/null #").output, lists);
  EXPECT_EQ(listed(out + " --quiet").output, "");
  EXPECT_EQ(listed(out + " >/dev/full #").status, 1);
  EXPECT_EQ(listed(out + " >/dev/null 2>/dev/full #").status, 0);
  EXPECT_EQ(read_file(out), lists);
  std::filesystem::create_symlink("words.bin", dir_ / "link");
  EXPECT_EQ(listed(dir_ / "link").status, 2);  // it leads to an input
}

TEST_F(CorpusRun, ASignalLeavesNothingUnfinished) {
  ASSERT_EQ(mkfifo((dir_ / "words").c_str(), 0600), 0);
  // The list of stop words is a pipe that nobody writes to: prepare waits, its output begun.
  const Ran ran = run(1, "prepare --input " + (dir_ / "queries") + " --output " + (dir_ / "made") +
                             " --stop-words " + (dir_ / "words") +
                             " & sleep 0.5; kill -TERM $!; wait $!; echo $?");
  EXPECT_EQ(ran.output, "143\n");
  for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
    EXPECT_NE(entry.path().filename().string().rfind("made", 0), 0u) << entry.path();
  }
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
  std::mt19937 random(4);
  std::string images = idx_image_header(14), labels = idx_label_header(14);
  for (int i = 0; i < 14; ++i) {
    std::vector<Pixel> pixels;
    for (int p = 0; i != 5 && p < 20; ++p) {  // image 5 stays blank
      const auto at = [&](int origin) { return origin + static_cast<int>(random() % 12); };
      const int origin = i % 2 == 0 ? 0 : 14;  // two classes in opposite corners
      pixels.push_back({at(origin), at(origin), static_cast<unsigned char>(1 + random() % 255)});
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
