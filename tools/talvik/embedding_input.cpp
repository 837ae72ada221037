#include "embedding_input.hpp"

#include <fmt/format.h>
#include <fmt/ranges.h>  // join

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <limits>
#include <unordered_map>

#include "input_files.hpp"
#include "progress.hpp"
#include "run_error.hpp"
#include "status_line.hpp"
#include "tokenizer.hpp"

namespace talvik::tool {

using internal::EmbeddingHeader;
using internal::EmbeddingRecord;
using internal::HeaderFault;
using internal::Index;

namespace {

constexpr long long zero_words_named = 5;

EmbeddingHeader checked_header(const std::string& path, std::string_view file) {
  const EmbeddingHeader header = internal::read_embedding_header(file);
  if (header.fault == HeaderFault::no_integers) {
    throw RunError(path +
                   ": does not begin with two integers, records and floats per vector (talvik "
                   "convert makes embedding files from text)");
  }
  if (header.num_records < 1 || header.vec_size < 1) {
    throw RunError(fmt::format("{}: the header announces {} records of {} floats", path,
                               header.num_records, header.vec_size));
  }
  if (!records_fit(header, std::ssize(file) - header.end)) {
    throw RunError(fmt::format(
        "{}: the header announces {} records of {} floats, which do not fit into the file's {} "
        "bytes (cut short, or a wrong header)",
        path, header.num_records, header.vec_size, file.size()));
  }
  return header;
}

bool all_printable(std::string_view bytes) {
  return std::all_of(bytes.begin(), bytes.end(),
                     [](unsigned char c) { return std::isprint(c) || std::isspace(c); });
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
      throw RunError(fmt::format("{}: value {} of {} is not a finite number", path,
                                 at / sizeof(float) + 1, place()));
    }
    largest = std::max(largest, std::fabs(value));
  }
  if (largest > implausibly_large || (largest > 0 && largest < implausibly_small)) {
    throw RunError(
        fmt::format("{}: the values of {} are implausible (magnitude {:.3g}): the floats must be "
                    "little-endian",
                    path, place(), largest));
  }
  return largest;
}

}  // namespace

EmbeddingFile::EmbeddingFile(const std::string& path)
    : path_((require_regular_file(path), path)),
      file_(path),
      header_(checked_header(path, file_.bytes())) {}

EmbeddingFacts EmbeddingFile::walk(const std::function<void(const EmbeddingRecord&)>& visit) const {
  EmbeddingFacts facts;
  std::unordered_map<std::string_view, long long> records;  // by word
  records.reserve(header_.num_records);
  StatusLine status;
  const auto walked =
      walk_embedding_records(file_.bytes(), header_, [&](const EmbeddingRecord& record) {
        status.show(
            [&] { return reading_progress(path_, record.number, num_words(), status.seconds()); });
        if (record.number == 1 && all_printable(record.vector)) {
          throw RunError(path_ + ": is a text file (talvik convert makes an embedding file of it)");
        }
        // The one newline before a record is skipped; one inside a word shows that records and
        // header do not agree, and that what would be read are no vectors.
        if (record.word.find('\n') != std::string_view::npos) {
          throw RunError(
              fmt::format("{}: the word of record {}, {}, holds a line break (a wrong header?)",
                          path_, record.number, quoted(record.word)));
        }
        const auto [known, is_new] = records.emplace(record.word, record.number);
        if (!is_new) {
          throw RunError(fmt::format("{}: records {} and {} are of the same word {}", path_,
                                     known->second, record.number, quoted(record.word)));
        }
        if (checked_magnitude(path_, record) == 0 && facts.num_zero_rows++ < zero_words_named) {
          facts.zero_words.push_back(quoted(record.word));
        }
        visit(record);
      });
  if (walked.count < num_words()) {
    throw RunError(
        fmt::format("{}: ends within record {} of {}", path_, walked.count + 1, num_words()));
  }
  const std::string_view rest = file_.bytes().substr(walked.end);
  const auto end_of_space =
      std::find_if_not(rest.begin(), rest.end(), [](unsigned char c) { return std::isspace(c); });
  facts.trailing_bytes = rest.end() - end_of_space;
  return facts;
}

WordVectors read_word_vectors(const std::string& path) {
  const EmbeddingFile file(path);
  constexpr long long most = std::numeric_limits<int>::max();
  if (file.num_words() > most || file.vec_size() > most) {
    throw RunError(path + ": holds more words than one run can number");
  }
  WordVectors read;
  read.voc_size = static_cast<int>(file.num_words());
  read.vec_size = static_cast<int>(file.vec_size());
  read.vectors = std::make_unique_for_overwrite<float[]>(
      internal::elements(file.num_words(), file.vec_size()));
  read.vocabulary.reserve(file.num_words());
  const EmbeddingFacts facts = file.walk([&](const EmbeddingRecord& record) {
    const Index row = record.number - 1;
    read.vocabulary.emplace(record.word, static_cast<int>(row));
    internal::copy_unit_vector(record.vector,
                               &read.vectors[internal::elements(row, read.vec_size)]);
  });
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

WordSet read_embedding_words(const std::string& path) {
  const EmbeddingFile file(path);
  WordSet words;
  words.reserve(file.num_words());
  file.walk([&](const EmbeddingRecord& record) { words.emplace(record.word); });
  return words;
}

std::string quoted(std::string_view word) {
  constexpr size_t longest = 40;
  std::string text = "'";
  for (const unsigned char byte : word.substr(0, longest)) {
    const bool plain = byte >= 0x80 || std::isprint(byte);  // UTF-8 passes
    text += plain ? std::string(1, static_cast<char>(byte)) : fmt::format("\\x{:02x}", byte);
  }
  long long replaced = 0;  // a word may hold, and the cut may leave, a piece of a character
  return valid_utf8(text, replaced) + (word.size() > longest ? "...'" : "'");
}

}  // namespace talvik::tool
