// The two-way run: the larger of both directions for every pair of documents.
#include "talvik/collections.hpp"
#include "talvik/pipelines.hpp"

namespace talvik {
namespace internal {
namespace {

LabelledDocuments counted(const DocumentSet& docs, const LabelList& labels) {
  const int num_docs = static_cast<int>(docs.size());
  return {docs, labels, num_docs, count_entries(docs, 0, num_docs)};
}

}  // namespace

int two_way_run(const RunParameters& run, const DocumentSet& docs1, const LabelList& labels1,
                const DocumentSet& docs2, const LabelList& labels2, float** D_out) {
  cleanup_distribution_info();  // so that the first direction splits docs1
  const LabelledDocuments first = counted(docs1, labels1), second = counted(docs2, labels2);
  RunParameters matrix_only = run;
  matrix_only.compute_topk = false;
  split_resident_run(matrix_only, first, second, D_out);
  scale_out_run(run, second, first, *D_out);  // over the same split of docs1
  return 1;
}

}  // namespace internal

int rwmd2_twoway_wrapper(int voc_size, float* embeddings, int vec_size, int k, int delta_iterations,
                         DocumentSet docs1, LabelList labels1, DocumentSet docs2, LabelList labels2,
                         float** D_out, bool compute_topk, const char* output_file, bool use_gpu) {
  constexpr bool precompute = false;
  return internal::two_way_run({voc_size, embeddings, vec_size, k, delta_iterations, precompute,
                                compute_topk, output_file, use_gpu},
                               docs1, labels1, docs2, labels2, D_out);
}

}  // namespace talvik
