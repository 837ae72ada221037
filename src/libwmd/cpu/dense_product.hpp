// Dot products of embedding rows: the dense stage of the CPU engine.
#ifndef TALVIK_LIBWMD_CPU_DENSE_PRODUCT_HPP
#define TALVIK_LIBWMD_CPU_DENSE_PRODUCT_HPP

#include <cstddef>

#include "libwmd/cpu/matrix_unit.hpp"

namespace talvik::internal {

/// What the products of a thread work with; kept from one to the next.
struct ProductScratch {
  bool on_matrix_unit;  ///< else by the BLAS, or by Eigen's own kernel
  AmxScratch packed;
};

/// For products of rows of m components.  Made once per computation and copied for every thread:
/// which kernel can be used takes longer to find out than a small product.
ProductScratch product_scratch(int m);

/// scores[r*stride + v] = word v . row r, up to rounding in single precision, on the calling thread
/// (see SingleThreadedBlas).
/// @param words    num_words x m, row-major
/// @param rows     num_rows x m, row-major
/// @param scratch  of product_scratch(m)
void dense_product(const float* words, int num_words, const float* rows, int num_rows, int m,
                   float* scores, std::size_t stride, ProductScratch& scratch);

/// The kernel in words for people.
const char* name_of_kernel(const ProductScratch& scratch);

}  // namespace talvik::internal

#endif
