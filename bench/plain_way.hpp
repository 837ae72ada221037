// The distance block in the plain way, and the dense product alone: what the engine is measured
// against.
#ifndef TALVIK_BENCH_PLAIN_WAY_HPP
#define TALVIK_BENCH_PLAIN_WAY_HPP

#include "zipf_world.hpp"

namespace talvik::bench {

enum class DenseKernel { eigen, openblas };

/// Euclidean distances without capacity steps: one product of the vocabulary with every query entry
/// into a block of at most block_floats, a pass that converts it, a pass that takes the minima, and
/// Eigen's sparse product.  @param Z as ed_min_vocab_cpu
void plain_distance_block(const ZipfWorld& world, DenseKernel kernel, long long block_floats,
                          float* Z);

/// The product of the vocabulary with every query entry alone, by OpenBLAS on its own threads.
/// @param Y  at least block_floats floats, reused block after block
void dense_product(const ZipfWorld& world, long long block_floats, float* Y);

}  // namespace talvik::bench

#endif
