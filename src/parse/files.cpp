// Whole-file reads, weights that sum to a given value, and byte order: the readers' common ground.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include "internal/normalise.hpp"
#include "talvik.hpp"

namespace talvik {
namespace {

/// Opens a file for reading, positioned at its end.
/// @return its size; 0 if it cannot be opened; 0 or less, after a line that says so, if it is empty
long long open_at_end(const char* path, bool binary, std::ifstream& file) {
  if (!path) return 0;
  // A directory opens like a file, with a size that means nothing.
  std::error_code ignored;
  if (std::filesystem::is_directory(path, ignored)) return 0;
  file.open(path, binary ? std::ios::in | std::ios::ate | std::ios::binary
                         : std::ios::in | std::ios::ate);
  if (!file) return 0;
  const long long size = file.tellg();
  if (size < 1) std::cout << "File size is zero" << std::endl;
  return size;
}

/// Reads the first size bytes.
/// @return false if there are fewer
bool read_from_start(std::ifstream& file, char* bytes, long long size) {
  file.seekg(0);
  return static_cast<bool>(file.read(bytes, size));
}

}  // namespace

long long ReadFileIntoBuffer(const char* path, char** buffer, bool binary) {
  std::ifstream file;
  const long long size = open_at_end(path, binary, file);
  if (size < 1) return size;
  auto bytes = std::make_unique_for_overwrite<char[]>(size + 1);
  if (!read_from_start(file, bytes.get(), size)) return 0;
  bytes[size] = 0;
  *buffer = bytes.release();
  return size;
}

long long ReadFileIntoString(const char* path, std::string& text, bool binary) {
  std::ifstream file;
  const long long size = open_at_end(path, binary, file);
  if (size < 1) return size;
  std::string content(size, '\0');
  if (!read_from_start(file, content.data(), size)) return 0;
  text = std::move(content);
  return size;
}

void L1norm(DocumentSet& docs, double scale) {
  for (Document& doc : docs) internal::rescale(doc, scale, internal::sum_of(doc));
}

void swap_word(unsigned char* word) {
  std::swap(word[0], word[3]);
  std::swap(word[1], word[2]);
}

}  // namespace talvik
