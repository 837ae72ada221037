// The distance block of a query batch on the GPU.  Products are computed once per distinct query
// row, for a tile of the vocabulary at a time, and the entries of a document point to theirs.  The
// nearest entries of every document are chosen by the scores of their products, and theirs alone
// become distances; the products of a document by itself become distances first.  Then the resident
// weights go to the nearest entries.  Kernels of the default stream run in the order of their
// launches, so only the copies wait.  Included by libwmd.cu alone.
#ifndef TALVIK_LIBWMD_GPU_DISTANCE_BLOCK_CUH
#define TALVIK_LIBWMD_GPU_DISTANCE_BLOCK_CUH

#include <algorithm>
#include <iterator>  // ssize
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "libwmd/distinct_rows.hpp"
#include "libwmd/gpu/calls.cuh"
#include "libwmd/gpu/engine.hpp"
#include "libwmd/gpu/sizes.hpp"

namespace talvik::internal {
namespace {

// What finds words and query rows of one embedding.  As given: before any scaling to unit length.
// The words' rows are scaled in the caller's array, so query rows may be copies of either.
struct EmbeddingHashes {
  std::vector<RowHash> word, scaled_word;  // per vocabulary word; scaled: with normalisation only
  std::vector<RowHash> row;                // per row of X2_dev, as given
};

// The distinct rows of a batch, and how X2_dev has them.
struct QueryRows {
  DistinctRows distinct;      // as one pass of one section
  bool held_by_entry = true;  // else one row each
};

struct BlockRequest {
  float* Z;         // host, num_docs2 x num_docs
  int steps;        // capacity steps
  bool precompute;  // distances from D_ground_dev
  GpuBudget budget;
  GpuStepBegins begins;
};

// One computation: what is asked for, and what it holds meanwhile.
struct GpuBlock {
  BlockRequest asked;
  DistinctRows rows;          // one row per distinct query row in vector form, none in index form
  std::vector<int> held_row;  // per distinct row, its place in X2_dev
  const EmbeddingHashes& hashes;  // vector form

  int kept = topk_size(asked.steps);  // nearest entries per document and word
  Index stride = distances_stride(num_docs);
  // Capacity steps by a thread per pair of documents; else, where too few pairs would leave a GPU
  // idle, by a sparse product each.
  bool fused = false;

  DenseLibrary dense = {};
  SparseLibrary sparse = {};

  DeviceArray<float> dp_dev = {};   // distances of a group of documents to the resident ones
  DeviceArray<float> Y_dev = {};    // products or distances of a tile
  DeviceArray<float> Y_dev_t = {};  // the nearest distances of a section; fused: their weights, too
  DeviceArray<float> weights_min_dev_t = {};  // the weights; read with steps, not fused
  DeviceArray<float> weight_updated = {};     // num_vecs, what is left; with steps, not fused
  DeviceArray<float> weight_delta = {};       // num_vecs, what moves; with steps, not fused

  DeviceArray<int> start2_dev = {};        // start2
  DeviceArray<int> steps_dev = {};         // per document, its steps; fused only
  DeviceArray<int> row_of_entry_dev = {};  // rows.row_of_entry; vector form only

  // Only where the distinct rows of a pass are not side by side in X2_dev.
  DeviceArray<int> held_row_dev = {};   // held_row
  DeviceArray<float> X_rows_dev = {};   // distinct rows of a pass, vec_size each
  DeviceArray<float> Rn_rows_dev = {};  // their squared norms; without normalisation only

