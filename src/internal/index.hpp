// Offsets into arrays.  Counts are ints, as in the interface; their products need more bits.
#ifndef TALVIK_INTERNAL_INDEX_HPP
#define TALVIK_INTERNAL_INDEX_HPP

#include <cstddef>

namespace talvik::internal {

/// An offset into an array, or a number of elements.  Signed, so that it mixes with counts; new[]
/// answers a negative one with its array-length exception.
using Index = std::ptrdiff_t;

/// Elements of a rows x cols matrix; also the offset of row `rows` where a row has `cols` elements.
constexpr Index elements(Index rows, Index cols) { return rows * cols; }
static_assert(elements(100'000, 100'000) == 10'000'000'000);

}  // namespace talvik::internal

#endif
