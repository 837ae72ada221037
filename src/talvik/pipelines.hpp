// The pipelines over borrowed collections.  The public functions receive copies; the two-way runs
// pass theirs to both directions without copying again.
#ifndef TALVIK_TALVIK_PIPELINES_HPP
#define TALVIK_TALVIK_PIPELINES_HPP

#include <cstdlib>

#include "talvik/batches.hpp"

namespace talvik::internal {

/// Frees the run's matrix in *D_out at the end of the scope and leaves null there.  A run dismisses
/// it once it has succeeded.
inline auto guard_matrix(float** D_out) {
  return Guard([D_out] {
    std::free(*D_out);
    *D_out = nullptr;
  });
}

/// rwmd2_parallel; `run.budget_floats` bounds its batches.
int split_resident_run(const RunParameters& run, const LabelledDocuments& resident,
                       const LabelledDocuments& queries, float** D_out);

/// rwmd2_scaleout_wrapper.
int scale_out_run(const RunParameters& run, const LabelledDocuments& resident,
                  const LabelledDocuments& queries, float* D_max);

/// A collection with its numbers of documents and entries.
LabelledDocuments counted(const DocumentSet& docs, const LabelList& labels);

/// Both directions: with the first collection resident into a new matrix, then with the second one
/// resident merged into it.
/// @return the result of the two-way functions
int two_way_run(const RunParameters& run, const LabelledDocuments& first,
                const LabelledDocuments& second, float** D_out);

}  // namespace talvik::internal

#endif
