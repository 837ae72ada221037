// The commands index, search and explain as their user meets them: on the sample against the
// command corpus, on three sentences against distances known by hand.
#include <gtest/gtest.h>
#include <zip.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>
#include <utility>

#include "support/files.hpp"
#include "support/program.hpp"

namespace talvik::test {
namespace {

using Lines = std::vector<std::string>;

struct Place {
  std::string neighbour;
  double distance = 0;
};

/// The lists of a tabbed file, by query; of a path in a tree the file's name.
std::map<std::string, std::vector<Place>> lists_in(const std::string& path) {
  const auto name = [](const std::string& id) { return id.substr(id.rfind('/') + 1); };
  std::map<std::string, std::vector<Place>> lists;
  std::istringstream lines(read_file(path));
  std::string query, neighbour;
  std::getline(lines, query);
  EXPECT_EQ(query, "query\tneighbour\trank\tdistance");
  size_t rank = 0;
  for (double distance = 0; lines >> query >> neighbour >> rank >> distance;) {
    std::vector<Place>& list = lists[name(query)];
    list.push_back({name(neighbour), distance});
    EXPECT_EQ(rank, list.size());
  }
  return lists;
}

TEST(Sample, TwoCommandsFindWhatTheCorpusCommandFinds) {
  const TempDir dir;
  const std::string sample = TALVIK_SAMPLE;
  const Ran corpus = run(1, "corpus --embeddings " + sample + "/vectors.bin --resident " + sample +
                                "/resident --queries " + sample +
                                "/queries --k 5 --format tsv --out " + (dir / "corpus.tsv"));
  ASSERT_EQ(corpus.status, 0) << corpus.output;
  const Ran index = run(1, "index --all-words --vectors " + sample + "/vectors.bin --texts " +
                               sample + "/resident --output " + (dir / "sample.talvik"));
  ASSERT_EQ(index.status, 0) << index.output;
  EXPECT_NE(index.output.find("words without a vector          109 of 21674 (0.5 %)\n"),
            std::string::npos)
      << index.output;
  const Ran search = run(1, "search --collection " + (dir / "sample.talvik") + " --texts " +
                                sample + "/queries --k 5 --out " + (dir / "search.tsv"));
  ASSERT_EQ(search.status, 0) << search.output;

  const auto expected = lists_in(dir / "corpus.tsv"), found = lists_in(dir / "search.tsv");
  ASSERT_EQ(found.size(), 72u);
  for (const auto& [query, list] : expected) {
    ASSERT_EQ(found.at(query).size(), list.size());
    for (size_t rank = 0; rank < list.size(); ++rank) {
      EXPECT_NEAR(found.at(query)[rank].distance, list[rank].distance, 1e-4) << query;
    }
    EXPECT_EQ(found.at(query)[0].neighbour, list[0].neighbour);
  }
  // The lists are scored alike.
  const std::string scores = corpus.output.substr(corpus.output.find("Averaged accuracy"));
  EXPECT_NE(search.output.find(scores), std::string::npos) << search.output << scores;
}

/// Two columns of words at x = 0 and x = 6, of which the sentences are made.
class Sentences : public testing::Test {
 protected:
  void SetUp() override {
    write_file(dir_ / "words.txt",
               "dog 0 0\npuppy 0 1\nprice 0 5\nsleeps 6 0\nrests 6 1\nrises 6 9\n");
    write_file(dir_ / "texts.jsonl", first_ + rest_);
    write_file(dir_ / "first.jsonl", first_);
    write_file(dir_ / "rest.jsonl", rest_);
    write_file(dir_ / "asked.jsonl", R"({"id": "q", "text": "The dog sleeps.", "label": "pets"})"
                                     "\n");
    const Ran ran = index("texts.jsonl", "news");
    ASSERT_EQ(ran.status, 0) << ran.output;
  }

  Ran index(const std::string& texts, const std::string& output, const std::string& more = "") {
    return run(1, "index --keep-lengths --vectors " + (dir_ / "words.txt") + " --texts " +
                      (dir_ / texts) + " --output " + (dir_ / output) + " " + more);
  }
  std::string queries() const { return "--texts " + (dir_ / "asked.jsonl") + " "; }
  std::string search(const std::string& more, const std::string& out = "out") const {
    return "search --collection " + (dir_ / "news") + " --threads 1 --out " + (dir_ / out) + " " +
           more;
  }
  std::string found(int processes, const std::string& more) const {
    const Ran ran = run(processes, search(more));
    EXPECT_EQ(ran.status, 0) << ran.output;
    return read_file(dir_ / "out");
  }

  TempDir dir_;
  const std::string first_ = R"({"id": "é\"1\"", "text": "A puppy rests", "label": "pets"})"
                             "\n";
  const std::string rest_ =
      R"({"id": "2", "text": "The dog sleeps while the price rises", "label": "news"})"
      "\n"
      R"({"id": "3", "text": "of unknown words", "label": "news"})"
      "\n";
};

