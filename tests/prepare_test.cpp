// The program's data side: tokens, corpora out of texts, embedding files out of text vectors.
#include "commands/prepare.hpp"

#include <fmt/core.h>
#include <gtest/gtest.h>
#include <zlib.h>

#include <array>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "commands/convert.hpp"
#include "support/files.hpp"
#include "support/tool.hpp"
#include "texts/stop_words.hpp"
#include "texts/tokenizer.hpp"
#include "texts/word_set.hpp"

namespace talvik::tool {
namespace {

using test::embedding_bytes;
using test::error_of;
using test::read_file;
using test::TempDir;
using test::write_file;
using Tokens = std::vector<std::string>;
using Counts = std::vector<long long>;

// Names of everything below a directory, sorted.
std::set<std::string> names_in(const std::filesystem::path& root) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    names.insert(entry.path().lexically_relative(root).string());
  }
  return names;
}

TEST(Tokenizer, FindsTheWordsOfAnyTextByAnyRules) {
  const TempDir dir;
  write_file(dir / "stop", "The\nisn't\n");
  write_file(dir / "none", "...\n");
  EXPECT_EQ(error_of([&] { texts::stop_words_from(dir / "none"); }),
            dir / "none" + ": holds no words");
  const Tokens own = texts::stop_words_from(dir / "stop");
  const texts::WordSet known = {"well-known", "mid-1990s", "pre"};
  const std::string_view compounds = "Well-Known mid-1990s pre-war - a--b e- 1990-91";
  const struct {
    std::string_view text;
    Tokens tokens;
    TextRules rules = {};
    Count replaced = 0;
    bool with_vocabulary = false;
  } cases[] = {
      {"The (Cat), 42 B2B\t1990s\nsat.  --\r\nEnd_of",
       {"the", "cat", "b2b", "1990s", "sat", "end", "of"}},
      {"", {}},
      {std::string_view("a\0b", 3), {"a", "b"}},
      // The apostrophe cuts inside a word only.
      {"'nation's' don\u2019t rock'n'roll o'neill-smith dogs' x",
       {"nation", "don", "rock", "o", "smith", "dogs", "x"}},
      // Case and composition beyond ASCII; a soft hyphen is nothing.
      // A lower-case i composes with the accent that a dotted capital left alone.
      {"\u0130\u0301", {"\u00ED"}},
      {"\u00C9COLE e\u0301cole STRASSE Stra\u00DFe \u0416\u0423\u041A \u4E16\u754C co\u00ADop",
       {"\u00E9cole", "\u00E9cole", "strasse", "stra\u00DFe", "\u0436\u0443\u043A", "\u4E16\u754C",
        "coop"}},
      // The length counts characters, not bytes.
      {"Cat E\u0301cole \u00E9\u00E9", {"Cat", "\u00C9cole"}, {.keep_case = true, .min_length = 3}},
      // A compound stays whole where the vocabulary has it.
      {compounds, {"well-known", "mid-1990s", "pre", "war", "a", "b", "e"}, {}, 0, true},
      {compounds, {"well", "known", "mid", "1990s", "pre", "war", "a", "b", "e"}},
      // Stop words match whatever the case.
      {"THE cat isn't the", {"cat"}, {.stop_words = own}},
      {"THE cat isn't the", {"cat"}, {.stop_words = own, .keep_case = true}},
      {"We don't eat that the cat's", {"eat", "cat"}, {.stop_words = texts::english_stop_words()}},
      // Latin-1 e acute, an overlong slash, a lone continuation byte, a euro sign cut at the end.
      {"caf\xE9 a\xC0\xAFz \x80 end\xE2\x82", {"caf", "a", "z", "end"}, {}, 4}};
  for (const auto& [text, tokens, rules, replaced, with_vocabulary] : cases) {
    texts::HasWord vocabulary;
    if (with_vocabulary) vocabulary = [&](std::string_view word) { return known.contains(word); };
    Count counted = 0;
    EXPECT_EQ(texts::Tokenizer(rules, vocabulary).tokens(text, counted), tokens);
    EXPECT_EQ(counted, replaced) << text;
  }
}

