// Headers of IDX files.
#include "parse/idx_file.hpp"

namespace talvik::internal {
namespace {

constexpr Index word_bytes = sizeof(std::uint32_t);

/// The big-endian 32-bit word at position `index` of a file's words.
std::uint32_t word_at(std::string_view file, Index index) {
  std::uint32_t word = 0;
  for (const char c : file.substr(index * word_bytes, word_bytes)) {
    constexpr int bits_per_byte = 8;
    word = word << bits_per_byte | static_cast<unsigned char>(c);
  }
  return word;
}

IdxFile read_header(std::string_view file, Index header_bytes) {
  IdxFile idx;
  if (std::ssize(file) < header_bytes) {
    idx.fault = IdxFault::short_header;
    return idx;
  }
  idx.magic = word_at(file, 0);
  idx.count = word_at(file, 1);
  idx.items = file.substr(header_bytes);
  return idx;
}

}  // namespace

IdxFile read_idx_images(std::string_view file) {
  IdxFile idx = read_header(file, idx_image_header_bytes);
  if (idx.fault != IdxFault::none) return idx;
  idx.rows = word_at(file, 2);
  idx.columns = word_at(file, 3);
  if (idx.rows != image_side || idx.columns != image_side) {
    idx.fault = IdxFault::other_side;
  } else if (idx.count > std::ssize(idx.items) / image_pixels) {
    idx.fault = IdxFault::short_items;
  }
  return idx;
}

IdxFile read_idx_labels(std::string_view file) {
  IdxFile idx = read_header(file, idx_label_header_bytes);
  if (idx.fault == IdxFault::none && idx.count > std::ssize(idx.items)) {
    idx.fault = IdxFault::short_items;
  }
  return idx;
}

}  // namespace talvik::internal
