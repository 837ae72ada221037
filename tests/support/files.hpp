// Files for tests: a directory that goes away by itself, whole-file reads and writes, and the bytes
// of the file formats that the readers take.
#ifndef TALVIK_TESTS_FILES_HPP
#define TALVIK_TESTS_FILES_HPP

#include <stdlib.h>  // mkdtemp

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace talvik::test {

/// A fresh directory, removed with everything in it at the end of its scope.  Every process that
/// makes one gets its own.
class TempDir {
 public:
  TempDir() {
    if (!mkdtemp(path_.data())) throw std::runtime_error("cannot make the directory " + path_);
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::filesystem::path path() const { return path_; }

  /// Path of a file in the directory, as the string that the library's functions take.
  std::string operator/(std::string_view name) const { return path() / name; }

 private:
  std::string path_ = std::filesystem::temp_directory_path() / "talvik-XXXXXX";
};

/// Creates or replaces a file, and the directories that it lies in.
inline void write_file(const std::filesystem::path& path, std::string_view bytes) {
  if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!file.flush()) throw std::runtime_error("cannot write the file " + path.string());
}

inline std::string read_file(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read the file " + path.string());
  return {std::istreambuf_iterator<char>(file), {}};
}

/// A record of an embedding file.
struct WordVector {
  std::string word;
  std::vector<float> values;
};

/// Word, space and values, without the newline that may stand between records.
inline std::string embedding_record(const WordVector& record) {
  return record.word + " " +
         std::string(reinterpret_cast<const char*>(record.values.data()),
                     record.values.size() * sizeof(float));
}

/// The whole file: the header line, then every record with a newline after it.
inline std::string embedding_bytes(const std::vector<WordVector>& records) {
  const size_t vec_size = records.empty() ? 0 : records.front().values.size();
  std::string bytes = std::to_string(records.size()) + " " + std::to_string(vec_size) + "\n";
  for (const WordVector& record : records) bytes += embedding_record(record) + "\n";
  return bytes;
}

inline std::string big_endian(std::uint32_t word) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(word >> shift & 0xFF);
  return bytes;
}

inline constexpr std::uint32_t idx_side = 28;  ///< rows and columns of an image

/// Header of an image file that announces count images.
inline std::string idx_image_header(std::uint32_t count, std::uint32_t rows = idx_side,
                                    std::uint32_t columns = idx_side) {
  return big_endian(2051) + big_endian(count) + big_endian(rows) + big_endian(columns);
}

/// Header of a label file that announces count labels.
inline std::string idx_label_header(std::uint32_t count) {
  return big_endian(2049) + big_endian(count);
}

/// A pixel of an image; the others are zero.
struct Pixel {
  int row, column;
  unsigned char intensity;
};

/// The bytes of one image, row after row.
inline std::string idx_image(const std::vector<Pixel>& pixels) {
  std::string bytes(idx_side * idx_side, '\0');
  for (const auto& [row, column, intensity] : pixels) {
    bytes[row * idx_side + column] = static_cast<char>(intensity);
  }
  return bytes;
}

}  // namespace talvik::test

#endif
