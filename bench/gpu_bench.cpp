// The GPU engine's block on a world of text: per step what it has to do, and how long it takes;
// then the whole block beside the CPU engine's, in both directions of a two-way run.  Without a GPU
// the predictions alone; on the stand-in also what has been asked of the device, which computes
// nothing.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "engine_calls.hpp"
#include "gpu_predictions.hpp"
#include "libwmd/gpu/engine.hpp"
#include "libwmd/gpu/platform/device.hpp"
#include "talvik.hpp"
#ifndef TALVIK_DEVICE_CUDA
#include "libwmd/gpu/platform/hostdev_control.hpp"
#endif

namespace talvik::bench {
namespace {

using internal::GpuStep;

constexpr int step_counts[] = {0, 1, 3, 7};

double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// --- Per step: seconds, or on the stand-in what is counted.

#ifdef TALVIK_DEVICE_CUDA
struct Counts {};
Counts counts_now() { return {}; }
#else
using hostdev::Counts;
Counts counts_now() { return hostdev::counts(); }
#endif

struct Moment {
  double time;
  Counts counts;
};

struct Stopwatch {
  GpuStep step = GpuStep::finished;
  Moment began{};
  std::map<GpuStep, std::vector<Moment>> taken;
};
Stopwatch stopwatch;

#ifdef TALVIK_DEVICE_CUDA
Counts difference(const Counts&, const Counts&) { return {}; }
#else
Counts difference(const Counts& a, const Counts& b) {
  return {a.launches - b.launches,
          a.dense_products - b.dense_products,
          a.sparse_products - b.sparse_products,
          a.multiply_adds - b.multiply_adds,
          a.copies - b.copies,
          a.bytes_to_device - b.bytes_to_device,
          a.bytes_to_host - b.bytes_to_host,
          a.waits - b.waits,
          a.allocations - b.allocations};
}
#endif

// Waits for what runs, so that a step's time is its own.
void begin_step(GpuStep step) {
  const Counts counts = counts_now();
  cudaDeviceSynchronize();
  const double time = now();
  if (stopwatch.step != GpuStep::finished) {
    stopwatch.taken[stopwatch.step].push_back(
        {time - stopwatch.began.time, difference(counts, stopwatch.began.counts)});
  }
  stopwatch.step = step;
  stopwatch.began = {now(), counts_now()};
}

double seconds_of(GpuStep step) {
  double sum = 0;
  for (const Moment& part : stopwatch.taken[step]) sum += part.time;
  return sum;
}

// --- The device's own rates.

template <class Body>
double best_of(int repetitions, const Body& body) {
  double best = INFINITY;
  for (int i = 0; i < repetitions; ++i) {
    cudaDeviceSynchronize();
    const double began = now();
    body();
    cudaDeviceSynchronize();
    best = std::min(best, now() - began);
  }
  return best;
}

DeviceRates measure_rates(int dims) {
  constexpr size_t bytes = size_t{1} << 30, host_bytes = size_t{1} << 28;
  constexpr int side = 16384, repetitions = 5;
  float *a = nullptr, *b = nullptr;
  if (cudaMalloc(&a, bytes) != cudaSuccess || cudaMalloc(&b, bytes) != cudaSuccess) {
    std::fprintf(stderr, "gpu_bench: the device has less than 2 GiB\n");
    std::exit(1);
  }
  cudaMemset(a, 0, bytes);
  std::vector<char> host(host_bytes);
  DeviceRates rates{};
  rates.device_bytes = 2.0 * bytes / best_of(repetitions, [&] {
                         cudaMemcpy(b, a, bytes, cudaMemcpyDeviceToDevice);
                       });
  rates.upload = host_bytes / best_of(repetitions, [&] {
                   cudaMemcpy(b, host.data(), host_bytes, cudaMemcpyHostToDevice);
                 });
  rates.download = host_bytes / best_of(repetitions, [&] {
                     cudaMemcpy(host.data(), a, host_bytes, cudaMemcpyDeviceToHost);
                   });
  cublasHandle_t handle = nullptr;
  cublasCreate_v2(&handle);
  const float one = 1, zero = 0;
  cublasStatus_t status = CUBLAS_STATUS_SUCCESS;
  const double product = best_of(repetitions, [&] {
    status = cublasSgemm_v2(handle, CUBLAS_OP_T, CUBLAS_OP_N, side, side, dims, &one, a, dims, a,
                            dims, &zero, b, side);
  });
  cublasDestroy_v2(handle);
  cudaFree(a);
  cudaFree(b);
  if (status != CUBLAS_STATUS_SUCCESS) {
    std::fprintf(stderr, "gpu_bench: the dense product failed: %d\n", static_cast<int>(status));
    std::exit(1);
  }
  rates.multiply_adds = 1.0 * side * side * dims / product;
  std::printf(
      "rates: memory %.0f GB/s, product %.1f T multiply-adds/s, up %.1f GB/s, down %.1f "
      "GB/s (pageable)\n",
      1e-9 * rates.device_bytes, 1e-12 * rates.multiply_adds, 1e-9 * rates.upload,
      1e-9 * rates.download);
  return rates;
}

// --- The engine on a world.

void load_resident(const World& world) {
  constexpr int device = 0;
  copy_vocabulary(device, world.voc_size, world.vec_size, plain_pointer(world.words));
  copy_raw_data(static_cast<int>(world.resident.ind.size()), plain_pointer(world.resident.ind),
                plain_pointer(world.resident.weight), world.num_resident,
                plain_pointer(world.resident.start));
}

// As the pipelines do: the rows of the words, once each.
void load_gpu_batch(const World& world, const std::vector<float>& embeddings) {
  internal::copy_words2(static_cast<int>(world.queries.ind.size()), world.vec_size,
                        world.queries.ind.data(), embeddings.data(), world.queries.weight.data(),
                        world.num_queries, plain_pointer(world.queries.start));
}

void compute(int steps, float* Z) {
  constexpr bool precompute = false;
  stopwatch = {};
  internal::compute_gpu_block(Z, steps, precompute, internal::GpuBudget{}, begin_step);
}

#ifndef TALVIK_DEVICE_CUDA
void print_counts(const Counts& sum, double seconds) {
  std::printf(" %9lld %9lld %6lld %6lld %8.2f", sum.launches, sum.dense_products, sum.copies,
              sum.waits, 1e3 * seconds);
}
#endif

void print_steps(const std::vector<Work>& works, const DeviceRates* rates, bool counted) {
  std::printf("  %-8s %11s %14s %9s %9s", "step", "memory GB", "10^9 mult-adds", "up MB",
              "down MB");
  if (rates) std::printf(" %9s %11s", "floor ms", "measured ms");
  // On the stand-in time is the host's own part: it computes nothing for the device.
  if (counted) {
    std::printf(" %9s %9s %6s %6s %8s", "launches", "products", "copies", "waits", "host ms");
  }
  std::printf("\n");
  double floor = 0, measured = 0;
  [[maybe_unused]] Counts total{};
  for (const Work& work : works) {
    std::printf("  %-8s %11.3f %14.1f %9.2f %9.2f", work.name.c_str(), 1e-9 * work.device_bytes,
                1e-9 * work.multiply_adds, 1e-6 * work.upload, 1e-6 * work.download);
    if (rates) {
      floor += floor_of(work, *rates);
      measured += seconds_of(work.step);
      std::printf(" %9.3f %11.3f", 1e3 * floor_of(work, *rates), 1e3 * seconds_of(work.step));
    }
#ifndef TALVIK_DEVICE_CUDA
    if (counted) {
      Counts sum{};
      for (const Moment& part : stopwatch.taken[work.step]) {
        sum.launches += part.counts.launches;
        sum.dense_products += part.counts.dense_products + part.counts.sparse_products;
        sum.copies += part.counts.copies;
        sum.waits += part.counts.waits;
      }
      print_counts(sum, seconds_of(work.step));
      measured += seconds_of(work.step);
      total.launches += sum.launches;
      total.dense_products += sum.dense_products;
      total.copies += sum.copies;
      total.waits += sum.waits;
    }
#endif
    std::printf("\n");
  }
#ifndef TALVIK_DEVICE_CUDA
  if (counted) {
    std::printf("  %-54s", "sum");
    print_counts(total, measured);
    std::printf("\n");
  }
#endif
  if (rates) std::printf("  %-8s %56.3f %11.3f\n", "sum", 1e3 * floor, 1e3 * measured);
}

#ifndef TALVIK_DEVICE_CUDA
void print_total(const char* what) {
  const Counts& sum = hostdev::counts();
  std::printf(
      "  %s: %lld launches, %lld dense products of %.4g multiply-adds, %lld sparse "
      "products, %lld copies, %.2f MB up, %.2f MB down, %lld waits, %lld allocations\n",
      what, sum.launches, sum.dense_products, static_cast<double>(sum.multiply_adds),
      sum.sparse_products, sum.copies, 1e-6 * static_cast<double>(sum.bytes_to_device),
      1e-6 * static_cast<double>(sum.bytes_to_host), sum.waits, sum.allocations);
  hostdev::reset_counts();
}
#endif

// Loads the batch and computes, on either engine, as a pipeline does.
void compare_with_cpu(const World& world, const std::vector<float>& embeddings,
                      const char* direction) {
  constexpr int repetitions = 3, cpu_repetitions = 2;
  constexpr float most_apart = 1e-3f;
  std::vector<float> Z(block_floats_of(world)), cpu_Z(Z.size());
  const LoadedResident on_cpu(world);
  load_resident(world);
  for (const int steps : step_counts) {
    if (steps > 1) continue;  // the engines' rules differ
    const double gpu = best_of(repetitions, [&] {
      load_gpu_batch(world, embeddings);
      ed_min_vocab_multi(Z.data(), steps, false);
      remove_vectors2();
    });
    const double cpu = best_of(cpu_repetitions, [&] { run_engine(world, steps, cpu_Z.data()); });
    float apart = 0;
    for (size_t i = 0; i < Z.size() && !std::isnan(apart); ++i) {
      const float error = std::fabs(Z[i] - cpu_Z[i]) / std::max(cpu_Z[i], 1.0f);
      if (!(error <= apart)) apart = error;
    }
    std::printf(
        "%s, %d steps: GPU %.1f ms, CPU (%d threads) %.1f ms, ratio %.4f; furthest apart "
        "%.1e%s\n",
        direction, steps, 1e3 * gpu, num_cpu_threads, 1e3 * cpu, gpu / cpu, apart,
        apart <= most_apart ? "" : " FAILED");
    if (!(apart <= most_apart)) std::exit(1);
  }
  remove_raw_data();
  remove_vocabulary();
}

int run(int threads) {
  num_cpu_threads = threads;
  Collections collections = make_collections("text");
  const World world = world_of("text", collections);
  std::printf("%s\n", description_of(world).c_str());
  const bool real = count_gpu_devices() > 0 && !gpu_is_emulated();
  const bool counted = gpu_is_emulated();
  DeviceRates rates{};
  if (real) rates = measure_rates(world.vec_size);
  if (!real) std::printf("No GPU: predictions only, nothing was measured.\n");
#ifndef TALVIK_DEVICE_CUDA
  hostdev::set_execution(false);
  load_resident(world);
  hostdev::reset_counts();
  const double began = now();
  load_gpu_batch(world, collections.embeddings);
  std::printf("host part of loading a batch, %d threads: %.1f ms\n", threads,
              1e3 * (now() - began));
  std::printf("Counted on the stand-in, which computed nothing:\n");
  print_total("batch loaded");
#else
  if (real) {
    load_resident(world);
    load_gpu_batch(world, collections.embeddings);
  }
#endif
  std::vector<float> Z(block_floats_of(world));
  for (const int steps : step_counts) {
    std::printf("%d steps: %.0f distinct rows\n", steps, rows_of_block(world, steps));
    if (real) compute(steps, Z.data());  // the first use of everything
#ifndef TALVIK_DEVICE_CUDA
    hostdev::reset_counts();
    ed_min_vocab_multi(Z.data(), steps, false);  // compute() adds a wait at every step
    print_total("block");
#endif
    if (real || counted) compute(steps, Z.data());
    print_steps(predict_block(world, steps), real ? &rates : nullptr, counted);
  }
  if (real || counted) {
    remove_vectors2();
    remove_raw_data();
    remove_vocabulary();
  }
  if (!real) return 0;
  compare_with_cpu(world, collections.embeddings, "there");
  std::swap(collections.resident, collections.queries);
  compare_with_cpu(world_of("text", collections), collections.embeddings, "back");
  return 0;
}

}  // namespace
}  // namespace talvik::bench

int main(int argc, char** argv) {
  const int threads = argc == 2 ? std::atoi(argv[1]) : 2;
  if (argc > 2 || threads < 1) {
    std::fprintf(stderr, "usage: gpu_bench [THREADS]\n");
    return 2;
  }
  return talvik::bench::run(threads);
}
