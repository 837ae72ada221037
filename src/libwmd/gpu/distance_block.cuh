// The distance block of a query batch on the GPU.  Distance rows are computed once per distinct
// query row, and the entries of a document point to theirs.  The nearest entries of every document
// are chosen, and the resident weights go there.  Kernels of the default stream run in the order of
// their launches, so only the copies wait.  Included by libwmd.cu alone.
#ifndef TALVIK_LIBWMD_GPU_DISTANCE_BLOCK_CUH
#define TALVIK_LIBWMD_GPU_DISTANCE_BLOCK_CUH

#include <algorithm>
#include <iterator>  // ssize
#include <string>
#include <utility>
#include <vector>

#include "libwmd/distinct_rows.hpp"
#include "libwmd/gpu/calls.cuh"
#include "libwmd/gpu/sizes.hpp"

namespace talvik::internal {
namespace {

// What finds words and query rows of one embedding.  As given: before any scaling to unit length.
// The words' rows are scaled in the caller's array, so query rows may be copies of either.
struct EmbeddingHashes {
  std::vector<RowHash> word, scaled_word;  // per vocabulary word; scaled: with normalisation only
  std::vector<RowHash> entry;              // per query entry, of its row as given
  std::vector<int> row_of_entry;           // per query entry, a number that equal rows share
};

// One computation: what is asked for, and what it holds meanwhile.
struct GpuBlock {
  float* Z;         // host, num_docs2 x num_docs
  int steps;        // capacity steps asked for
  bool precompute;  // distances from D_ground_dev
  GpuBudget budget;
  DistinctRows rows;  // one row per distinct query row in vector form, none in index form
  const EmbeddingHashes& hashes;  // vector form

  DenseLibrary dense = {};
  SparseLibrary sparse = {};

  DeviceArray<float> dp_dev = {};   // distances of a group of documents to the resident ones
  DeviceArray<float> Y_dev = {};    // distance rows, voc_size each
  DeviceArray<float> Y_dev_t = {};  // the nearest distances: rows of voc_size
  DeviceArray<float> weights_min_dev_t = {};  // the weights behind them; read with steps only
  DeviceArray<float> weight_updated = {};     // num_vecs, what is left; with steps only
  DeviceArray<float> weight_delta = {};       // num_vecs, what moves; with steps only

  DeviceArray<int> start2_dev = {};        // start2; without steps only
  DeviceArray<int> row_of_entry_dev = {};  // rows.row_of_entry; vector form only

  // Only where rows repeat.
  DeviceArray<int> entry_of_row_dev = {};  // rows.entry_of_row
  DeviceArray<float> X_rows_dev = {};      // distinct rows of a pass, vec_size each
  DeviceArray<float> Rn_rows_dev = {};     // their squared norms; without normalisation only

