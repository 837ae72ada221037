// How tests control the stand-in: planned failures, counts of what is held, devices.  Only in a
// host build.
#ifndef TALVIK_LIBWMD_GPU_PLATFORM_HOSTDEV_CONTROL_HPP
#define TALVIK_LIBWMD_GPU_PLATFORM_HOSTDEV_CONTROL_HPP

#include <cstddef>
#include <string>

namespace talvik::hostdev {

/// One planned failure.  `call` is a function of the interface ("cudaMemcpy", "cublasSgemm_v2"), or
/// "transform_in_place", which throws; it succeeds `skip` times more, then returns `status` once.
/// An allocation that would take the bytes in use above memory_limit fails in any case.
struct FaultPlan {
  size_t memory_limit = size_t{64} << 30;
  std::string call = {};
  int skip = 0;
  int status = 1;
};

/// Replaces the plan; FaultPlan{} plans nothing.
void plan_fault(const FaultPlan& plan);

size_t live_allocations();
/// Library handles and matrix descriptors that were created and not destroyed.
size_t live_handles();

void set_device_count(int count);  // 1 at the start
int selected_device();             // of the calling thread

}  // namespace talvik::hostdev

#endif
