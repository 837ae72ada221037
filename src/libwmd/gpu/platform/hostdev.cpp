// The stand-in's memory, copies, devices, launch checks and planned faults.
#include "libwmd/gpu/platform/hostdev.hpp"

#include <sys/mman.h>  // mmap, mprotect: memory that host code cannot touch
#include <thrust/system_error.h>
#include <unistd.h>  // sysconf

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string_view>

#include "libwmd/gpu/platform/hostdev_checks.hpp"
#include "libwmd/gpu/platform/hostdev_control.hpp"

namespace talvik::hostdev {

namespace {

constexpr size_t poisoned_bytes = size_t{16} << 20;
constexpr int poison = 0xff;  // four of them are a NaN

// What a GPU accepts in a launch.
constexpr unsigned int most_blocks_x = 2147483647, most_blocks_yz = 65535;
constexpr unsigned int most_threads = 1024, most_threads_z = 64;

struct Allocation {
  size_t bytes;
  int device;
  void* mapping;        // null: from malloc
  size_t mapped_bytes;  // whole pages, with an inaccessible one behind them
};

std::map<const char*, Allocation, std::less<>> allocations;  // by first byte
size_t used_bytes = 0;
FaultPlan plan;
int device_count = 1;
thread_local int device = 0;
cudaError_t last_error = cudaSuccess;
Counts totals;
bool executing = true;

bool set_in_environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' && std::strcmp(value, "0") != 0;
}

// Whether host code is kept out of device memory.
bool guarded() {
  static const bool value = set_in_environment("TALVIK_HOSTDEV_GUARD");
  return value;
}

void protect(const Allocation& allocation, int protection) {
  if (mprotect(allocation.mapping, allocation.mapped_bytes, protection) != 0)
    die("guard", "mprotect failed");
}

void open_or_close(int protection) {
  if (!guarded()) return;
  for (const auto& [first, allocation] : allocations) protect(allocation, protection);
}

cudaError_t result_of(cudaError_t status) {
  if (status != cudaSuccess) last_error = status;
  return status;
}

cudaError_t planned(const char* call) {
  return result_of(static_cast<cudaError_t>(count_call(call)));
}

// The live allocation that holds the byte, or the end.
auto holder_of(const void* byte) {
  const char* address = static_cast<const char*>(byte);
  auto after = allocations.upper_bound(address);
  if (after == allocations.begin()) return allocations.end();
  const auto candidate = std::prev(after);
  return address < candidate->first + candidate->second.bytes ? candidate : allocations.end();
}

void require_host_range(const char* call, const void* first, size_t bytes) {
  const char* begin = static_cast<const char*>(first);
  const auto next = allocations.lower_bound(begin);
  if (holder_of(first) != allocations.end() ||
      (next != allocations.end() && next->first < begin + bytes))
    die(call, "the host side of the copy lies in device memory");
}

void copy_rows(const char* call, void* to, size_t to_pitch, const void* from, size_t from_pitch,
               size_t width, size_t height, cudaMemcpyKind kind) {
  const size_t to_bytes = (height - 1) * to_pitch + width;
  const size_t from_bytes = (height - 1) * from_pitch + width;
  const auto bytes = static_cast<long long>(width) * static_cast<long long>(height);
  if (kind == cudaMemcpyHostToDevice) {
    require_host_range(call, from, from_bytes);
    totals.bytes_to_device += bytes;
  } else {
    require_device_range(call, from, from_bytes);
  }
  if (kind == cudaMemcpyDeviceToHost) {
    require_host_range(call, to, to_bytes);
    totals.bytes_to_host += bytes;
    ++totals.waits;
  } else {
    require_device_range(call, to, to_bytes);
  }
  if (kind != cudaMemcpyDeviceToDevice) ++totals.copies;
  if (!executing) return;
  const DeviceWork work;
  for (size_t row = 0; row < height; ++row) {
    std::memcpy(static_cast<char*>(to) + row * to_pitch,
                static_cast<const char*>(from) + row * from_pitch, width);
  }
}

size_t page_bytes() { return sysconf(_SC_PAGESIZE); }

constexpr int private_memory = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;

// The allocation ends at an inaccessible page, so that a kernel's access beyond it is seen, too.
char* map_pages(size_t bytes, Allocation& allocation) {
  constexpr size_t alignment = 16;
  const size_t open_bytes = (bytes + page_bytes() - 1) / page_bytes() * page_bytes();
  void* base = mmap(nullptr, open_bytes + page_bytes(), PROT_NONE, private_memory, -1, 0);
  if (base == MAP_FAILED) return nullptr;
  allocation.mapping = base;
  allocation.mapped_bytes = open_bytes;
  protect(allocation, PROT_READ | PROT_WRITE);
  return static_cast<char*>(base) + open_bytes - (bytes + alignment - 1) / alignment * alignment;
}

void unmap_pages(const Allocation& allocation) {
  if (!guarded()) {
    munmap(allocation.mapping, allocation.mapped_bytes + page_bytes());
    return;
  }
  // The addresses stay taken, so that later use of the freed memory is always seen.
  if (mmap(allocation.mapping, allocation.mapped_bytes, PROT_NONE, private_memory | MAP_FIXED, -1,
           0) == MAP_FAILED)
    die("cudaFree", "mmap failed");
}

}  // namespace

