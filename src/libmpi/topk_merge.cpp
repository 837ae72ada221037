// From the distances to every process's own documents to the nearest documents of all processes.
#include "libmpi/topk_merge.hpp"

#include <mpi.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "internal/failure.hpp"
#include "internal/team.hpp"
#include "libmpi/abort_job.hpp"
#include "libwmd/cpu/select_smallest.hpp"
#include "talvik.hpp"
#include "talvik/batch_sizes.hpp"

namespace talvik {
namespace internal {
namespace {

// Fills the slots of a list for which a process has no document.
constexpr int filler_index = -1;
constexpr float filler_distance = 1e6f;

// The lists of this process with global document numbers, padded to k.
void select_own_nearest(int num_queries, int n, int k, float* dist, int* ind_out, float* val_out) {
  const int own = std::min(k, n);
  const auto rows = static_cast<size_t>(num_queries);
  if (own == k && k > 0) {
    sort_cpu(num_queries, n, dist, k, ind_out, val_out);
  } else if (own > 0) {
    const auto own_entries = static_cast<size_t>(own);
    const auto ind = std::make_unique_for_overwrite<int[]>(rows * own_entries);
    const auto val = std::make_unique_for_overwrite<float[]>(rows * own_entries);
    sort_cpu(num_queries, n, dist, own, ind.get(), val.get());
    for (size_t q = 0; q < rows; ++q) {
      std::copy_n(&ind[q * own_entries], own, ind_out + q * static_cast<size_t>(k));
      std::copy_n(&val[q * own_entries], own, val_out + q * static_cast<size_t>(k));
    }
  }
  for (size_t q = 0; q < rows; ++q) {
    int* ind = ind_out + q * static_cast<size_t>(k);
    float* val = val_out + q * static_cast<size_t>(k);
    for (int j = 0; j < own; ++j) ind[j] += grp_start[myid];
    std::fill(ind + own, ind + k, filler_index);
    std::fill(val + own, val + k, filler_distance);
  }
}

// The gathered lists of one query: process p's starts at p*stride.
struct GatheredLists {
  const int* ind;
  const float* val;
  size_t stride;
};

// Merges the lists, each in the order of ranks_before with its fillers last, into the k nearest.
// Where only fillers are left the list gets fillers.
void merge_query(const GatheredLists& lists, int k, int* next, int* ind_out, float* val_out) {
  constexpr int none = -1;
  std::fill_n(next, num_procs, 0);
  for (int j = 0; j < k; ++j) {
    int from = none;
    Candidate nearest{filler_distance, filler_index};
    for (int p = 0; p < num_procs; ++p) {
      if (next[p] == k) continue;
      const size_t at = static_cast<size_t>(p) * lists.stride + static_cast<size_t>(next[p]);
      const Candidate candidate{lists.val[at], lists.ind[at]};
      if (candidate.second == filler_index) continue;
      if (from == none || ranks_before(candidate, nearest)) from = p, nearest = candidate;
    }
    val_out[j] = nearest.first;
    ind_out[j] = nearest.second;
    if (from != none) ++next[from];
  }
}

void merge_queries(int num_queries, int k, const int* ind, const float* val, int* ind_out,
                   float* val_out) {
  const auto length = static_cast<size_t>(k), procs = static_cast<size_t>(num_procs);
  const int threads = std::max(num_cpu_threads, 1);
  std::vector<int> next(static_cast<size_t>(threads) * procs);  // num_procs cursors per thread
  for_each_share(threads, num_queries, [&](int first, int last, int thread) {
    for (int q = first; q < last; ++q) {
      const size_t row = static_cast<size_t>(q) * length;
      merge_query({ind + row, val + row, static_cast<size_t>(num_queries) * length}, k,
                  next.data() + static_cast<size_t>(thread) * procs, ind_out + row, val_out + row);
    }
  });
}

// One round: the lists of all processes to process 0, which merges them into its own.
void gather_and_merge(int num_queries, int k, int* ind_out, float* val_out) {
  const int count = num_queries * k;
  const size_t received =
      myid == 0 ? static_cast<size_t>(num_procs) * static_cast<size_t>(count) : 0;
  const auto ind = std::make_unique_for_overwrite<int[]>(received);
  const auto val = std::make_unique_for_overwrite<float[]>(received);
  MPI_Gather(ind_out, count, MPI_INT, ind.get(), count, MPI_INT, 0, MPI_COMM_WORLD);
  MPI_Gather(val_out, count, MPI_FLOAT, val.get(), count, MPI_FLOAT, 0, MPI_COMM_WORLD);
  if (myid == 0) merge_queries(num_queries, k, ind.get(), val.get(), ind_out, val_out);
}

// A list ends in fillers where all processes together hold fewer than k documents.
void require_documents(int num_queries, int k, const int* ind) {
  const int* end = ind + static_cast<size_t>(num_queries) * static_cast<size_t>(k);
  const int* filler = std::find(ind, end, filler_index);
  if (filler == end) return;
  abort_job("sort_cpu_parallel: k is " + std::to_string(k) + ", but all processes together hold " +
            std::to_string((filler - ind) % k) + " resident documents");
}

}  // namespace

void merge_topk(int num_queries, int n, int k, float* dist, int* ind_out, float* val_out,
                long long budget_entries) {
  const int length = std::max(k, 0);
  select_own_nearest(num_queries, n, length, dist, ind_out, val_out);
  const int round = queries_per_gather(budget_entries, num_queries, num_procs, length);
  for (int q = 0; q < num_queries; q += std::min(round, num_queries - q)) {
    const size_t row = static_cast<size_t>(q) * static_cast<size_t>(length);
    gather_and_merge(std::min(round, num_queries - q), length, ind_out + row, val_out + row);
  }
  if (myid == 0) require_documents(num_queries, length, ind_out);
}

}  // namespace internal

void sort_cpu_parallel(int num_queries, int n, int k, float* dist, int* ind_out, float* val_out) {
  internal::merge_topk(num_queries, n, k, dist, ind_out, val_out, internal::gather_budget_entries);
}

bool isSmaller(std::pair<double, int> a, std::pair<double, int> b) { return a.first < b.first; }

float compute_kth_parallel(int k, float* vals) {
  if (k < 1) internal::fail("compute_kth_parallel: k is " + std::to_string(k) + ", not at least 1");
  const size_t offered = myid == 0 ? static_cast<size_t>(num_procs) * static_cast<size_t>(k) : 0;
  std::vector<float> candidates(offered);
  MPI_Gather(vals, k, MPI_FLOAT, candidates.data(), k, MPI_FLOAT, 0, MPI_COMM_WORLD);
  float kth = 0;
  if (myid == 0) {
    const auto place = candidates.begin() + (k - 1);
    const auto smaller = [](float a, float b) { return internal::ranks_before({a, 0}, {b, 0}); };
    std::nth_element(candidates.begin(), place, candidates.end(), smaller);
    kth = *place;
  }
  MPI_Bcast(&kth, 1, MPI_FLOAT, 0, MPI_COMM_WORLD);
  return kth;
}

}  // namespace talvik
