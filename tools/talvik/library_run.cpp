// The four modes.  Lists come in full precision through the library's batch hook.
#include "library_run.hpp"

#include <fmt/core.h>
#include <mpi.h>

#include <algorithm>
#include <new>

#include "agreement.hpp"
#include "internal/index.hpp"
#include "progress.hpp"

namespace talvik::tool {

using internal::elements;
using internal::Index;

namespace {

constexpr bool precompute = false;

bool is_two_way(Mode mode) { return mode == Mode::two_way || mode == Mode::ground; }

/// Copies the lists of every batch and shows how far the run is.
struct Collector {
  ResultLists& lists;
  Progress progress;
  Mode mode;
  int collected = 0;  // queries with lists

  void add(const BatchResult& batch) {
    if (batch.neighbours && batch.k == lists.k) {
      const Index at = elements(batch.first_query, batch.k);
      const Index count = elements(batch.num_queries, batch.k);
      std::copy_n(batch.neighbours, count, lists.neighbours.begin() + at);
      std::copy_n(batch.distances, count, lists.distances.begin() + at);
      collected += batch.num_queries;
    }
    const char* direction = batch.neighbours ? "second direction" : "first direction";
    progress.batch_done(is_two_way(mode) ? direction : "query", batch);
  }
};

/// Puts the collector behind the library's batch hook for as long as it lives.
struct BatchHook {
  explicit BatchHook(Collector& collector) {
    batch_finished = [](const BatchResult& batch, void* context) {
      static_cast<Collector*>(context)->add(batch);
    };
    batch_finished_context = &collector;
  }
  ~BatchHook() {
    batch_finished = nullptr;
    batch_finished_context = nullptr;
  }
  BatchHook(const BatchHook&) = delete;
  BatchHook& operator=(const BatchHook&) = delete;
};

/// The MPI type of a list of k ints or floats, so that counts are counts of queries.
struct ListType {
  MPI_Datatype type = MPI_DATATYPE_NULL;
  ListType(MPI_Datatype element, int k) {
    MPI_Type_contiguous(k, element, &type);
    MPI_Type_commit(&type);
  }
  ~ListType() { MPI_Type_free(&type); }
  ListType(const ListType&) = delete;
  ListType& operator=(const ListType&) = delete;
};

/// Brings the lists of each process's query group to all.
void gather_groups(ResultLists& lists) {
  const auto gather = [&](void* all, MPI_Datatype element) {
    const ListType list(element, lists.k);
    MPI_Allgatherv(MPI_IN_PLACE, 0, MPI_DATATYPE_NULL, all, grp_length, grp_start, list.type,
                   MPI_COMM_WORLD);
  };
  gather(lists.neighbours.data(), MPI_INT);
  gather(lists.distances.data(), MPI_FLOAT);
}

void share_from_first_process(ResultLists& lists) {
  const auto share = [&](void* all, MPI_Datatype element) {
    const ListType list(element, lists.k);
    MPI_Bcast(all, lists.num_queries, list.type, 0, MPI_COMM_WORLD);
  };
  share(lists.neighbours.data(), MPI_INT);
  share(lists.distances.data(), MPI_FLOAT);
}

/// Lists out of the split-resident matrix, whose rows are resident documents: the library makes
/// either lists or the matrix in a run.
void select_from_matrix(const float* matrix, ResultLists& lists) {
  const int columns = grp_length[myid];
  constexpr int block_floats = 1 << 24;
  const int widest = *std::max_element(grp_length, grp_length + num_procs);
  const int step = std::max(block_floats / std::max(widest, 1), 1);  // the same on every process
  std::vector<float> block(elements(std::min(step, lists.num_queries), columns));
  for (int q = 0; q < lists.num_queries; q += step) {
    const int count = std::min(step, lists.num_queries - q);
    for (int i = 0; i < columns; ++i) {
      const float* row = matrix + elements(i, lists.num_queries) + q;
      for (int j = 0; j < count; ++j) block[elements(j, columns) + i] = row[j];
    }
    const Index at = elements(q, lists.k);
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
  int resident, resident_entries, queries, query_entries;
};

Sizes sizes_of(const Problem& problem) {
  return {static_cast<int>(problem.resident.docs.size()),
          static_cast<int>(problem.resident.entries), static_cast<int>(problem.queries.docs.size()),
          static_cast<int>(problem.queries.entries)};
}

/// The functions below return this process's matrix, or null.
float* run_split(const Problem& p, const LibraryRun& run) {
  const Sizes n = sizes_of(p);
  float* matrix = nullptr;
  split_over_processes(p.resident);
  rwmd2_parallel(p.voc_size, p.embeddings.get(), p.vec_size, run.k, run.steps, precompute,
                 p.resident.docs, p.resident.ids, n.resident, n.resident_entries, p.queries.docs,
                 p.queries.ids, n.queries, n.query_entries, &matrix, !run.want_matrix,
                 run.library_file.c_str(), run.use_gpu);
  return matrix;
}

float* run_scale_out(const Problem& p, const LibraryRun& run) {
  const Sizes n = sizes_of(p);
  split_over_processes(p.queries);
  const Index size = std::max<Index>(elements(grp_length[myid], n.resident), 1);
  auto* matrix = static_cast<float*>(std::calloc(size, sizeof(float)));
  if (!matrix) throw std::bad_alloc();
  const bool compute_topk = true;
  rwmd2_scaleout_wrapper(p.voc_size, p.embeddings.get(), p.vec_size, run.k, run.steps, precompute,
                         p.resident.docs, p.resident.ids, n.resident, n.resident_entries,
                         p.queries.docs, p.queries.ids, n.queries, n.query_entries, matrix,
                         compute_topk, run.library_file.c_str(), run.use_gpu);
  return matrix;
}

float* run_two_way(const Problem& p, const LibraryRun& run) {
  float* matrix = nullptr;
  const auto entry = run.mode == Mode::ground ? remd2_twoway_wrapper : rwmd2_twoway_wrapper;
  const bool compute_topk = true;
  entry(p.voc_size, p.embeddings.get(), p.vec_size, run.k, run.steps, p.queries.docs, p.queries.ids,
        p.resident.docs, p.resident.ids, &matrix, compute_topk, run.library_file.c_str(),
        run.use_gpu);
  return matrix;
}

float* run_mode(const Problem& problem, const LibraryRun& run) {
  if (run.mode == Mode::split) return run_split(problem, run);
  if (run.mode == Mode::scale_out) return run_scale_out(problem, run);
  return run_two_way(problem, run);
}

}  // namespace

std::string own_library_file(const LibraryRun& run) {
  if (splits_queries(run.mode)) {
    return fmt::format("{}.thread{}-{}", run.library_file, local_id, myid);
  }
  return myid == 0 && !run.want_matrix ? run.library_file : "";
}

RunOutcome run_library(const Problem& problem, const LibraryRun& run) {
  const Sizes n = sizes_of(problem);
  RunOutcome outcome;
  outcome.lists = empty_lists(n.queries, run.k);
  const double pairs = static_cast<double>(n.queries) * n.resident;
  Collector collector{outcome.lists, {run.show_progress, pairs}, run.mode};
  {
    const BatchHook hook(collector);
    barrier_mpi();
    const double began = When();
    outcome.matrix.reset(run_mode(problem, run));
    if (run.mode == Mode::split && run.want_matrix) {
      select_from_matrix(outcome.matrix.get(), outcome.lists);
    }
    barrier_mpi();
    outcome.seconds = When() - began;
  }
  collector.progress.clear();

  outcome.matrix_rows = grp_length[myid];
  outcome.matrix_cols = splits_queries(run.mode) ? n.resident : n.queries;
  if (!run.want_matrix) outcome.matrix.reset();
  const int from_first_process = myid == 0 && !run.want_matrix ? n.queries : 0;
  require_all(collector.collected,
              splits_queries(run.mode) ? grp_length[myid] : from_first_process);
  if (splits_queries(run.mode)) {
    gather_groups(outcome.lists);
  } else {
    share_from_first_process(outcome.lists);
  }
  return outcome;
}

}  // namespace talvik::tool