const std::string list_head = "id\tsource\tclass\ttokens_in\ttokens_out\n";

/// A directory with an input, and what either command makes of it.
class DataSide : public testing::Test {
 protected:
  PrepareOptions options(const std::string& input) {
    return {.input = dir_ / input, .output = dir_ / "out", .embeddings = "", .stop_words = ""};
  }
  ConvertSummary convert(const std::string& text, VectorFormat format = VectorFormat::automatic,
                         const std::string& words = "") {
    write_file(dir_ / "in", text);
    return convert_text_vectors({dir_ / "in", dir_ / "out", format, words});
  }
  std::string output() { return read_file(dir_ / "out"); }
  // The message without the input's path.  Nothing is left but what was there.
  std::string error_for(const std::string& name, const std::string& content,
                        const std::function<void()>& code) {
    write_file(dir_ / name, content);
    const std::set<std::string> before = names_in(dir_.path());
    const std::string error = error_of(code), path = dir_ / name;
    EXPECT_EQ(names_in(dir_.path()), before) << error;
    std::filesystem::remove(path);
    return error.starts_with(path) ? error.substr(path.size()) : error;
  }
  const TempDir dir_;
};
using Prepare = DataSide;
using Convert = DataSide;

TEST_F(Prepare, TreeIsReadInTheOrderOfItsPaths) {
  const std::pair<const char*, const char*> files[] = {
      {"in/b/x.txt", "Second class"}, {"in/a/deep/er.txt", "One\ntwo"},
      {"in/a/later", "..."},          {"in/a-b/z", "Third"},
      {"in/README", "no class"},      {"in/.git/config", "hidden"}};
  for (const auto& [name, text] : files) write_file(dir_ / name, text);
  for (const char* link : {"in/a/link", "in/.#lock"}) {  // they lead nowhere
    std::filesystem::create_symlink("nowhere", dir_ / link);
  }
  const PrepareSummary summary = prepare_corpus(options("in"));
  EXPECT_EQ(names_in(dir_ / "out"),
            (std::set<std::string>{"a", "a/1", "a-b", "a-b/3", "b", "b/4", "documents.tsv"}));
  EXPECT_EQ(read_file(dir_ / "out/a/1"), "one two");
  EXPECT_EQ(read_file(dir_ / "out/documents.tsv"),
            list_head +
                "1\ta/deep/er.txt\ta\t2\t-\n2\ta/later\ta\t0\t-\n3\ta-b/z\ta-b\t1\t-\n"
                "4\tb/x.txt\tb\t2\t-\n");
  EXPECT_EQ((Counts{summary.documents, summary.classes, summary.empty, summary.classless}),
            (Counts{4, 3, 1, 1}));
}

TEST_F(Prepare, LinesWithLabelsAndTheVocabulary) {
  write_file(dir_ / "vectors", embedding_bytes({{"cat", {1, 2}}, {"dog", {0, 0}}}));
  write_file(dir_ / "in.tsv", "pets\tThe cat\tand dog\r\n\nwild\tbear\npets\tdog\npets\tcat\n");
  PrepareOptions wanted = options("in.tsv");
  wanted.embeddings = dir_ / "vectors";
  wanted.stop_words = "english";
  wanted.limit = 2;
  wanted.first_id = 11;
  wanted.output += "/";
  const PrepareSummary summary = prepare_corpus(wanted);
  EXPECT_EQ(
      read_file(dir_ / "out/documents.tsv"),
      list_head + "11\tin.tsv:1\tpets\t2\t0\n12\tin.tsv:3\twild\t0\t1\n13\tin.tsv:4\tpets\t1\t0\n");
  EXPECT_EQ(read_file(dir_ / "out/pets/11"), "cat dog");
  EXPECT_EQ(read_file(dir_ / "out/wild/12"), "bear");  // the reader drops it, the list shows it
  EXPECT_EQ((Counts{summary.tokens_in, summary.tokens_out, summary.unknown, summary.over_limit}),
            (Counts{3, 1, 1, 1}));
}