  DeviceArray<EqualRows> equal_rows_dev = {};  // words and rows of a pass that may be equal
  int equal_rows = 0;
};

void begin(const GpuBlock& block, GpuStep step) {
  if (block.asked.begins) block.asked.begins(step);
}

// The kernels that keep one number of nearest entries.
struct TopKernels {
  decltype(&top1_single) single;
  decltype(&nearest_of_documents<1>) of_documents;
};

TopKernels top_kernels(int kept) {
  switch (kept) {
    case 1:
      return {&top1_single, &nearest_of_documents<1>};
    case 2:
      return {&top2_single, &nearest_of_documents<2>};
    case 4:
      return {&top4_single, &nearest_of_documents<4>};
    case 8:
      return {&top8_single, &nearest_of_documents<8>};
    default:
      return {&top16_single, &nearest_of_documents<16>};
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
// @param all  of the batch; vector form
DistinctRows plan_rows(const BlockRequest& asked, const DistinctRows& all) {
  const int docs = table_docs(asked.budget, voc_size, topk_size(asked.steps));
  if (!asked.precompute) {
    const int max_rows = rows_of_block(asked.budget, voc_size);
    if (num_docs2 > docs || std::ssize(all.entry_of_row) > max_rows) {
      return find_distinct_rows(all.row_of_entry.data(), sizeof(int), start2, num_docs2, max_rows,
                                num_cpu_threads, docs);
    }
    DistinctRows whole = all;
    whole.sections = {{0, num_docs2, 0, 1}};
    return whole;
  }
  DistinctRows none;
  for (int first = 0; first < num_docs2; first += std::min(docs, num_docs2 - first)) {
    const int last = first + std::min(docs, num_docs2 - first);
    const int pass = static_cast<int>(none.passes.size());
    none.passes.push_back({0, 0, start2[first], start2[last]});
    none.sections.push_back({first, last, pass, pass + 1});
  }
  return none;
}

void allocate_buffers(GpuBlock& block) {
  const GpuBudget& budget = block.asked.budget;
  const bool steps = block.asked.steps > 0;
  int section_docs = 0;
  for (const BatchSection& section : block.rows.sections) {
    section_docs = std::max(section_docs, section.last_doc - section.first_doc);
  }
  const int group = std::min(budget.group_docs, section_docs);
  const Index table = elements(section_docs, elements(block.kept, voc_size));
  block.dp_dev = allocate_on_device<float>(group * block.stride, "dp_dev");
  block.Y_dev = allocate_on_device<float>(block_floats(budget, voc_size), "Y_dev");
  block.fused = steps && elements(group, num_docs) >= budget.fused_pairs;
  const bool own_weights = steps && !block.fused;
  block.Y_dev_t = allocate_on_device<float>(block.fused ? 2 * table : table, "Y_dev_t");
  block.weights_min_dev_t =
      allocate_on_device<float>(own_weights ? table : Index{voc_size}, "weights_min_dev_t");
  if (own_weights) {
    block.weight_updated = allocate_on_device<float>(num_vecs, "weight_updated");
    block.weight_delta = allocate_on_device<float>(num_vecs, "weight_delta");
  }
  block.start2_dev = upload(start2, elements(1, num_docs2) + 1, "start2");
  if (block.fused) {
    std::vector<int> doc_steps(num_docs2);
    for (int q = 0; q < num_docs2; ++q) {
      doc_steps[q] = steps_of_document(block.asked.steps, entries_of(q));
    }
    block.steps_dev = upload(doc_steps.data(), num_docs2, "steps");
  }
  if (block.asked.precompute) return;

  const DistinctRows& rows = block.rows;
  const int entries = start2[num_docs2];
  block.row_of_entry_dev = upload(rows.row_of_entry.data(), entries, "row_of_entry");
  const auto side_by_side = [&](const RowPass& pass) {
    return consecutive(block.held_row.data() + pass.first_row, pass.last_row - pass.first_row);
  };
  if (std::all_of(rows.passes.begin(), rows.passes.end(), side_by_side)) return;
  const int pass_rows = largest_pass(rows, 0, static_cast<int>(rows.passes.size()));
  block.held_row_dev = upload(block.held_row.data(), std::ssize(block.held_row), "held_row");
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
  const int* held = block.held_row.data() + pass.first_row;
  if (consecutive(held, count)) {
    float* norms = normalize_embeddings ? nullptr : Rn2_dev + held[0];
    return {count, X2_dev + elements(held[0], vec_size), norms};
  }
  const DeviceRows rows{count, block.X_rows_dev.get(), block.Rn_rows_dev.get()};
  int* held_dev = block.held_row_dev.get() + pass.first_row;
  const auto gather = [&](int cols, float* from, float* to) {
    launch(gather_matrix_rows, row_grid(count), block_shape(), count, cols, from, held_dev, to);
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
    row_hash.push_back(block.hashes.row[block.held_row[r]]);
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

void upload_equal_rows(GpuBlock& block, const RowPass& pass) {
  const std::vector<EqualRows> pairs = find_equal_rows(block, pass);
  block.equal_rows = static_cast<int>(pairs.size());
  block.equal_rows_dev = upload(pairs.data(), block.equal_rows, "equal_rows");
}

// Whether the section's one document, whose rows are side by side, takes the plain kernels, which
// know nothing of other documents: what the others do is measured against them.
bool is_by_itself(const GpuBlock& block, const BatchSection& section, const RowPass& pass,
                  const WordTile& tile) {
  return section.last_doc - section.first_doc == 1 && section.last_pass - section.first_pass == 1 &&
         tile.count == voc_size && !block.fused && !block.asked.precompute &&
         consecutive(block.rows.row_of_entry.data() + pass.first_entry,
                     pass.last_entry - pass.first_entry);
}

// Whether the scores of products are ordered as the distances.  They need not be where the host has
// switched normalisation on between a copy and the computation: there the argument of the root may
// be well below 0.  Only rows as given have norms.
bool scores_fit_rows() { return !normalize_embeddings || (!RW_dev && !Rn2_dev); }

// The other way round, the rows are of unit length, and their norms are not there.
void require_norms() {
  const bool read = chosen_metric(use_cosine, normalize_embeddings) == Metric::euclidean;
  if (read && num_vecs2 > 0 && (!RW_dev || !Rn2_dev)) {
    fail("Vectors were normalised when they were copied, and are not to be any more");
  }
}

// What the nearest entries of a tile are chosen by.
struct TileScores {
  bool products;      // of row t and word tile.first + v at Y_dev[t*tile.count + v]; else distances
  const float* bias;  // per row, of its products' scores; or null
};

// Writes a tile of Y_dev, and says what it holds then.  The first tile comes first.
TileScores compute_rows(GpuBlock& block, const RowPass& pass, const DeviceRows& rows,
                        const WordTile& tile, bool by_itself) {
  if (rows.count == 0) return {};
  const DeviceRows vocabulary{voc_size, W_dev, RW_dev};
  float* const Y = block.Y_dev.get();
  begin(block, GpuStep::product);
  multiply_rows(block.dense, vocabulary, tile, rows,
                rows_of_product(block.asked.budget, tile.count), Y);
  begin(block, GpuStep::equal);
  if (tile.first == 0) upload_equal_rows(block, pass);  // looked for while the device multiplies
  const bool products = !by_itself && scores_fit_rows();
  if (!products) convert_products(vocabulary, tile, rows, Y);
  if (block.equal_rows > 0) {
    set_pairs_of_equal_rows(vocabulary, tile, rows, block.equal_rows_dev.get(), block.equal_rows,
                            products, Y);
  }
  const Metric metric = chosen_metric(use_cosine, normalize_embeddings);
  return {products, products && metric == Metric::euclidean ? rows.norms : nullptr};
}

// The tables of a section's documents, from its so-manyth on.
NearestEntries tables_from(const GpuBlock& block, int doc) {
  const auto strides = (block.fused ? pairs_by_word : rows_of_words)(block.kept, voc_size);
  const Index first = elements(doc, strides.doc);
  float* const distances = block.Y_dev_t.get() + first;
  if (block.fused) return {distances, distances + 1, strides};
  const bool weighted = block.asked.steps > 0;
  return {distances, weighted ? block.weights_min_dev_t.get() + first : nullptr, strides};
}

// The section's one document to the kernel of its own.
void choose_nearest_of_document(GpuBlock& block, const RowPass& pass) {
  constexpr int from_first = 0;
  const NearestEntries nearest = tables_from(block, from_first);
  const int first = pass.first_entry, count = pass.last_entry - first;
  const Index first_row = count > 0 ? block.rows.row_of_entry[first] : 0;
  launch(top_kernels(block.kept).single, column_grid(voc_size), block_shape(), count, voc_size,
         block.Y_dev.get() + elements(first_row, voc_size), nearest.distances, weight2_dev + first,
         block.weights_min_dev_t.get());
}

// Writes, to the tables of the section's documents, the distances of the tile's words to the
// nearest entries among those of pass p and of the passes before, or their scores where passes
// follow.  A document without entries is far away.
void choose_nearest(GpuBlock& block, const BatchSection& section, int p, const WordTile& tile,
                    const TileScores& scores) {
  const RowPass& pass = block.rows.passes[p];
  constexpr int from_first = 0;
  const EntryScores ground{D_ground_dev + tile.first, ind2_dev, voc_size};
  const EntryScores rows{block.Y_dev.get(), block.row_of_entry_dev.get(), tile.count,
                         scores.products ? score_per_dot : 1, scores.bias};
  ListRule rule;
  if (scores.products) {
    rule = {.missing = std::numeric_limits<float>::infinity(),
            .convert = p + 1 == section.last_pass,
            .metric = chosen_metric(use_cosine, normalize_embeddings),
            .word_norms = RW_dev};
  }
  launch(top_kernels(block.kept).of_documents,
         document_grid(section.last_doc - section.first_doc, tile.count), block_shape(),
         block.asked.precompute ? ground : rows, tile, block.start2_dev.get() + section.first_doc,
         pass, weight2_dev, tables_from(block, from_first), p > section.first_pass, rule);
}

// All weight goes to the nearest entry: one product for all documents of a group.
void send_to_nearest(GpuBlock& block, const float* nearest, int docs) {
  const float fp1 = 1, fp0 = 0;
  const cusparseStatus_t status = cusparseScsrmm2(
      block.sparse.handle, CUSPARSE_OPERATION_NON_TRANSPOSE, CUSPARSE_OPERATION_NON_TRANSPOSE,
      num_docs, docs, voc_size, num_vecs, &fp1, block.sparse.descr, weight_dev, start_dev, ind_dev,
      nearest, voc_size, &fp0, block.dp_dev.get(), static_cast<int>(block.stride));
  if (status == CUSPARSE_STATUS_SUCCESS) return;
  std::string text = "Sparse-matrix dense-matrix multiplication failed: " + number_of(status);
  if (status == CUSPARSE_STATUS_INTERNAL_ERROR) text += "\nInternal Error";
  if (status == CUSPARSE_STATUS_EXECUTION_FAILED) text += "\nExecution Failed";
  fail(text);
}

// distances[i] += the weights of resident document i, times its words' nearest distances.
void add_product(GpuBlock& block, const float* weights, const float* nearest, float* distances,
                 const std::string& failure) {
  const float fp1 = 1;
  constexpr int one_document = 1;
  const cusparseStatus_t status =
      cusparseScsrmm(block.sparse.handle, CUSPARSE_OPERATION_NON_TRANSPOSE, num_docs, one_document,
                     voc_size, num_vecs, &fp1, block.sparse.descr, weights, start_dev, ind_dev,
                     nearest, voc_size, &fp1, distances, num_docs);
  if (status != CUSPARSE_STATUS_SUCCESS) {
    fail("Sparse matrix-matrix multiplication failed in " + failure + number_of(status));
  }
}

// Each of the nearest entries in turn takes at most its own weight; the rest goes to the next one.
// The distances are zeros.
void pour_document(GpuBlock& block, const NearestEntries& nearest, int steps, float* distances) {
  float* left = weight_dev;
  for (int k = 0; k < steps; ++k) {
    launch(update_weights_delta_multi, row_grid(num_docs), block_shape(), num_docs, left, start_dev,
           ind_dev, voc_size, k, nearest.weights, block.weight_delta.get(),
           block.weight_updated.get());
    left = block.weight_updated.get();
    add_product(block, block.weight_delta.get(), nearest.distances + elements(k, voc_size),
                distances, "iteration " + std::to_string(k) + " ");
  }
  add_product(block, left, nearest.distances + elements(steps, voc_size), distances,
              steps == 0 ? "final iteration 0 " : "final iteration ");
}

void pour(GpuBlock& block, const NearestEntries& nearest, int first_doc, int docs) {
  if (block.fused) {
    const ResidentRows resident{num_docs, start_dev, ind_dev, weight_dev};
    launch(pour_documents, dim3(blocks_for(num_docs, threads_per_block), docs), block_shape(),
           resident, nearest, block.steps_dev.get() + first_doc, block.stride, block.dp_dev.get());
    return;
  }
  cudaMemset(block.dp_dev.get(), 0, docs * block.stride * sizeof(float));
  for (int q = 0; q < docs; ++q) {
    const Index table = elements(q, nearest.strides.doc);
    pour_document(block, {nearest.distances + table, nearest.weights + table, nearest.strides},
                  steps_of_document(block.asked.steps, entries_of(first_doc + q)),
                  block.dp_dev.get() + q * block.stride);
  }
}

void copy_to_Z(const GpuBlock& block, int first_doc, int docs) {
  const std::size_t row_bytes = num_docs * sizeof(float);
  if (cudaMemcpy2D(block.asked.Z + elements(first_doc, num_docs), row_bytes, block.dp_dev.get(),
                   block.stride * sizeof(float), row_bytes, docs,
                   cudaMemcpyDeviceToHost) != cudaSuccess) {
    fail("Failed to copy Z");
  }
}

// The distances of a section, whose tables are complete.
void finish_section(GpuBlock& block, const BatchSection& section) {
  const int group = block.asked.budget.group_docs;
  for (int doc = section.first_doc; doc < section.last_doc; doc += group) {
    const int docs = std::min(group, section.last_doc - doc);
    const NearestEntries nearest = tables_from(block, doc - section.first_doc);
    begin(block, GpuStep::pour);
    if (block.asked.steps > 0)
      pour(block, nearest, doc, docs);
    else
      send_to_nearest(block, nearest.distances, docs);
    begin(block, GpuStep::copy);
    copy_to_Z(block, doc, docs);
  }
}

// Pass p of a section holds all rows of its documents, or some of the rows of its one document.
void run_pass(GpuBlock& block, const BatchSection& section, int p) {
  const RowPass& pass = block.rows.passes[p];
  const bool empty = pass.first_row == pass.last_row;
  DeviceRows rows{};
  if (!empty) {
    begin(block, GpuStep::gather);
    rows = rows_of_pass(block, pass);
  }
  const int words = block.asked.precompute
                        ? std::min(voc_size, widest_tile)
                        : words_of_tile(block.asked.budget, voc_size, rows.count);
  for (int first = 0; first < voc_size; first += std::min(words, voc_size - first)) {
    const WordTile tile{first, std::min(words, voc_size - first)};
    const bool by_itself = is_by_itself(block, section, pass, tile);
    const TileScores scores = compute_rows(block, pass, rows, tile, by_itself);
    begin(block, GpuStep::nearest);
    if (by_itself)
      choose_nearest_of_document(block, pass);
    else
      choose_nearest(block, section, p, tile, scores);
  }
}

void run_sections(GpuBlock& block) {
  for (const BatchSection& section : block.rows.sections) {
    for (int p = section.first_pass; p < section.last_pass; ++p) run_pass(block, section, p);
    finish_section(block, section);
  }
}

// Z of the batch held, by the state of the engine.
void compute_block(const BlockRequest& asked, const QueryRows& query_rows,
                   const EmbeddingHashes& hashes) {
  // Nothing to launch, and nothing to pay for, where no resident document has an entry.
  if (num_docs2 <= 0 || num_docs <= 0) return;
  if (num_vecs <= 0) {
    std::fill_n(asked.Z, elements(num_docs2, num_docs), 0.0f);
    return;
  }
  if (asked.begins) asked.begins(GpuStep::prepare);
  if (!asked.precompute) require_norms();
  forget_earlier_errors();
  GpuBlock block{.asked = asked,
                 .rows = plan_rows(asked, query_rows.distinct),
                 .held_row = {},
                 .hashes = hashes};
  for (const int entry : block.rows.entry_of_row) {
    block.held_row.push_back(query_rows.held_by_entry ? entry
                                                      : query_rows.distinct.row_of_entry[entry]);
  }
  allocate_buffers(block);
  run_sections(block);
  begin(block, GpuStep::release);
  require_launched();
  free_buffers(block);
  block.sparse.close();
  begin(block, GpuStep::finished);
}

}  // namespace
}  // namespace talvik::internal

#endif
