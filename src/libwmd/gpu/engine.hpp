// What tests reach below the GPU engine's public functions.
#ifndef TALVIK_LIBWMD_GPU_ENGINE_HPP
#define TALVIK_LIBWMD_GPU_ENGINE_HPP

#include "libwmd/gpu/sizes.hpp"

namespace talvik::internal {

/// As ed_min_vocab_multi, within a budget: tests make it small, so that every loop is taken.
void compute_gpu_block(float* Z, int delta_iterations, bool precompute, const GpuBudget& budget);

}  // namespace talvik::internal

#endif