TEST_F(Prepare, JsonLinesGiveTheirOwnIds) {
  write_file(dir_ / "in.jsonl",
             "{\"id\":\"a\\tb\",\"label\":\"x\",\"text\":\"caf\xE9 One\\u00e9\"}\n"
             "{\"label\":7,\"text\":\"two\"}\n");
  const PrepareSummary summary = prepare_corpus(options("in.jsonl"));
  EXPECT_EQ(read_file(dir_ / "out/documents.tsv"),
            list_head + "1\ta b\tx\t2\t-\n2\tin.jsonl:2\t7\t1\t-\n");
  EXPECT_EQ(read_file(dir_ / "out/x/1"), "caf one\u00E9");
  EXPECT_EQ(summary.replaced, 1);
}

TEST_F(Prepare, BadInputIsNamedWithItsPlaceAndLeavesNothing) {
  const std::array<std::string, 3> cases[] = {
      {"tsv", "a\tone\nno tab\n", ":2: no tab between label and text"},
      {"tsv", "a\tone\n../b\ttwo\n", ":2: the class name \"../b\" holds a path separator"},
      {"tsv", "..\ttwo\n", ":1: the class name \"..\" cannot name a directory"},
      {"tsv", " \t\n\ttwo\n", ":2: the class name \"\" is empty"},
      {"tsv", std::string("\0\1\t", 3), ":1: the class name holds a control character"},
      {"tsv", "caf\xE9\tone\n", ":1: the class name \"caf\uFFFD\" is not valid UTF-8"},
      {"tsv", std::string(256, 'x') + "\t", ":1: the class name is longer than 255 bytes"},
      {"tsv", "", ": holds no documents"},
      {"tsv", "a\t123 ...\n", ": no document has a token"},
      {"jsonl", "{\"label\":\"a\",\"text\":\"b\"}\n{\"label\":\n", ":2: no valid JSON at byte 10"},
      {"jsonl", "[]\n", ":1: not a JSON object"},
      {"jsonl", "{\"label\":\"a\"}\n", ":1: no \"text\""},
      {"jsonl", "{\"label\":\"a\xE9\"}", ":1: the class name \"a\uFFFD\" is not valid UTF-8"},
      {"jsonl", "{\"label\":\"a\",\"text\":1e999}\n", ":1: a number that is too large"},
      {"jsonl", "{\"label\":[1]}", ":1: \"label\" is neither a text nor a whole number"}};
  for (const auto& [name, text, error] : cases) {
    const std::string file = "in." + name;
    EXPECT_EQ(error_for(file, text, [&] { prepare_corpus(options(file)); }), error);
  }
  EXPECT_EQ(error_of([&] { prepare_corpus(options("missing")); }),
            dir_ / "missing" + ": no such file");
  write_file(dir_ / "out/precious", "kept");
  EXPECT_EQ(error_for("in.tsv", "a\tone\n", [&] { prepare_corpus(options("in.tsv")); }),
            dir_ / "out" + ": is not empty; remove it or name another directory");
}

TEST_F(Convert, AllThreeTextFormsGiveTheSameRecords) {
  const std::string expected = embedding_bytes({{"caf\u00E9", {1, -0.5}}, {"b", {1e-3f, 2}}});
  convert("2 2\ncaf\u00E9 1 -0.5\nb 1e-3 +2\n");  // word2vec
  EXPECT_EQ(output(), expected);
  convert("2 2 \r\ncaf\u00E9 1 -0.5 \r\nb 1e-3 2 \r\n\r\n", VectorFormat::with_header);  // fastText
  EXPECT_EQ(output(), expected);
  // GloVe: the count is not known when the header is written.
  convert("caf\u00E9\t1 -0.5\nb 1e-3 2");
  EXPECT_EQ(output(), std::string(9, ' ') + expected);
}

