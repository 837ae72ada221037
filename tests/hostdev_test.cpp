// The stand-in sees the mistakes that a GPU would pass over.  And a kernel by itself: a plain
// compiler can launch one here only.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "libwmd/gpu/platform/device.hpp"
#include "libwmd/gpu/platform/hostdev_control.hpp"

namespace talvik {

__global__ void final_sqrt2(int rows, int cols, int col_offset, float* D, float* col_norms,
                            float* row_norms);

namespace {

TEST(Kernels, ConversionReadsTheNormsFromItsFirstColumn) {
  float dot = 0, row_norm = 16, column_norms[] = {100, 9};
  constexpr int rows = 1, cols = 1, col_offset = 1;
  launch(final_sqrt2, 1, 128, rows, cols, col_offset, &dot, column_norms, &row_norm);
  EXPECT_EQ(dot, 5);
}

struct HostdevDeathTest : testing::Test {
  // Death tests start the program anew: threads of an OpenMP team do not survive a fork.
  HostdevDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

float* allocate(size_t floats) {
  float* pointer = nullptr;
  EXPECT_EQ(cudaMalloc(&pointer, floats * sizeof(float)), cudaSuccess);
  return pointer;
}

// By the first thread of the grid only.
__global__ void write_one(int index, float* values) {
  if (blockIdx.y == 0 && threadIdx.x == 0) values[index] = 1;
}

TEST_F(HostdevDeathTest, FreshMemoryHoldsNaNsAndNothingReachesBeyondIt) {
  hostdev::set_device_count(2);
  std::vector<float> host(100);
  float *memory = allocate(10), *large = allocate(100);
  EXPECT_EQ(hostdev::live_allocations(), 2u);
  ASSERT_EQ(cudaMemcpy(host.data(), large, 400, cudaMemcpyDeviceToHost), cudaSuccess);
  for (const float value : host) ASSERT_TRUE(std::isnan(value));
  EXPECT_DEATH(cudaMemcpy(memory, host.data(), 41, cudaMemcpyHostToDevice),
               "cudaMemcpy: goes 1 bytes beyond the end of an allocation of 40");
  EXPECT_DEATH(cudaMemcpy(host.data(), host.data(), 4, cudaMemcpyDeviceToHost), "no live device");
  EXPECT_DEATH(cudaMemcpy(memory, large, 4, cudaMemcpyHostToDevice), "lies in device memory");
  EXPECT_DEATH(transform_in_place(memory, 11, [](float x) { return x; }),
               "transform_in_place: goes 4 bytes beyond");
  EXPECT_DEATH(launch(write_one, dim3(1, 65536), 128, 0, memory), "launch: a GPU refuses a grid");
  cudaSetDevice(1);
  EXPECT_DEATH(cudaMemset(memory, 0, 4), "memory of device 0 used while device 1 is selected");
  cudaSetDevice(0);
  EXPECT_DEATH(cudaFree(memory + 1), "cudaFree: not the start of a live device allocation");
  cudaFree(memory);
  cudaFree(large);
  EXPECT_EQ(hostdev::live_allocations(), 0u);
  hostdev::set_device_count(1);
}

// The mode is read once a process, hence the fresh process of a death test.
TEST_F(HostdevDeathTest, GuardedMemoryIsOpenToDeviceWorkOnly) {
  const auto guarded_run = [](void (*mistake)(float*)) {
    setenv("TALVIK_HOSTDEV_GUARD", "1", 1);
    float* memory = allocate(8);
    launch(write_one, 1, 1, 7, memory);
    std::fprintf(stderr, "no mistake so far\n");
    mistake(memory);
    std::exit(0);
  };
  void (*const mistakes[])(float*) = {
      [](float* memory) { *static_cast<volatile float*>(memory) = 1; },  // on the host
      [](float* memory) { launch(write_one, 1, 1, 8, memory); },         // beyond the end
      [](float* memory) { cudaFree(memory), launch(write_one, 1, 1, 0, memory); }};
  for (const auto mistake : mistakes) EXPECT_DEATH(guarded_run(mistake), "no mistake so far");
}

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
__global__ void sum_without_care(float* sum) { *sum += 1; }

// Two neighbours of one block, which the same CPU thread would run one after the other.
TEST_F(HostdevDeathTest, ThreadSanitizerSeesNeighboursRace) {
  const auto racing_run = [] {
    setenv("TALVIK_HOSTDEV_INTERLEAVE", "1", 1);
    omp_set_num_threads(2);
    float sum = 0;
    launch(sum_without_care, 1, 128, &sum);
    std::exit(0);
  };
  EXPECT_EXIT(racing_run(), testing::ExitedWithCode(66), "data race");
}
#endif
#endif

}  // namespace
}  // namespace talvik