  DeviceArray<EqualRows> equal_rows_dev = {};  // words and rows of a pass that may be equal
};

// The kernels that keep one number of nearest entries.
struct TopKernels {
  decltype(&top1_single) single;
  decltype(&top_of_rows<1>) of_rows;
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

int entries_of(int doc) { return start2[doc + 1] - start2[doc]; }

// With ground distances there are no rows to compute: the entries point to those of the matrix.
// @param row_ids  per query entry, a number that entries of equal rows share; vector form
DistinctRows plan_rows(bool precompute, const GpuBudget& budget, const std::vector<int>& row_ids) {
  if (!precompute) {
    return find_distinct_rows(row_ids.data(), sizeof(int), start2, num_docs2,
                              rows_of_block(budget, voc_size), num_cpu_threads);
  }
  DistinctRows none;
  none.passes = {{0, 0, 0, start2[num_docs2]}};
  none.sections = {{0, num_docs2, 0, 1}};
  return none;
}

void allocate_buffers(GpuBlock& block) {
  const bool steps = block.steps > 0;
  const int nearest = topk_size(block.steps);
  const int group = block.budget.group_docs;
  block.dp_dev = allocate_on_device<float>(elements(steps ? 1 : group, num_docs), "dp_dev");
  block.Y_dev = allocate_on_device<float>(block_floats(block.budget, voc_size), "Y_dev");
  block.Y_dev_t = allocate_on_device<float>(elements(steps ? nearest : group, voc_size), "Y_dev_t");
  block.weights_min_dev_t =
      allocate_on_device<float>(elements(nearest, voc_size), "weights_min_dev_t");
  if (steps) {
    block.weight_updated = allocate_on_device<float>(num_vecs, "weight_updated");
    block.weight_delta = allocate_on_device<float>(num_vecs, "weight_delta");
  } else {
    block.start2_dev = upload(start2, elements(1, num_docs2) + 1, "start2");
  }
  if (block.precompute) return;

  const DistinctRows& rows = block.rows;
  const int entries = start2[num_docs2];
  block.row_of_entry_dev = upload(rows.row_of_entry.data(), entries, "row_of_entry");
  if (std::ssize(rows.entry_of_row) == entries) return;
  const int pass_rows = largest_pass(rows, 0, static_cast<int>(rows.passes.size()));
  block.entry_of_row_dev =
      upload(rows.entry_of_row.data(), std::ssize(rows.entry_of_row), "entry_of_row");
  block.X_rows_dev = allocate_on_device<float>(elements(pass_rows, vec_size), "X_rows");
  if (!normalize_embeddings) block.Rn_rows_dev = allocate_on_device<float>(pass_rows, "Rn_rows");
}

void free_buffers(GpuBlock& block) {
  free_on_device(std::move(block.Y_dev), "Y_dev");
  free_on_device(std::move(block.Y_dev_t), "Y_dev_t");
  free_on_device(std::move(block.weights_min_dev_t), "weights_min_dev_t");
  free_on_device(std::move(block.dp_dev), "dp_dev");
  free_on_device(std::move(block.weight_updated), "weight_updated");
  free_on_device(std::move(block.weight_delta), "weight_delta");
}

// The distinct query rows of a pass, gathered unless they are side by side already.
DeviceRows rows_of_pass(GpuBlock& block, const RowPass& pass) {
  const int count = pass.last_row - pass.first_row;
  const int* entries = block.rows.entry_of_row.data() + pass.first_row;
  if (consecutive(entries, count)) {
    float* norms = normalize_embeddings ? nullptr : Rn2_dev + entries[0];
    return {count, X2_dev + elements(entries[0], vec_size), norms};
  }
  const DeviceRows rows{count, block.X_rows_dev.get(), block.Rn_rows_dev.get()};
  int* entries_dev = block.entry_of_row_dev.get() + pass.first_row;
  const auto gather = [&](int cols, float* from, float* to) {
    launch(gather_matrix_rows, row_grid(count), block_shape(), count, cols, from, entries_dev, to);
  };
  gather(vec_size, X2_dev, rows.values);
  constexpr int one_norm = 1;
  if (rows.norms) gather(one_norm, Rn2_dev, rows.norms);
  return rows;
}

// Candidates: words and rows of the pass whose hashes are equal.
std::vector<EqualRows> find_equal_rows(const GpuBlock& block, const RowPass& pass) {
  std::vector<RowHash> row_hash;
  for (int r = pass.first_row; r < pass.last_row; ++r) {
    row_hash.push_back(block.hashes.entry[block.rows.entry_of_row[r]]);
  }
  std::vector<EqualRows> pairs = find_equal_hashes(block.hashes.word, row_hash);
  const std::vector<EqualRows> more = find_equal_hashes(block.hashes.scaled_word, row_hash);
  pairs.insert(pairs.end(), more.begin(), more.end());
  const auto key = [](const EqualRows& pair) { return std::pair(pair.word, pair.row); };
  std::sort(pairs.begin(), pairs.end(),
            [key](const auto& a, const auto& b) { return key(a) < key(b); });
  const auto same = [key](const auto& a, const auto& b) { return key(a) == key(b); };
  pairs.erase(std::unique(pairs.begin(), pairs.end(), same), pairs.end());
  return pairs;
}

void set_known_distances(GpuBlock& block, const RowPass& pass, const DeviceRows& words,
                         const DeviceRows& rows) {
  const std::vector<EqualRows> pairs = find_equal_rows(block, pass);
  if (pairs.empty()) return;
  const int count = static_cast<int>(pairs.size());
  block.equal_rows_dev = upload(pairs.data(), count, "equal_rows");
  set_distances_of_equal_rows(words, rows, block.equal_rows_dev.get(), count, block.Y_dev.get());
}

// Y_dev[t*voc_size + v] = distance between vocabulary word v and distinct row t of the pass.
void compute_rows(GpuBlock& block, const RowPass& pass) {
  if (pass.first_row == pass.last_row) return;
  const DeviceRows vocabulary{voc_size, W_dev, RW_dev};
  const DeviceRows rows = rows_of_pass(block, pass);
  compute_word_distances(block.dense, vocabulary, rows, block.Y_dev.get());
  set_known_distances(block, pass, vocabulary, rows);
}

EntryDistances entry_distances(const GpuBlock& block) {
  if (block.precompute) return {D_ground_dev, ind2_dev, voc_size};
  return {block.Y_dev.get(), block.row_of_entry_dev.get(), voc_size};
}

// Writes, to row r of Y_dev_t, every vocabulary word's distance to the (r+1)-th nearest entry of
// the document, among those of this pass and, if it goes on, of the passes before.  A document
// without entries is far away.
void choose_nearest(GpuBlock& block, const RowPass& pass, bool goes_on, int doc) {
  const TopKernels kernels = top_kernels(topk_of_document(block.steps, entries_of(doc)));
  const int first = std::max(start2[doc], pass.first_entry);
  const int count = std::min(start2[doc + 1], pass.last_entry) - first;
  const NearestEntries nearest{block.Y_dev_t.get(), block.weights_min_dev_t.get()};
  float* weights = weight2_dev + first;
  const std::vector<int>& rows = block.rows.row_of_entry;  // empty in index form
  if (!block.precompute && !goes_on && consecutive(rows.data() + first, count)) {
    launch(kernels.single, column_grid(voc_size), block_shape(), count, voc_size,
           block.Y_dev.get() + elements(rows[first], voc_size), nearest.distances, weights,
           nearest.weights);
    return;
  }
  EntryDistances entries = entry_distances(block);
  entries.row_of_entry += first;
  launch(kernels.of_rows, column_grid(voc_size), block_shape(), entries, count, weights, nearest,
         goes_on);
}

void copy_to_Z(const GpuBlock& block, int first_doc, int count) {
  if (cudaMemcpy(block.Z + elements(first_doc, num_docs), block.dp_dev.get(),
                 elements(count, num_docs) * sizeof(float),
                 cudaMemcpyDeviceToHost) != cudaSuccess) {
    fail("Failed to copy Z");
  }
}

// Writes, to row q of Y_dev_t, every vocabulary word's distance to the nearest entry of document
// first_doc + q.
void find_nearest(GpuBlock& block, const RowPass& pass, bool goes_on, int first_doc, int docs) {
  launch(nearest_of_documents, column_grid(voc_size, docs), block_shape(), entry_distances(block),
         block.start2_dev.get() + first_doc, pass, block.Y_dev_t.get(), goes_on);
}

// All weight goes to the nearest entry: one product for all documents of Y_dev_t.
void send_to_nearest(GpuBlock& block, int first_doc, int docs) {
  const float fp1 = 1, fp0 = 0;
  const cusparseStatus_t status = cusparseScsrmm2(
      block.sparse.handle, CUSPARSE_OPERATION_NON_TRANSPOSE, CUSPARSE_OPERATION_NON_TRANSPOSE,
      num_docs, docs, voc_size, num_vecs, &fp1, block.sparse.descr, weight_dev, start_dev, ind_dev,
      block.Y_dev_t.get(), voc_size, &fp0, block.dp_dev.get(), num_docs);
  if (status != CUSPARSE_STATUS_SUCCESS) {
    std::string text = "Sparse-matrix dense-matrix multiplication failed: " + number_of(status);
    if (status == CUSPARSE_STATUS_INTERNAL_ERROR) text += "\nInternal Error";
    if (status == CUSPARSE_STATUS_EXECUTION_FAILED) text += "\nExecution Failed";
    fail(text);
  }
  copy_to_Z(block, first_doc, docs);
}

// dp_dev[d] += the weights of resident document d, times the (r+1)-th nearest distances.
void add_product(GpuBlock& block, const float* weights, int r, const std::string& failure) {
  const float fp1 = 1;
  constexpr int one_document = 1;
  const cusparseStatus_t status = cusparseScsrmm(
      block.sparse.handle, CUSPARSE_OPERATION_NON_TRANSPOSE, num_docs, one_document, voc_size,
      num_vecs, &fp1, block.sparse.descr, weights, start_dev, ind_dev,
      block.Y_dev_t.get() + elements(r, voc_size), voc_size, &fp1, block.dp_dev.get(), num_docs);
  if (status != CUSPARSE_STATUS_SUCCESS) {
    fail("Sparse matrix-matrix multiplication failed in " + failure + number_of(status));
  }
}

// Each of the nearest entries in turn takes at most its own weight; the rest goes to the next one.
void pour(GpuBlock& block, int doc) {
  const int steps = steps_of_document(block.steps, entries_of(doc));
  cudaMemset(block.dp_dev.get(), 0, elements(1, num_docs) * sizeof(float));
  float* left = weight_dev;
  for (int k = 0; k < steps; ++k) {
    launch(update_weights_delta_multi, row_grid(num_docs), block_shape(), num_docs, left, start_dev,
           ind_dev, voc_size, k, block.weights_min_dev_t.get(), block.weight_delta.get(),
           block.weight_updated.get());
    left = block.weight_updated.get();
    add_product(block, block.weight_delta.get(), k, "iteration " + std::to_string(k) + " ");
  }
  add_product(block, left, steps, steps == 0 ? "final iteration 0 " : "final iteration ");
  constexpr int one_document = 1;
  copy_to_Z(block, doc, one_document);
}

// Pass p of a section holds all rows of its documents, or some of the rows of its one document.
void run_pass(GpuBlock& block, const BatchSection& section, int p) {
  const RowPass& pass = block.rows.passes[p];
  const bool goes_on = p > section.first_pass, complete = p + 1 == section.last_pass;
  if (!block.precompute) compute_rows(block, pass);
  if (block.steps > 0) {
    for (int doc = section.first_doc; doc < section.last_doc; ++doc) {
      choose_nearest(block, pass, goes_on, doc);
      if (complete) pour(block, doc);
    }
    return;
  }
  for (int doc = section.first_doc; doc < section.last_doc; doc += block.budget.group_docs) {
    const int docs = std::min(block.budget.group_docs, section.last_doc - doc);
    find_nearest(block, pass, goes_on, doc, docs);
    if (complete) send_to_nearest(block, doc, docs);
  }
}

void run_sections(GpuBlock& block) {
  for (const BatchSection& section : block.rows.sections) {
    for (int p = section.first_pass; p < section.last_pass; ++p) run_pass(block, section, p);
  }
}

// Z of the batch held, by the state of the engine.
void compute_block(float* Z, int delta_iterations, bool precompute, const GpuBudget& budget,
                   const EmbeddingHashes& hashes) {
  // Nothing to launch, and nothing to pay for, where no resident document has an entry.
  if (num_docs2 <= 0 || num_docs <= 0) return;
  if (num_vecs <= 0) {
    std::fill_n(Z, elements(num_docs2, num_docs), 0.0f);
    return;
  }
  forget_earlier_errors();
  GpuBlock block{.Z = Z,
                 .steps = delta_iterations,
                 .precompute = precompute,
                 .budget = budget,
                 .rows = plan_rows(precompute, budget, hashes.row_of_entry),
                 .hashes = hashes};
  allocate_buffers(block);
  run_sections(block);
  require_launched();
  free_buffers(block);
  block.sparse.close();
}

}  // namespace
}  // namespace talvik::internal

#endif
