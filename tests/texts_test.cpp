// Texts and vectors as the search library reads them, in all their forms.
#include "talvik/texts.hpp"

#include <fcntl.h>  // open
#include <gtest/gtest.h>
#include <unistd.h>  // dup, dup2
#include <zlib.h>

#include <array>
#include <bit>
#include <limits>
#include <string>
#include <vector>

#include "support/files.hpp"
#include "talvik/error.hpp"
#include "talvik/vectors.hpp"

namespace talvik {
namespace {

using test::embedding_bytes;
using test::TempDir;
using test::write_file;

// What code throws, or "no error", with the path of its input cut off the front.
template <class Code>
std::string error_behind(const std::string& path, const Code& code) {
  try {
    code();
  } catch (const FileError& error) {
    const std::string text = error.what();
    EXPECT_TRUE(error.where().starts_with(path)) << text;
    return text.substr(std::min(path.size(), text.size()));
  }
  return "no error";
}

std::string gzip(const std::string& bytes) {
  const TempDir dir;
  const gzFile file = gzopen((dir / "gz").c_str(), "wb");
  gzwrite(file, bytes.data(), static_cast<unsigned>(bytes.size()));
  gzclose(file);
  return test::read_file(dir / "gz");
}

// Standard input comes from a file while it lives.
class InputFrom {
 public:
  explicit InputFrom(const std::string& path) : kept_(dup(STDIN_FILENO)) {
    const int file = open(path.c_str(), O_RDONLY);
    dup2(file, STDIN_FILENO);
    close(file);
  }
  ~InputFrom() {
    dup2(kept_, STDIN_FILENO);
    close(kept_);
  }
  InputFrom(const InputFrom&) = delete;
  InputFrom& operator=(const InputFrom&) = delete;

