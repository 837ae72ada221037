// GPU engine: the data on the device, and the exported functions over them.  Compiled by the CUDA
// compiler, or by the host compiler against the stand-in of platform/.
#include <algorithm>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "internal/failure.hpp"
#include "internal/team.hpp"
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

using internal::DenseLibrary;
using internal::DeviceArray;
using internal::elements;

// Owns what the exported pointers point to.
struct HeldData {
  DeviceArray<float> W, RW;  // vocabulary

  DeviceArray<int> ind, start;  // resident collection
  DeviceArray<float> weight;

  DeviceArray<int> ind2;       // query batch: index form
  DeviceArray<float> X2, Rn2;  // vector form: a row per entry, or per distinct one
  DeviceArray<float> weight2;  // both forms

  DeviceArray<float> D_ground;

  internal::EmbeddingHashes hashes;  // vocabulary, and query batch in vector form
  internal::QueryRows query_rows;    // vector form
};

// Never destroyed: when static objects are, the CUDA runtime may be gone.
HeldData& held = *new HeldData;

template <class T>
T* hold(DeviceArray<T>& owner, const T* values, internal::Index count, const char* name) {
  owner = internal::upload(values, count, name);
  return owner.get();
}

// Null under normalisation, where no formula reads norms.
float* hold_norms(DeviceArray<float>& owner, const float* norms, int count, const char* name) {
  return normalize_embeddings ? nullptr : hold(owner, norms, count, name);
}

// The squared norms of rows as they came, 0 for rows of a length below 1; normalises the rows in
// place if that is set.
std::unique_ptr<float[]> prepare_rows(float* rows, int num_rows, int m) {
  auto norms = std::make_unique_for_overwrite<float[]>(num_rows);
  internal::norm_and_normalise(rows, num_rows, std::max(m, 0), norms.get(), normalize_embeddings,
                               num_cpu_threads);
  return norms;
}

std::vector<internal::RowHash> hash_rows(const float* rows, int num_rows, int m) {
  if (num_rows < 0) throw std::bad_array_new_length();
  return internal::hash_rows(rows, elements(std::max(m, 0), sizeof(float)), num_rows,
                             num_cpu_threads);
}

// One pass over all entries: the offsets of documents are not needed for it.
internal::DistinctRows number_rows(const void* rows, internal::Index row_bytes, int num_rows) {
  if (num_rows < 0) throw std::bad_array_new_length();
  constexpr int no_limit = std::numeric_limits<int>::max(), one_doc = 1;
  const int start[] = {0, num_rows};
  return internal::find_distinct_rows(rows, row_bytes, start, one_doc, no_limit, num_cpu_threads);
}

