// What the engine is measured against: the distance block in the plain way, the dense product
// alone, the sparse product alone.  A library of its own: this code is compiled without
// EIGEN_USE_BLAS and must not share Eigen's templates with the engine's.
#ifndef TALVIK_BENCH_PLAIN_WAY_HPP
#define TALVIK_BENCH_PLAIN_WAY_HPP

#include "worlds.hpp"

namespace talvik::bench {

enum class DenseKernel { eigen, openblas };

/// Euclidean distances without capacity steps: one product of the vocabulary with every query entry
/// into a block of at most block_floats, a pass that converts it, a pass that takes the minima, and
/// Eigen's sparse product.  @param Z as ed_min_vocab_cpu
TALVIK_API void plain_distance_block(const World& world, DenseKernel kernel, int threads,
                                     long long block_floats, float* Z);

/// The product of the vocabulary with every query entry alone, by OpenBLAS on its own threads.
/// @param Y  at least block_floats floats, reused block after block
TALVIK_API void dense_product(const World& world, long long block_floats, float* Y);

/// Eigen's product of a sparse matrix with a dense one, both row-major.
/// @param table         voc_size x cols
/// @param[out] product  documents of rows x cols
TALVIK_API void sparse_product(const SparseRows& rows, int voc_size, const float* table, int cols,
                               int threads, float* product);

}  // namespace talvik::bench

#endif
