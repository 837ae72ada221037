// GPU engine: the data on the device, and the exported functions over them.  Compiled by the CUDA
// compiler, or by the host compiler against the stand-in of platform/.
#include <limits>
#include <memory>
#include <string>
#include <utility>  // exchange
#include <vector>

#include "internal/failure.hpp"
#include "libwmd/distinct_rows.hpp"
#include "libwmd/embedding_rows.hpp"
#include "libwmd/gpu/calls.cuh"
#include "libwmd/gpu/distance_block.cuh"
#include "libwmd/gpu/engine.hpp"
#include "libwmd/gpu/platform/device.hpp"
#include "talvik.hpp"

namespace talvik {

int dev_id = 0;

int voc_size = 0;
int vec_size = 0;
float* W_dev = nullptr;
float* RW_dev = nullptr;

int num_docs = 0;
int num_vecs = 0;
int* start_dev = nullptr;
int* ind_dev = nullptr;
float* weight_dev = nullptr;

int num_docs2 = 0;
int num_vecs2 = 0;
int* start2 = nullptr;
int* ind2_dev = nullptr;
float* weight2_dev = nullptr;
float* X2_dev = nullptr;
float* Rn2_dev = nullptr;

float* D_ground_dev = nullptr;

namespace {

// Per query entry of a batch in vector form, the number of its row among the distinct ones.
std::vector<int> row_ids2;

using internal::DenseLibrary;
using internal::DeviceArray;
using internal::elements;
using internal::upload;

// The squared norms of rows as they came; normalises the rows in place if that is set.
std::unique_ptr<float[]> prepare_rows(float* rows, int num_rows, int m) {
  auto norms = std::make_unique_for_overwrite<float[]>(num_rows);
  internal::norm_and_normalise(rows, num_rows, m, norms.get(), normalize_embeddings,
                               num_cpu_threads);
  return norms;
}

// Null under normalisation, where no formula reads norms.
DeviceArray<float> upload_norms(const float* norms, int count, const char* name) {
  return normalize_embeddings ? nullptr : upload(norms, count, name);
}

std::vector<int> number_rows(const float* rows, int m, const int* start, int count) {
  constexpr int no_limit = std::numeric_limits<int>::max();
  return internal::find_distinct_rows(rows, elements(m, sizeof(float)), start, count, no_limit,
                                      num_cpu_threads)
      .row_of_entry;
}

DeviceArray<float> allocate_ground_distances() {
  const std::size_t bytes = elements(voc_size, voc_size) * sizeof(float);
  void* matrix = nullptr;
  if (bytes > 0 && cudaMalloc(&matrix, bytes) != cudaSuccess) {
    internal::fail("Failed to allocate GPU memory for D_ground_dev");
  }
  return DeviceArray<float>(static_cast<float*>(matrix));
}

}  // namespace

void report_memory_allocation_error(unsigned long size, std::string s) {
  std::size_t free_bytes = 0, total_bytes = 0;
  cudaMemGetInfo(&free_bytes, &total_bytes);
  internal::fail(s + "\nSize of memory requested: " + std::to_string(size) + "\nFree mem = " +
                 std::to_string(free_bytes) + ", Total = " + std::to_string(total_bytes));
}

int count_gpu_devices() {
  int count = 0;
  return cudaGetDeviceCount(&count) == cudaSuccess ? count : 0;
}

bool gpu_is_emulated() { return device_is_stand_in; }

int set_device_id(int device_id) {
  dev_id = device_id;
  cudaSetDevice(device_id);
  return 1;
}

int copy_vocabulary(int device_id, int v_size, int m, float* W) {
  set_device_id(device_id);
  const auto RW = prepare_rows(W, v_size, m);
  W_dev = upload(W, elements(v_size, m), "W").release();
  RW_dev = upload_norms(RW.get(), v_size, "RW").release();
  vec_size = m;
  voc_size = v_size;
  return 1;
}

int remove_vocabulary() {
  cudaFree(W_dev);
  if (!normalize_embeddings) cudaFree(RW_dev);
  return 1;
}

int copy_raw_data(int n, int* ind, float* weight, int num_docs_, int* start) {
  num_docs = num_docs_;
  ind_dev = upload(ind, n, "ind").release();
  weight_dev = upload(weight, n, "weight").release();
  start_dev = upload(start, elements(1, num_docs_) + 1, "start").release();
  num_vecs = n;
  return 1;
}

int remove_raw_data() {
  cudaFree(ind_dev);
  cudaFree(weight_dev);
  cudaFree(start_dev);
  return 1;
}

int copy_raw_data2(int n2, int* ind2, float* weight2, int num_docs2_, int* start2_) {
  num_docs2 = num_docs2_;
  ind2_dev = upload(ind2, n2, "ind2").release();
  weight2_dev = upload(weight2, n2, "weight2").release();
  num_vecs2 = n2;
  start2 = start2_;
  return 1;
}

int remove_raw_data2() {
  cudaFree(ind2_dev);
  cudaFree(weight2_dev);
  return 1;
}

// Host memory that cannot be had throws; it is all asked for before the state changes.
int copy_vectors2(int n2, int m, float* X2, float* weight2, int num_docs2_, int* start2_) {
  const auto Rn2 = prepare_rows(X2, n2, m);
  row_ids2 = number_rows(X2, m, start2_, num_docs2_);
  num_docs2 = num_docs2_;
  X2_dev = upload(X2, elements(n2, m), "X2").release();
  weight2_dev = upload(weight2, n2, "weight2").release();
  Rn2_dev = upload_norms(Rn2.get(), n2, "Rn2").release();
  num_vecs2 = n2;
  start2 = start2_;
  return 1;
}

int remove_vectors2() {
  cudaFree(X2_dev);
  if (!normalize_embeddings) cudaFree(Rn2_dev);
  cudaFree(weight2_dev);
  row_ids2 = {};
  return 1;
}

int copy_ground_distances(int voc_size_, float* D_ground) {
  voc_size = voc_size_;
  if (D_ground_dev) return 1;
  D_ground_dev = allocate_ground_distances().release();
  cudaMemcpy(D_ground_dev, D_ground, elements(voc_size, voc_size) * sizeof(float),
             cudaMemcpyHostToDevice);
  return 1;
}

int remove_ground_distances() {
  internal::free_on_device(DeviceArray<float>(std::exchange(D_ground_dev, nullptr)),
                           "D_ground_dev");
  return 1;
}

int compute_ground_distances(float* D_ground) {
  if (voc_size <= 0) return 1;
  internal::forget_earlier_errors();
  const DenseLibrary dense;
  DeviceArray<float> matrix = allocate_ground_distances();
  const internal::DeviceRows words{voc_size, W_dev, RW_dev};
  internal::compute_word_distances(dense, words, words, matrix.get());
  if (D_ground) {
    cudaMemcpy(D_ground, matrix.get(), elements(voc_size, voc_size) * sizeof(float),
               cudaMemcpyDeviceToHost);
  }
  internal::require_launched();
  internal::free_on_device(std::move(matrix), "D_ground_dev");
  return 1;
}

int ed_min_vocab_multi(float* Z, int delta_iterations, bool precompute) {
  internal::compute_gpu_block(Z, delta_iterations, precompute, internal::GpuBudget{});
  return 1;
}

namespace internal {

void compute_gpu_block(float* Z, int delta_iterations, bool precompute, const GpuBudget& budget) {
  compute_block(Z, delta_iterations, precompute, budget, row_ids2);
}

}  // namespace internal

}  // namespace talvik
