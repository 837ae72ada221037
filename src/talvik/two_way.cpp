// The two-way run: the larger of both directions for every pair of documents.
#include <utility>

#include "talvik/collections.hpp"
#include "talvik/pipelines.hpp"
#include "talvik/split.hpp"

namespace talvik {
namespace internal {

LabelledDocuments counted(const DocumentSet& docs, const LabelList& labels) {
  const int num_docs = static_cast<int>(docs.size());
  return {docs, labels, num_docs, count_entries(docs, 0, num_docs)};
}

int two_way_run(const RunParameters& run, const LabelledDocuments& first,
                const LabelledDocuments& second, float** D_out) {
  // Without a split, the first direction splits the first collection.
  DistributionInfo earlier = take_distribution_info();
  Guard split([&] { set_distribution_info(std::move(earlier)); });
  RunParameters matrix_only = run;
  matrix_only.compute_topk = false;
  split_resident_run(matrix_only, first, second, D_out);
  auto matrix = guard_matrix(D_out);
  scale_out_run(run, second, first, *D_out);  // over the same split
  matrix.dismiss();
  split.dismiss();
  return 1;
}

}  // namespace internal

int rwmd2_twoway_wrapper(int voc_size, float* embeddings, int vec_size, int k, int delta_iterations,
                         DocumentSet docs1, LabelList labels1, DocumentSet docs2, LabelList labels2,
                         float** D_out, bool compute_topk, const char* output_file, bool use_gpu) {
  return internal::two_way_run({.voc_size = voc_size,
                                .embeddings = embeddings,
                                .vec_size = vec_size,
                                .k = k,
                                .delta_iterations = delta_iterations,
                                .compute_topk = compute_topk,
                                .output_file = output_file,
                                .use_gpu = use_gpu},
                               internal::counted(docs1, labels1), internal::counted(docs2, labels2),
                               D_out);
}

}  // namespace talvik