void die(const char* call, const std::string& fault) {
  std::fprintf(stderr, "hostdev: %s: %s\n", call, fault.c_str());
  std::abort();
}

void require_device_range(const char* call, const void* first, size_t bytes) {
  if (bytes == 0) return;
  const auto holder = holder_of(first);
  if (holder == allocations.end()) die(call, "no live device allocation holds its memory");
  const auto& [begin, allocation] = *holder;
  const size_t room = begin + allocation.bytes - static_cast<const char*>(first);
  if (bytes > room)
    die(call, "goes " + std::to_string(bytes - room) +
                  " bytes beyond the end of an allocation of " + std::to_string(allocation.bytes));
  if (allocation.device != device)
    die(call, "memory of device " + std::to_string(allocation.device) + " used while device " +
                  std::to_string(device) + " is selected");
}

int count_call(std::string_view call) {
  if (call != plan.call || plan.skip-- > 0) return 0;
  plan.call.clear();
  return plan.status;
}

Counts& open_counts() { return totals; }

const Counts& counts() { return totals; }

void reset_counts() { totals = {}; }

bool execution_is_on() { return executing; }

void set_execution(bool on) { executing = on; }

void plan_fault(const FaultPlan& new_plan) { plan = new_plan; }

size_t live_allocations() { return allocations.size(); }

void set_device_count(int count) { device_count = count; }

int selected_device() { return device; }

DeviceWork::DeviceWork() { open_or_close(PROT_READ | PROT_WRITE); }

DeviceWork::~DeviceWork() { open_or_close(PROT_NONE); }

bool interleaved() {
  static const bool value = set_in_environment("TALVIK_HOSTDEV_INTERLEAVE");
  return value;
}

bool begin_launch(dim3 grid, dim3 block) {
  const unsigned long long threads = 1ull * block.x * block.y * block.z;
  const bool grid_fits = grid.x >= 1 && grid.x <= most_blocks_x && grid.y >= 1 &&
                         grid.y <= most_blocks_yz && grid.z >= 1 && grid.z <= most_blocks_yz;
  if (grid_fits && threads >= 1 && threads <= most_threads && block.z <= most_threads_z) {
    ++totals.launches;
    return planned("launch") == cudaSuccess && executing;
  }
  const auto text = [](dim3 shape) {
    return std::to_string(shape.x) + " x " + std::to_string(shape.y) + " x " +
           std::to_string(shape.z);
  };
  die("launch", "a GPU refuses a grid of " + text(grid) + " blocks of " + text(block));
}

bool begin_transform(const float* device_values, size_t count) {
  require_device_range("transform_in_place", device_values, count * sizeof(float));
  if (const int status = count_call("transform_in_place"))
    throw thrust::system_error(status, thrust::system_category(),
                               "transform: failed to synchronize");
  last_error = cudaSuccess;
  ++totals.launches;
  return executing;
}

