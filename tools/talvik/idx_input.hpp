// IDX files of images and labels, checked before the library reads them.
#ifndef TALVIK_TOOL_IDX_INPUT_HPP
#define TALVIK_TOOL_IDX_INPUT_HPP

#include <string>

namespace talvik::tool {

/// @return images in the file, at least one.  Throws RunError.
long long check_idx_images(const std::string& path);

/// @return labels in the file, at least one.  Throws RunError.
long long check_idx_labels(const std::string& path);

}  // namespace talvik::tool

#endif
