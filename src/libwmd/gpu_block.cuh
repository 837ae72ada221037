// One batch's block of distances on the GPU.  Distance rows are computed once per distinct query
// row, at the front of Y_dev, and spread behind them to one row per query entry, piece by piece;
// of a piece's rows the nearest entries of every document are chosen, and the resident weights
// travel there.  Kernels of the default stream run in the order of their launches, so nothing waits
// but the copies.  Included by libwmd.cu alone.
#ifndef TALVIK_LIBWMD_GPU_BLOCK_CUH
#define TALVIK_LIBWMD_GPU_BLOCK_CUH

#include <algorithm>
#include <climits>
#include <string>
#include <vector>

#include "internal/distinct_rows.hpp"
#include "internal/gpu_plan.hpp"
#include "libwmd/gpu_calls.cuh"

namespace talvik::internal {
namespace {

struct GpuBlock {
  float* Z;         // host, num_docs2 x num_docs
  int steps;        // capacity steps asked for
  bool precompute;  // distances from D_ground_dev
  GpuBudget budget;

  DistinctRows rows;     // one row per distinct query row in vector form, none in index form
  bool rows_repeat;      // rows.entry_of_row and rows.row_of_entry are not both 0, 1, 2, ...
  int first_spread_row;  // of Y_dev
  std::vector<Piece> pieces;

  cublasHandle_t handle_blas;
  cusparseHandle_t handle_sparse;
  cusparseMatDescr_t descr;

  float* dp_dev;             // distances of a group of documents to the resident ones
  float* Y_dev;              // distance rows, voc_size each
  float* Y_dev_t;            // the nearest distances: rows of voc_size
  float* weights_min_dev_t;  // the weights behind them
  float* weight_updated;     // num_vecs, what is left of every resident entry; with steps only
  float* weight_delta;       // num_vecs, what moves; with steps only