inline namespace vendor {

cudaError_t cudaGetDeviceCount(int* count) {
  if (const cudaError_t status = planned("cudaGetDeviceCount")) return status;
  *count = device_count;
  return cudaSuccess;
}

cudaError_t cudaSetDevice(int new_device) {
  if (const cudaError_t status = planned("cudaSetDevice")) return status;
  if (new_device < 0 || new_device >= device_count) return result_of(cudaErrorInvalidDevice);
  device = new_device;
  return cudaSuccess;
}

cudaError_t cudaGetLastError() {
  const cudaError_t error = last_error;
  last_error = cudaSuccess;
  const cudaError_t status = planned("cudaGetLastError");
  return status != cudaSuccess ? status : error;
}

cudaError_t cudaMalloc(void** pointer, size_t bytes) {
  if (const cudaError_t status = planned("cudaMalloc")) return status;
  *pointer = nullptr;
  if (bytes == 0) return cudaSuccess;
  if (used_bytes > plan.memory_limit || bytes > plan.memory_limit - used_bytes)
    return result_of(cudaErrorMemoryAllocation);
  ++totals.allocations;
  Allocation allocation{bytes, device, nullptr, 0};
  // Small allocations come from malloc, where the address sanitizer sees accesses beyond either
  // end.
  const bool pages = guarded() || bytes > poisoned_bytes;
  char* first = pages ? map_pages(bytes, allocation) : static_cast<char*>(std::malloc(bytes));
  if (first == nullptr) return result_of(cudaErrorMemoryAllocation);
  if (bytes <= poisoned_bytes) std::memset(first, poison, bytes);
  allocations.emplace(first, allocation);
  used_bytes += bytes;
  if (guarded()) protect(allocation, PROT_NONE);
  *pointer = first;
  return cudaSuccess;
}

cudaError_t cudaFree(void* pointer) {
  if (const cudaError_t status = planned("cudaFree")) return status;
  if (pointer == nullptr) return cudaSuccess;
  const auto found = allocations.find(static_cast<const char*>(pointer));
  if (found == allocations.end()) die("cudaFree", "not the start of a live device allocation");
  ++totals.waits;
  const Allocation allocation = found->second;
  allocations.erase(found);
  used_bytes -= allocation.bytes;
  if (allocation.mapping == nullptr)
    std::free(pointer);
  else
    unmap_pages(allocation);
  return cudaSuccess;
}

cudaError_t cudaMemset(void* pointer, int value, size_t bytes) {
  if (const cudaError_t status = planned("cudaMemset")) return status;
  require_device_range("cudaMemset", pointer, bytes);
  const DeviceWork work;
  if (bytes > 0 && executing) std::memset(pointer, value, bytes);
  return cudaSuccess;
}

cudaError_t cudaMemcpy(void* to, const void* from, size_t bytes, cudaMemcpyKind kind) {
  if (const cudaError_t status = planned("cudaMemcpy")) return status;
  if (bytes == 0) return cudaSuccess;
  constexpr size_t one_row = 1;
  copy_rows("cudaMemcpy", to, bytes, from, bytes, bytes, one_row, kind);
  return cudaSuccess;
}

cudaError_t cudaMemcpy2D(void* to, size_t to_pitch, const void* from, size_t from_pitch,
                         size_t width, size_t height, cudaMemcpyKind kind) {
  if (const cudaError_t status = planned("cudaMemcpy2D")) return status;
  if (width > to_pitch || width > from_pitch) return result_of(cudaErrorInvalidValue);
  if (width == 0 || height == 0) return cudaSuccess;
  copy_rows("cudaMemcpy2D", to, to_pitch, from, from_pitch, width, height, kind);
  return cudaSuccess;
}

cudaError_t cudaDeviceSynchronize() {
  if (const cudaError_t status = planned("cudaDeviceSynchronize")) return status;
  ++totals.waits;
  return cudaSuccess;
}

cudaError_t cudaMemGetInfo(size_t* free_bytes, size_t* total_bytes) {
  if (const cudaError_t status = planned("cudaMemGetInfo")) return status;
  *total_bytes = plan.memory_limit;
  *free_bytes = plan.memory_limit > used_bytes ? plan.memory_limit - used_bytes : 0;
  return cudaSuccess;
}

}  // namespace vendor
}  // namespace talvik::hostdev
