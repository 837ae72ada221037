// What tests ask about the device.  A real device does not tell: there the answers let every test
// pass, and only the stand-in puts them to the proof.
#ifndef TALVIK_TESTS_DEVICE_HPP
#define TALVIK_TESTS_DEVICE_HPP

#ifndef TALVIK_DEVICE_CUDA
#include "libwmd/gpu/platform/hostdev_control.hpp"
#endif

namespace talvik::test {

#ifdef TALVIK_DEVICE_CUDA

inline constexpr bool device_is_emulated = false;

inline bool nothing_is_held() { return true; }
inline void set_devices(int) {}
inline int device_in_use() { return -1; }

#else

inline constexpr bool device_is_emulated = true;

inline bool nothing_is_held() {
  return hostdev::live_allocations() == 0 && hostdev::live_handles() == 0;
}
inline void set_devices(int count) { hostdev::set_device_count(count); }
inline int device_in_use() { return hostdev::selected_device(); }

#endif

}  // namespace talvik::test

#endif
