// What tests and benchmarks reach below the GPU engine's public functions.
#ifndef TALVIK_LIBWMD_GPU_ENGINE_HPP
#define TALVIK_LIBWMD_GPU_ENGINE_HPP

#include "libwmd/gpu/sizes.hpp"

namespace talvik::internal {

/// As copy_vectors2, for the rows `ind2` of `embeddings`, m floats each, which are only read: what
/// a word costs on the host and on its way to the device is paid once per distinct word.  X2_dev
/// and Rn2_dev have a row per distinct word then.  Removed by remove_vectors2.
void copy_words2(int n2, int m, const int* ind2, const float* embeddings, const float* weight2,
                 int num_docs2_, int* start2_);

/// What a computation is at.
enum class GpuStep {
  prepare,  ///< distinct rows, handles, buffers
  gather,   ///< distinct rows of a pass
  product,
  equal,    ///< equal rows are looked for; the products of a document by itself into distances
  nearest,  ///< nearest entries of every document
  pour,     ///< weights to the nearest entries
  copy,     ///< of the distances to the host
  release,
  finished
};

/// Called where a step begins; the step before it may still be running on the device.
using GpuStepBegins = void (*)(GpuStep);

/// As ed_min_vocab_multi, within a budget: tests make it small, so that every loop is taken.
/// @param begins  or null
void compute_gpu_block(float* Z, int delta_iterations, bool precompute, const GpuBudget& budget,
                       GpuStepBegins begins = nullptr);

}  // namespace talvik::internal

#endif
