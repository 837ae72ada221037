// Reader of handwritten digits in IDX files: an image is a document whose words are its pixels.
#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <iostream>
#include <memory>

#include "talvik.hpp"

namespace talvik {
namespace {

constexpr size_t word_bytes = sizeof(std::uint32_t);
constexpr size_t image_header_bytes = 4 * word_bytes;  // magic, images, rows, columns
constexpr size_t label_header_bytes = 2 * word_bytes;  // magic, labels
constexpr size_t image_side = 28;                      // the only size that is read
constexpr size_t image_pixels = image_side * image_side;
constexpr size_t position_floats = 2;  // a pixel's embedding is its row and column

struct FileBytes {
  std::unique_ptr<char[]> bytes;
  size_t size;  // 0 if the file could not be read
};

FileBytes read_file(const char* path) {
  char* buffer = nullptr;
  const long long size = ReadFileIntoBuffer(path, &buffer, true);
  return {std::unique_ptr<char[]>(buffer), size < 1 ? 0 : static_cast<size_t>(size)};
}

/// The big-endian 32-bit word number index of a file.
size_t header_word(const FileBytes& file, size_t index) {
  std::array<unsigned char, word_bytes> word;
  std::copy_n(file.bytes.get() + index * word_bytes, word_bytes, word.begin());
  swap_word(word.data());
  return std::bit_cast<std::uint32_t>(word);
}

/// Says that a file is not what the reader takes.
bool verified(bool fits) {
  if (!fits) std::cout << "Verification failed!!!" << std::endl;
  return fits;
}

/// Whether the file holds a whole header and as many images of the right size as that announces.
bool is_image_file(const FileBytes& file) {
  return file.size >= image_header_bytes && header_word(file, 2) == image_side &&
         header_word(file, 3) == image_side &&
         header_word(file, 1) <= (file.size - image_header_bytes) / image_pixels;
}

bool is_label_file(const FileBytes& file) {
  return file.size >= label_header_bytes && header_word(file, 1) <= file.size - label_header_bytes;
}

/// The non-zero pixels of one image, weights unscaled.
Document image_document(const char* pixels) {
  Document doc;
  for (unsigned p = 0; p < image_pixels; ++p) {
    const auto intensity = static_cast<unsigned char>(pixels[p]);
    if (intensity != 0) doc.emplace_back(p, static_cast<float>(intensity));
  }
  return doc;
}

/// Word row * image_side + column at (row, column).
std::unique_ptr<float[]> pixel_positions() {
  std::unique_ptr<float[]> positions(new float[position_floats * image_pixels]);
  for (size_t p = 0; p < image_pixels; ++p) {
    positions[position_floats * p] = static_cast<float>(p / image_side);
    positions[position_floats * p + 1] = static_cast<float>(p % image_side);
  }
  return positions;
}

}  // namespace

bool parse_mnist_images(const char* path, DocumentSet& docs, float** vectors, long long& vec_size,
                        long long& voc_size) {
  const FileBytes file = read_file(path);
  if (file.size == 0 || !verified(is_image_file(file))) return false;
  const size_t num_images = header_word(file, 1);
  const char* const pixels = file.bytes.get() + image_header_bytes;
  docs.reserve(docs.size() + num_images);
  for (size_t i = 0; i < num_images; ++i) {
    docs.push_back(image_document(pixels + i * image_pixels));
  }
  L1norm(docs, 1.0);

  vec_size = position_floats;
  voc_size = image_pixels;
  delete[] * vectors;
  *vectors = nullptr;  // no dangling pointer at the caller's, should the allocation throw
  *vectors = pixel_positions().release();
  return true;
}

bool parse_mnist_labels(const char* path, LabelList& ids, LabelList& labels) {
  const FileBytes file = read_file(path);
  if (file.size == 0 || !verified(is_label_file(file))) return false;
  const size_t num_labels = header_word(file, 1);
  for (size_t i = 0; i < num_labels; ++i) {
    labels.push_back(static_cast<unsigned char>(file.bytes[label_header_bytes + i]));
    ids.push_back(i);
  }
  return true;
}

int parse_docs_mnist(const char* image_path, const char* label_path, DocumentSet& docs,
                     LabelList& ids, LabelList& labels, int& num_docs, int& num_words,
                     float** vectors, long long& vec_size, long long& voc_size) {
  num_docs = 0;
  num_words = 0;
  if (!parse_mnist_images(image_path, docs, vectors, vec_size, voc_size)) return 0;
  if (!parse_mnist_labels(label_path, ids, labels)) return 0;
  if (ids.size() > docs.size()) {
    std::cout << "Failed to pair " << label_path << " with " << image_path << ": " << ids.size()
              << " labels, " << docs.size() << " images" << std::endl;
    return 0;
  }
  for (size_t i = 0; i < ids.size(); ++i) {
    if (docs[i].empty()) continue;
    ++num_docs;
    num_words += static_cast<int>(docs[i].size());
  }
  return num_docs;
}

}  // namespace talvik
