// Dot products of embedding rows: the dense stage of the CPU engine.
#ifndef TALVIK_LIBWMD_CPU_DENSE_PRODUCT_HPP
#define TALVIK_LIBWMD_CPU_DENSE_PRODUCT_HPP

#include "internal/index.hpp"
#include "libwmd/cpu/matrix_unit.hpp"

namespace talvik::internal {

/// Working memory of a thread's products, kept from one to the next, and the kernel that does them.
struct ProductScratch {
  bool on_matrix_unit;  ///< else by the BLAS, or by Eigen's own kernel
  AmxScratch packed;
};

/// For products of rows of m components.  Made once per computation and copied for every thread:
/// finding out which kernel can be used takes longer than a small product.
ProductScratch product_scratch(int m);

/// Writes the scores of DenseOperands, up to rounding in single precision, on the calling thread
/// (see SingleThreadedBlas).
/// @param scratch  of product_scratch(m)
void dense_product(const DenseOperands& operands, ProductScratch& scratch);

/// The name of the kernel, for people.
const char* name_of_kernel(const ProductScratch& scratch);

}  // namespace talvik::internal

#endif
