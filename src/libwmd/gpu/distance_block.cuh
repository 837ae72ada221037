// One batch's block of distances on the GPU.  Distance rows are computed once per distinct query
// row; the entries of a document point to theirs.  The nearest entries of every document are
// chosen, and the resident weights travel there.  Kernels of the default stream run in the order of
// their launches, so nothing waits but the copies.  Included by libwmd.cu alone.
#ifndef TALVIK_LIBWMD_GPU_DISTANCE_BLOCK_CUH
#define TALVIK_LIBWMD_GPU_DISTANCE_BLOCK_CUH

#include <algorithm>
#include <string>
#include <vector>

#include "libwmd/distinct_rows.hpp"
#include "libwmd/gpu/calls.cuh"
#include "libwmd/gpu/sizes.hpp"

namespace talvik::internal {
namespace {

struct GpuBlock {
  float* Z;         // host, num_docs2 x num_docs
  int steps;        // capacity steps asked for
  bool precompute;  // distances from D_ground_dev
  GpuBudget budget;

  DistinctRows rows;  // one row per distinct query row in vector form, none in index form
  bool rows_repeat;   // there are fewer of them than entries

  cublasHandle_t handle_blas;
  cusparseHandle_t handle_sparse;
  cusparseMatDescr_t descr;

  float* dp_dev;             // distances of a group of documents to the resident ones
  float* Y_dev;              // distance rows, voc_size each
  float* Y_dev_t;            // the nearest distances: rows of voc_size
  float* weights_min_dev_t;  // the weights behind them; not used by the top-1 rule
  float* weight_updated;     // num_vecs, what is left of every resident entry; with steps only
  float* weight_delta;       // num_vecs, what moves; with steps only

  int* start2_dev;        // start2, for the top-1 rule only
  int* row_of_entry_dev;  // rows.row_of_entry; vector form only

