// The scale-out pipeline: every process holds the whole resident collection and answers its own
// group of the queries.
#include <optional>
#include <string>
#include <utility>

#include "internal/index.hpp"
#include "internal/team.hpp"
#include "talvik/pipelines.hpp"

namespace talvik {
namespace internal {
namespace {

int init(const RunParameters& run, const DocumentSet& docs, int num_docs) {
  ensure_process_group();
  require_documents("resident", docs, num_docs);
  return load_resident_documents(run, docs, 0, num_docs);
}

std::string own_result_path(const RunParameters& run) {
  if (!run.output_file) return result_path(run);
  return result_path(run) + ".thread" + std::to_string(local_id) + "-" + std::to_string(myid);
}

// Block and matrix both receive the larger value; a NaN in the block leaves the matrix as it is.
void merge_maximum(const DistanceBlock& block, int columns, float* D_max) {
  for_each_share(num_cpu_threads, block.num_queries, [&](int first, int last, int) {
    for (Index at = elements(first, columns); at < elements(last, columns); ++at) {
      const float larger = block.Z[at] > D_max[at] ? block.Z[at] : D_max[at];
      D_max[at] = block.Z[at] = larger;
    }
  });
}

// This process's group of the queries.  Its own needs alone bound the batches, since no other
// process waits for them.
BatchPlan own_plan(const RunParameters& run, int num_resident) {
  const int group = grp_length[myid];
  return {.first_query = grp_start[myid],
          .num_queries = group,
          .num_resident = num_resident,
          .batch = queries_per_batch(run.budget_floats, group, num_resident,
                                     average_vector_floats(run, grp_data_length[myid], group))};
}

// The engine holds the resident documents; only their labels are passed.
int query(const RunParameters& run, int num_resident, const LabelList& resident_labels,
          const LabelledDocuments& queries, float* D_max) {
  require_documents("query", queries.docs, queries.num_docs);
  auto new_split = guard_new_split();
  if (!grp_start) load_balancing(queries.docs, queries.num_docs, queries.num_words);
  require_split_of(queries.num_docs);
  const int k = run.compute_topk ? list_length(run.k, num_resident) : 0;
  const BatchPlan plan = own_plan(run, num_resident);

  std::optional<ResultFile> file;
  if (run.compute_topk) {
    if (k > 0 && plan.num_queries > 0) {
      require_labels("resident", resident_labels, num_resident);
      require_labels("query", queries.labels, queries.num_docs);
    }
    file = open_result_file(own_result_path(run));
  }
  const ListBuffers buffers = allocate_lists(plan.batch, k);
  run_batches(run, queries, plan, [&](const DistanceBlock& block) {
    const int first_row = block.first_query - plan.first_query;
    merge_maximum(block, num_resident, D_max + elements(first_row, num_resident));
    if (k == 0) return NeighbourLists{};
    sort_cpu(block.num_queries, num_resident, block.Z, k, buffers.ind.get(), buffers.val.get());
    const NeighbourLists lists{block.first_query, block.num_queries, k, buffers.ind.get(),
                               buffers.val.get()};
    write_lists(*file, lists, queries.labels, resident_labels);
    return lists;
  });
  if (file) close_result_file(std::move(*file));
  new_split.dismiss();
  return 0;
}

}  // namespace

int scale_out_run(const RunParameters& run, const LabelledDocuments& resident,
                  const LabelledDocuments& queries, float* D_max) {
  init(run, resident.docs, resident.num_docs);
  const Guard release([&] { release_resident_documents(run); });
  query(run, resident.num_docs, resident.labels, queries, D_max);
  return 0;
}

}  // namespace internal

int rwmd2_scaleout_wrapper(int voc_size, float* embeddings, int vec_size, int k,
                           int delta_iterations, bool precompute, DocumentSet docs1,
                           LabelList labels1, int num_docs1, int num_words1, DocumentSet docs2,
                           LabelList labels2, int num_docs2, int num_words2, float* D_max,
                           bool compute_topk, const char* output_file, bool use_gpu) {
  return internal::scale_out_run({.voc_size = voc_size,
                                  .embeddings = embeddings,
                                  .vec_size = vec_size,
                                  .k = k,
                                  .delta_iterations = delta_iterations,
                                  .precompute = precompute,
                                  .compute_topk = compute_topk,
                                  .output_file = output_file,
                                  .use_gpu = use_gpu},
                                 {docs1, labels1, num_docs1, num_words1},
                                 {docs2, labels2, num_docs2, num_words2}, D_max);
}

int rwmd2_scaleout_init(int voc_size, float* embeddings, int vec_size, bool precompute,
                        DocumentSet docs1, LabelList /*labels1*/, int num_docs1, int /*num_words1*/,
                        bool use_gpu) {
  return internal::init({.voc_size = voc_size,
                         .embeddings = embeddings,
                         .vec_size = vec_size,
                         .precompute = precompute,
                         .use_gpu = use_gpu},
                        docs1, num_docs1);
}

int rwmd2_scaleout_query(float* embeddings, int vec_size, int k, int delta_iterations,
                         bool precompute, int num_docs1, LabelList labels1, DocumentSet docs2,
                         LabelList labels2, int num_docs2, int num_words2, float* D_max,
                         bool compute_topk, const char* output_file, bool use_gpu) {
  return internal::query({.embeddings = embeddings,
                          .vec_size = vec_size,
                          .k = k,
                          .delta_iterations = delta_iterations,
                          .precompute = precompute,
                          .compute_topk = compute_topk,
                          .output_file = output_file,
                          .use_gpu = use_gpu},
                         num_docs1, labels1, {docs2, labels2, num_docs2, num_words2}, D_max);
}

int rwmd2_scaleout_cleanup(bool use_gpu, bool precompute) {
  return rwmd2_parallel_cleanup(use_gpu, precompute);
}

}  // namespace talvik
