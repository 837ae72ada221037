// Collections of images from IDX files.
#ifndef TALVIK_TOOL_LOAD_MNIST_HPP
#define TALVIK_TOOL_LOAD_MNIST_HPP

#include <string>

#include "problem.hpp"

namespace talvik::tool {

struct MnistOptions {
  std::string resident_images, resident_labels;
  std::string query_images, query_labels;  ///< empty: self run
  int limit_resident = 0;                  ///< the first so many images; 0: all
  int limit_queries = 0;
};

/// Reads both collections.  Throws RunError.  Not collective.
Problem load_mnist(const MnistOptions& options);

}  // namespace talvik::tool

#endif
