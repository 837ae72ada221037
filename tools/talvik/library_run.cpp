// The four modes.  Lists come in full precision through the library's batch hook.
#include "library_run.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>

#include "agreement.hpp"
#include "progress.hpp"

namespace talvik::tool {
namespace {

constexpr bool precompute = false;

struct Collector {
  ResultLists* lists;
  Progress* progress;
  Mode mode;
  int collected = 0;  // queries with lists
};

void collect(const BatchResult& batch, void* context) {
  auto& to = *static_cast<Collector*>(context);
  if (batch.neighbours && batch.k == to.lists->k) {
    const size_t at = static_cast<size_t>(batch.first_query) * static_cast<size_t>(batch.k);
    const size_t count = static_cast<size_t>(batch.num_queries) * static_cast<size_t>(batch.k);
    std::copy_n(batch.neighbours, count, to.lists->neighbours.begin() + static_cast<long>(at));
    std::copy_n(batch.distances, count, to.lists->distances.begin() + static_cast<long>(at));
    to.collected += batch.num_queries;
  }
  const bool two_way = to.mode == Mode::two_way || to.mode == Mode::ground;
  const char* phase =
      two_way ? (batch.neighbours ? "second direction" : "first direction") : "query";
  to.progress->batch_done(phase, batch);
}

void split_over_processes(const LoadedCollection& collection) {
  cleanup_distribution_info();
  load_balancing(collection.docs, static_cast<int>(collection.docs.size()),
                 static_cast<int>(collection.entries));
}

/// The lists of each process's query group to all; column by column, as the library's all-gather
/// moves one int per document of the split collection.
void gather_groups(ResultLists& lists) {
  std::vector<int> column(static_cast<size_t>(lists.num_queries));
  const auto k = static_cast<size_t>(lists.k);
  const auto first = static_cast<size_t>(grp_start[myid]);
  const size_t last = first + static_cast<size_t>(grp_length[myid]);
  for (size_t j = 0; j < k; ++j) {
    for (size_t q = first; q < last; ++q) column[q] = lists.neighbours[q * k + j];
    all_gather_mpi(column.data());
    for (size_t q = 0; q < column.size(); ++q) lists.neighbours[q * k + j] = column[q];

    for (size_t q = first; q < last; ++q)
      column[q] = std::bit_cast<int>(lists.distances[q * k + j]);
    all_gather_mpi(column.data());
    for (size_t q = 0; q < column.size(); ++q) {
      lists.distances[q * k + j] = std::bit_cast<float>(column[q]);
    }
  }
}

void share_from_first_process(ResultLists& lists) {
  broadcast_bytes(lists.neighbours.data(), lists.neighbours.size() * sizeof(int), 0);
  broadcast_bytes(lists.distances.data(), lists.distances.size() * sizeof(float), 0);
}

/// Lists out of the split-resident matrix, whose rows are resident documents: the library makes
/// either lists or the matrix in a run.
void select_from_matrix(const float* matrix, ResultLists& lists) {
  const int columns = grp_length[myid];
  constexpr int block_floats = 1 << 24;
  const int widest = *std::max_element(grp_length, grp_length + num_procs);
  const int step = std::max(block_floats / std::max(widest, 1), 1);  // the same on every process
  const auto all = static_cast<size_t>(lists.num_queries);
  std::vector<float> block(static_cast<size_t>(std::min(step, lists.num_queries)) *
                           static_cast<size_t>(columns));
  for (int q = 0; q < lists.num_queries; q += step) {
    const int count = std::min(step, lists.num_queries - q);
    for (int i = 0; i < columns; ++i) {
      const float* row = matrix + static_cast<size_t>(i) * all + static_cast<size_t>(q);
      for (int j = 0; j < count; ++j) {
        block[static_cast<size_t>(j) * static_cast<size_t>(columns) + static_cast<size_t>(i)] =
            row[j];
      }
    }
    const size_t at = static_cast<size_t>(q) * static_cast<size_t>(lists.k);
    sort_cpu_parallel(count, columns, lists.k, block.data(), lists.neighbours.data() + at,
                      lists.distances.data() + at);
  }
}

/// A list that never came would be read as one of zeros.  Collective.
void require_all(int collected, int expected) {
  agree(collected == expected
            ? ""
            : fmt::format("the run gave the lists of {} queries, not of {}", collected, expected));
}

struct Sizes {
  int resident, resident_words, queries, query_words;
};

Sizes sizes_of(const Problem& problem) {
  return {static_cast<int>(problem.resident.docs.size()),
          static_cast<int>(problem.resident.entries), static_cast<int>(problem.queries.docs.size()),
          static_cast<int>(problem.queries.entries)};
}

/// @return this process's matrix, or null
float* run_split(const Problem& p, int k, int delta, bool use_gpu, bool want_matrix,
                 const char* file) {
  const Sizes n = sizes_of(p);
  float* matrix = nullptr;
  split_over_processes(p.resident);
  rwmd2_parallel(p.voc_size, p.embeddings.get(), p.vec_size, k, delta, precompute, p.resident.docs,
                 p.resident.ids, n.resident, n.resident_words, p.queries.docs, p.queries.ids,
                 n.queries, n.query_words, &matrix, !want_matrix, file, use_gpu);
  return matrix;
}

float* run_scale_out(const Problem& p, int k, int delta, bool use_gpu, const char* file) {
  const Sizes n = sizes_of(p);
  split_over_processes(p.queries);
  const size_t size = static_cast<size_t>(grp_length[myid]) * static_cast<size_t>(n.resident);
  auto* matrix = static_cast<float*>(std::calloc(std::max<size_t>(size, 1), sizeof(float)));
  if (!matrix) throw std::bad_alloc();
  const bool compute_topk = true;
  rwmd2_scaleout_wrapper(p.voc_size, p.embeddings.get(), p.vec_size, k, delta, precompute,
                         p.resident.docs, p.resident.ids, n.resident, n.resident_words,
                         p.queries.docs, p.queries.ids, n.queries, n.query_words, matrix,
                         compute_topk, file, use_gpu);
  return matrix;
}

float* run_two_way(const Problem& p, Mode mode, int k, int delta, bool use_gpu, const char* file) {
  float* matrix = nullptr;
  const auto entry = mode == Mode::ground ? remd2_twoway_wrapper : rwmd2_twoway_wrapper;
  const bool compute_topk = true;
  entry(p.voc_size, p.embeddings.get(), p.vec_size, k, delta, p.queries.docs, p.queries.ids,
        p.resident.docs, p.resident.ids, &matrix, compute_topk, file, use_gpu);
  return matrix;
}

}  // namespace

Mode mode_of(std::string_view name) {
  if (name == "ground") return Mode::ground;
  if (name == "split") return Mode::split;
  if (name == "scale-out") return Mode::scale_out;
  return Mode::two_way;
}

std::string own_library_file(Mode mode, bool want_matrix, const std::string& library_file) {
  if (mode != Mode::split) return fmt::format("{}.thread{}-{}", library_file, local_id, myid);
  return myid == 0 && !want_matrix ? library_file : "";
}

RunOutcome run_queries(const Problem& problem, Mode mode, int k, int delta, bool use_gpu,
                       bool want_matrix, const std::string& library_file, bool show_progress) {
  const Sizes n = sizes_of(problem);
  RunOutcome outcome;
  outcome.lists = empty_lists(n.queries, k);
  Progress progress(show_progress, static_cast<double>(n.queries) * n.resident);
  Collector collector{&outcome.lists, &progress, mode, 0};
  batch_finished = collect;
  batch_finished_context = &collector;

  barrier_mpi();
  const double began = When();
  const char* file = library_file.c_str();
  if (mode == Mode::split) {
    outcome.matrix.reset(run_split(problem, k, delta, use_gpu, want_matrix, file));
    if (want_matrix) select_from_matrix(outcome.matrix.get(), outcome.lists);
  } else if (mode == Mode::scale_out) {
    outcome.matrix.reset(run_scale_out(problem, k, delta, use_gpu, file));
  } else {
    outcome.matrix.reset(run_two_way(problem, mode, k, delta, use_gpu, file));
  }
  barrier_mpi();
  outcome.seconds = When() - began;
  progress.clear();
  batch_finished = nullptr;
  batch_finished_context = nullptr;

  outcome.matrix_rows = grp_length[myid];
  outcome.matrix_cols = splits_queries(mode) ? n.resident : n.queries;
  if (!want_matrix) outcome.matrix.reset();
  const int from_first_process = myid == 0 && !want_matrix ? n.queries : 0;
  require_all(collector.collected, splits_queries(mode) ? grp_length[myid] : from_first_process);
  if (splits_queries(mode)) {
    gather_groups(outcome.lists);
  } else {
    share_from_first_process(outcome.lists);
  }
  return outcome;
}

}  // namespace talvik::tool