  // Only where rows repeat.
  int* entry_of_row_dev;  // rows.entry_of_row
  float* X_rows_dev;      // distinct rows of a pass, vec_size each
  float* Rn_rows_dev;     // their squared norms; without normalisation only
};

// The kernels that keep so many nearest entries.
struct TopKernels {
  void (*single)(int, int, float*, float*, float*, float*);
  void (*of_rows)(int, int, float*, int*, float*, float*, float*, bool);
};

TopKernels top_kernels(int nearest) {
  switch (nearest) {
    case 1:
      return {&top1_single, &top_of_rows<1>};
    case 2:
      return {&top2_single, &top_of_rows<2>};
    case 4:
      return {&top4_single, &top_of_rows<4>};
    case 8:
      return {&top8_single, &top_of_rows<8>};
    default:
      return {&top16_single, &top_of_rows<16>};
  }
}

bool consecutive(const int* numbers, int count) {
  for (int i = 1; i < count; ++i) {
    if (numbers[i] != numbers[0] + i) return false;
  }
  return true;
}

// With ground distances nothing is computed: all entries' rows are those of the matrix.
void plan_block(GpuBlock& block, const std::vector<int>& row_ids) {
  const int num_entries = start2[num_docs2];
  if (block.precompute) {
    block.rows.passes = {{0, 0, 0, num_entries}};
    block.rows.sections = {{0, num_docs2, 0, 1}};
    return;
  }
  block.rows = find_distinct_rows(row_ids.data(), sizeof(int), start2, num_docs2,
                                  rows_of_block(block.budget, voc_size), num_cpu_threads);
  block.rows_repeat = static_cast<int>(block.rows.entry_of_row.size()) < num_entries;
}

void open_libraries(GpuBlock& block) {
  cublasCreate_v2(&block.handle_blas);  // a handle that is none makes the product fail
  if (cusparseCreate(&block.handle_sparse) != CUSPARSE_STATUS_SUCCESS) {
    fail("CUSPARSE Library initialization failed");
  }
  if (cusparseCreateMatDescr(&block.descr) != CUSPARSE_STATUS_SUCCESS) {
    fail("Matrix descriptor initialization failed");
  }
  cusparseSetMatType(block.descr, CUSPARSE_MATRIX_TYPE_GENERAL);
  cusparseSetMatIndexBase(block.descr, CUSPARSE_INDEX_BASE_ZERO);
}

void allocate_buffers(GpuBlock& block) {
  const bool steps = block.steps > 0;
  const int nearest = topk_size(block.steps);
  const int group = block.budget.group_docs;
  block.dp_dev = allocate_on_device<float>(elements(steps ? 1 : group, num_docs), "dp_dev");
  block.Y_dev = allocate_on_device<float>(
      static_cast<std::size_t>(block_floats(block.budget, voc_size)), "Y_dev");
  block.Y_dev_t = allocate_on_device<float>(elements(steps ? nearest : group, voc_size), "Y_dev_t");
  block.weights_min_dev_t =
      allocate_on_device<float>(elements(nearest, voc_size), "weights_min_dev_t");
  if (steps) {
    const auto entries = static_cast<std::size_t>(num_vecs);
    block.weight_updated = allocate_on_device<float>(entries, "weight_updated");
    block.weight_delta = allocate_on_device<float>(entries, "weight_delta");
  }
  const DistinctRows& rows = block.rows;
  if (!steps) {
    block.start2_dev = upload(start2, static_cast<std::size_t>(num_docs2) + 1, "start2");
  }
  if (!block.precompute) {
    const auto entries = static_cast<std::size_t>(start2[num_docs2]);
    block.row_of_entry_dev = upload(rows.row_of_entry.data(), entries, "row_of_entry");
  }
  if (block.rows_repeat) {
    const int pass_rows = largest_pass(rows, 0, static_cast<int>(rows.passes.size()));
    block.entry_of_row_dev =
        upload(rows.entry_of_row.data(), rows.entry_of_row.size(), "entry_of_row");
    block.X_rows_dev = allocate_on_device<float>(elements(pass_rows, vec_size), "X_rows");
    if (!normalize_embeddings) {
      block.Rn_rows_dev = allocate_on_device<float>(static_cast<std::size_t>(pass_rows), "Rn_rows");
    }
  }
}

void free_buffers(GpuBlock& block) {
  free_on_device(block.Y_dev, "Y_dev");
  free_on_device(block.Y_dev_t, "Y_dev_t");
  free_on_device(block.weights_min_dev_t, "weights_min_dev_t");
  free_on_device(block.dp_dev, "dp_dev");
  if (block.steps > 0) {
    free_on_device(block.weight_updated, "weight_updated");
    free_on_device(block.weight_delta, "weight_delta");
  }
  free_on_device(block.start2_dev, "start2");
  free_on_device(block.row_of_entry_dev, "row_of_entry");
  free_on_device(block.entry_of_row_dev, "entry_of_row");
  free_on_device(block.X_rows_dev, "X_rows");
  free_on_device(block.Rn_rows_dev, "Rn_rows");
}

void close_libraries(GpuBlock& block) {
  cublasDestroy_v2(block.handle_blas);
  if (cusparseDestroyMatDescr(block.descr) != CUSPARSE_STATUS_SUCCESS) {
    fail("Matrix descriptor destruction failed");
  }
  if (cusparseDestroy(block.handle_sparse) != CUSPARSE_STATUS_SUCCESS) {
    fail("CUSPARSE Library release of resources failed");
  }
  release_sparse_workspace();
}

// Y_dev[t*voc_size + v] = distance between vocabulary word v and distinct row t of the pass.
void compute_rows(GpuBlock& block, const RowPass& pass) {
  const int rows = pass.last_row - pass.first_row;
  if (rows == 0) return;
  const int* entries = block.rows.entry_of_row.data() + pass.first_row;
  float* X = X2_dev + elements(entries[0], vec_size);
  float* norms = normalize_embeddings ? nullptr : Rn2_dev + entries[0];
  if (!consecutive(entries, rows)) {
    int* entries_dev = block.entry_of_row_dev + pass.first_row;
    X = block.X_rows_dev;
    launch(gather_matrix_rows, row_grid(rows), block_shape(), rows, vec_size, X2_dev, entries_dev,
           X);
    if (norms) {
      norms = block.Rn_rows_dev;
      constexpr int one_norm = 1;
      launch(gather_matrix_rows, row_grid(rows), block_shape(), rows, one_norm, Rn2_dev,
             entries_dev, norms);
    }
  }
  dense_product(block.handle_blas, voc_size, rows, vec_size, W_dev, X, block.Y_dev);
  convert_to_distances(rows, voc_size, block.Y_dev, RW_dev, norms);
}

// Where the distance rows are, and which one belongs to an entry.
float* distance_rows(const GpuBlock& block) {
  return block.precompute ? D_ground_dev : block.Y_dev;
}

int* row_of_entry(const GpuBlock& block) {
  return block.precompute ? ind2_dev : block.row_of_entry_dev;
}

// Row r of Y_dev_t: every vocabulary word's (r+1)-th nearest entry of the document, among those of
// this pass and, if it goes on, the passes before.  A document without entries is far away.
void choose_nearest(GpuBlock& block, const RowPass& pass, bool goes_on, int doc) {
  const TopKernels kernels =
      top_kernels(topk_of_document(block.steps, start2[doc + 1] - start2[doc]));
  const int first = std::max(start2[doc], pass.first_entry);
  const int count = std::min(start2[doc + 1], pass.last_entry) - first;
  float* weights = weight2_dev + first;
  const std::vector<int>& rows = block.rows.row_of_entry;  // empty in index form
  if (!block.precompute && !goes_on && consecutive(rows.data() + first, count)) {
    float* first_row = block.Y_dev + elements(rows[static_cast<std::size_t>(first)], voc_size);
    launch(kernels.single, column_grid(voc_size), block_shape(), count, voc_size, first_row,
           block.Y_dev_t, weights, block.weights_min_dev_t);
  } else {
    launch(kernels.of_rows, column_grid(voc_size), block_shape(), count, voc_size,
           distance_rows(block), row_of_entry(block) + first, block.Y_dev_t, weights,
           block.weights_min_dev_t, goes_on);
  }
}

void copy_to_Z(const GpuBlock& block, int first_doc, int count) {
  if (cudaMemcpy(block.Z + elements(first_doc, num_docs), block.dp_dev,
                 elements(count, num_docs) * sizeof(float),
                 cudaMemcpyDeviceToHost) != cudaSuccess) {
    fail("Failed to copy Z");
  }
}

// Row q of Y_dev_t: every vocabulary word's distance to the nearest entry of document first_doc +
// q.
void find_nearest(GpuBlock& block, const RowPass& pass, bool goes_on, int first_doc, int docs) {
  launch(nearest_of_documents, column_grid(voc_size, docs), block_shape(), voc_size,
         distance_rows(block), row_of_entry(block), block.start2_dev + first_doc, pass.first_entry,
         pass.last_entry, block.Y_dev_t, goes_on);
}

// All weight goes to the nearest entry: one product for all documents of Y_dev_t.
void send_to_nearest(GpuBlock& block, int first_doc, int docs) {
  const float fp1 = 1, fp0 = 0;
  const cusparseStatus_t status = cusparseScsrmm2(
      block.handle_sparse, CUSPARSE_OPERATION_NON_TRANSPOSE, CUSPARSE_OPERATION_NON_TRANSPOSE,
      num_docs, docs, voc_size, num_vecs, &fp1, block.descr, weight_dev, start_dev, ind_dev,
      block.Y_dev_t, voc_size, &fp0, block.dp_dev, num_docs);
  if (status != CUSPARSE_STATUS_SUCCESS) {
    std::string text = "Sparse-matrix dense-matrix multiplication failed: " + number_of(status);
    if (status == CUSPARSE_STATUS_INTERNAL_ERROR) text += "\nInternal Error";
    if (status == CUSPARSE_STATUS_EXECUTION_FAILED) text += "\nExecution Failed";
    fail(text);
  }
  copy_to_Z(block, first_doc, docs);
}

// dp_dev[d] += the weights of resident document d, times the (r+1)-th nearest distances.
void add_product(GpuBlock& block, float* weights, int r, const std::string& failure) {
  const float fp1 = 1;
  constexpr int one_document = 1;
  const cusparseStatus_t status =
      cusparseScsrmm(block.handle_sparse, CUSPARSE_OPERATION_NON_TRANSPOSE, num_docs, one_document,
                     voc_size, num_vecs, &fp1, block.descr, weights, start_dev, ind_dev,
                     block.Y_dev_t + elements(r, voc_size), voc_size, &fp1, block.dp_dev, num_docs);
  if (status != CUSPARSE_STATUS_SUCCESS) {
    fail("Sparse matrix-matrix multiplication failed in " + failure + number_of(status));
  }
}

// Each of the nearest entries in turn takes at most its own weight; the rest goes to the next one.
void pour(GpuBlock& block, int doc) {
  const int steps = steps_of_document(block.steps, start2[doc + 1] - start2[doc]);
  cudaMemset(block.dp_dev, 0, elements(1, num_docs) * sizeof(float));
  float* left = weight_dev;
  for (int k = 0; k < steps; ++k) {
    launch(update_weights_delta_multi, row_grid(num_docs), block_shape(), num_docs, left, start_dev,
           ind_dev, voc_size, k, block.weights_min_dev_t, block.weight_delta, block.weight_updated);
    left = block.weight_updated;
    add_product(block, block.weight_delta, k, "iteration " + std::to_string(k) + " ");
  }
  add_product(block, left, steps, steps == 0 ? "final iteration 0 " : "final iteration ");
  constexpr int one_document = 1;
  copy_to_Z(block, doc, one_document);
}

// A group of documents, of which this pass holds all rows, or the last of them, or some.
void run_pass(GpuBlock& block, const BatchSection& group, int p) {
  const RowPass& pass = block.rows.passes[static_cast<std::size_t>(p)];
  const bool goes_on = p > group.first_pass, complete = p + 1 == group.last_pass;
  if (!block.precompute) compute_rows(block, pass);
  if (block.steps > 0) {
    for (int doc = group.first_doc; doc < group.last_doc; ++doc) {
      choose_nearest(block, pass, goes_on, doc);
      if (complete) pour(block, doc);
    }
    return;
  }
  for (int doc = group.first_doc; doc < group.last_doc; doc += block.budget.group_docs) {
    const int docs = std::min(block.budget.group_docs, group.last_doc - doc);
    find_nearest(block, pass, goes_on, doc, docs);
    if (complete) send_to_nearest(block, doc, docs);
  }
}

void run_groups(GpuBlock& block) {
  for (const BatchSection& group : block.rows.sections) {
    for (int p = group.first_pass; p < group.last_pass; ++p) run_pass(block, group, p);
  }
}

/// Z of the batch held, by the state of the engine.
/// @param row_ids  per query entry, a number that entries of equal rows share; vector form
void compute_block(float* Z, int delta_iterations, bool precompute, const GpuBudget& budget,
                   const std::vector<int>& row_ids) {
  // Nothing to launch, and nothing to pay for, where no resident document has an entry.
  if (num_docs2 <= 0 || num_docs <= 0) return;
  if (num_vecs <= 0) {
    std::fill_n(Z, elements(num_docs2, num_docs), 0.0f);
    return;
  }
  forget_earlier_errors();
  GpuBlock block{};
  block.Z = Z;
  block.steps = delta_iterations;
  block.precompute = precompute;
  block.budget = budget;
  plan_block(block, row_ids);
  open_libraries(block);
  allocate_buffers(block);
  run_groups(block);
  require_launched();
  free_buffers(block);
  close_libraries(block);
}

}  // namespace
}  // namespace talvik::internal

#endif
