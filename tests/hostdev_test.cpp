// The stand-in's own promises: it sees the mistakes that a GPU would pass over, and fails when
// asked.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <thread>
#include <vector>

#include "libwmd/platform/device.hpp"
#include "libwmd/platform/hostdev_control.hpp"

namespace talvik {
namespace {

class Hostdev : public testing::Test {
 protected:
  // Death tests start the program anew: threads of an OpenMP team do not survive a fork.
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  void TearDown() override {
    hostdev::plan_fault({});
    hostdev::set_device_count(1);
    EXPECT_EQ(hostdev::live_allocations(), 0u);
    EXPECT_EQ(hostdev::live_handles(), 0u);
  }
};
using HostdevDeathTest = Hostdev;

float* allocate(size_t floats) {
  float* pointer = nullptr;
  EXPECT_EQ(cudaMalloc(&pointer, floats * sizeof(float)), cudaSuccess);
  return pointer;
}

// By the first thread of the grid only.
__global__ void write_one(int index, float* values) {
  if (blockIdx.y == 0 && threadIdx.x == 0) values[index] = 1;
}

TEST_F(Hostdev, FreshMemoryHoldsNaNs) {
  float* memory = allocate(1000);
  std::vector<float> values(1000);
  ASSERT_EQ(cudaMemcpy(values.data(), memory, 4000, cudaMemcpyDeviceToHost), cudaSuccess);
  for (const float value : values) ASSERT_TRUE(std::isnan(value));
  cudaFree(memory);
}

TEST_F(Hostdev, CountsWhatIsHeldAndEndsAtTheMemoryLimit) {
  hostdev::plan_fault({.memory_limit = 300000});
  float* first = allocate(50000);
  EXPECT_EQ(hostdev::live_allocations(), 1u);
  EXPECT_EQ(hostdev::bytes_in_use(), 200000u);
  float* second = nullptr;
  EXPECT_EQ(cudaMalloc(&second, 100001), cudaErrorMemoryAllocation);
  EXPECT_EQ(second, nullptr);
  EXPECT_EQ(cudaGetLastError(), cudaErrorMemoryAllocation);
  EXPECT_EQ(cudaGetLastError(), cudaSuccess);
  size_t free_bytes = 0, total_bytes = 0;
  ASSERT_EQ(cudaMemGetInfo(&free_bytes, &total_bytes), cudaSuccess);
  EXPECT_EQ(free_bytes, 100000u);
  EXPECT_EQ(total_bytes, 300000u);
  EXPECT_EQ(cudaMalloc(&second, 100000), cudaSuccess);
  EXPECT_EQ(cudaFree(second), cudaSuccess);
  EXPECT_EQ(cudaFree(first), cudaSuccess);
  EXPECT_EQ(hostdev::bytes_in_use(), 0u);
}

TEST_F(Hostdev, FailsOnTheChosenCallOnlyAndOnce) {
  float* memory = allocate(1);
  const float value = 5;
  const auto copy = [&] { return cudaMemcpy(memory, &value, 4, cudaMemcpyHostToDevice); };
  hostdev::plan_fault({.call = "cudaMemcpy", .skip = 2, .status = 1});
  const long long calls_before = hostdev::call_count("cudaMemcpy");
  EXPECT_EQ(copy(), cudaSuccess);
  EXPECT_EQ(copy(), cudaSuccess);
  EXPECT_EQ(copy(), cudaErrorInvalidValue);
  EXPECT_EQ(copy(), cudaSuccess);
  EXPECT_EQ(hostdev::call_count("cudaMemcpy"), calls_before + 4);

  hostdev::plan_fault({.call = "transform_in_place"});
  const auto same = [](float x) { return x; };
  EXPECT_THROW(transform_in_place(memory, 1, same), std::runtime_error);
  transform_in_place(memory, 1, same);

  cusparseHandle_t handle = nullptr;
  hostdev::plan_fault({.call = "cusparseCreate", .status = CUSPARSE_STATUS_INTERNAL_ERROR});
  EXPECT_EQ(cusparseCreate(&handle), CUSPARSE_STATUS_INTERNAL_ERROR);
  EXPECT_EQ(cusparseCreate(&handle), CUSPARSE_STATUS_SUCCESS);
  EXPECT_EQ(hostdev::live_handles(), 1u);
  EXPECT_EQ(cusparseDestroy(handle), CUSPARSE_STATUS_SUCCESS);
  EXPECT_EQ(cusparseDestroy(handle), CUSPARSE_STATUS_NOT_INITIALIZED);
  EXPECT_EQ(cudaFree(memory), cudaSuccess);
}

TEST_F(Hostdev, SelectsAmongItsDevicesPerThread) {
  EXPECT_EQ(cudaSetDevice(1), cudaErrorInvalidDevice);
  EXPECT_EQ(hostdev::selected_device(), 0);
  hostdev::set_device_count(4);
  int count = 0;
  ASSERT_EQ(cudaGetDeviceCount(&count), cudaSuccess);
  EXPECT_EQ(count, 4);
  EXPECT_EQ(cudaSetDevice(3), cudaSuccess);
  EXPECT_EQ(hostdev::selected_device(), 3);
  std::thread([] { EXPECT_EQ(hostdev::selected_device(), 0); }).join();
  EXPECT_EQ(cudaSetDevice(0), cudaSuccess);
}

// The vendor's libraries report these; the stand-in must not be more patient.
TEST_F(Hostdev, RefusesParametersThatTheVendorRefuses) {
  const float one = 1;
  float* x = allocate(4);
  cublasHandle_t blas = nullptr;
  ASSERT_EQ(cublasCreate_v2(&blas), CUBLAS_STATUS_SUCCESS);
  const auto gemm = [&](cublasHandle_t handle, int lda) {
    return cublasSgemm_v2(handle, CUBLAS_OP_T, CUBLAS_OP_N, 1, 1, 2, &one, x, lda, x, 2, &one, x,
                          1);
  };
  EXPECT_EQ(gemm(blas, 1), CUBLAS_STATUS_INVALID_VALUE);
  EXPECT_EQ(gemm(nullptr, 2), CUBLAS_STATUS_NOT_INITIALIZED);
  EXPECT_EQ(cublasDestroy_v2(blas), CUBLAS_STATUS_SUCCESS);
  EXPECT_EQ(gemm(blas, 2), CUBLAS_STATUS_NOT_INITIALIZED);
  EXPECT_EQ(cudaFree(x), cudaSuccess);
}

TEST_F(HostdevDeathTest, CopiesStayInsideOneAllocationAndOnTheirSide) {
  std::vector<float> host(100);
  float* memory = allocate(10);
  float* neighbour = allocate(10);
  EXPECT_DEATH(cudaMemcpy(memory, host.data(), 41, cudaMemcpyHostToDevice),
               "cudaMemcpy: goes 1 bytes beyond the end of an allocation of 40");
  EXPECT_DEATH(cudaMemcpy(host.data(), memory + 5, 24, cudaMemcpyDeviceToHost), "goes 4 bytes");
  EXPECT_DEATH(cudaMemset(memory - 1, 0, 4), "cudaMemset: no live device allocation");
  EXPECT_DEATH(cudaMemcpy(host.data(), host.data(), 4, cudaMemcpyDeviceToHost), "no live device");
  EXPECT_DEATH(cudaMemcpy(memory, neighbour, 4, cudaMemcpyHostToDevice), "lies in device memory");
  cudaFree(memory);
  EXPECT_DEATH(cudaMemcpy(host.data(), memory, 4, cudaMemcpyDeviceToHost), "no live device");
  EXPECT_DEATH(cudaFree(memory), "cudaFree: not the start of a live device allocation");
  EXPECT_DEATH(cudaFree(neighbour + 1), "cudaFree: not the start");
  cudaFree(neighbour);
}

TEST_F(HostdevDeathTest, ProductsAndTransformsStayInsideOneAllocation) {
  const float one = 1;
  float* small = allocate(5);
  float* large = allocate(100);
  cublasHandle_t blas = nullptr;
  cublasCreate_v2(&blas);
  // 2 x 3 with leading dimension 2 needs 6 floats.
  EXPECT_DEATH(cublasSgemm_v2(blas, CUBLAS_OP_T, CUBLAS_OP_N, 2, 3, 4, &one, large, 4, large, 4,
                              &one, small, 2),
               "cublasSgemm_v2: goes 4 bytes beyond");
  EXPECT_DEATH(transform_in_place(small, 6, [](float x) { return x; }),
               "transform_in_place: goes 4 bytes beyond");
  cublasDestroy_v2(blas);
  cudaFree(small);
  cudaFree(large);
}

TEST_F(HostdevDeathTest, SparseProductsReadNoIndexOutside) {
  const float one = 1;
  const std::vector<int> offsets{0, 1, 2}, not_ascending{0, 2, 1}, columns{0, 3};
  int *offsets_dev = nullptr, *columns_dev = nullptr;
  cudaMalloc(&offsets_dev, 12);
  cudaMalloc(&columns_dev, 8);
  cudaMemcpy(offsets_dev, offsets.data(), 12, cudaMemcpyHostToDevice);
  cudaMemcpy(columns_dev, columns.data(), 8, cudaMemcpyHostToDevice);
  float* x = allocate(10);
  cusparseHandle_t handle = nullptr;
  cusparseMatDescr_t descr = nullptr;
  cusparseCreate(&handle);
  cusparseCreateMatDescr(&descr);
  const auto product = [&](int k, int nnz) {
    return cusparseScsrmm(handle, CUSPARSE_OPERATION_NON_TRANSPOSE, 2, 1, k, nnz, &one, descr, x,
                          offsets_dev, columns_dev, x, k, &one, x + 8, 2);
  };
  EXPECT_EQ(product(4, 2), CUSPARSE_STATUS_SUCCESS);
  EXPECT_DEATH(product(3, 2), "cusparseScsrmm: a column index lies outside");
  EXPECT_DEATH(product(4, 1), "cusparseScsrmm: the row offsets");
  cudaMemcpy(offsets_dev, not_ascending.data(), 12, cudaMemcpyHostToDevice);
  EXPECT_DEATH(product(4, 1), "cusparseScsrmm: the row offsets");
  cusparseDestroyMatDescr(descr);
  cusparseDestroy(handle);
  for (void* pointer :
       {static_cast<void*>(offsets_dev), static_cast<void*>(columns_dev), static_cast<void*>(x)})
    cudaFree(pointer);
}

TEST_F(HostdevDeathTest, LaunchesHaveAShapeThatAGpuTakes) {
  float* x = allocate(1);
  EXPECT_DEATH(launch(write_one, dim3(1024, 0), 128, 0, x),
               "launch: a GPU refuses a grid of 1024 x 0 x 1 blocks of 128 x 1 x 1");
  EXPECT_DEATH(launch(write_one, dim3(1, 65536), 128, 0, x), "launch: a GPU refuses a grid");
  EXPECT_DEATH(launch(write_one, 1, 1025, 0, x), "launch: a GPU refuses a grid");
  EXPECT_DEATH(launch(write_one, 1, dim3(1, 1, 65), 0, x), "launch: a GPU refuses a grid");
  launch(write_one, dim3(1, 65535), 1, 0, x);
  cudaFree(x);
}

TEST_F(HostdevDeathTest, MemoryBelongsToTheDeviceThatWasSelected) {
  hostdev::set_device_count(2);
  float* x = allocate(1);
  cudaSetDevice(1);
  EXPECT_DEATH(cudaMemset(x, 0, 4), "memory of device 0 used while device 1 is selected");
  cudaSetDevice(0);
  cudaFree(x);
}

// The mode is read once a process, hence the fresh process of a death test.
TEST_F(HostdevDeathTest, GuardedMemoryIsOpenToDeviceWorkOnly) {
  const auto guarded_run = [](auto mistake) {
    setenv("TALVIK_HOSTDEV_GUARD", "1", 1);
    float* x = allocate(8);
    float* freed = allocate(8);
    cudaFree(freed);
    float value = 0;
    launch(write_one, 1, 1, 7, x);
    transform_in_place(x, 8, [](float old) { return old + 1; });
    cudaMemcpy(&value, x + 7, 4, cudaMemcpyDeviceToHost);
    std::fprintf(stderr, "device work gave %g\n", value);
    mistake(x, freed);
    cudaFree(x);
    std::exit(0);
  };
  EXPECT_EXIT(guarded_run([](float*, float*) {}), testing::ExitedWithCode(0), "device work gave 2");
  EXPECT_DEATH(guarded_run([](float* x, float*) { *static_cast<volatile float*>(x) = 1; }),
               "device work gave 2");
  EXPECT_DEATH(guarded_run([](float*, float* freed) { launch(write_one, 1, 1, 0, freed); }),
               "device work gave 2");
  EXPECT_DEATH(guarded_run([](float* x, float*) { launch(write_one, 1, 1, 8, x); }),
               "device work gave 2");
}

// Beyond the size that is poisoned, an allocation ends at a page that nobody may touch.
TEST_F(HostdevDeathTest, LargeMemoryEndsWhereItEnds) {
  const int floats = (32 << 20) / sizeof(float);
  float* large = allocate(floats);
  float last = 0;
  launch(write_one, 1, 1, floats - 1, large);
  cudaMemcpy(&last, large + floats - 1, sizeof(float), cudaMemcpyDeviceToHost);
  EXPECT_EQ(last, 1);
  EXPECT_DEATH(launch(write_one, 1, 1, floats, large), "");
  cudaFree(large);
}

__global__ void record_cpu_thread(int* cpu_threads) {
  cpu_threads[blockIdx.x * blockDim.x + threadIdx.x] = omp_get_thread_num();
}

TEST_F(HostdevDeathTest, InterleavedNeighboursRunOnDifferentCpuThreads) {
  const auto interleaved_run = [] {
    setenv("TALVIK_HOSTDEV_INTERLEAVE", "1", 1);
    omp_set_num_threads(2);
    const int device_threads = 15;  // 3 blocks of 5: neighbours across blocks differ too
    std::vector<int> cpu_threads(device_threads, -1);
    launch(record_cpu_thread, 3, 5, cpu_threads.data());
    bool alternate = true;
    for (int i = 1; i < device_threads; ++i) alternate &= cpu_threads[i] != cpu_threads[i - 1];
    const std::set<int> seen(cpu_threads.begin(), cpu_threads.end());
    std::exit(alternate && seen == std::set<int>{0, 1} ? 0 : 1);
  };
  EXPECT_EXIT(interleaved_run(), testing::ExitedWithCode(0), "");
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
  const int found_a_race = 66;
  EXPECT_EXIT(racing_run(), testing::ExitedWithCode(found_a_race), "data race");
}
#endif
#endif

}  // namespace
}  // namespace talvik
