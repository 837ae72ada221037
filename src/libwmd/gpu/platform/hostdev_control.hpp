// How tests control the stand-in: planned failures, counts of what is held, devices.  Only in a
// host build.
#ifndef TALVIK_LIBWMD_GPU_PLATFORM_HOSTDEV_CONTROL_HPP
#define TALVIK_LIBWMD_GPU_PLATFORM_HOSTDEV_CONTROL_HPP

#include <cstddef>
#include <string>

namespace talvik::hostdev {

/// One planned failure.  `call` is a function of the interface ("cudaMemcpy", "cublasSgemm_v2"),
/// "launch", whose status cudaGetLastError() returns, or "transform_in_place", which throws; it
/// succeeds `skip` times more, then returns `status` once. An allocation that would take the bytes
/// in use above memory_limit fails in any case.
struct FaultPlan {
  size_t memory_limit = size_t{64} << 30;
  std::string call = {};
  int skip = 0;
  int status = 1;
};

/// Replaces the plan; FaultPlan{} plans nothing.
void plan_fault(const FaultPlan& plan);

size_t live_allocations();
/// Library handles and descriptors of matrices that were created and not destroyed.
size_t live_handles();

/// What the engine has asked of the device.
struct Counts {
  long long launches = 0;  ///< kernels and Thrust's transforms
  long long dense_products = 0, sparse_products = 0;
  long long multiply_adds = 0;  ///< of the dense products
  long long copies = 0;         ///< between host and device
  long long bytes_to_device = 0, bytes_to_host = 0;
  long long waits = 0;  ///< calls that return when the device has finished: copies to the host,
                        ///< releases, cudaDeviceSynchronize
  long long allocations = 0;
};
const Counts& counts();
void reset_counts();

/// Off: what is asked for is checked and counted, but neither computed nor copied.
void set_execution(bool on);

void set_device_count(int count);  // 1 at the start
int selected_device();             // of the calling thread

}  // namespace talvik::hostdev

#endif