/// The bytes of a member of a zip archive.
std::string member(const std::string& path, const char* name) {
  zip_t* const archive = zip_open(path.c_str(), ZIP_RDONLY, nullptr);
  zip_stat_t stat;
  std::string bytes;
  if (archive && zip_stat(archive, name, 0, &stat) == 0) {
    EXPECT_EQ(stat.comp_method, ZIP_CM_STORE);
    bytes.resize(stat.size);
    zip_file_t* const file = zip_fopen(archive, name, 0);
    zip_fread(file, bytes.data(), bytes.size());
    zip_fclose(file);
  }
  if (archive) zip_discard(archive);
  return bytes;
}

/// The values of an array of NumPy whose header has the type and shape.
template <class Value>
std::vector<Value> values_of(const std::string& bytes, const std::string& header) {
  EXPECT_NE(bytes.find(header), std::string::npos) << bytes.substr(0, bytes.find('\n'));
  const size_t begin = bytes.find('\n') + 1;
  std::vector<Value> values((bytes.size() - begin) / sizeof(Value));
  std::memcpy(values.data(), bytes.data() + begin, values.size() * sizeof(Value));
  return values;
}

TEST_F(Sentences, EveryFormatHoldsTheSameListsOnAnyNumberOfProcesses) {
  const std::pair<std::string, std::string> expected[] = {
      {"tsv",
       "query\tneighbour\trank\tdistance\n"
       "q\té\"1\"\t1\t1\nq\t2\t2\t3.5\nq\t3\t3\tinf\n"},
      {"jsonl",
       R"({"query": "q", "neighbours": [{"id": "é\"1\"", "rank": 1, "distance": 1}, )"
       R"({"id": "2", "rank": 2, "distance": 3.5}, {"id": "3", "rank": 3, "distance": null}]})"
       "\n"},
      {"trec", "q Q0 é\"1\" 1 -1 talvik\nq Q0 2 2 -3.5 talvik\nq Q0 3 3 -inf talvik\n"}};
  for (const int processes : {1, 2, 4}) {  // 4: more than documents
    for (const auto& [format, text] : expected) {
      EXPECT_EQ(found(processes, queries() + "--k 9 --format " + format), text) << processes;
    }
  }
  const std::string archive = found(1, queries() + "--k 2 --format npz");
  EXPECT_EQ(values_of<float>(member(dir_ / "out", "distances.npy"),
                             "'<f4', 'fortran_order': False, "
                             "'shape': (1, 2)"),
            (std::vector<float>{1, 3.5f}));
  EXPECT_EQ(values_of<char32_t>(member(dir_ / "out", "ids.npy"),
                                "'<U4', 'fortran_order': False, "
                                "'shape': (3,)"),
            (std::vector<char32_t>{U'é', '"', '1', '"', '2', 0, 0, 0, '3', 0, 0, 0}));
  EXPECT_EQ(found(3, queries() + "--k 2 --format npz"), archive);

  // Within a radius lists differ in length: the third text of a self search has an empty one.
  found(2, "--self --radius 3.5 --distance exact --format npz");
  const auto numbers = [&](const char* name) {
    return values_of<long long>(member(dir_ / "out", name), "'<i8'");
  };
  EXPECT_EQ(numbers("offsets.npy"), (std::vector<long long>{0, 1, 2, 2}));
  EXPECT_EQ(numbers("indices.npy"), (std::vector<long long>{1, 0}));
  EXPECT_EQ(values_of<double>(member(dir_ / "out", "distances.npy"), "'<f8'"),
            (std::vector<double>{3.5, 3.5}));
}

TEST_F(Sentences, LabelsOnBothSidesAreScored) {
  const std::string scores =
      "Averaged accuracy results\n1 1.000000\n2 0.500000\n3 0.333333\n\n"
      "Classification error by majority vote\n1 0.000000\n3 1.000000\n";
  for (const int processes : {1, 2}) {
    const Ran ran = run(processes, search(queries() + "--k 3 --stats"));
    EXPECT_NE(ran.output.find(scores), std::string::npos) << ran.output;
    EXPECT_NE(ran.output.find("pairs bounded                        3 "), std::string::npos)
        << ran.output;
  }
  EXPECT_EQ(run(1, search(queries() + "--quiet")).output, "");
  // Standard input is lines of text: no labels, nothing to score.
  const Ran unlabelled = run(2, search("--texts -", "more"), "sh -c 'echo the dog sleeps | exec ");
  EXPECT_EQ(unlabelled.output.find("accuracy"), std::string::npos) << unlabelled.output;
  EXPECT_NE(read_file(dir_ / "more").find("standard input:1\té\"1\"\t1\t1\n"), std::string::npos);
}

TEST_F(Sentences, AppendedTextsAreFoundAsThoseOfOneIndex) {
  const std::string whole = found(1, "--self");
  ASSERT_EQ(index("first.jsonl", "news").status, 0);  // replaces the collection
  const Ran ran = index("rest.jsonl", "news", "--append");
  EXPECT_EQ(ran.status, 0) << ran.output;
  EXPECT_NE(ran.output.find("documents in all                3\n"), std::string::npos);
  EXPECT_NE(ran.output.find("documents without a known word  1 (3)\n"), std::string::npos);
  EXPECT_EQ(found(1, "--self"), whole);
}