 private:
  int kept_;
};

struct Read {
  std::string id, label, text;  // "-" is no label
  bool operator==(const Read&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Read& read) {
  return out << testing::PrintToString(std::vector{read.id, read.label, read.text});
}

std::vector<Read> texts_of(const std::string& path, const TextsOptions& options = {}) {
  std::vector<Read> texts;
  const TextsRead read = read_texts(path, options, [&](Text&& text) {
    texts.push_back({std::move(text.id), text.label.value_or("-"), std::move(text.text)});
  });
  EXPECT_EQ(read.texts, std::ssize(texts));
  return texts;
}

TEST(ReadTexts, EveryFormatGivesIdsLabelsAndTexts) {
  const TextsOptions named{.id_field = "key", .text_field = "body", .label_field = "kind"};
  TextsOptions as_lines;
  as_lines.format = TextsFormat::lines;
  const struct {
    std::string name, bytes;
    std::vector<Read> texts;
    TextsOptions options = {};
  } cases[] = {
      {"a.csv",
       "\xEF\xBB\xBFlabel,id,text,rest\r\nx,7,\"one, \"\"two\"\"\r\nthree\",\r\n\r\n,, four ,r\n"
       " y\t,\"\",\"\",\"\"",
       {{"7", "x", "one, \"two\"\r\nthree"}, {"a.csv:5", "-", " four "}, {"a.csv:6", "y", ""}}},
      {"a.csv.gz",
       gzip("text\none\n\"\n\"\n"),
       {{"a.csv.gz:2", "-", "one"}, {"a.csv.gz:3", "-", "\n"}}},
      {"a.csv", "text\rone\rtwo", {{"a.csv:1", "-", "one"}, {"a.csv:1", "-", "two"}}},
      {"a.csv", "kind,body,text\nx,one,two\n", {{"a.csv:2", "x", "one"}}, named},
      {"a.ndjson",
       "{\"text\":\"one\",\"label\":null}\n\n{\"id\":12,\"text\":3,\"label\":\" x \"}\n"
       "{\"id\":\"\",\"text\":\"\",\"label\":\"\"}",
       {{"a.ndjson:1", "-", "one"}, {"12", "x", "3"}, {"", "-", ""}}},
      {"a.jsonl",
       "{\"key\":\"k\",\"body\":\"b\",\"kind\":-1,\"label\":[]}",
       {{"k", "-1", "b"}},
       named},
      {"a.tsv", "x\tone\ttwo\n\tthree", {{"a.tsv:1", "x", "one\ttwo"}, {"a.tsv:2", "-", "three"}}},
      {"a.txt", "x\tone \r\n \t\nlast", {{"a.txt:1", "-", "x\tone "}, {"a.txt:3", "-", "last"}}},
      {"a.csv", "a,b\n", {{"a.csv:1", "-", "a,b"}}, as_lines},
      {"a.txt", "", {}}};
  for (const auto& [name, bytes, texts, options] : cases) {
    const TempDir dir;
    write_file(dir / name, bytes);
    EXPECT_EQ(texts_of(dir / name, options), texts) << bytes;
  }
  const TempDir dir;
  write_file(dir / "tree/x/deep/1", "one\n");
  write_file(dir / "tree/2", "two");
  EXPECT_EQ(texts_of(dir / "tree"), (std::vector<Read>{{"x/deep/1", "x", "one\n"}}));
}

TEST(ReadTexts, StandardInputTellsItsFormat) {
  const std::pair<std::string, Read> cases[] = {
      {"\n \xEF\xBB\xBF{", {"standard input:2", "-", " \xEF\xBB\xBF{"}},
      {"\xEF\xBB\xBF\n {\"text\":\"one\"}", {"standard input:2", "-", "one"}},
      {gzip("one"), {"standard input:1", "-", "one"}}};
  const TempDir dir;
  for (const auto& [bytes, text] : cases) {
    write_file(dir / "in", bytes);
    const InputFrom input(dir / "in");
    EXPECT_EQ(texts_of("-"), std::vector<Read>{text});
  }
  write_file(dir / "in", "{\n");
  const InputFrom input(dir / "in");
  EXPECT_EQ(error_behind("standard input", [] { texts_of("-"); }), ":1: no valid JSON at byte 2");
}

TEST(ReadTexts, BadInputIsNamedWithItsLine) {
  const std::string head = "id,text,label\n";
  const std::array<std::string, 3> cases[] = {
      {"csv", "", ": is empty, a first record with the names of the columns was expected"},
      {"csv", "id,label\n1,x\n", ":1: no column \"text\""},
      {"csv", "text,text\n1,x\n", ":1: two columns \"text\""},
      {"csv", head + "\n1,\"\n\n\",x\n2,b\n", ":6: 2 fields, the first record has 3"},
      {"csv", head + "1,\"\n\",x,\n", ":2: 4 fields, the first record has 3"},
      {"csv", head + "1,\"a\nb\",\"x\ny\n", ":3: a quoted field without a closing quote"},
      {"csv", head + "1,a,\"x", ":2: a quoted field without a closing quote"},
      {"csv", head + "1,\"a\nb\" ,x\n", ":3: text between a closing quote and the next comma"},
      {"csv", head + "1,a\"b\",x\n", ":2: a quote within a field that does not begin with one"},
      {"jsonl", "{\"id\":null,\"text\":\"\"}", ":1: \"id\" is neither a text nor a whole number"},
      {"jsonl", "{\"label\":1.5,\"text\":\"\"}",
       ":1: \"label\" is neither a text nor a whole number"},
      {"tsv", "x\ty\nno tab", ":2: no tab between label and text"}};
  for (const auto& [ending, bytes, error] : cases) {
    const TempDir dir;
    const std::string path = dir / ("in." + ending);
    write_file(path, bytes);
    EXPECT_EQ(error_behind(path, [&] { texts_of(path); }), error) << bytes;
  }
}

TEST(Tokenize, FollowsTheRules) {
  const TempDir dir;
  write_file(dir / "stop", "Big Red\nDON'T\nred\n");
  const TextRules rules{.stop_words = read_stop_words(dir / "stop"), .keep_case = true};
  EXPECT_EQ(rules.stop_words, (std::vector<std::string>{"big", "red", "don"}));
  EXPECT_EQ(tokenize("Don't RED-Fox", rules), std::vector<std::string>{"Fox"});
  EXPECT_EQ(tokenize("The cats of A", {.stop_words = english_stop_words(), .min_length = 2}),
            std::vector<std::string>{"cats"});
}

TEST(ReadVectors, EveryFormatIsToldByItsBytes) {
  const std::string header = "3 2\na 1 2\ncaf\u00E9 3 -4e0\nb 5 6\n";
  const std::vector<float> rows{1, 2, 3, -4, 5, 6};
  const std::vector<std::string> words{"a", "caf\u00E9", "b"};
  const std::string binary =
      embedding_bytes({{words[0], {1, 2}}, {words[1], {3, -4}}, {"b", {5, 6}}});
  const struct {
    std::string bytes;
    std::vector<std::string> words;
    std::vector<float> rows;
    VectorFormat format = VectorFormat::automatic;
  } cases[] = {
      {binary, words, rows},
      {binary, words, rows, VectorFormat::binary},
      {header, words, rows},
      {gzip(header), words, rows},
      {header.substr(4), words, rows},
      {gzip(header.substr(4)), words, rows},
      // What comes twice counts once, and what holds a space cannot be looked up.
      {embedding_bytes({{"a", {1, 2}}, {"a", {3, 4}}, {"b", {5, 6}}}), {"a", "b"}, {1, 2, 5, 6}},
      {"a 1 2\nnew york 7 8\n 7 8\na 3 4\nb 5 6\n", {"a", "b"}, {1, 2, 5, 6}},
      // Numbers as words; a header's look without and with rows behind it.
      {"42 0.5 1\n43 1 2\n", {"42", "43"}, {0.5f, 1, 1, 2}},
      {"1 2 3\n2 3 4\n", {"1", "2"}, {2, 3, 3, 4}},
      {"2 1\n7 1\n8 2\n", {"7", "8"}, {1, 2}},
      {"2 1\n7 1\n", {"2", "7"}, {1, 1}, VectorFormat::without_header},
      // Floats whose bytes could stand in a text.
      {"1 1\ncat abc=", {"cat"}, {std::bit_cast<float>(0x3D636261)}}};
  for (const auto& [bytes, expected, numbers, format] : cases) {
    const TempDir dir;
    write_file(dir / "in", bytes);
    const bool unit_length = false;
    const Vectors read = Vectors::read(dir / "in", {format, unit_length});
    ASSERT_EQ(read.size(), std::ssize(expected)) << bytes;
    for (int w = 0; w < read.size(); ++w) EXPECT_EQ(read.word(w), expected[w]);
    EXPECT_EQ(std::vector(read.rows().begin(), read.rows().end()), numbers) << bytes;
  }
}

TEST(ReadVectors, BadInputIsNamedWithItsPlace) {
  constexpr float infinite = std::numeric_limits<float>::infinity();
  const std::string binary = embedding_bytes({{"a", {1, 2}}, {"b", {infinite, 4}}});
  const std::pair<std::string, std::string> cases[] = {
      {"", ": is empty"},
      {"2 2\na 1 2\nb 3 inf\n", ":3: \"inf\" is not a finite 32-bit number"},
      {"a 1 2\nb 3\n", ":2: 1 numbers, 2 were expected"},
      {"2 2\n", ": the header announces 2 words, the file holds 0"},
      {"new york 1 2\n", ": holds no word without a space"},
      {binary, ": value 1 of record 2, word 'b', is not a finite number"},
      {gzip(binary), ": is a compressed embedding file; unpack it first"},
      {"1 2\na 3e38 3e38\n",
       ": rows: the numbers of word 0 ('a') are too large: the sum of their squares is inf"}};
  for (const auto& [bytes, error] : cases) {
    const TempDir dir;
    const std::string path = dir / "in";
    write_file(path, bytes);
    EXPECT_EQ(error_behind(path, [&] { Vectors::read(path); }), error) << bytes;
  }
  EXPECT_EQ(error_behind("missing", [] { Vectors::read("missing"); }), ": no such file");
}

}  // namespace
}  // namespace talvik
