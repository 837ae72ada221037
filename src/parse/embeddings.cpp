// Readers of embedding files and of vocabulary files.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "internal/normalise.hpp"
#include "parse/tokens.hpp"
#include "talvik.hpp"

namespace talvik {
namespace {

constexpr int no_memory_status = -1;  // 255 as the parent process sees it

struct Header {
  long long voc_size, vec_size;
  size_t end;  // where the first record begins
};

struct Record {
  std::string_view word;
  const char* values;  // vec_size floats, at any alignment
};

void report_bad_file(const char* path, const std::string& fault) {
  std::cout << "Failed to read the embedding file " << path << ": " << fault << std::endl;
}

/// The count at pos, after optional white space; pos moves behind its last digit.
std::optional<long long> read_count(const std::string& text, size_t& pos) {
  const char* const begin = text.c_str() + pos;
  char* end = nullptr;
  errno = 0;
  const long long count = std::strtoll(begin, &end, 10);
  if (end == begin || errno == ERANGE || count < 0) return std::nullopt;
  pos += static_cast<size_t>(end - begin);
  return count;
}

std::optional<Header> read_header(const std::string& text) {
  size_t pos = 0;
  const std::optional<long long> voc_size = read_count(text, pos);
  if (!voc_size) return std::nullopt;
  const std::optional<long long> vec_size = read_count(text, pos);
  if (!vec_size) return std::nullopt;
  return Header{*voc_size, *vec_size, pos};
}

/// The record at pos, which moves behind it; nothing if the text ends first.
std::optional<Record> next_record(std::string_view text, long long vec_size, size_t& pos) {
  if (pos < text.size() && text[pos] == '\n') ++pos;
  const size_t space = text.find(' ', pos);
  if (space == std::string_view::npos) return std::nullopt;
  const size_t values = space + 1;
  // Divided, not multiplied: the length comes from the file, and four times it may not fit.
  if ((text.size() - values) / sizeof(float) < static_cast<size_t>(vec_size)) return std::nullopt;
  const Record record{text.substr(pos, space - pos), text.data() + values};
  pos = values + static_cast<size_t>(vec_size) * sizeof(float);
  return record;
}

/// Finds every record that the header announces; fewer come back if the text ends first.
std::vector<Record> find_records(std::string_view text, const Header& header) {
  std::vector<Record> records;
  size_t pos = header.end;
  for (long long i = 0; i < header.voc_size; ++i) {
    const std::optional<Record> record = next_record(text, header.vec_size, pos);
    if (!record) break;
    records.push_back(*record);
  }
  return records;
}

/// An uninitialised matrix: until a row is written, it takes no memory.  If it cannot be had, the
/// process ends.
std::unique_ptr<float[]> allocate_vectors(const Header& header) {
  long long floats = 0;
  if (__builtin_mul_overflow(header.voc_size, header.vec_size, &floats)) {
    throw std::bad_array_new_length();
  }
  std::unique_ptr<float[]> vectors(new (std::nothrow) float[static_cast<size_t>(floats)]);
  if (!vectors) {
    std::cout << "Failed to load the embedding vectors into a memory buffer (size: " << floats
              << " floats)" << std::endl;
    std::exit(no_memory_status);
  }
  return vectors;
}

void copy_unit_vector(const char* values, std::span<float> row) {
  if (row.empty()) return;
  std::memcpy(row.data(), values, row.size_bytes());
  internal::rescale(row, 1.0, internal::euclidean_length(row));
}

/// Does nothing if the file cannot be created: the vectors are what the caller came for.
void write_words(const std::vector<Record>& records, const char* vocabulary_file) {
  std::ofstream file(vocabulary_file, std::ios::trunc);
  for (const Record& record : records) file << record.word << '\n';
}

/// A word that voc lacks gets the map's size as its index.
void add_word(std::string_view word, VocabularyMap& voc) {
  voc.try_emplace(std::string(word), static_cast<int>(voc.size()));
}

}  // namespace

bool parse_embedding_file(const char* path, bool write_vocabulary, const char* vocabulary_file,
                          VocabularyMap& voc, float** vectors, long long& vec_size,
                          long long& voc_size) {
  std::string text;
  if (ReadFileIntoString(path, text, true) < 1) return false;
  const std::optional<Header> header = read_header(text);
  if (!header) {
    report_bad_file(path, "it does not begin with two counts");
    return false;
  }
  std::unique_ptr<float[]> matrix = allocate_vectors(*header);
  // All records are found before anything is stored, so that a short file changes nothing.
  const std::vector<Record> records = find_records(text, *header);
  const auto found = static_cast<long long>(records.size());
  if (found < header->voc_size) {
    report_bad_file(path, "it announces " + std::to_string(header->voc_size) + " words of " +
                              std::to_string(header->vec_size) + " floats and ends within word " +
                              std::to_string(found + 1));
    return false;
  }

  const auto row_floats = static_cast<size_t>(header->vec_size);
  for (size_t i = 0; i < records.size(); ++i) {
    copy_unit_vector(records[i].values, {matrix.get() + i * row_floats, row_floats});
  }
  if (write_vocabulary) {
    write_words(records, vocabulary_file);
  } else {
    for (const Record& record : records) add_word(record.word, voc);
  }
  *vectors = matrix.release();
  vec_size = header->vec_size;
  voc_size = header->voc_size;
  return true;
}

int parse_vocabulary(const char* path, VocabularyMap& voc) {
  std::string text;
  if (ReadFileIntoString(path, text, false) < 1) return 0;
  internal::for_each_part(text, '\n', [&](std::string_view line) { add_word(line, voc); });
  return static_cast<int>(voc.size());
}

}  // namespace talvik
