// The distributed merge of neighbour lists, with its budget as an argument.
#ifndef TALVIK_LIBMPI_TOPK_MERGE_HPP
#define TALVIK_LIBMPI_TOPK_MERGE_HPP

#include "libmpi/merge_sizes.hpp"

namespace talvik::internal {

/// sort_cpu_parallel, gathering at most budget_entries candidates on process 0 at a time.
void merge_topk(int num_queries, int n, int k, float* dist, int* ind_out, float* val_out,
                long long budget_entries = gather_budget_entries);

}  // namespace talvik::internal

#endif