TEST_F(Sentences, QueriesMayHaveWordsOfTheirOwn) {
  ASSERT_EQ(index("first.jsonl", "news").status, 0);  // puppy and rests alone
  const std::string nowhere = "query\tneighbour\trank\tdistance\nq\té\"1\"\t1\tinf\n";
  EXPECT_EQ(found(1, queries()), nowhere);
  EXPECT_EQ(found(2, queries() + "--vectors " + (dir_ / "words.txt")),
            "query\tneighbour\trank\tdistance\nq\té\"1\"\t1\t1\n");
}

TEST_F(Sentences, AnExplanationNamesTheWordsThatTravel) {
  const std::string pair = "explain --collection " + (dir_ / "news") + " --neighbour 2 ";
  // Both ways from "the dog sleeps": its words stay, so the other text's make the distance.
  EXPECT_EQ(run(1, pair + "--text \"the dog sleeps\" --top 2").output,
            "distance 3.5, two-way, steps 0, euclidean\n"
            "the neighbour's words travel to the query's\n\n"
            "from                 to                      weight  distance      cost\n"
            "rises                sleeps                0.250000  9.000000  2.250000\n"
            "price                dog                   0.250000  5.000000  1.250000\n"
            "2 more                                                         0.000000\n");
  const Ran ran = run(1, pair + "--query 'é\"1\"' --distance other-way");
  EXPECT_NE(ran.output.find("the query's words travel to the neighbour's\n"), std::string::npos);
}

TEST_F(Sentences, MistakesAreToldInOneLine) {
  const std::string bytes = read_file(dir_ / "news");
  write_file(dir_ / "cut", bytes.substr(0, bytes.size() / 2));
  write_file(dir_ / "twice.jsonl", rest_ + first_ + rest_);
  write_file(dir_ / "blank.jsonl", "{\"id\": \"a\\tb\", \"text\": \"dog\"}\n");
  const std::string output = " --output " + (dir_ / "news") + " ",
                    append = "index --append" + output;
  const std::string usage = " (see talvik --help)";
  const struct {
    int processes;
    std::string arguments;
    int status;
    std::string line;
  } cases[] = {
      {2, "search --self --out o --collection " + (dir_ / "cut"), 1,
       "talvik search: " + (dir_ / "cut") + ": cannot be opened: damaged or cut"},
      {1, search("--self", "none/out"), 1,
       "talvik search: " + (dir_ / "none/out") + ": cannot be created: No such file or directory"},
      {2, search("--texts " + (dir_ / "none")), 1,
       "talvik search: " + (dir_ / "none") + ": no such file"},
      {2, search("--texts " + (dir_ / "blank.jsonl")), 1,
       "talvik search: the id 'a\\x09b' holds a tab or the end of a line, which separate the "
       "columns "
       "and lines of tsv; --format jsonl holds any"},
      {1, search("--self --k 0"), 2, "talvik: --k: Value 0 not in range 1 to 2147483647" + usage},
      {1, search("--self --k 1 --radius 1"), 2, "talvik: --k excludes --radius" + usage},
      {1, search("--self --steps 1 --distance exact"), 2,
       "talvik: --steps: the exact distance has no capacity steps" + usage},
      {1, search(""), 2, "talvik: --texts or --self is required" + usage},
      {1, search("--self", "news"), 2,
       "talvik: --out: " + (dir_ / "news") + " is also an input" + usage},
      {1, "explain --query 2 --neighbour 4 --collection " + (dir_ / "news"), 1,
       "talvik explain: --neighbour: " + (dir_ / "news") + " has no document '4'"},
      {1, append + "--texts " + (dir_ / "rest.jsonl"), 1,
       "talvik index: " + (dir_ / "rest.jsonl") + ":1: the id '2' is that of document 1, too"},
      {1, "index --vectors " + (dir_ / "words.txt") + output + "--texts " + (dir_ / "twice.jsonl"),
       1,
       "talvik index: " + (dir_ / "twice.jsonl") + ":4: the id '2' is that of " +
           (dir_ / "twice.jsonl") + ":1, too"},
      {1, append + "--max-words 5 --texts " + (dir_ / "rest.jsonl"), 1,
       "talvik index: --max-words: contradicts what " + (dir_ / "news") + " was made with"},
      {1, "index --texts t" + output, 2, "talvik: --vectors is required" + usage},
      {1,
       "index --vectors " + (dir_ / "words.txt") + output + "--texts " + (dir_ / "texts.jsonl") +
           " --stop-words " + (dir_ / "words.txt") + " --text-field label",
       1, "talvik index: " + (dir_ / "texts.jsonl") + ": no text holds a word that has a vector"}};
  for (const auto& [processes, arguments, status, line] : cases) {
    const Ran ran = run(processes, arguments);
    EXPECT_EQ(ran.status, status) << arguments << "\n" << ran.output;
    EXPECT_EQ(complaints(ran), Lines{line}) << ran.output;
  }
  EXPECT_EQ(read_file(dir_ / "news"), bytes);
  EXPECT_FALSE(std::filesystem::exists(dir_ / "out"));
}

}  // namespace
}  // namespace talvik::test
