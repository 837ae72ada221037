// The checks that the stand-in's own files share.
#ifndef TALVIK_LIBWMD_GPU_PLATFORM_HOSTDEV_CHECKS_HPP
#define TALVIK_LIBWMD_GPU_PLATFORM_HOSTDEV_CHECKS_HPP

#include <cstddef>
#include <string>
#include <string_view>

namespace talvik::hostdev {

/// Ends the process with "hostdev: call: fault" on standard error.
[[noreturn]] void die(const char* call, const std::string& fault);

/// Ends the process unless the bytes lie in one live allocation of the selected device.
void require_device_range(const char* call, const void* first, size_t bytes);

/// What the call is counted as, for hostdev_vendor.cpp to add to.
struct Counts;
Counts& open_counts();

bool execution_is_on();

/// Counts the call; the status that a fault plan has for it now, or 0.
int count_call(std::string_view call);

}  // namespace talvik::hostdev

#endif
