#include "texts/vector_rows.hpp"

#include <algorithm>
#include <cstring>  // memcpy
#include <filesystem>
#include <limits>
#include <string_view>
#include <system_error>

#include "internal/index.hpp"
#include "parse/embedding_file.hpp"
#include "talvik/error.hpp"
#include "texts/embedding_input.hpp"
#include "texts/text_lines.hpp"
#include "texts/text_vectors.hpp"

namespace talvik::texts {
namespace {

constexpr long long most = std::numeric_limits<int>::max();

void set_dimensions(VectorRows& read, long long dimensions, const std::string& path) {
  if (dimensions > most) throw FileError(path, "holds longer vectors than can be numbered");
  read.dimensions = static_cast<int>(dimensions);
}

// Takes a new word, whose row the caller appends.
void add_word(VectorRows& read, std::string_view word, const std::string& path) {
  if (std::ssize(read.words) == most)
    throw FileError(path, "holds more words than can be numbered");
  read.numbers.emplace(word, static_cast<int>(read.words.size()));
  read.words.emplace_back(word);
}

// Whether a file that begins with these bytes is an embedding file.  Raw floats hold control
// characters, as good as always; where there are too few to be sure, the first row of a text ends
// in a number.
bool begins_binary(std::string_view bytes) {
  constexpr std::string_view white_space = " \t\n\v\f\r";
  constexpr size_t few_bytes = 1024;
  const auto header = internal::read_embedding_header(bytes);
  if (!header || header->num_records < 1 || header->vec_size < 1) return false;
  bytes.remove_prefix(static_cast<size_t>(header->end));
  const auto is_control = [&](char c) {
    return static_cast<unsigned char>(c) < ' ' && white_space.find(c) == std::string_view::npos;
  };
  if (std::any_of(bytes.begin(), bytes.end(), is_control)) return true;
  if (bytes.size() > few_bytes) return false;
  bytes.remove_prefix(std::min(bytes.find_first_not_of(white_space), bytes.size()));
  std::string_view row = bytes.substr(0, bytes.find_first_of("\r\n"));
  row = row.substr(0, row.find_last_not_of(white_space) + 1);
  const std::string_view last = row.substr(row.find_last_of(white_space) + 1);
  // A single field belongs to a first row of numbers alone, which has no header.
  return last.size() < row.size() && !number_of(last);
}

bool is_binary(const std::string& path) {
  // What is read of a pipe is gone: it is taken for text.
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) return false;
  TextLines file(path);
  if (!begins_binary(file.first_bytes())) return false;
  if (file.is_compressed()) {
    throw FileError(path, "is a compressed embedding file; unpack it first");
  }
  return true;
}

VectorRows read_binary(const std::string& path) {
  const EmbeddingFile file(path);
  VectorRows read;
  set_dimensions(read, file.vec_size(), path);
  // The file holds as many floats as it announces, but a hole costs it nothing.
  read.rows.reserve(internal::elements(file.num_words(), file.vec_size()));
  const EmbeddingFacts facts = file.walk(
      [&](const internal::EmbeddingRecord& record) {
        add_word(read, record.word, path);
        const size_t at = read.rows.size();
        read.rows.resize(at + static_cast<size_t>(read.dimensions));
        std::memcpy(&read.rows[at], record.vector.data(), record.vector.size());
      },
      Repeated::left_out);
  read.num_repeated = facts.num_repeated;
  return read;
}

// Rows to make room for, once the first one is read: so many as it, in a plain file.
long long rows_expected(const TextVectors& vectors) {
  constexpr long long most_of_compressed = 1 << 20;
  constexpr long long spare_part = 8;  // rows differ in length
  const TextLines& lines = vectors.lines();
  const long long rows = lines.file_bytes() / vectors.row_bytes();
  const auto& header = vectors.header();
  if (lines.is_compressed()) return header ? std::min(header->words, most_of_compressed) : 0;
  return header ? std::min(header->words, rows + rows / spare_part) : rows + rows / spare_part;
}

void make_room(VectorRows& read, const TextVectors& vectors) {
  const long long rows = rows_expected(vectors);
  read.words.reserve(rows);
  read.numbers.reserve(rows);
  read.rows.reserve(internal::elements(rows, read.dimensions));
}

VectorRows read_text(const std::string& path, VectorFormat format) {
  TextVectors vectors(path, format);
  VectorRows read;
  set_dimensions(read, vectors.dimensions(), path);
  while (vectors.next()) {
    if (!vectors.is_one_word()) {
      ++read.num_with_space;
    } else if (read.numbers.contains(vectors.word())) {
      ++read.num_repeated;
    } else {
      if (read.words.empty()) make_room(read, vectors);
      add_word(read, vectors.word(), path);
      read.rows.insert(read.rows.end(), vectors.vector().begin(), vectors.vector().end());
    }
  }
  if (read.words.empty()) throw FileError(path, "holds no word without a space");
  return read;
}

}  // namespace

VectorRows read_vectors(const std::string& path, VectorFormat format) {
  if (format == VectorFormat::automatic && is_binary(path)) format = VectorFormat::binary;
  return format == VectorFormat::binary ? read_binary(path) : read_text(path, format);
}

}  // namespace talvik::texts
