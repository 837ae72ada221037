// CPU engine: its private copies of the data, and the exported functions over them.  The work on
// plain pointers and counts is done in src/internal; nothing else names the state below.
#include <algorithm>
#include <cstddef>
#include <new>
#include <string>
#include <tuple>  // tie
#include <utility>
#include <vector>

#include "internal/failure.hpp"
#include "internal/index.hpp"
#include "internal/large_pages.hpp"
#include "internal/team.hpp"
#include "libwmd/cpu/cache_line.hpp"
#include "libwmd/cpu/distance_block.hpp"
#include "libwmd/cpu/ground_distances.hpp"
#include "libwmd/cpu/select_smallest.hpp"
#include "libwmd/cpu/sizes.hpp"
#include "libwmd/distinct_rows.hpp"
#include "libwmd/embedding_rows.hpp"
#include "libwmd/word_distance.hpp"
#include "talvik.hpp"

namespace talvik {

// A name of its own: a GPU engine exports globals of the same names.
namespace {
namespace host {

// Resident collection.  Counts keep their values after a remove.
int num_words = 0;
int num_docs = 0;
int* start = nullptr;     // owned: num_docs + 1 offsets
int* ind = nullptr;       // owned: num_words
float* weight = nullptr;  // owned: num_words
// The same entries by ascending word within a document, which the sparse stage goes through block
// of words by block of words; null where they came in that order.
int* ascending_ind = nullptr;       // owned: num_words, or null
float* ascending_weight = nullptr;  // owned: num_words, or null

// Vocabulary.
int voc_size = 0;
int vec_size = 0;
float* W = nullptr;   // owned: voc_size x vec_size
float* RW = nullptr;  // owned: voc_size squared norms, readable up to the next whole line

// Query batch, in one of its two forms.
int num_docs2 = 0;
int* start2 = nullptr;                  // owned: num_docs2 + 1 offsets
float* weight2 = nullptr;               // owned: one per entry
int* ind2 = nullptr;                    // owned: one per entry; index form
float* X2 = nullptr;                    // owned: distinct rows x vec_size; vector form
float* Rn2 = nullptr;                   // owned: squared norm per distinct row; vector form
internal::DistinctRows distinct2 = {};  // which entries share a row; both forms

const float* D_ground = nullptr;  // borrowed: the caller's voc_size x voc_size, never freed here

}  // namespace host

using internal::BlockBuffers;
using internal::BlockRequest;
using internal::BlockSizes;
using internal::DistanceSource;
using internal::elements;
using internal::NearestRule;

template <class T>
T* copy_of(const T* from, std::size_t count) {
  T* copy = new T[count];
  std::copy_n(from, count, copy);
  return copy;
}

// Of a large array, by the team.
float* copy_of_rows(const float* from, int rows, int m) {
  float* copy = new float[elements(rows, m)];
  internal::begin_on_large_pages(copy, elements(rows, m) * sizeof(float));
  internal::for_each_share(num_cpu_threads, rows, [&](int first, int last, int) {
    std::copy(from + elements(first, m), from + elements(last, m), copy + elements(first, m));
  });
  return copy;
}

template <class T>
void release(T*& array) {
  delete[] array;
  array = nullptr;
}

bool ascends_within_documents() {
  for (int i = 0; i < host::num_docs; ++i) {
    if (!std::is_sorted(host::ind + host::start[i], host::ind + host::start[i + 1])) return false;
  }
  return true;
}

void sort_within_documents() {
  const std::size_t n = static_cast<std::size_t>(host::num_words);
  host::ascending_ind = new int[n];
  host::ascending_weight = new float[n];
  std::vector<std::pair<int, float>> entries;
  for (int i = 0; i < host::num_docs; ++i) {
    entries.clear();
    for (int p = host::start[i]; p < host::start[i + 1]; ++p) {
      entries.emplace_back(host::ind[p], host::weight[p]);
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (std::size_t e = 0; e < entries.size(); ++e) {
      const std::size_t p = static_cast<std::size_t>(host::start[i]) + e;
      std::tie(host::ascending_ind[p], host::ascending_weight[p]) = entries[e];
    }
  }
}

void copy_query_documents(int n2, const float* weight2, int num_docs2, const int* start2) {
  host::num_docs2 = num_docs2;
  host::weight2 = copy_of(weight2, static_cast<std::size_t>(n2));
  host::start2 = copy_of(start2, static_cast<std::size_t>(num_docs2) + 1);
}

internal::DistinctRows distinct_rows_of(const void* rows, std::size_t row_bytes) {
  const int max_rows = internal::rows_per_pass(internal::EngineBudget{}, num_cpu_threads);
  return internal::find_distinct_rows(rows, row_bytes, host::start2, host::num_docs2, max_rows,
                                      num_cpu_threads);
}

int remove_query_documents() {
  release(host::weight2);
  release(host::start2);
  host::distinct2 = {};
  return 1;
}

internal::Vocabulary held_vocabulary() {
  return {host::voc_size, host::vec_size, host::W, host::RW};
}

internal::QueryBatch held_batch() {
  return {host::num_docs2,  host::start2, host::weight2, host::ind2,
          &host::distinct2, host::X2,     host::Rn2};
}

internal::CsrCollection held_collection() {
  const bool sorted = host::ascending_ind != nullptr;
  return {host::num_docs, host::start, sorted ? host::ascending_ind : host::ind,
          sorted ? host::ascending_weight : host::weight};
}

BlockRequest request_of(DistanceSource source, int steps, NearestRule rule) {
  return {source,
          internal::chosen_metric(use_cosine, normalize_embeddings),
          host::D_ground,
          steps,
          rule,
          num_cpu_threads,
          internal::EngineBudget{}};
}

// A working array, untouched: pages that no tile uses are never there.  It starts at a cache line,
// so that no vector of it lies across two.
struct Buffer {
  static constexpr std::align_val_t line{internal::line_bytes};
  float* floats = nullptr;
  Buffer(long long asked, long long needed, const std::string& message)
      : floats(static_cast<float*>(
            ::operator new[](static_cast<std::size_t>(std::max(asked, needed)) * sizeof(float),
                             line, std::nothrow))) {
    if (!floats) internal::fail(message);
    internal::begin_on_large_pages(floats, static_cast<std::size_t>(needed) * sizeof(float));
  }
  ~Buffer() { ::operator delete[](floats, line); }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
};

}  // namespace

// Every copy drops what is still there: a run that ran out of memory has released nothing.

int copy_raw_data_cpu(int n, int* ind, float* weight, int num_docs_, int* start) {
  remove_raw_data_cpu();
  host::num_words = n;
  host::num_docs = num_docs_;
  host::ind = copy_of(ind, static_cast<std::size_t>(n));
  host::weight = copy_of(weight, static_cast<std::size_t>(n));
  host::start = copy_of(start, static_cast<std::size_t>(num_docs_) + 1);
  if (!ascends_within_documents()) sort_within_documents();
  return 1;
}

int remove_raw_data_cpu() {
  release(host::ind);
  release(host::weight);
  release(host::start);
  release(host::ascending_ind);
  release(host::ascending_weight);
  return 1;
}

int copy_vocabulary_cpu(int v_size, int m, float* W) {
  remove_vocabulary_cpu();
  host::voc_size = v_size;
  host::vec_size = m;
  host::W = copy_of_rows(W, v_size, m);
  host::RW = new float[static_cast<std::size_t>(internal::round_up(v_size, internal::line_floats))];
  internal::norm_and_normalise(host::W, v_size, m, host::RW, normalize_embeddings, num_cpu_threads);
  return 1;
}

int remove_vocabulary_cpu() {
  release(host::W);
  release(host::RW);
  return 1;
}

int copy_raw_data2_cpu(int n2, int* ind2, float* weight2, int num_docs2_, int* start2_) {
  remove_raw_data2_cpu();
  copy_query_documents(n2, weight2, num_docs2_, start2_);
  host::ind2 = copy_of(ind2, static_cast<std::size_t>(n2));
  host::distinct2 = distinct_rows_of(host::ind2, sizeof(int));
  internal::order_rows(host::ind2, host::distinct2);
  return 1;
}

int remove_raw_data2_cpu() {
  release(host::ind2);
  return remove_query_documents();
}

int copy_vectors2_cpu(int n2, int m, float* X2, float* weight2, int num_docs2_, int* start2_) {
  remove_vectors2_cpu();
  copy_query_documents(n2, weight2, num_docs2_, start2_);
  host::distinct2 = distinct_rows_of(X2, elements(m, sizeof(float)));
  const std::vector<int>& entry_of_row = host::distinct2.entry_of_row;
  const int rows = static_cast<int>(entry_of_row.size());
  host::X2 = new float[elements(rows, m)];
  host::Rn2 = new float[entry_of_row.size()];
  internal::for_each_share(num_cpu_threads, rows, [&](int first, int last, int) {
    for (int r = first; r < last; ++r) {
      const float* row = X2 + elements(entry_of_row[static_cast<std::size_t>(r)], m);
      std::copy_n(row, m, host::X2 + elements(r, m));
    }
  });
  internal::norm_and_normalise(host::X2, rows, m, host::Rn2, normalize_embeddings, num_cpu_threads);
  return 1;
}

int remove_vectors2_cpu() {
  release(host::X2);
  release(host::Rn2);
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

int compute_ground_distances_cpu(float* D_ground) {
  const std::size_t pairs = elements(host::voc_size, host::voc_size);
  internal::advise_large_pages(D_ground, pairs * sizeof(float));
  internal::compute_ground_matrix(held_vocabulary(),
                                  internal::chosen_metric(use_cosine, normalize_embeddings),
                                  num_cpu_threads, D_ground);
  return 1;
}

int ed_min_vocab_cpu(float* Z, int delta_iterations, bool precompute) {
  const DistanceSource source =
      precompute ? DistanceSource::ground_of_word : DistanceSource::vectors;
  const bool capacity_step = delta_iterations > 0;
  const BlockRequest request = request_of(source, capacity_step ? 1 : 0, NearestRule::as_asked);
  const BlockSizes needed = internal::block_sizes(held_vocabulary(), held_batch(), request);

  // The whole block's and tables' sizes are asked for, though the tiles use only the front.
  const long long n2 = host::start2[host::num_docs2];
  const long long block = n2 * internal::words_per_distance_block(host::voc_size, n2);
  const long long table = 1ll * host::voc_size * host::num_docs2;
  const std::string table_bytes = std::to_string(static_cast<unsigned long>(table) * sizeof(float));
  const auto text = [](const char* name, const std::string& size) {
    return std::string("Failed to allocate memory for ") + name + size;
  };
  const Buffer Y(block, needed.panels, text("Y: ", std::to_string(block)));
  const Buffer minval2t(capacity_step ? table : 0, capacity_step ? needed.table : 0,
                        text("minval2t, size: ", table_bytes));
  const Buffer minweight2(capacity_step ? table : 0, capacity_step ? needed.table : 0,
                          text("minweight2, size: ", table_bytes));
  const Buffer minval2(table, needed.table, text("minval2: ", std::to_string(table)));

  BlockBuffers buffers{Y.floats, {minval2.floats}, {}};
  if (capacity_step) {
    buffers.distance.push_back(minval2t.floats);
    buffers.capacity.push_back(minweight2.floats);
  }
  internal::compute_distance_block(held_vocabulary(), held_collection(), held_batch(), request,
                                   buffers, Z);
  return 1;
}

int ed_min_vocab_cpu_multi(float* Z, int delta_iterations, bool precompute) {
  const DistanceSource source =
      precompute ? DistanceSource::ground_of_entry : DistanceSource::vectors;
  const BlockRequest request = request_of(source, delta_iterations, NearestRule::halving);
  const BlockSizes needed = internal::block_sizes(held_vocabulary(), held_batch(), request);
  const int nearest = internal::nearest_of_batch(held_batch(), request.steps, request.rule);

  const Buffer Y(
      internal::multi_distance_block_floats, needed.panels,
      "Failed to allocate memory for Y: " + std::to_string(internal::multi_distance_block_floats));
  const Buffer Y_k(0, nearest * needed.table, "Failed to allocate memory for Y_k");
  const Buffer weights_min_k(0, (nearest - 1) * needed.table,
                             "Failed to allocate memory for weights_min_k");

  BlockBuffers buffers{Y.floats, {}, {}};
  for (int t = 0; t < nearest; ++t) buffers.distance.push_back(Y_k.floats + t * needed.table);
  for (int t = 0; t + 1 < nearest; ++t) {
    buffers.capacity.push_back(weights_min_k.floats + t * needed.table);
  }
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
        const std::size_t at = elements(r, k) + static_cast<std::size_t>(j);
        std::tie(val_out[at], ind_out[at]) = smallest[static_cast<std::size_t>(j)];
      }
    }
  });
  return 1;
}

int topk_single(int k, int rows, int cols, float* values, float* values_k, float* weights,
                float* weights_k) {
  internal::for_each_share(num_cpu_threads, cols, [&](int first, int last, int) {
    std::vector<float> column(static_cast<std::size_t>(rows));
    std::vector<internal::Candidate> smallest;
    for (int c = first; c < last; ++c) {
      for (int r = 0; r < rows; ++r) {
        column[static_cast<std::size_t>(r)] = values[elements(r, cols) + c];
      }
      internal::select_smallest(column.data(), rows, k, smallest);
      for (int t = 0; t < k; ++t) {
        const std::size_t at = elements(t, cols) + static_cast<std::size_t>(c);
        const internal::Candidate& taken = smallest[static_cast<std::size_t>(t)];
        values_k[at] = taken.first;
        weights_k[at] = weights[taken.second];
      }
    }
  });
  return 1;
}

void update_weights_delta(float* weight_in, float* weights_min, float* weight_updated,
                          float* weight_delta) {
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
