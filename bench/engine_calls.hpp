// The CPU engine's interface over worlds, and whole runs over collections.
#ifndef TALVIK_BENCH_ENGINE_CALLS_HPP
#define TALVIK_BENCH_ENGINE_CALLS_HPP

#include <string>
#include <vector>

#include "worlds.hpp"

namespace talvik::bench {

/// The engine holds the world's resident side while it lives.
class LoadedResident {
 public:
  explicit LoadedResident(const World& world);
  ~LoadedResident();
  LoadedResident(const LoadedResident&) = delete;
  LoadedResident& operator=(const LoadedResident&) = delete;
};

void load_batch(const World& world);
void remove_batch();

/// The computation alone, with 0 or 1 capacity steps by the plain function, with more by the other.
void compute_block(int steps, bool precompute, float* Z);

/// Loads the batch, which is where the distinct rows are found, computes and removes it.
void run_engine(const World& world, int steps, float* Z);

/// Floats of the world's block of distances.
size_t block_floats_of(const World& world);

/// A split-resident run without capacity steps that returns the matrix.
void run_matrix(const Collections& collections, const DocumentSet& resident,
                const DocumentSet& queries);

/// A two-way run that returns the matrix.
void run_two_way(const Collections& collections);

/// A split-resident run without capacity steps that writes neighbour lists.  Collective.  Takes the
/// collections, since copying them is the caller's affair.
void run_lists(const Collections& collections, DocumentSet resident, DocumentSet queries, int k,
               const std::string& path);

/// A two-way run that writes the lists of the queries' neighbours.  Takes the collections, too.
void run_two_way_lists(const Collections& collections, DocumentSet resident, DocumentSet queries,
                       int k, const std::string& path);

/// Labels 0, 1, ...
LabelList labels_of(const DocumentSet& docs);

}  // namespace talvik::bench

#endif
