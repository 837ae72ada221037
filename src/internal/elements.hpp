// Sizes of arrays, formed in 64 bits.
#ifndef TALVIK_INTERNAL_ELEMENTS_HPP
#define TALVIK_INTERNAL_ELEMENTS_HPP

#include <cstddef>

namespace talvik::internal {

/// Elements of a rows x cols matrix; neither is negative.
constexpr std::size_t elements(int rows, int cols) {
  return static_cast<std::size_t>(rows) * static_cast<std::size_t>(cols);
}

}  // namespace talvik::internal

#endif
