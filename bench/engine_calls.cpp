#include "engine_calls.hpp"

#include <cstdlib>
#include <numeric>
#include <utility>

namespace talvik::bench {
namespace {

constexpr bool from_vectors = false;  // precompute
constexpr bool on_cpu = false;        // use_gpu

}  // namespace

LoadedResident::LoadedResident(const World& world) {
  copy_raw_data_cpu(static_cast<int>(world.resident.ind.size()), plain_pointer(world.resident.ind),
                    plain_pointer(world.resident.weight), world.num_resident,
                    plain_pointer(world.resident.start));
  copy_vocabulary_cpu(world.voc_size, world.vec_size, plain_pointer(world.words));
}

LoadedResident::~LoadedResident() {
  remove_vocabulary_cpu();
  remove_raw_data_cpu();
}

void load_batch(const World& world) {
  copy_vectors2_cpu(static_cast<int>(world.queries.ind.size()), world.vec_size,
                    plain_pointer(world.X2), plain_pointer(world.queries.weight), world.num_queries,
                    plain_pointer(world.queries.start));
}

void remove_batch() { remove_vectors2_cpu(); }

void compute_block(int steps, bool precompute, float* Z) {
  if (steps <= 1) {
    ed_min_vocab_cpu(Z, steps, precompute);
  } else {
    ed_min_vocab_cpu_multi(Z, steps, precompute);
  }
}

void run_engine(const World& world, int steps, float* Z) {
  load_batch(world);
  compute_block(steps, from_vectors, Z);
  remove_batch();
}

size_t block_floats_of(const World& world) {
  return static_cast<size_t>(world.num_resident) * static_cast<size_t>(world.num_queries);
}

void run_matrix(const Collections& collections, const DocumentSet& resident,
                const DocumentSet& queries) {
  constexpr int k = 1, steps = 0;
  constexpr bool compute_topk = false;
  float* D = nullptr;
  cleanup_distribution_info();
  rwmd2_parallel(collections.voc_size, plain_pointer(collections.embeddings), collections.vec_size,
                 k, steps, from_vectors, resident, {}, static_cast<int>(resident.size()),
                 entries_of(resident), queries, {}, static_cast<int>(queries.size()),
                 entries_of(queries), &D, compute_topk, nullptr, on_cpu);
  std::free(D);
}

void run_two_way(const Collections& collections) {
  constexpr int k = 1, steps = 0;
  constexpr bool compute_topk = false;
  float* D = nullptr;
  rwmd2_twoway_wrapper(collections.voc_size, plain_pointer(collections.embeddings),
                       collections.vec_size, k, steps, collections.resident, {},
                       collections.queries, {}, &D, compute_topk, nullptr, on_cpu);
  std::free(D);
}

void run_lists(const Collections& collections, DocumentSet resident, DocumentSet queries, int k,
               const std::string& path) {
  constexpr int steps = 0;
  constexpr bool compute_topk = true;
  LabelList resident_labels = labels_of(resident), query_labels = labels_of(queries);
  const int num_resident = static_cast<int>(resident.size()), entries = entries_of(resident);
  const int num_queries = static_cast<int>(queries.size()), entries2 = entries_of(queries);
  cleanup_distribution_info();
  rwmd2_parallel(collections.voc_size, plain_pointer(collections.embeddings), collections.vec_size,
                 k, steps, from_vectors, std::move(resident), std::move(resident_labels),
                 num_resident, entries, std::move(queries), std::move(query_labels), num_queries,
                 entries2, nullptr, compute_topk, path.c_str(), on_cpu);
}

void run_two_way_lists(const Collections& collections, DocumentSet resident, DocumentSet queries,
                       int k, const std::string& path) {
  constexpr int steps = 0;
  constexpr bool compute_topk = true;
  LabelList resident_labels = labels_of(resident), query_labels = labels_of(queries);
  float* D = nullptr;
  rwmd2_twoway_wrapper(collections.voc_size, plain_pointer(collections.embeddings),
                       collections.vec_size, k, steps, std::move(queries), std::move(query_labels),
                       std::move(resident), std::move(resident_labels), &D, compute_topk,
                       path.c_str(), on_cpu);
  std::free(D);
}

LabelList labels_of(const DocumentSet& docs) {
  LabelList labels(docs.size());
  std::iota(labels.begin(), labels.end(), 0ul);
  return labels;
}

}  // namespace talvik::bench
