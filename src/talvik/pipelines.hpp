// The pipelines over borrowed collections.  The public functions receive collections of their own;
// the two-way runs pass the same collections to both directions without another copy.
#ifndef TALVIK_TALVIK_PIPELINES_HPP
#define TALVIK_TALVIK_PIPELINES_HPP

#include "talvik/batches.hpp"

namespace talvik::internal {

/// rwmd2_parallel; `run.budget_floats` bounds its batches.
int split_resident_run(const RunParameters& run, const LabelledDocuments& resident,
                       const LabelledDocuments& queries, float** D_out);

/// rwmd2_scaleout_wrapper.
int scale_out_run(const RunParameters& run, const LabelledDocuments& resident,
                  const LabelledDocuments& queries, float* D_max);

/// Both directions: with docs1 resident into a new matrix, then with docs2 resident merged into it.
/// Returns the result of the two-way functions.
int two_way_run(const RunParameters& run, const DocumentSet& docs1, const LabelList& labels1,
                const DocumentSet& docs2, const LabelList& labels2, float** D_out);

}  // namespace talvik::internal

#endif
