// Readers of embedding files and of vocabulary files.
#include <fstream>
#include <iostream>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "internal/failure.hpp"
#include "parse/embedding_file.hpp"
#include "parse/tokens.hpp"
#include "talvik.hpp"

namespace talvik {
namespace {

constexpr int no_memory_status = -1;  // 255 as the parent process sees it

void report_bad_file(const char* path, const std::string& fault) {
  std::cout << "Failed to read the embedding file " << path << ": " << fault << std::endl;
}

/// The matrix that the header announces, uninitialised: a row takes no memory until it is written.
/// A failed allocation ends the process.
std::unique_ptr<float[]> allocate_vectors(const internal::EmbeddingHeader& header) {
  // Compilers differ in what the expression below does for sizes that no array has.
  constexpr long long most_floats = std::numeric_limits<long long>::max() / internal::float_bytes;
  long long floats = 0;
  if (__builtin_mul_overflow(header.num_records, header.vec_size, &floats) || floats < 0 ||
      floats > most_floats) {
    throw std::bad_array_new_length();
  }
  std::unique_ptr<float[]> vectors(new (std::nothrow) float[floats]);
  if (vectors) return vectors;
  internal::fail("Failed to load the embedding vectors into a memory buffer (size: " +
                     std::to_string(floats) + " floats)",
                 no_memory_status);
}

/// Gives a new word the map's size as its index.
void add_word(std::string_view word, VocabularyMap& voc) {
  voc.try_emplace(std::string(word), static_cast<int>(voc.size()));
}

}  // namespace

bool parse_embedding_file(const char* path, bool write_vocabulary, const char* vocabulary_file,
                          VocabularyMap& voc, float** vectors, long long& vec_size,
                          long long& voc_size) {
  std::string text;
  if (ReadFileIntoString(path, text, true) < 1) return false;
  const std::optional<internal::EmbeddingHeader> found = internal::read_embedding_header(text);
  if (!found) {
    report_bad_file(path, "it does not begin with two integers");
    return false;
  }
  const internal::EmbeddingHeader& header = *found;
  const long long earlier_vec_size = std::exchange(vec_size, header.vec_size);
  const long long earlier_voc_size = std::exchange(voc_size, header.num_records);
  std::unique_ptr<float[]> matrix = allocate_vectors(header);
  // A first walk without effects, so that a short file leaves the outputs alone.
  const internal::WalkedRecords walked =
      internal::walk_embedding_records(text, header, [](const internal::EmbeddingRecord&) {});
  if (walked.count < header.num_records) {
    report_bad_file(path, "it announces " + std::to_string(header.num_records) + " words of " +
                              std::to_string(header.vec_size) + " floats and ends within word " +
                              std::to_string(walked.count + 1));
    vec_size = earlier_vec_size;
    voc_size = earlier_voc_size;
    return false;
  }

  // A file that cannot be created is no failure: the caller still gets the vectors.
  std::ofstream file;
  if (write_vocabulary && vocabulary_file) file.open(vocabulary_file, std::ios::trunc);
  internal::walk_embedding_records(text, header, [&](const internal::EmbeddingRecord& record) {
    internal::copy_unit_vector(record.vector, matrix.get() + (record.number - 1) * header.vec_size);
    if (!write_vocabulary) {
      add_word(record.word, voc);
    } else if (file.is_open()) {
      file << record.word << '\n';
    }
  });
  *vectors = matrix.release();
  return true;
}

int parse_vocabulary(const char* path, VocabularyMap& voc) {
  std::string text;
  if (ReadFileIntoString(path, text, false) < 1) return 0;
  internal::for_each_part(text, '\n', [&](std::string_view line) { add_word(line, voc); });
  return static_cast<int>(voc.size());
}

}  // namespace talvik
