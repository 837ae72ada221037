// The format of IDX files of images and of labels: big-endian 32-bit words, then a byte per pixel
// or label.  Functions of bytes, which print nothing.
#ifndef TALVIK_PARSE_IDX_FILE_HPP
#define TALVIK_PARSE_IDX_FILE_HPP

#include <cstdint>
#include <string_view>

#include "internal/index.hpp"

namespace talvik::internal {

inline constexpr std::uint32_t idx_image_magic = 0x803;
inline constexpr std::uint32_t idx_label_magic = 0x801;
inline constexpr Index idx_image_header_bytes = 16;  // magic, images, rows, columns
inline constexpr Index idx_label_header_bytes = 8;   // magic, labels
inline constexpr int image_side = 28;                // images of another size are refused
inline constexpr int image_pixels = image_side * image_side;

enum class IdxFault {
  none,
  short_header,  ///< the file ends within its header; nothing else is known
  other_side,    ///< images of another size than 28 x 28
  short_items,   ///< the file ends within the announced images or labels
};

struct IdxFile {
  IdxFault fault = IdxFault::none;  ///< the first fault found
  std::uint32_t magic = 0;          ///< not checked here
  std::uint32_t count = 0;          ///< images or labels announced
  std::uint32_t rows = 0;           ///< rows of an image
  std::uint32_t columns = 0;        ///< columns of an image
  std::string_view items;           ///< the bytes behind the header, perhaps more than announced
};

IdxFile read_idx_images(std::string_view file);
IdxFile read_idx_labels(std::string_view file);

}  // namespace talvik::internal

#endif
