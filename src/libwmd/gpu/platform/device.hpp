// The layer between the device source and CUDA, through which alone libwmd.cu and its kernels see a
// device.  nvcc gets CUDA, cuBLAS, cuSPARSE and their own Thrust.  In a host build a
// plain compiler gets the stand-in under the same names, and Thrust's OpenMP backend.  A plain
// compiler in a CUDA build (a test, say) gets CUDA's functions, but no kernels and no Thrust.
#ifndef TALVIK_LIBWMD_GPU_PLATFORM_DEVICE_HPP
#define TALVIK_LIBWMD_GPU_PLATFORM_DEVICE_HPP

#include <cstddef>
#include <type_traits>  // type_identity_t

#if defined(__CUDACC__) || defined(TALVIK_DEVICE_CUDA)
#include <cublas_v2.h>
#include <cuda_runtime.h>
#include <cusparse.h>
#else
// Thrust reads this when its first header comes in.
#define THRUST_DEVICE_SYSTEM THRUST_DEVICE_SYSTEM_OMP
#include "libwmd/gpu/platform/hostdev.hpp"
#endif

#include "libwmd/gpu/platform/legacy_sparse.hpp"

#if defined(__CUDACC__) || !defined(TALVIK_DEVICE_CUDA)
#include <thrust/device_ptr.h>
#include <thrust/execution_policy.h>
#include <thrust/transform.h>

#include <cassert>
#endif

namespace talvik {

#if defined(__CUDACC__) || defined(TALVIK_DEVICE_CUDA)
inline constexpr bool device_is_stand_in = false;
#else
inline constexpr bool device_is_stand_in = true;
#endif

#if defined(__CUDACC__) || !defined(TALVIK_DEVICE_CUDA)

/// kernel<<<grid, block>>>(args...) on the default stream, in both builds.  Shapes are not empty.
/// Arguments convert to the kernel's parameters, as in a plain call.
template <class... Parameters>
void launch(void (*kernel)(Parameters...), dim3 grid, dim3 block,
            std::type_identity_t<Parameters>... args) {
#ifdef __CUDACC__
  kernel<<<grid, block>>>(args...);
  assert(cudaPeekAtLastError() == cudaSuccess);  // a refused shape, no code for this device
#else
  hostdev::run_grid(grid, block, [=] { kernel(args...); });
#endif
}

/// value = function(value) for `count` floats in device memory.  Throws Thrust's system error, and
/// what an earlier launch has failed with may be forgotten.
template <class Function>
void transform_in_place(float* device_values, size_t count, Function function) {
#ifndef __CUDACC__
  const hostdev::DeviceWork work;
  if (!hostdev::begin_transform(device_values, count)) return;
#endif
  const thrust::device_ptr<float> first(device_values);
  thrust::transform(first, first + count, first, function);
}

#endif

}  // namespace talvik

#endif
