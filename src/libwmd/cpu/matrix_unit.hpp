// Dense products on the processor's matrix unit (AMX), for normal numbers as exact as in single
// precision.
#ifndef TALVIK_LIBWMD_CPU_MATRIX_UNIT_HPP
#define TALVIK_LIBWMD_CPU_MATRIX_UNIT_HPP

#include <cstddef>
#include <cstdint>
#include <vector>

namespace talvik::internal {

/// Whether this processor has the unit, the operating system lets the process use it, and Highway's
/// instruction sets are not limited to lesser ones.  The first call asks the system, for the whole
/// process and for good: from then on it refuses alternate signal stacks too small for the unit's
/// registers (AT_MINSIGSTKSZ), and where there is such a stack already, it refuses the unit.  Takes
/// tens of microseconds.
bool amx_usable();

/// A thread's packed operands; grows to what its largest product needs and is kept from one product
/// to the next.
using AmxScratch = std::vector<std::uint16_t>;

/// scores[r*stride + v] = word v . row r.  Subnormal numbers count as zero; with infinite ones, or
/// such as round to them in bfloat16, the product is NaN.
/// @param words  num_words x m, row-major
/// @param rows   num_rows x m, row-major; num_words >= 1, num_rows >= 1, m >= 1
/// @pre amx_usable()
void amx_product(const float* words, int num_words, const float* rows, int num_rows, int m,
                 float* scores, std::size_t stride, AmxScratch& scratch);

}  // namespace talvik::internal

#endif
