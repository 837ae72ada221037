// Reader of handwritten digits in IDX files: an image is a document whose words are its pixels.
#include <algorithm>
#include <iostream>
#include <memory>
#include <string_view>

#include "parse/idx_file.hpp"
#include "talvik.hpp"

namespace talvik {
namespace {

using internal::image_pixels;
using internal::image_side;

constexpr int position_floats = 2;  // a pixel's embedding is its row and column

struct FileBytes {
  std::unique_ptr<char[]> bytes;
  std::string_view view;  ///< empty if the file could not be read
};

FileBytes read_file(const char* path) {
  char* buffer = nullptr;
  const long long size = ReadFileIntoBuffer(path, &buffer, true);
  return {std::unique_ptr<char[]>(buffer), std::string_view(buffer, std::max(size, 0LL))};
}

/// Whether a file is in order; if not, a line says so.
bool verified(const internal::IdxFile& idx) {
  const bool fits = idx.fault == internal::IdxFault::none;
  if (!fits) std::cout << "Verification failed!!!" << std::endl;
  return fits;
}

/// The non-zero pixels of one image, weighted by their intensity.
Document image_document(std::string_view pixels) {
  Document doc;
  for (unsigned p = 0; p < pixels.size(); ++p) {
    const auto intensity = static_cast<unsigned char>(pixels[p]);
    if (intensity != 0) doc.emplace_back(p, static_cast<float>(intensity));
  }
  return doc;
}

/// The embedding of every pixel, row after row: its place in the image.
std::unique_ptr<float[]> pixel_positions() {
  auto positions =
      std::make_unique_for_overwrite<float[]>(internal::elements(image_pixels, position_floats));
  float* position = positions.get();
  for (int row = 0; row < image_side; ++row) {
    for (int column = 0; column < image_side; ++column) {
      *position++ = static_cast<float>(row);
      *position++ = static_cast<float>(column);
    }
  }
  return positions;
}

}  // namespace

bool parse_mnist_images(const char* path, DocumentSet& docs, float** vectors, long long& vec_size,
                        long long& voc_size) {
  const FileBytes file = read_file(path);
  if (file.view.empty()) return false;
  const internal::IdxFile images = internal::read_idx_images(file.view);
  if (!verified(images)) return false;
  docs.reserve(docs.size() + images.count);
  for (internal::Index i = 0; i < images.count; ++i) {
    docs.push_back(image_document(images.items.substr(i * image_pixels, image_pixels)));
  }
  L1norm(docs, 1.0);

  vec_size = position_floats;
  voc_size = image_pixels;
  delete[] * vectors;
  *vectors = nullptr;  // the caller keeps no dangling pointer if the allocation throws
  *vectors = pixel_positions().release();
  return true;
}

bool parse_mnist_labels(const char* path, LabelList& ids, LabelList& labels) {
  const FileBytes file = read_file(path);
  if (file.view.empty()) return false;
  const internal::IdxFile read = internal::read_idx_labels(file.view);
  if (!verified(read)) return false;
  for (internal::Index i = 0; i < read.count; ++i) {
    labels.push_back(static_cast<unsigned char>(read.items[i]));
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
  for (internal::Index i = 0; i < std::ssize(ids); ++i) {
    if (docs[i].empty()) continue;
    ++num_docs;
    num_words += static_cast<int>(docs[i].size());
  }
  return num_docs;
}

}  // namespace talvik
