// The GPU engine below its public functions, for tests that make its block small.
#ifndef TALVIK_LIBWMD_GPU_ENGINE_HPP
#define TALVIK_LIBWMD_GPU_ENGINE_HPP

#include "libwmd/gpu/sizes.hpp"

namespace talvik::internal {

/// ed_min_vocab_multi within a budget.
void compute_gpu_block(float* Z, int delta_iterations, bool precompute, const GpuBudget& budget);

}  // namespace talvik::internal

#endif
