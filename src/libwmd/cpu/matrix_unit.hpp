// Dense products on the processor's matrix unit (AMX), for normal numbers as exact as in single
// precision.
#ifndef TALVIK_LIBWMD_CPU_MATRIX_UNIT_HPP
#define TALVIK_LIBWMD_CPU_MATRIX_UNIT_HPP

#include <cstdint>
#include <vector>

#include "internal/index.hpp"

namespace talvik::internal {

/// Operands of a product and the place of its result:
///   scores[r*stride + v] = word v . row r
struct DenseOperands {
  const float* words;  ///< num_words x m, row-major
  int num_words;
  const float* rows;  ///< num_rows x m, row-major
  int num_rows;
  int m;
  float* scores;
  Index stride;  ///< floats, at least num_words
};

/// Whether this processor has the unit, the operating system lets the process use it, and Highway's
/// instruction sets are not limited to lesser ones.  The first call asks the system, for the whole
/// process and for good: from then on it refuses alternate signal stacks too small for the unit's
/// registers (AT_MINSIGSTKSZ), and where there is such a stack already, it refuses the unit.  Takes
/// tens of microseconds.
bool amx_usable();

/// A thread's packed operands; grows to the size of its largest product and is kept from one
/// product to the next.
using AmxScratch = std::vector<std::uint16_t>;

/// Writes the scores.  Subnormal numbers count as zero; with infinite numbers, or numbers that
/// round to them in bfloat16, the product is NaN.
/// @pre amx_usable(); num_words >= 1, num_rows >= 1, m >= 1
void amx_product(const DenseOperands& operands, AmxScratch& scratch);

}  // namespace talvik::internal

#endif
