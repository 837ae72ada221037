// The common part of the pipelines: a run's parameters, loading and releasing a resident
// collection, and the one loop over batches of query documents.
#ifndef TALVIK_TALVIK_BATCHES_HPP
#define TALVIK_TALVIK_BATCHES_HPP

#include <functional>
#include <memory>
#include <string>

#include "internal/guard.hpp"
#include "talvik.hpp"
#include "talvik/batch_sizes.hpp"
#include "talvik/result_file.hpp"

namespace talvik::internal {

/// A labelled collection, borrowed for a run and only read.
struct LabelledDocuments {
  const DocumentSet& docs;
  const LabelList& labels;
  int num_docs;
  int num_words;
};

/// The parameters of a run, as in the public functions.
struct RunParameters {
  int voc_size = 0;  ///< rows of the embedding matrix; 0 in a query step
  float* embeddings = nullptr;
  int vec_size = 0;
  int k = 0;
  int delta_iterations = 0;
  bool precompute = false;
  bool compute_topk = false;
  const char* output_file = nullptr;
  bool use_gpu = false;
  long long budget_floats = batch_budget_floats;  ///< a batch's budget, which tests make small
};

/// The query documents of a pass, and the batches in which they are computed.
struct BatchPlan {
  int first_query;
  int num_queries;
  int num_resident;  ///< columns of a block: the documents that the engine holds
  int batch;         ///< query documents per batch
};

/// The distances of a batch: Z[q*num_resident + i] from query first_query+q to resident document i.
struct DistanceBlock {
  int first_query;
  int num_queries;
  float* Z;
};

/// A pipeline's use of a finished block.  It returns the block's neighbour lists: an empty
/// NeighbourLists if the pipeline makes none.
using FinishBlock = std::function<NeighbourLists(const DistanceBlock&)>;

/// Buffers for the lists of one batch, rows x k each.
struct ListBuffers {
  std::unique_ptr<int[]> ind;
  std::unique_ptr<float[]> val;
};

/// Starts the process group unless there is one.  Collective on first use.
void ensure_process_group();

/// Ends the process with a line naming `role` if the collection is shorter than its count says.
void require_documents(const char* role, const DocumentSet& docs, int num_docs);

/// Ends the job with such a line if a collection has fewer labels than documents.  Only processes
/// that write lists read labels, and the others may be waiting for them.
void require_labels(const char* role, const LabelList& labels, int num_docs);

/// Documents that the distribution info splits; ends the process if there is none.
int documents_split();

/// Ends the process if there is no distribution info or it splits another number of documents.
void require_split_of(int num_docs);

/// Drops the split at the end of the scope if there is none now.  A run dismisses it once it has
/// succeeded, so that a run that throws leaves no split of its own behind.
inline auto guard_new_split() {
  return Guard([had_split = grp_start != nullptr] {
    if (!had_split) cleanup_distribution_info();
  });
}

/// Loads resident documents first .. first+count-1 into the engine and, unless the run has ground
/// distances, the words that they use.  Holds nothing if it throws.
/// @return the result of the init step
int load_resident_documents(const RunParameters& run, const DocumentSet& docs, int first,
                            int count);

/// Releases what load_resident_documents loaded.
/// @return the result of the cleanup step
int release_resident_documents(const RunParameters& run);

/// Floats of the word vectors of an average document; 0 if batches are passed without vectors.
long long average_vector_floats(const RunParameters& run, int entries, int docs);

ListBuffers allocate_lists(int rows, int k);

/// The run's output_file; without one an empty path, at which no file can be created.
std::string result_path(const RunParameters& run);

/// Runs a pass batch by batch: loads the queries, computes the block, finishes it and reports it to
/// batch_finished.  A process without resident documents finishes empty blocks.
void run_batches(const RunParameters& run, const LabelledDocuments& queries, const BatchPlan& plan,
                 const FinishBlock& finish_block);

}  // namespace talvik::internal

#endif
