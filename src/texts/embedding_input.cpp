#include "texts/embedding_input.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>  // join

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <unordered_map>

#include "talvik/error.hpp"
#include "texts/input_files.hpp"
#include "texts/tokenizer.hpp"

namespace talvik::texts {

using internal::EmbeddingHeader;
using internal::EmbeddingRecord;
using internal::Index;

namespace {

constexpr long long zero_words_named = 5;
constexpr Index longest_word_bytes = 1 << 20;

/// The words to make room for before any is read.  A file with holes announces billions and holds
/// none; the tables of so many would fill the memory.
long long room_at_first(long long num_words) {
  constexpr long long most = 1 << 20;
  return std::min(num_words, most);
}

EmbeddingHeader checked_header(const std::string& path, std::string_view file) {
  const std::optional<EmbeddingHeader> found = internal::read_embedding_header(file);
  if (!found) {
    throw FileError(path,
                    "does not begin with two integers, records and floats per vector (talvik "
                    "convert makes embedding files from text)");
  }
  const EmbeddingHeader& header = *found;
  if (header.num_records < 1 || header.vec_size < 1) {
    throw FileError(path, fmt::format("the header announces {} records of {} floats",
                                      header.num_records, header.vec_size));
  }
  if (!records_fit(header, std::ssize(file) - header.end)) {
    throw FileError(
        path, fmt::format("the header announces {} records of {} floats, which do not fit into the "
                          "file's {} bytes (cut short, or a wrong header)",
                          header.num_records, header.vec_size, file.size()));
  }
  return header;
}

/// Whether a record's vector is the text of numbers.  The bytes of a few floats may be printable by
/// chance, but hardly digits up to the next blank.
bool looks_like_text(std::string_view vector) {
  const bool printable = std::all_of(vector.begin(), vector.end(), [](unsigned char c) {
    return std::isprint(c) || std::isspace(c);
  });
  const std::string_view first = vector.substr(0, vector.find_first_of(" \t\r\n"));
  return printable && !first.empty() &&
         first.find_first_not_of("+-.0123456789eE") == std::string_view::npos;
}

/// The largest magnitude of a record's vector, whose numbers are checked.
float checked_magnitude(const std::string& path, const EmbeddingRecord& record) {
  // Bounds of what a word vector may hold.  A float whose bytes stand in the wrong order is huge,
  // tiny or not a number, as good as always.
  constexpr float implausibly_large = 1e10f;
  constexpr float implausibly_small = 1e-10f;
  const auto place = [&] {
    return fmt::format("record {}, word {},", record.number, quoted(record.word));
  };
  float largest = 0;
  for (size_t at = 0; at < record.vector.size(); at += sizeof(float)) {
    float value;
    std::memcpy(&value, record.vector.data() + at, sizeof value);
    if (!std::isfinite(value)) {
      throw FileError(path, fmt::format("value {} of {} is not a finite number",
                                        at / sizeof(float) + 1, place()));
    }
    largest = std::max(largest, std::fabs(value));
  }
  if (largest > implausibly_large || (largest > 0 && largest < implausibly_small)) {
    throw FileError(path, fmt::format("the values of {} are implausible (magnitude {:.3g}): the "
                                      "floats must be little-endian",
                                      place(), largest));
  }
  return largest;
}

}  // namespace

EmbeddingFile::EmbeddingFile(const std::string& path)
    : path_((require_regular_file(path), path)),
      file_(path),
      header_(checked_header(path, file_.bytes())) {}

EmbeddingFacts EmbeddingFile::walk(const std::function<void(const EmbeddingRecord&)>& visit,
                                   Repeated repeated, const ReadProgress& progress) const {
  EmbeddingFacts facts;
  std::unordered_map<std::string_view, long long> records;  // by word
  records.reserve(room_at_first(header_.num_records));
  const auto check = [&](const EmbeddingRecord& record) {
    if (progress) progress(record.number, num_words());
    if (record.number == 1 && looks_like_text(record.vector)) {
      throw FileError(path_, "is a text file (talvik convert makes an embedding file of it)");
    }
    // The one newline before a record is skipped; one inside a word shows that records and
    // header do not agree, and that what would be read are no vectors.
    if (record.word.find('\n') != std::string_view::npos) {
      throw FileError(path_,
                      fmt::format("the word of record {}, {}, holds a line break (a wrong header?)",
                                  record.number, quoted(record.word)));
    }
    const auto [known, is_new] = records.emplace(record.word, record.number);
    if (!is_new && repeated == Repeated::refused) {
      throw FileError(path_, fmt::format("records {} and {} are of the same word {}", known->second,
                                         record.number, quoted(record.word)));
    }
    const bool zero = checked_magnitude(path_, record) == 0;
    if (!is_new) {
      ++facts.num_repeated;
      return;
    }
    if (zero && facts.num_zero_rows++ < zero_words_named) {
      facts.zero_words.push_back(quoted(record.word));
    }
    visit(record);
  };
  const std::string_view bytes = file_.bytes();
  Index end = header_.end;
  EmbeddingRecord record{};
  for (record.number = 1; record.number <= num_words(); ++record.number) {
    // What follows the longest word is not searched: a hole in a file is a word without an end.
    const Index most_bytes = longest_word_bytes + header_.vec_size * internal::float_bytes;
    const std::string_view searched = bytes.substr(0, end + most_bytes);
    if (!next_embedding_record(searched, header_, end, record)) {
      throw FileError(
          path_,
          searched.size() < bytes.size()
              ? fmt::format("the word of record {} has no end (a wrong header, or a file with "
                            "holes?)",
                            record.number)
              : fmt::format("ends within record {} of {}", record.number, num_words()));
    }
    check(record);
  }
  const std::string_view rest = bytes.substr(end);
  const auto end_of_space =
      std::find_if_not(rest.begin(), rest.end(), [](unsigned char c) { return std::isspace(c); });
  facts.trailing_bytes = rest.end() - end_of_space;
  return facts;
}

WordVectors read_word_vectors(const std::string& path, const ReadProgress& progress) {
  const EmbeddingFile file(path);
  constexpr long long most = std::numeric_limits<int>::max();
  if (file.num_words() > most || file.vec_size() > most) {
    throw FileError(path, "holds more words than one run can number");
  }
  WordVectors read;
  read.voc_size = static_cast<int>(file.num_words());
  read.vec_size = static_cast<int>(file.vec_size());
  read.vectors = std::make_unique_for_overwrite<float[]>(
      internal::elements(file.num_words(), file.vec_size()));
  read.vocabulary.reserve(room_at_first(file.num_words()));
  const auto take = [&](const EmbeddingRecord& record) {
    const Index row = record.number - 1;
    read.vocabulary.emplace(record.word, static_cast<int>(row));
    internal::copy_unit_vector(record.vector,
                               &read.vectors[internal::elements(row, read.vec_size)]);
  };
  const EmbeddingFacts facts = file.walk(take, Repeated::refused, progress);
  if (facts.num_zero_rows > 0) {
    const bool all_named = facts.num_zero_rows == std::ssize(facts.zero_words);
    read.warnings.push_back(fmt::format("{}: {} word(s) with a zero vector: {}{}", path,
                                        facts.num_zero_rows, fmt::join(facts.zero_words, ", "),
                                        all_named ? "" : ", ..."));
  }
  if (facts.trailing_bytes > 0) {
    read.warnings.push_back(
        fmt::format("{}: {} bytes follow the last of {} records and are not read (a wrong header?)",
                    path, facts.trailing_bytes, file.num_words()));
  }
  return read;
}

WordSet read_embedding_words(const std::string& path, const ReadProgress& progress) {
  const EmbeddingFile file(path);
  WordSet words;
  words.reserve(room_at_first(file.num_words()));
  file.walk([&](const EmbeddingRecord& record) { words.emplace(record.word); }, Repeated::refused,
            progress);
  return words;
}

std::string quoted(std::string_view word) {
  constexpr size_t longest = 40;
  return fmt::format("'{}{}'", printable(word.substr(0, longest)),
                     word.size() > longest ? "..." : "");
}

}  // namespace talvik::texts
