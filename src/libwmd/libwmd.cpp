// CPU engine: its own copies of the data, and the exported functions over them.  What they compute
// on plain pointers and counts is in src/libwmd/cpu; no other file names the state below.
#include <algorithm>
#include <limits>
#include <memory>
#include <new>  // nothrow, bad_array_new_length
#include <string>
#include <tuple>  // tie
#include <utility>
#include <vector>

#include "internal/address_space.hpp"
#include "internal/failure.hpp"
#include "internal/index.hpp"
#include "internal/large_pages.hpp"
#include "internal/team.hpp"
#include "libwmd/attached_words.hpp"
#include "libwmd/cpu/cache_line.hpp"
#include "libwmd/cpu/dense_product.hpp"
#include "libwmd/cpu/distance_block.hpp"
#include "libwmd/cpu/ground_distances.hpp"
#include "libwmd/cpu/select_smallest.hpp"
#include "libwmd/cpu/sizes.hpp"
#include "libwmd/distinct_rows.hpp"
#include "libwmd/embedding_rows.hpp"
#include "libwmd/word_distance.hpp"
#include "talvik.hpp"

namespace talvik {
namespace {

using internal::BlockBuffers;
using internal::BlockRequest;
using internal::BlockSizes;
using internal::DistanceSource;
using internal::elements;
using internal::Index;
using internal::NearestRule;

constexpr Index multi_docs_most = 256;  // columns of Y_k without capacity steps

template <class T>
using Array = std::unique_ptr<T[]>;

// The engine's state.  A namespace of its own, because a GPU engine exports globals of the same
// names.
namespace host {

// Resident collection.  Counts keep their values after a remove.
int num_words = 0;
int num_docs = 0;
Array<int> start;     // num_docs + 1 offsets
Array<int> ind;       // num_words
Array<float> weight;  // num_words
// The same entries by ascending word within each document, as the sparse stage needs them; null
// where they came in that order.
Array<int> ascending_ind;
Array<float> ascending_weight;

// Vocabulary.
int voc_size = 0;
int vec_size = 0;
Array<float> W;   // voc_size x vec_size
Array<float> RW;  // voc_size squared norms, readable up to the next multiple of line_floats
std::vector<internal::RowHash> W_hash;  // per row of W
bool W_is_unit = false;                 // whether the rows were scaled to unit length

// Query batch, in vector form or in index form.
int num_docs2 = 0;
Array<int> start2;                 // num_docs2 + 1 offsets
Array<float> weight2;              // one per entry
Array<int> ind2;                   // one per entry; index form
Array<float> X2;                   // distinct rows x vec_size; vector form
Array<float> Rn2;                  // squared norm per distinct row; vector form
bool X2_is_unit = false;           // whether the rows were scaled to unit length
internal::DistinctRows distinct2;  // which entries share a row; both forms

const float* D_ground = nullptr;  // borrowed: the caller's voc_size x voc_size, never freed here

}  // namespace host

// Uninitialised.  A negative count raises the array-length exception of new[].
template <class T>
Array<T> new_array(Index count) {
  return Array<T>(new T[count]);
}

// A negative count stays negative.
Index padded_to_line(Index count) {
  return count < 0 ? count : internal::round_up(count, internal::line_floats);
}

template <class T>
Array<T> copy_of(const T* from, Index count) {
  Array<T> copy = new_array<T>(count);
  std::copy_n(from, count, copy.get());
  return copy;
}

// Copies a large matrix in parallel.  Rows of a negative length raise the exception unless there
// are none.
Array<float> copy_of_rows(const float* from, int rows, int m) {
  Array<float> copy = new_array<float>(elements(rows, m));
  internal::begin_on_large_pages(copy.get(), elements(rows, m) * sizeof(float));
  internal::for_each_share(num_cpu_threads, rows, [&](int first, int last, int) {
    std::copy(from + elements(first, m), from + elements(last, m), copy.get() + elements(first, m));
  });
  return copy;
}

bool ascends_within_documents() {
  const int* ind = host::ind.get();
  for (int i = 0; i < host::num_docs; ++i) {
    if (!std::is_sorted(ind + host::start[i], ind + host::start[i + 1])) return false;
  }
  return true;
}

void sort_within_documents() {
  host::ascending_ind = new_array<int>(host::num_words);
  host::ascending_weight = new_array<float>(host::num_words);
  std::vector<std::pair<int, float>> entries;
  for (int i = 0; i < host::num_docs; ++i) {
    entries.clear();
    for (int p = host::start[i]; p < host::start[i + 1]; ++p) {
      entries.emplace_back(host::ind[p], host::weight[p]);
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    Index p = host::start[i];
    for (const auto& entry : entries) {
      std::tie(host::ascending_ind[p], host::ascending_weight[p]) = entry;
      ++p;
    }
  }
}

void copy_query_documents(int n2, const float* weight2, int num_docs2, const int* start2) {
  host::num_docs2 = num_docs2;
  host::weight2 = copy_of(weight2, n2);
  host::start2 = copy_of(start2, Index{num_docs2} + 1);
}

internal::DistinctRows distinct_rows_of(const void* rows, Index row_bytes) {
  if (host::num_docs2 < 0) return {};  // no offsets
  const int max_rows = internal::rows_per_pass(internal::EngineBudget{}, num_cpu_threads);
  return internal::find_distinct_rows(rows, row_bytes, host::start2.get(), host::num_docs2,
                                      max_rows, num_cpu_threads);
}

// Passes hold what the threads of the computation have room for.  Where the batch was copied for
// fewer threads, its rows are grouped again by their numbers.
void fit_passes_to_threads() {
  const internal::DistinctRows& held = host::distinct2;
  const int num_passes = static_cast<int>(held.passes.size());
  const int max_rows = internal::rows_per_pass(internal::EngineBudget{}, num_cpu_threads);
  if (internal::largest_pass(held, 0, num_passes) <= max_rows) return;
  std::vector<int> row_of_entry(host::start2[host::num_docs2]);
  for (const internal::RowPass& pass : held.passes) {
    for (int e = pass.first_entry; e < pass.last_entry; ++e) {
      row_of_entry[e] = pass.first_row + held.row_of_entry[e];
    }
  }
  internal::DistinctRows fitting = distinct_rows_of(row_of_entry.data(), sizeof(int));
  if (host::X2) {
    const int m = host::vec_size;
    const Index rows = std::ssize(fitting.entry_of_row);
    Array<float> X2 = new_array<float>(elements(rows, m)), Rn2 = new_array<float>(rows);
    for (Index r = 0; r < rows; ++r) {
      const int row = row_of_entry[fitting.entry_of_row[r]];
      std::copy_n(host::X2.get() + elements(row, m), m, X2.get() + elements(r, m));
      Rn2[r] = host::Rn2[row];
    }
    host::X2 = std::move(X2);
    host::Rn2 = std::move(Rn2);
  } else {
    internal::order_rows(host::ind2.get(), fitting);
  }
  host::distinct2 = std::move(fitting);
}

int remove_query_documents() {
  host::weight2.reset();
  host::start2.reset();
  host::distinct2 = {};
  return 1;
}

// @param unit_rows  whether all rows have unit length; only the cosine of such rows has a bound
internal::Metric metric_in_use(bool unit_rows) {
  return internal::chosen_metric(use_cosine, use_cosine ? unit_rows : normalize_embeddings);
}

internal::Vocabulary held_vocabulary() {
  return {.voc_size = host::voc_size,
          .vec_size = host::vec_size,
          .rows = host::W.get(),
          .norms = host::RW.get(),
          .unit_rows = host::W_is_unit,
          .row_hash = host::W_hash};
}

internal::QueryBatch held_batch() {
  return {.num_docs = host::num_docs2,
          .start = host::start2.get(),
          .weight = host::weight2.get(),
          .ind = host::ind2.get(),
          .distinct = &host::distinct2,
          .rows = host::X2.get(),
          .row_norms = host::Rn2.get(),
          .unit_rows = host::X2_is_unit};
}

internal::CsrCollection held_collection() {
  const bool sorted = host::ascending_ind != nullptr;
  return {.num_docs = host::num_docs,
          .start = host::start.get(),
          .ind = sorted ? host::ascending_ind.get() : host::ind.get(),
          .weight = sorted ? host::ascending_weight.get() : host::weight.get()};
}

BlockRequest request_of(DistanceSource source, int steps, NearestRule rule) {
  return {.source = source,
          .metric = metric_in_use(host::W_is_unit && host::X2_is_unit),
          .ground = host::D_ground,
          .steps = steps,
          .rule = rule,
          .threads = num_cpu_threads,
          .budget = {}};
}

// Uninitialised scratch; untouched pages are never committed.  It is asked for at the size that the
// failure message states, or at the size that the computation needs if that is larger; what is used
// begins at the first line in it.
class Buffer {
 public:
  Buffer(Index asked, Index needed, const std::string& message)
      : storage_(allocate(asked, needed)) {
    if (!storage_) internal::fail("Failed to allocate memory for " + message);
    internal::begin_on_large_pages(floats(), needed * sizeof(float));
  }
  [[nodiscard]] float* floats() const { return internal::line_start(storage_.get()); }

 private:
  // Compilers differ in what the expression does for sizes beyond any array.
  static float* allocate(Index asked, Index needed) {
    constexpr Index most = std::numeric_limits<Index>::max() / sizeof(float);
    if (asked < 0 || asked > most) throw std::bad_array_new_length();
    const Index used = needed > 0 ? needed + internal::line_floats : 0;
    return new (std::nothrow) float[std::max(asked, used)];
  }

  Array<float> storage_;
};

// A BLAS that cannot have its memory does not come back, so it is looked for before the first call.
// What the threads of an earlier computation have got they keep.
void require_blas_memory() {
#ifdef EIGEN_USE_BLAS
  static int threads_served = 0;
  const int more = std::max(num_cpu_threads, 1) - threads_served;
  if (more <= 0 || internal::product_scratch(host::vec_size).on_matrix_unit) return;
  const std::size_t bytes = more * internal::blas_bytes_per_thread;
  if (!internal::fits_address_space(bytes)) {
    internal::fail("Failed to allocate memory for dense products: " + std::to_string(bytes));
  }
  threads_served += more;
#endif
}

// The tiles do without the buffers below.  They are asked for all the same, so that a process that
// cannot have what the computation states says so at once; no page of them is ever touched.

std::vector<Buffer> ask_for_weights(bool capacity_steps) {
  std::vector<Buffer> buffers;
  if (!capacity_steps) return buffers;
  buffers.emplace_back(host::num_words, 0, "weight_updated");
  buffers.emplace_back(host::num_words, 0, "weight_delta");
  return buffers;
}

std::vector<Buffer> ask_for_transposed(bool precompute, bool capacity_step) {
  std::vector<Buffer> buffers;
  const auto ask = [&](const std::string& name, Index floats) {
    buffers.emplace_back(floats, 0, name + ": " + std::to_string(floats));
  };
  if (!precompute) ask("X2t", elements(host::start2[host::num_docs2], host::vec_size));
  if (!capacity_step) return buffers;
  const Index table = elements(host::voc_size, host::num_docs2);
  for (const char* name : {"minval2_trans", "minval2t_trans", "minweight2_trans"}) ask(name, table);
  return buffers;
}

}  // namespace

// Every copy drops what is still there: a run that ran out of memory has released nothing.

int copy_raw_data_cpu(int n, int* ind, float* weight, int num_docs_, int* start) {
  remove_raw_data_cpu();
  host::num_words = n;
  host::num_docs = num_docs_;
  host::ind = copy_of(ind, n);
  host::weight = copy_of(weight, n);
  host::start = copy_of(start, Index{num_docs_} + 1);
  if (!ascends_within_documents()) sort_within_documents();
  return 1;
}

int remove_raw_data_cpu() {
  host::ind.reset();
  host::weight.reset();
  host::start.reset();
  host::ascending_ind.reset();
  host::ascending_weight.reset();
  return 1;
}

int copy_vocabulary_cpu(int v_size, int m, float* W) {
  remove_vocabulary_cpu();
  host::voc_size = v_size;
  host::vec_size = m;
  host::RW = new_array<float>(padded_to_line(v_size));
  host::W = copy_of_rows(W, v_size, m);
  internal::norm_and_normalise(host::W.get(), v_size, m, host::RW.get(), normalize_embeddings,
                               num_cpu_threads);
  host::W_is_unit = normalize_embeddings;
  host::W_hash =
      internal::hash_rows(host::W.get(), elements(m, sizeof(float)), v_size, num_cpu_threads);
  return 1;
}

int remove_vocabulary_cpu() {
  host::W.reset();
  host::RW.reset();
  host::W_hash = {};
  return 1;
}

int copy_raw_data2_cpu(int n2, int* ind2, float* weight2, int num_docs2_, int* start2_) {
  remove_raw_data2_cpu();
  copy_query_documents(n2, weight2, num_docs2_, start2_);
  host::ind2 = copy_of(ind2, n2);
  host::distinct2 = distinct_rows_of(host::ind2.get(), sizeof(int));
  internal::order_rows(host::ind2.get(), host::distinct2);
  return 1;
}

int remove_raw_data2_cpu() {
  host::ind2.reset();
  return remove_query_documents();
}

int copy_vectors2_cpu(int n2, int m, float* X2, float* weight2, int num_docs2_, int* start2_) {
  remove_vectors2_cpu();
  copy_query_documents(n2, weight2, num_docs2_, start2_);
  if (elements(n2, m) < 0) throw std::bad_array_new_length();
  host::distinct2 = distinct_rows_of(X2, elements(m, sizeof(float)));
  const std::vector<int>& entry_of_row = host::distinct2.entry_of_row;
  const int rows = static_cast<int>(entry_of_row.size());
  host::X2 = new_array<float>(elements(rows, m));
  host::Rn2 = new_array<float>(rows);
  internal::for_each_share(num_cpu_threads, rows, [&](int first, int last, int) {
    for (int r = first; r < last; ++r) {
      std::copy_n(X2 + elements(entry_of_row[r], m), m, host::X2.get() + elements(r, m));
    }
  });
  internal::norm_and_normalise(host::X2.get(), rows, m, host::Rn2.get(), normalize_embeddings,
                               num_cpu_threads);
  host::X2_is_unit = normalize_embeddings;
  return 1;
}

int remove_vectors2_cpu() {
  host::X2.reset();
  host::Rn2.reset();
  return remove_query_documents();
}

int copy_ground_distances_cpu(int voc_size_, float* D_ground) {
  host::voc_size = voc_size_;
  host::D_ground = D_ground;
  return 1;
}

int remove_ground_distances_cpu() {
  host::D_ground = nullptr;
  return 1;
}

int internal::attached_words_cpu() { return host::D_ground ? host::voc_size : 0; }

int compute_ground_distances_cpu(float* D_ground) {
  const Index pairs = elements(host::voc_size, host::voc_size);
  internal::advise_large_pages(D_ground, pairs * sizeof(float));
  require_blas_memory();
  internal::compute_ground_matrix(held_vocabulary(), metric_in_use(host::W_is_unit),
                                  num_cpu_threads, D_ground);
  return 1;
}

int ed_min_vocab_cpu(float* Z, int delta_iterations, bool precompute) {
  const DistanceSource source =
      precompute ? DistanceSource::ground_of_word : DistanceSource::vectors;
  const bool capacity_step = delta_iterations > 0;
  fit_passes_to_threads();
  const BlockRequest request = request_of(source, capacity_step ? 1 : 0, NearestRule::as_asked);
  const BlockSizes needed = internal::block_sizes(held_vocabulary(), held_batch(), request);

  const Index n2 = host::start2[host::num_docs2];
  const Index products = n2 * internal::words_of_y(host::voc_size, n2);
  const Index table = elements(host::voc_size, host::num_docs2);
  const std::string table_bytes = std::to_string(table * sizeof(float));
  const Buffer Y(products, needed.panels, "Y: " + std::to_string(products));
  std::vector<Buffer> step_tables;
  if (capacity_step) {
    step_tables.emplace_back(table, needed.table, "minval2t, size: " + table_bytes);
    step_tables.emplace_back(table, needed.table, "minweight2, size: " + table_bytes);
  }
  const std::vector<Buffer> weights = ask_for_weights(capacity_step);
  const Buffer minval2(table, needed.table, "minval2: " + std::to_string(table));
  const std::vector<Buffer> transposed = ask_for_transposed(precompute, capacity_step);

  BlockBuffers buffers{.panels = Y.floats(), .distance = {minval2.floats()}, .capacity = {}};
  if (capacity_step) {
    buffers.distance.push_back(step_tables[0].floats());
    buffers.capacity.push_back(step_tables[1].floats());
  }
  if (!precompute) require_blas_memory();
  internal::compute_distance_block(held_vocabulary(), held_collection(), held_batch(), request,
                                   buffers, Z);
  return 1;
}

int ed_min_vocab_cpu_multi(float* Z, int delta_iterations, bool precompute) {
  const DistanceSource source =
      precompute ? DistanceSource::ground_of_entry : DistanceSource::vectors;
  fit_passes_to_threads();
  const BlockRequest request = request_of(source, delta_iterations, NearestRule::halving);
  const BlockSizes needed = internal::block_sizes(held_vocabulary(), held_batch(), request);
  const int nearest = internal::nearest_of_batch(held_batch(), request.steps, request.rule);

  const Buffer Y(internal::multi_y_floats, needed.panels,
                 "Y: " + std::to_string(internal::multi_y_floats));
  const Index steps = std::max(delta_iterations, 0);
  const Index columns = elements(steps + 1, host::voc_size);
  const Index plain_columns = elements(multi_docs_most, host::voc_size);
  const Buffer Y_k(steps > 0 ? columns : plain_columns, nearest * needed.table, "Y_k");
  const Buffer weights_min_k(columns, (nearest - 1) * needed.table, "weights_min_k");
  const std::vector<Buffer> weights = ask_for_weights(steps > 0);

  BlockBuffers buffers{.panels = Y.floats(), .distance = {}, .capacity = {}};
  for (int t = 0; t < nearest; ++t) buffers.distance.push_back(Y_k.floats() + t * needed.table);
  for (int t = 0; t + 1 < nearest; ++t) {
    buffers.capacity.push_back(weights_min_k.floats() + t * needed.table);
  }
  if (!precompute) require_blas_memory();
  internal::compute_distance_block(held_vocabulary(), held_collection(), held_batch(), request,
                                   buffers, Z);
  return 1;
}

bool isSmaller(std::pair<float, int> a, std::pair<float, int> b) { return a.first < b.first; }

int sort_cpu(int rows, int cols, float* data, int k, int* ind_out, float* val_out) {
  internal::for_each_share(num_cpu_threads, rows, [&](int first, int last, int) {
    std::vector<internal::Candidate> smallest;
    for (int r = first; r < last; ++r) {
      internal::select_smallest(data + elements(r, cols), cols, k, smallest);
      for (int j = 0; j < k; ++j) {
        const Index at = elements(r, k) + j;
        std::tie(val_out[at], ind_out[at]) = smallest[j];
      }
    }
  });
  return 1;
}

int topk_single(int k, int rows, int cols, float* values, float* values_k, float* weights,
                float* weights_k) {
  internal::for_each_share(num_cpu_threads, cols, [&](int first, int last, int) {
    std::vector<float> column(rows);
    std::vector<internal::Candidate> smallest;
    for (int c = first; c < last; ++c) {
      for (int r = 0; r < rows; ++r) column[r] = values[elements(r, cols) + c];
      internal::select_smallest(column.data(), rows, k, smallest);
      for (int t = 0; t < k; ++t) {
        const Index at = elements(t, cols) + c;
        const auto& [value, row] = smallest[t];
        values_k[at] = value;
        weights_k[at] = weights[row];
      }
    }
  });
  return 1;
}

void update_weights_delta(float* weight_in, float* weights_min, float* weight_updated,
                          float* weight_delta) {
  if (!host::start) return;  // nothing is loaded
  internal::for_each_share(num_cpu_threads, host::num_docs, [&](int first, int last, int) {
    for (int p = host::start[first]; p < host::start[last]; ++p) {
      const float a = weight_in[p];
      const float b = weights_min[host::ind[p]];
      weight_delta[p] = a > b ? b : a;
      weight_updated[p] = static_cast<float>(static_cast<double>(a) - weight_delta[p]);
    }
  });
}

void gather_matrix_rows_cpu(int num_rows, int /*num_cols*/, int row_len, float* matrix,
                            int* row_ind, float* out) {
  internal::for_each_share(num_cpu_threads, num_rows, [&](int first, int last, int) {
    for (int i = first; i < last; ++i) {
      std::copy_n(matrix + elements(row_ind[i], row_len), row_len, out + elements(i, row_len));
    }
  });
}

void gather_matrix_columns_cpu(int num_rows, int num_cols, int src_cols, float* matrix,
                               int* col_ind, float* out) {
  internal::for_each_share(num_cpu_threads, num_rows, [&](int first, int last, int) {
    for (int i = first; i < last; ++i) {
      const float* row = matrix + elements(i, src_cols);
      float* row_out = out + elements(i, num_cols);
      for (int j = 0; j < num_cols; ++j) row_out[j] = row[col_ind[j]];
    }
  });
}

}  // namespace talvik
