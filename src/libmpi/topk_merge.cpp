// From the distances to every process's own documents to the nearest documents of all processes.
#include "libmpi/topk_merge.hpp"

#include <mpi.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "internal/failure.hpp"
#include "internal/index.hpp"
#include "internal/team.hpp"
#include "libmpi/abort_job.hpp"
#include "libwmd/cpu/select_smallest.hpp"
#include "talvik.hpp"

namespace talvik {
namespace internal {
namespace {

// Fills the slots of a list for which a process has no document.
constexpr int filler_index = -1;
constexpr float filler_distance = 1e6f;

// Lists of k candidates: slot j of query q is at q*k + j.
struct CandidateLists {
  int num_queries;
  int k;
  int* ind;
  float* val;
};

CandidateLists rows_of(const CandidateLists& lists, int first, int count) {
  const Index row = elements(first, lists.k);
  return {count, lists.k, lists.ind + row, lists.val + row};
}

// The nearest of the n documents of this process, by their global numbers; fillers up to k.
void select_own_nearest(int n, float* dist, const CandidateLists& lists) {
  const int own = std::min(lists.k, n);
  if (own == lists.k && own > 0) {
    sort_cpu(lists.num_queries, n, dist, own, lists.ind, lists.val);
  } else if (own > 0) {
    const Index entries = elements(lists.num_queries, own);
    const auto ind = std::make_unique_for_overwrite<int[]>(entries);
    const auto val = std::make_unique_for_overwrite<float[]>(entries);
    sort_cpu(lists.num_queries, n, dist, own, ind.get(), val.get());
    for (int q = 0; q < lists.num_queries; ++q) {
      const CandidateLists row = rows_of(lists, q, 1);
      std::copy_n(&ind[elements(q, own)], own, row.ind);
      std::copy_n(&val[elements(q, own)], own, row.val);
    }
  }
  for (int q = 0; q < lists.num_queries; ++q) {
    const CandidateLists row = rows_of(lists, q, 1);
    for (int j = 0; j < own; ++j) row.ind[j] += grp_start[myid];
    std::fill(row.ind + own, row.ind + lists.k, filler_index);
    std::fill(row.val + own, row.val + lists.k, filler_distance);
  }
}

// The lists of all processes for one query, as they arrive on process 0: candidate j of process p
// is at p*stride + j, with the candidates of a whole round as the stride.
//   3 queries, k = 2: stride 6; query 1 of process 0 is at 2 and 3, of process 1 at 8 and 9
struct GatheredLists {
  const int* ind;
  const float* val;
  Index stride;
};

// Merges the lists, each in the order of ranks_before with its fillers last, into the k nearest.
// Once only fillers are left, the list gets fillers.
// @param next  scratch: the first candidate of every process that is not taken yet
void merge_query(const GatheredLists& gathered, const CandidateLists& list, int* next) {
  constexpr int none = -1;
  std::fill_n(next, num_procs, 0);
  for (int j = 0; j < list.k; ++j) {
    int from = none;
    Candidate nearest{filler_distance, filler_index};
    for (int p = 0; p < num_procs; ++p) {
      if (next[p] == list.k) continue;
      const Index at = p * gathered.stride + next[p];
      const Candidate candidate{gathered.val[at], gathered.ind[at]};
      if (candidate.second == filler_index) continue;
      if (from == none || ranks_before(candidate, nearest)) from = p, nearest = candidate;
    }
    list.val[j] = nearest.first;
    list.ind[j] = nearest.second;
    if (from != none) ++next[from];
  }
}

void merge_queries(const int* ind, const float* val, const CandidateLists& lists) {
  const int threads = std::max(num_cpu_threads, 1);
  std::vector<int> next(elements(threads, num_procs));
  for_each_share(threads, lists.num_queries, [&](int first, int last, int thread) {
    for (int q = first; q < last; ++q) {
      const Index row = elements(q, lists.k);
      merge_query({ind + row, val + row, elements(lists.num_queries, lists.k)},
                  rows_of(lists, q, 1), &next[elements(thread, num_procs)]);
    }
  });
}

// One round: process 0 receives the lists of all processes and merges them into its own.
void gather_and_merge(const CandidateLists& lists) {
  const int count = lists.num_queries * lists.k;
  const Index received = myid == 0 ? elements(num_procs, count) : 0;
  const auto ind = std::make_unique_for_overwrite<int[]>(received);
  const auto val = std::make_unique_for_overwrite<float[]>(received);
  MPI_Gather(lists.ind, count, MPI_INT, ind.get(), count, MPI_INT, 0, MPI_COMM_WORLD);
  MPI_Gather(lists.val, count, MPI_FLOAT, val.get(), count, MPI_FLOAT, 0, MPI_COMM_WORLD);
  if (myid == 0) merge_queries(ind.get(), val.get(), lists);
}

// A list ends in fillers if all processes together hold fewer than k documents.
void require_documents(const CandidateLists& lists) {
  int* const end = lists.ind + elements(lists.num_queries, lists.k);
  const int* const filler = std::find(lists.ind, end, filler_index);
  if (filler == end) return;
  abort_job("sort_cpu_parallel: k is " + std::to_string(lists.k) +
            ", but all processes together hold " + std::to_string((filler - lists.ind) % lists.k) +
            " resident documents");
}

}  // namespace

void merge_topk(int num_queries, int n, int k, float* dist, int* ind_out, float* val_out,
                long long budget_entries) {
  const CandidateLists lists{num_queries, std::max(k, 0), ind_out, val_out};
  select_own_nearest(n, dist, lists);
  const int round = queries_per_gather(budget_entries, num_queries, num_procs, lists.k);
  int count = 0;
  for (int q = 0; q < num_queries; q += count) {
    count = std::min(round, num_queries - q);
    gather_and_merge(rows_of(lists, q, count));
  }
  if (myid == 0) require_documents(lists);
}

}  // namespace internal

void sort_cpu_parallel(int num_queries, int n, int k, float* dist, int* ind_out, float* val_out) {
  internal::merge_topk(num_queries, n, k, dist, ind_out, val_out);
}

bool isSmaller(std::pair<double, int> a, std::pair<double, int> b) { return a.first < b.first; }

float compute_kth_parallel(int k, float* vals) {
  if (k < 1) internal::fail("compute_kth_parallel: k is " + std::to_string(k) + ", not at least 1");
  std::vector<float> candidates(myid == 0 ? internal::elements(num_procs, k) : 0);
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
