// Dot products of embedding rows: the dense stage of the CPU engine.
#ifndef TALVIK_INTERNAL_DENSE_PRODUCT_HPP
#define TALVIK_INTERNAL_DENSE_PRODUCT_HPP

#include <cstddef>

#include "internal/amx_product.hpp"

namespace talvik::internal {

/// What a thread's products work with; kept from one to the next.
using ProductScratch = AmxScratch;

/// scores[r*stride + v] = word v . row r, in single precision, on the calling thread
/// (see SingleThreadedBlas).
/// @param words  num_words x m, row-major
/// @param rows   num_rows x m, row-major
void dense_product(const float* words, int num_words, const float* rows, int num_rows, int m,
                   float* scores, std::size_t stride, ProductScratch& scratch);

/// Which kernel does the work here for rows of m components, in words for people.
const char* dense_product_kernel(int m);

}  // namespace talvik::internal

#endif