TEST_F(Convert, LeavesOutWhatIsUnwantedOrCannotBeStoredAndCountsIt) {
  write_file(dir_ / "words", "b\r\na\nmissing\n");
  const ConvertSummary summary =
      convert("6 2\na 1 2\na 3 4\nnew york 5 6\n 7 8\nc 1 1\nb 1e-400 -0\n",
              VectorFormat::with_header, dir_ / "words");
  EXPECT_EQ(output(), embedding_bytes({{"a", {1, 2}}, {"b", {0, -0.0f}}}));
  EXPECT_EQ((Counts{summary.words, summary.duplicates, summary.with_space, summary.not_listed,
                    summary.listed_not_found, summary.zero_rows}),
            (Counts{2, 1, 2, 1, 1, 1}));
  EXPECT_EQ(summary.zero_words, Tokens{"b"});
}

TEST_F(Convert, ReadsCompressedInputAndNoticesItsEnd) {
  std::string text = "20000 1\n";
  for (int i = 0; i < 20000; ++i) text += fmt::format("w{} {}\n", i, i);
  const gzFile file = gzopen((dir_ / "gz").c_str(), "wb");
  gzwrite(file, text.data(), static_cast<unsigned>(text.size()));
  gzclose(file);
  EXPECT_EQ(convert(read_file(dir_ / "gz")).words, 20000);
  const std::string half =
      read_file(dir_ / "gz").substr(0, std::filesystem::file_size(dir_ / "gz") / 2);
  EXPECT_EQ(error_for("in", half, [&] { convert(half); }).substr(0, 17), ": cannot be read:");
}

TEST_F(Convert, BadInputIsNamedWithItsPlaceAndKeepsAnEarlierOutput) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ": is empty"},
      {"3 2\na 1 2\nb 3 4\n", ": the header announces 3 words, the file holds 2"},
      {"1 2\na 1 2\nb 3 4\n", ":3: a row more than the 1 that the header announces"},
      {"2 2\na 1 2\nb 3\n", ":3: 1 numbers, 2 were expected"},
      {"2 999999999999\na 1 2\n", ":2: 2 numbers, the header announces 999999999999"},
      {"a 1 2\nb 3 4 5\n", ":2: more than 2 numbers"},
      {"a 1 2\nb 3 4x\n", ":2: \"4x\" is not a number"},
      {"a 1 2\nb nan 4\n", ":2: \"nan\" is not a finite 32-bit number"},
      {"a 1 2\nb 3 \x01\xE9\n", ":2: \"\\x01\uFFFD\" is not a number"},
      {"99999999999999999999 2\na 1 2\n",
       ":1: the header announces 99999999999999999999 words of 2 dimensions, more than can be "
       "counted"},
      {"a 1 2\nb 1e39 4\n", ":2: \"1e39\" is not a finite 32-bit number"},
      {"a 1 2\n\nb 1 4\n", ":2: an empty line"},
      {"no numbers here\n", ":1: no word followed by numbers"},
      {embedding_bytes({{"a", {0.1f, 2e-5f}}, {"b", {3, 4}}}),
       ": is an embedding file already (2 words, 2 dimensions)"}};
  write_file(dir_ / "out", "kept");
  for (const auto& [text, error] : cases) {
    EXPECT_EQ(error_for("in", text, [&] { convert(text); }), error);
  }
  const auto with_header = [&] { convert("a 1 2\n", VectorFormat::with_header); };
  EXPECT_EQ(error_for("in", "", with_header).substr(0, 15), ":1: no header o");
  const ConvertOptions onto_itself{dir_ / "out", dir_ / "out", VectorFormat::automatic, ""};
  EXPECT_EQ(error_of([&] { convert_text_vectors(onto_itself); }),
            dir_ / "out" + ": is both input and output");
  EXPECT_EQ(output(), "kept");
}

}  // namespace
}  // namespace talvik::tool
