// The two-way run over word distances that are computed once, before the queries.
#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include "internal/guard.hpp"
#include "internal/index.hpp"
#include "talvik/engine.hpp"
#include "talvik/pipelines.hpp"

namespace talvik {
namespace {

// The distances between all pairs of words, voc_size x voc_size.
std::unique_ptr<float[]> ground_distances(int voc_size, float* embeddings, int vec_size,
                                          bool use_gpu) {
  const internal::Guard release([&] { internal::release_vocabulary(use_gpu); });
  internal::load_vocabulary(use_gpu, voc_size, vec_size, embeddings);
  auto D_ground = std::make_unique_for_overwrite<float[]>(internal::elements(voc_size, voc_size));
  internal::compute_ground(use_gpu, D_ground.get());
  return D_ground;
}

}  // namespace

int remd2_twoway_wrapper(int voc_size, float* embeddings, int vec_size, int k, int delta_iterations,
                         DocumentSet docs1, LabelList labels1, DocumentSet docs2, LabelList labels2,
                         float** D_out, bool compute_topk, const char* output_file, bool use_gpu) {
  internal::ensure_process_group();
  int comp_voc_size = 0;
  float* comp_embeddings = nullptr;
  compress_vocabulary_cosine(voc_size, embeddings, &comp_voc_size, &comp_embeddings, vec_size,
                             docs1, 0, static_cast<int>(docs1.size()), docs2, 0,
                             static_cast<int>(docs2.size()));
  std::unique_ptr<float[]> shared_vocabulary(comp_embeddings);
  std::cout << "Compressed vocabulary. Vocabulary size = " + std::to_string(comp_voc_size) + "\n"
            << std::flush;
  const auto D_ground = ground_distances(comp_voc_size, shared_vocabulary.get(), vec_size, use_gpu);
  shared_vocabulary.reset();
  return remd2_twoway_ground(comp_voc_size, D_ground.get(), k, delta_iterations, std::move(docs1),
                             std::move(labels1), std::move(docs2), std::move(labels2), D_out,
                             compute_topk, output_file, use_gpu);
}

int remd2_twoway_ground(int voc_size, float* D_ground, int k, int delta_iterations,
                        DocumentSet docs1, LabelList labels1, DocumentSet docs2, LabelList labels2,
                        float** D_out, bool compute_topk, const char* output_file, bool use_gpu) {
  const internal::Guard detach([&] { internal::detach_ground(use_gpu); });
  internal::attach_ground(use_gpu, voc_size, D_ground);
  return internal::two_way_run({.voc_size = voc_size,
                                .k = k,
                                .delta_iterations = delta_iterations,
                                .precompute = true,
                                .compute_topk = compute_topk,
                                .output_file = output_file,
                                .use_gpu = use_gpu},
                               internal::counted(docs1, labels1), internal::counted(docs2, labels2),
                               D_out);
}

}  // namespace talvik