// Keeps a batch of n2 entries in vector form, of so many rows.
void hold_vectors2(int n2, int rows, int m, const float* X2, const float* norms,
                   const float* weight2) {
  X2_dev = hold(held.X2, X2, elements(rows, m), "X2");
  weight2_dev = hold(held.weight2, weight2, n2, "weight2");
  Rn2_dev = hold_norms(held.Rn2, norms, rows, "Rn2");
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

// Every copy drops what is still held: a run that ran out of host memory has released nothing.  It
// takes the host memory it needs before that, so that a failure leaves the state as it was.

int copy_vocabulary(int device_id, int v_size, int m, float* W) {
  set_device_id(device_id);
  std::vector<internal::RowHash> hash = hash_rows(W, v_size, m), scaled_hash;
  const auto RW = prepare_rows(W, v_size, m);
  if (normalize_embeddings) scaled_hash = hash_rows(W, v_size, m);
  remove_vocabulary();
  W_dev = hold(held.W, W, elements(v_size, m), "W");
  RW_dev = hold_norms(held.RW, RW.get(), v_size, "RW");
  held.hashes.word = std::move(hash);
  held.hashes.scaled_word = std::move(scaled_hash);
  vec_size = m;
  voc_size = v_size;
  return 1;
}

int remove_vocabulary() {
  held.W.reset();
  held.RW.reset();
  held.hashes.word = held.hashes.scaled_word = {};
  return 1;
}

int copy_raw_data(int n, int* ind, float* weight, int num_docs_, int* start) {
  remove_raw_data();
  num_docs = num_docs_;
  ind_dev = hold(held.ind, ind, n, "ind");
  weight_dev = hold(held.weight, weight, n, "weight");
  start_dev = hold(held.start, start, elements(1, num_docs_) + 1, "start");
  num_vecs = n;
  return 1;
}

int remove_raw_data() {
  held.ind.reset();
  held.weight.reset();
  held.start.reset();
  return 1;
}

int copy_raw_data2(int n2, int* ind2, float* weight2, int num_docs2_, int* start2_) {
  remove_raw_data2();
  num_docs2 = num_docs2_;
  ind2_dev = hold(held.ind2, ind2, n2, "ind2");
  weight2_dev = hold(held.weight2, weight2, n2, "weight2");
  num_vecs2 = n2;
  start2 = start2_;
  return 1;
}

int remove_raw_data2() {
  held.ind2.reset();
  held.weight2.reset();
  return 1;
}

int copy_vectors2(int n2, int m, float* X2, float* weight2, int num_docs2_, int* start2_) {
  std::vector<internal::RowHash> hash = hash_rows(X2, n2, m);
  const auto Rn2 = prepare_rows(X2, n2, m);
  internal::DistinctRows distinct = number_rows(X2, elements(std::max(m, 0), sizeof(float)), n2);
  remove_vectors2();
  num_docs2 = num_docs2_;
  hold_vectors2(n2, n2, m, X2, Rn2.get(), weight2);
  held.hashes.row = std::move(hash);
  held.query_rows = {.distinct = std::move(distinct), .held_by_entry = true};
  num_vecs2 = n2;
  start2 = start2_;
  return 1;
}

int remove_vectors2() {
  held.X2.reset();
  held.Rn2.reset();
  held.weight2.reset();
  held.hashes.row = {};
  held.query_rows = {};
  return 1;
}

int copy_ground_distances(int voc_size_, float* D_ground) {
  voc_size = voc_size_;
  if (D_ground_dev) return 1;
  held.D_ground = allocate_ground_distances();
  D_ground_dev = held.D_ground.get();
  cudaMemcpy(D_ground_dev, D_ground, elements(voc_size, voc_size) * sizeof(float),
             cudaMemcpyHostToDevice);
  return 1;
}

int remove_ground_distances() {
  internal::free_on_device(std::move(held.D_ground), "D_ground_dev");
  D_ground_dev = nullptr;
  return 1;
}

int compute_ground_distances(float* D_ground) {
  if (voc_size <= 0) return 1;
  remove_ground_distances();  // of a run that ran out of host memory
  internal::forget_earlier_errors();
  const DenseLibrary dense;
  DeviceArray<float> matrix = allocate_ground_distances();
  const internal::DeviceRows words{voc_size, W_dev, RW_dev};
  const internal::WordTile all{0, voc_size};
  const int rows_at_once = internal::rows_of_product(internal::GpuBudget{}, voc_size);
  internal::multiply_rows(dense, words, all, words, rows_at_once, matrix.get());
  internal::convert_products(words, all, words, matrix.get());
  constexpr const internal::EqualRows* every_word_and_itself = nullptr;
  constexpr bool products = false;
  internal::set_pairs_of_equal_rows(words, all, words, every_word_and_itself, voc_size, products,
                                    matrix.get());
  internal::require_launched();
  if (D_ground) {
    const std::size_t bytes = elements(voc_size, voc_size) * sizeof(float);
    if (cudaMemcpy(D_ground, matrix.get(), bytes, cudaMemcpyDeviceToHost) != cudaSuccess) {
      internal::fail("Failed to copy D_ground");
    }
  }
  internal::free_on_device(std::move(matrix), "D_ground_dev");
  return 1;
}

int ed_min_vocab_multi(float* Z, int delta_iterations, bool precompute) {
  internal::compute_gpu_block(Z, delta_iterations, precompute, internal::GpuBudget{});
  return 1;
}

namespace internal {

void compute_gpu_block(float* Z, int delta_iterations, bool precompute, const GpuBudget& budget,
                       GpuStepBegins begins) {
  compute_block({.Z = Z,
                 .steps = delta_iterations,
                 .precompute = precompute,
                 .budget = budget,
                 .begins = begins},
                held.query_rows, held.hashes);
}

void copy_words2(int n2, int m, const int* ind2, const float* embeddings, const float* weight2,
                 int num_docs2_, int* start2_) {
  DistinctRows distinct = number_rows(ind2, sizeof(int), n2);
  const int rows = static_cast<int>(distinct.entry_of_row.size()), floats = std::max(m, 0);
  const auto X2 = std::make_unique_for_overwrite<float[]>(elements(rows, floats));
  for_each_share(num_cpu_threads, rows, [&](int first, int last, int) {
    for (int r = first; r < last; ++r) {
      std::copy_n(embeddings + elements(ind2[distinct.entry_of_row[r]], floats), floats,
                  X2.get() + elements(r, floats));
    }
  });
  std::vector<RowHash> hash =
      hash_rows(X2.get(), elements(floats, sizeof(float)), rows, num_cpu_threads);
  const auto Rn2 = prepare_rows(X2.get(), rows, m);
  remove_vectors2();
  num_docs2 = num_docs2_;
  hold_vectors2(n2, rows, m, X2.get(), Rn2.get(), weight2);
  held.hashes.row = std::move(hash);
  held.query_rows = {.distinct = std::move(distinct), .held_by_entry = false};
  num_vecs2 = n2;
  start2 = start2_;
}

}  // namespace internal

}  // namespace talvik
