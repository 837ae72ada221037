// The roles that an engine plays in a run: the only place that knows which engine is in use.
#ifndef TALVIK_TALVIK_ENGINE_HPP
#define TALVIK_TALVIK_ENGINE_HPP

#include "libwmd/attached_words.hpp"
#include "libwmd/gpu/engine.hpp"
#include "talvik.hpp"

namespace talvik::internal {

/// Here and below the first parameter chooses the engine; the others are those of its functions.
/// The GPU engine uses the device whose number is this process's rank on its node.
inline void load_vocabulary(bool use_gpu, int voc_size, int vec_size, float* embeddings) {
  if (use_gpu) {
    copy_vocabulary(local_id, voc_size, vec_size, embeddings);
  } else {
    copy_vocabulary_cpu(voc_size, vec_size, embeddings);
  }
}

/// @return the result of a pipeline's init step
inline int load_resident(bool use_gpu, int entries, int* ind, float* weight, int count,
                         int* start) {
  if (use_gpu) return copy_raw_data(entries, ind, weight, count, start);
  copy_raw_data_cpu(entries, ind, weight, count, start);
  return 0;
}

/// An engine may keep start by pointer until release_batch.
inline void load_batch_vectors(bool use_gpu, int entries, int vec_size, float* X, float* weight,
                               int count, int* start) {
  const auto load = use_gpu ? copy_vectors2 : copy_vectors2_cpu;
  load(entries, vec_size, X, weight, count, start);
}

/// The same of the rows `ind` of embeddings, for the GPU engine alone: the CPU engine works on the
/// rows in place.
inline void load_batch_words(int entries, int vec_size, const int* ind, const float* embeddings,
                             const float* weight, int count, int* start) {
  copy_words2(entries, vec_size, ind, embeddings, weight, count, start);
}

/// An engine may keep start by pointer until release_batch.
inline void load_batch_indices(bool use_gpu, int entries, int* ind, float* weight, int count,
                               int* start) {
  const auto load = use_gpu ? copy_raw_data2 : copy_raw_data2_cpu;
  load(entries, ind, weight, count, start);
}

/// Computes Z[q*(resident documents) + i] for the batch that is loaded.
inline void compute_block(bool use_gpu, float* Z, int delta_iterations, bool precompute) {
  const auto compute = use_gpu                ? ed_min_vocab_multi
                       : delta_iterations > 1 ? ed_min_vocab_cpu_multi
                                              : ed_min_vocab_cpu;
  compute(Z, delta_iterations, precompute);
}

inline void release_batch(bool use_gpu, bool precompute) {
  if (precompute) {
    use_gpu ? remove_raw_data2() : remove_raw_data2_cpu();
  } else {
    use_gpu ? remove_vectors2() : remove_vectors2_cpu();
  }
}

/// @return the result of a pipeline's cleanup step, if this is the last release
inline int release_resident(bool use_gpu) {
  if (use_gpu) return remove_raw_data();
  remove_raw_data_cpu();
  return 0;
}

/// @return the result of a pipeline's cleanup step, if this is the last release
inline int release_vocabulary(bool use_gpu) {
  if (use_gpu) return remove_vocabulary();
  remove_vocabulary_cpu();
  return 0;
}

/// Computes D_ground[u*voc_size + v] for the vocabulary that is loaded.
inline void compute_ground(bool use_gpu, float* D_ground) {
  use_gpu ? compute_ground_distances(D_ground) : compute_ground_distances_cpu(D_ground);
}

/// An engine may keep the matrix by pointer until detach_ground.
inline void attach_ground(bool use_gpu, int voc_size, float* D_ground) {
  const auto attach = use_gpu ? copy_ground_distances : copy_ground_distances_cpu;
  attach(voc_size, D_ground);
}

/// Words of the matrix that is attached; 0 if there is none.
inline int attached_words(bool use_gpu) {
  if (use_gpu) return D_ground_dev ? voc_size : 0;
  return attached_words_cpu();
}

inline void detach_ground(bool use_gpu) {
  use_gpu ? remove_ground_distances() : remove_ground_distances_cpu();
}

}  // namespace talvik::internal

#endif
