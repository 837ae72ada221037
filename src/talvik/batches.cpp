// Loading, the batch loop and release, for both pipelines.
#include "talvik/batches.hpp"

#include <algorithm>
#include <memory>
#include <string>

#include "internal/failure.hpp"
#include "internal/guard.hpp"
#include "internal/index.hpp"
#include "internal/large_pages.hpp"
#include "libmpi/abort_job.hpp"
#include "talvik/collections.hpp"
#include "talvik/compress.hpp"
#include "talvik/engine.hpp"

namespace talvik::internal {
namespace {

std::string mismatch(const std::string& what, Index present, int announced) {
  return "The " + what + ": " + std::to_string(announced) + " announced, " +
         std::to_string(present) + " present";
}

// Uninitialised, since the conversions fill all of it.
std::unique_ptr<int[]> new_ints(Index count) {
  return std::make_unique_for_overwrite<int[]>(count);
}

std::unique_ptr<float[]> new_floats(Index count) {
  return std::make_unique_for_overwrite<float[]>(count);
}

// Words that index an embedding or ground-distance matrix must lie inside it.
void require_known_words(const RunParameters& run, const DocumentSet& docs, int first, int count) {
  const int voc_size = run.precompute ? attached_words(run.use_gpu) : run.voc_size;
  if (voc_size < 1) return;  // not known: the matrix may come later; a query step is not told
  for (int d = first; d < first + count; ++d) {
    for (const auto& entry : docs[d]) {
      if (Index{entry.first} >= voc_size) fail_unknown_word(entry.first, voc_size);
    }
  }
}

// A batch as flat arrays, in vector form or in index form.
struct BatchArrays {
  std::unique_ptr<int[]> start = {}, ind = {};
  std::unique_ptr<float[]> weight = {}, X = {};
};

// Loads a batch in the form that the run's word distances need.
// @return the batch's arrays, which the engine may read until it releases the batch
BatchArrays load_batch(const RunParameters& run, const DocumentSet& docs, int first, int count) {
  require_known_words(run, docs, first, count);
  const int entries = count_entries(docs, first, count);
  BatchArrays batch{.start = new_ints(Index{count} + 1), .weight = new_floats(entries)};
  int* const start = batch.start.get();
  float* const weight = batch.weight.get();
  if (run.precompute || run.use_gpu) {
    batch.ind = new_ints(entries);
    setup_raw_data(docs, first, count, batch.ind.get(), start, weight);
  }
  if (run.precompute) {
    load_batch_indices(run.use_gpu, entries, batch.ind.get(), weight, count, start);
  } else if (run.use_gpu) {
    load_batch_words(entries, run.vec_size, batch.ind.get(), run.embeddings, weight, count, start);
  } else {
    const Index floats = elements(entries, run.vec_size);
    batch.X = new_floats(floats);
    begin_on_large_pages(batch.X.get(), floats * sizeof(float));
    setup_vectors(run.embeddings, run.vec_size, docs, first, count, batch.X.get(), start, weight);
    constexpr bool on_gpu = false;
    load_batch_vectors(on_gpu, entries, run.vec_size, batch.X.get(), weight, count, start);
  }
  return batch;
}

BatchArrays compute_batch(const RunParameters& run, const DocumentSet& docs,
                          const DistanceBlock& block) {
  const Guard release([&] { release_batch(run.use_gpu, run.precompute); });
  BatchArrays batch = load_batch(run, docs, block.first_query, block.num_queries);
  compute_block(run.use_gpu, block.Z, run.delta_iterations, run.precompute);
  return batch;
}

void report_batch(const BatchPlan& plan, const DistanceBlock& block, const NeighbourLists& lists) {
  if (!batch_finished) return;
  batch_finished({.first_query = block.first_query,
                  .num_queries = block.num_queries,
                  .end_query = plan.first_query + plan.num_queries,
                  .k = lists.k,
                  .neighbours = lists.ind,
                  .distances = lists.val},
                 batch_finished_context);
}

}  // namespace

void ensure_process_group() {
  if (num_procs == 0) init_mpi(&myid, &num_procs, &local_id, &num_local_procs);
}

void require_documents(const char* role, const DocumentSet& docs, int num_docs) {
  if (num_docs >= 0 && std::ssize(docs) >= num_docs) return;
  fail(mismatch(std::string(role) + " collection's documents", std::ssize(docs), num_docs));
}

void require_labels(const char* role, const LabelList& labels, int num_docs) {
  if (std::ssize(labels) >= num_docs) return;
  abort_job(mismatch(std::string(role) + " collection's labels", std::ssize(labels), num_docs));
}

int documents_split() {
  if (!grp_start) fail("There is no distribution info: the init step has not run");
  const int last = num_procs - 1;
  return grp_start[last] + grp_length[last];
}

void require_split_of(int num_docs) {
  const int split = documents_split();
  if (split == num_docs) return;
  fail("The distribution info splits " + std::to_string(split) + " documents, not the " +
       std::to_string(num_docs) + " of this run: call cleanup_distribution_info first");
}

int load_resident_documents(const RunParameters& run, const DocumentSet& docs, int first,
                            int count) {
  if (run.precompute) require_known_words(run, docs, first, count);
  const int entries = count_entries(docs, first, count);
  const auto ind = new_ints(entries);
  const auto weight = new_floats(entries);
  const auto start = new_ints(Index{count} + 1);
  setup_raw_data(docs, first, count, ind.get(), start.get(), weight.get());
  Guard undo([&] { release_resident_documents(run); });
  if (!run.precompute) {
    // The flat copy is renumbered; the documents stay as they are.
    const auto compressed = compress_words(
        run.voc_size, run.embeddings, run.vec_size, num_cpu_threads,
        [&](const auto& body) { std::for_each(ind.get(), ind.get() + entries, body); });
    load_vocabulary(run.use_gpu, compressed.voc_size, run.vec_size, compressed.embeddings.get());
  }
  const int result =
      load_resident(run.use_gpu, entries, ind.get(), weight.get(), count, start.get());
  undo.dismiss();
  return result;
}

int release_resident_documents(const RunParameters& run) {
  const int result = release_resident(run.use_gpu);
  return run.precompute ? result : release_vocabulary(run.use_gpu);
}

long long average_vector_floats(const RunParameters& run, int entries, int docs) {
  if (run.precompute) return 0;
  return static_cast<long long>(average_entries(entries, docs)) * run.vec_size;
}

ListBuffers allocate_lists(int rows, int k) {
  const Index entries = elements(rows, k);
  return {new_ints(entries), new_floats(entries)};
}

std::string result_path(const RunParameters& run) { return run.output_file ? run.output_file : ""; }

void run_batches(const RunParameters& run, const LabelledDocuments& queries, const BatchPlan& plan,
                 const FinishBlock& finish_block) {
  const Index block_floats = elements(plan.batch, plan.num_resident);
  const auto Z = new_floats(block_floats);
  begin_on_large_pages(Z.get(), block_floats * sizeof(float));
  const int end = plan.first_query + plan.num_queries;
  int count = 0;
  for (int q = plan.first_query; q < end; q += count) {
    count = std::min(end - q, plan.batch);
    const DistanceBlock block{q, count, Z.get()};
    BatchArrays batch;  // the batch's arrays stay until it is reported
    if (plan.num_resident > 0) batch = compute_batch(run, queries.docs, block);
    report_batch(plan, block, finish_block(block));
  }
}

}  // namespace talvik::internal
