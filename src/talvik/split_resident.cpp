// The split-resident pipeline: every process holds a group of the resident collection and runs all
// queries against it.
#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

#include "internal/failure.hpp"
#include "internal/index.hpp"
#include "internal/team.hpp"
#include "talvik/pipelines.hpp"

namespace talvik {
namespace internal {
namespace {

int init(const RunParameters& run, const DocumentSet& docs, int num_docs, int num_words) {
  ensure_process_group();
  require_documents("resident", docs, num_docs);
  auto new_split = guard_new_split();
  if (!grp_start) load_balancing(docs, num_docs, num_words);
  require_split_of(num_docs);
  const int result = load_resident_documents(run, docs, grp_start[myid], grp_length[myid]);
  new_split.dismiss();
  return result;
}

// The batch size of every process, so that all merge the same queries at the same time: bounded by
// the largest group, whose size every process knows.
int common_batch(const RunParameters& run, const LabelledDocuments& queries) {
  const int largest_group = *std::max_element(grp_length, grp_length + num_procs);
  return queries_per_batch(run.budget_floats, queries.num_docs, largest_group,
                           average_vector_floats(run, queries.num_words, queries.num_docs));
}

// D_trans[i*num_queries + first_query + q] = Z[q*rows + i], in tiles, because one of the two
// matrices is always walked across its rows.
//   2 rows, the second batch (queries 2 and 3) of 4 queries, d_qi from query q to document i:
//   Z = d20 d21 d30 d31      D_trans = . . d20 d30 . . d21 d31
void transpose_block(const DistanceBlock& block, int rows, int num_queries, float* D_trans) {
  constexpr int tile = 32;
  for_each_share(num_cpu_threads, rows, [&](int first, int last, int) {
    for (int i0 = first; i0 < last; i0 += tile) {
      const int i_end = std::min(i0 + tile, last);
      for (int q0 = 0; q0 < block.num_queries; q0 += tile) {
        const int q_end = std::min(q0 + tile, block.num_queries);
        for (int i = i0; i < i_end; ++i) {
          float* row = D_trans + elements(i, num_queries) + block.first_query;
          for (int q = q0; q < q_end; ++q) row[q] = block.Z[elements(q, rows) + i];
        }
      }
    }
  });
}

// The caller releases the matrix with free().
float* allocate_matrix(std::size_t bytes) {
  auto* matrix = static_cast<float*>(std::calloc(bytes, 1));
  if (!matrix && bytes > 0) {
    fail("Failed to allocate memory for D_trans: " + std::to_string(bytes));
  }
  return matrix;
}

int query_matrix(const RunParameters& run, const LabelledDocuments& queries, const BatchPlan& plan,
                 float** D_out) {
  const std::size_t bytes = elements(plan.num_resident, queries.num_docs) * sizeof(float);
  *D_out = allocate_matrix(bytes);
  auto matrix = guard_matrix(D_out);
  run_batches(run, queries, plan, [&](const DistanceBlock& block) {
    transpose_block(block, plan.num_resident, queries.num_docs, *D_out);
    return NeighbourLists{};
  });
  matrix.dismiss();
  return static_cast<int>(bytes);
}

int query_topk(const RunParameters& run, const LabelList& resident_labels,
               const LabelledDocuments& queries, const BatchPlan& plan, int k) {
  std::optional<ResultFile> file;
  if (myid == 0) {
    if (k > 0) {
      require_labels("resident", resident_labels, documents_split());
      require_labels("query", queries.labels, queries.num_docs);
    }
    file = open_result_file(result_path(run));
  }
  const ListBuffers buffers = allocate_lists(plan.batch, k);
  run_batches(run, queries, plan, [&](const DistanceBlock& block) {
    sort_cpu_parallel(block.num_queries, plan.num_resident, k, block.Z, buffers.ind.get(),
                      buffers.val.get());
    if (!file) return NeighbourLists{};
    const NeighbourLists lists{block.first_query, block.num_queries, k, buffers.ind.get(),
                               buffers.val.get()};
    write_lists(*file, lists, queries.labels, resident_labels);
    return lists;
  });
  if (file) close_result_file(std::move(*file));
  return 0;
}

// The engine holds the resident documents; only their labels are passed.
// @param num_resident_docs  bounds the lists, nothing else
int query(const RunParameters& run, int num_resident_docs, const LabelList& resident_labels,
          const LabelledDocuments& queries, float** D_out) {
  documents_split();
  require_documents("query", queries.docs, queries.num_docs);
  const BatchPlan plan{.first_query = 0,
                       .num_queries = queries.num_docs,
                       .num_resident = grp_length[myid],
                       .batch = common_batch(run, queries)};
  if (!run.compute_topk) return query_matrix(run, queries, plan, D_out);
  return query_topk(run, resident_labels, queries, plan, list_length(run.k, num_resident_docs));
}

}  // namespace

int split_resident_run(const RunParameters& run, const LabelledDocuments& resident,
                       const LabelledDocuments& queries, float** D_out) {
  auto new_split = guard_new_split();
  init(run, resident.docs, resident.num_docs, resident.num_words);
  const Guard release([&] { release_resident_documents(run); });
  query(run, resident.num_docs, resident.labels, queries, D_out);
  new_split.dismiss();
  return 0;
}

}  // namespace internal

int rwmd2_parallel(int voc_size, float* embeddings, int vec_size, int k, int delta_iterations,
                   bool precompute, DocumentSet docs1, LabelList labels1, int num_docs1,
                   int num_words1, DocumentSet docs2, LabelList labels2, int num_docs2,
                   int num_words2, float** D_out, bool compute_topk, const char* output_file,
                   bool use_gpu) {
  return internal::split_resident_run({.voc_size = voc_size,
                                       .embeddings = embeddings,
                                       .vec_size = vec_size,
                                       .k = k,
                                       .delta_iterations = delta_iterations,
                                       .precompute = precompute,
                                       .compute_topk = compute_topk,
                                       .output_file = output_file,
                                       .use_gpu = use_gpu},
                                      {docs1, labels1, num_docs1, num_words1},
                                      {docs2, labels2, num_docs2, num_words2}, D_out);
}

int rwmd2_parallel_init(int voc_size, float* embeddings, int vec_size, bool precompute,
                        DocumentSet docs1, LabelList /*labels1*/, int num_docs1, int num_words1,
                        bool use_gpu) {
  return internal::init({.voc_size = voc_size,
                         .embeddings = embeddings,
                         .vec_size = vec_size,
                         .precompute = precompute,
                         .use_gpu = use_gpu},
                        docs1, num_docs1, num_words1);
}

int rwmd2_parallel_query(float* embeddings, int vec_size, int k, int delta_iterations,
                         bool precompute, int num_docs1, LabelList labels1, DocumentSet docs2,
                         LabelList labels2, int num_docs2, int num_words2, float** D_out,
                         bool compute_topk, const char* output_file, bool use_gpu) {
  return internal::query({.embeddings = embeddings,
                          .vec_size = vec_size,
                          .k = k,
                          .delta_iterations = delta_iterations,
                          .precompute = precompute,
                          .compute_topk = compute_topk,
                          .output_file = output_file,
                          .use_gpu = use_gpu},
                         num_docs1, labels1, {docs2, labels2, num_docs2, num_words2}, D_out);
}

int rwmd2_parallel_cleanup(bool use_gpu, bool precompute) {
  return internal::release_resident_documents({.precompute = precompute, .use_gpu = use_gpu});
}

}  // namespace talvik