  // Only where rows repeat.
  int* row_of_entry_dev;  // rows.row_of_entry
  int* entry_of_row_dev;  // rows.entry_of_row
  float* X_rows_dev;      // distinct rows of a pass, vec_size each
  float* Rn_rows_dev;     // their squared norms; without normalisation only
};

using TopKernel = void (*)(int, int, float*, float*, float*, float*);

TopKernel top_kernel(int nearest, bool goes_on) {
  switch (nearest) {
    case 1:
      return goes_on ? &topN_continued<1> : &top1_single;
    case 2:
      return goes_on ? &topN_continued<2> : &top2_single;
    case 4:
      return goes_on ? &topN_continued<4> : &top4_single;
    case 8:
      return goes_on ? &topN_continued<8> : &top8_single;
    default:
      return goes_on ? &topN_continued<16> : &top16_single;
  }
}

bool consecutive(const int* numbers, int count) {
  for (int i = 1; i < count; ++i) {
    if (numbers[i] != numbers[0] + i) return false;
  }
  return true;
}

int largest_pass(const DistinctRows& rows) {
  int largest = 0;
  for (const RowPass& pass : rows.passes) {
    largest = std::max(largest, pass.last_row - pass.first_row);
  }
  return largest;
}

// Half of the block for distinct rows at most, so that there is room to spread them.
void plan_block(GpuBlock& block, const std::vector<int>& row_ids) {
  const int block_rows = rows_of_block(block.budget, voc_size);
  const int num_entries = start2[num_docs2];
  if (block.precompute) {
    block.rows.passes = {{0, 0, 0, num_entries}};
  } else {
    block.rows = find_distinct_rows(row_ids.data(), sizeof(int), start2, num_docs2, block_rows / 2,
                                    num_cpu_threads);
    block.rows_repeat = static_cast<int>(block.rows.entry_of_row.size()) < num_entries;
  }
  block.first_spread_row = largest_pass(block.rows);
  const int max_docs = block.steps > 0 ? INT_MAX : block.budget.group_docs;
  block.pieces = cut_into_pieces(start2, num_docs2, block.rows.passes,
                                 block_rows - block.first_spread_row, max_docs);
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
  if (block.rows_repeat) {
    const DistinctRows& rows = block.rows;
    const auto entries = static_cast<std::size_t>(start2[num_docs2]);
    const int pass_rows = largest_pass(rows);
    block.row_of_entry_dev = upload(rows.row_of_entry.data(), entries, "row_of_entry");
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
  if (block.rows_repeat) {
    free_on_device(block.row_of_entry_dev, "row_of_entry");
    free_on_device(block.entry_of_row_dev, "entry_of_row");
    free_on_device(block.X_rows_dev, "X_rows");
    free_on_device(block.Rn_rows_dev, "Rn_rows");
  }
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

// A distance row for each entry of the piece, one after the other.
float* rows_of_piece(GpuBlock& block, const Piece& piece) {
  const int count = piece.last_entry - piece.first_entry;
  if (count == 0) return block.Y_dev;
  float* source = D_ground_dev;
  int* row_dev = nullptr;
  if (block.precompute) {
    row_dev = ind2_dev + piece.first_entry;
  } else {
    const int* row = block.rows.row_of_entry.data() + piece.first_entry;
    if (consecutive(row, count)) return block.Y_dev + elements(row[0], voc_size);
    source = block.Y_dev;
    row_dev = block.row_of_entry_dev + piece.first_entry;
  }
  float* spread = block.Y_dev + elements(block.first_spread_row, voc_size);
  launch(gather_matrix_rows, row_grid(count), block_shape(), count, voc_size, source, row_dev,
         spread);
  return spread;
}

// Row r of nearest_dev: every vocabulary word's (r+1)-th nearest entry of the document, among those
// of this piece and the pieces before.  A document without entries is far away.
void choose_nearest(GpuBlock& block, const Piece& piece, float* piece_rows, int doc, int nearest,
                    float* nearest_dev) {
  const int first = std::max(start2[doc], piece.first_entry);
  const int count = std::min(start2[doc + 1], piece.last_entry) - first;
  launch(top_kernel(nearest, piece.goes_on), column_grid(voc_size), block_shape(), count, voc_size,
         piece_rows + elements(first - piece.first_entry, voc_size), nearest_dev,
         weight2_dev + first, block.weights_min_dev_t);
}

void copy_to_Z(const GpuBlock& block, int first_doc, int count) {
  if (cudaMemcpy(block.Z + elements(first_doc, num_docs), block.dp_dev,
                 elements(count, num_docs) * sizeof(float),
                 cudaMemcpyDeviceToHost) != cudaSuccess) {
    fail("Failed to copy Z");
  }
}

// All weight goes to the nearest entry: one product for all documents of the piece.
void send_to_nearest(GpuBlock& block, const Piece& piece, float* piece_rows) {
  constexpr int nearest = 1;
  for (int doc = piece.first_doc; doc < piece.last_doc; ++doc) {
    choose_nearest(block, piece, piece_rows, doc, nearest,
                   block.Y_dev_t + elements(doc - piece.first_doc, voc_size));
  }
  if (!piece.complete) return;
  const float fp1 = 1, fp0 = 0;
  const int docs = piece.last_doc - piece.first_doc;
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
  copy_to_Z(block, piece.first_doc, docs);
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

void pour_piece(GpuBlock& block, const Piece& piece, float* piece_rows) {
  for (int doc = piece.first_doc; doc < piece.last_doc; ++doc) {
    const int nearest = topk_of_document(block.steps, start2[doc + 1] - start2[doc]);
    choose_nearest(block, piece, piece_rows, doc, nearest, block.Y_dev_t);
    if (piece.complete) pour(block, doc);
  }
}

void run_pieces(GpuBlock& block) {
  int computed_pass = -1;
  for (const Piece& piece : block.pieces) {
    if (!block.precompute && piece.pass != computed_pass) {
      computed_pass = piece.pass;
      compute_rows(block, block.rows.passes[static_cast<std::size_t>(piece.pass)]);
    }
    float* piece_rows = rows_of_piece(block, piece);
    if (block.steps > 0) {
      pour_piece(block, piece, piece_rows);
    } else {
      send_to_nearest(block, piece, piece_rows);
    }
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
  run_pieces(block);
  require_launched();
  free_buffers(block);
  close_libraries(block);
}

}  // namespace
}  // namespace talvik::internal

#endif
