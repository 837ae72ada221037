// Runs the engines over whole worlds, for tests.
#ifndef TALVIK_TESTS_ENGINE_HPP
#define TALVIK_TESTS_ENGINE_HPP

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "support/oracle.hpp"
#include "support/world.hpp"
#include "talvik/engine.hpp"

namespace talvik::test {

/// What the roles of an engine take for use_gpu.
inline constexpr bool cpu_engine = false, gpu_engine = true;

/// The engine whose rule it is.
constexpr bool engine_of(StepRule rule) {
  return rule == StepRule::powers_of_two ? gpu_engine : cpu_engine;
}

/// The function that computes by a rule.
inline auto function_of(StepRule rule) {
  return rule == StepRule::single    ? ed_min_vocab_cpu
         : rule == StepRule::halving ? ed_min_vocab_cpu_multi
                                     : ed_min_vocab_multi;
}

/// The rules that have an engine here: without a device, real or emulated, there is no GPU engine.
inline std::vector<StepRule> rules_to_run() {
  std::vector<StepRule> rules{StepRule::single, StepRule::halving};
  if (count_gpu_devices() > 0) rules.push_back(StepRule::powers_of_two);
  return rules;
}

/// All word distances of the world, voc_size x voc_size.
inline std::vector<float> ground_matrix(const World& world, bool use_gpu = cpu_engine) {
  std::vector<float> D(world.shape.voc_size * world.shape.voc_size), embeddings = world.embeddings;
  internal::load_vocabulary(use_gpu, world.shape.voc_size, world.shape.vec_size, embeddings.data());
  internal::compute_ground(use_gpu, D.data());
  internal::release_vocabulary(use_gpu);
  return D;
}

/// A collection as compressed sparse rows.
struct Csr {
  explicit Csr(const DocumentSet& docs)
      : num_docs(static_cast<int>(docs.size())),
        entries(count_entries(docs)),
        ind(entries),
        start(num_docs + 1),
        weight(entries) {
    setup_raw_data(docs, 0, num_docs, ind.data(), start.data(), weight.data());
  }
  int num_docs, entries;
  std::vector<int> ind, start;
  std::vector<float> weight;
};

/// Copying scales the caller's rows in place if normalisation is on.  The batch takes its rows from
/// the vocabulary's before the vocabulary is copied, afterwards with vocabulary_first; with
/// batch_first it is also copied before.  By words the GPU engine gets the words themselves.
enum class CopyOrder { rows_as_given, vocabulary_first, batch_first, by_words };

/// Z of the whole world as one batch: Z[d * resident documents + i].
/// @param compute  void(float* Z), run while the world is loaded
template <class Compute>
std::vector<float> distance_block(const World& world, bool use_gpu, bool ground,
                                  const Compute& compute,
                                  CopyOrder order = CopyOrder::rows_as_given) {
  const int voc_size = world.shape.voc_size, vec_size = world.shape.vec_size;
  Csr resident(world.resident), batch(world.queries);
  std::vector<float> embeddings = world.embeddings, D, X(batch.entries * vec_size);
  internal::load_resident(use_gpu, resident.entries, resident.ind.data(), resident.weight.data(),
                          resident.num_docs, resident.start.data());
  if (ground) {
    D = world.ground.empty() ? ground_matrix(world, use_gpu) : world.ground;
    internal::attach_ground(use_gpu, voc_size, D.data());
    internal::load_batch_indices(use_gpu, batch.entries, batch.ind.data(), batch.weight.data(),
                                 batch.num_docs, batch.start.data());
  } else if (order == CopyOrder::by_words) {
    internal::load_vocabulary(use_gpu, voc_size, vec_size, embeddings.data());
    internal::load_batch_words(batch.entries, vec_size, batch.ind.data(), world.embeddings.data(),
                               batch.weight.data(), batch.num_docs, batch.start.data());
  } else {
    const auto copy_vocabulary = [&] {
      internal::load_vocabulary(use_gpu, voc_size, vec_size, embeddings.data());
    };
    if (order == CopyOrder::vocabulary_first) copy_vocabulary();
    setup_vectors(embeddings.data(), vec_size, world.queries, 0, batch.num_docs, X.data(),
                  batch.start.data(), batch.weight.data());
    if (order == CopyOrder::rows_as_given) copy_vocabulary();
    internal::load_batch_vectors(use_gpu, batch.entries, vec_size, X.data(), batch.weight.data(),
                                 batch.num_docs, batch.start.data());
    if (order == CopyOrder::batch_first) copy_vocabulary();
  }
  std::vector<float> Z(resident.num_docs * batch.num_docs, -1.0f);
  compute(Z.data());
  internal::release_batch(use_gpu, ground);
  if (ground) internal::detach_ground(use_gpu);
  if (!ground) internal::release_vocabulary(use_gpu);
  internal::release_resident(use_gpu);
  return Z;
}

/// The same by the function of a rule.
inline std::vector<float> distance_block(const World& world, int steps, StepRule rule, bool ground,
                                         CopyOrder order = CopyOrder::rows_as_given) {
  const auto compute = [&](float* Z) { function_of(rule)(Z, steps, ground); };
  return distance_block(world, engine_of(rule), ground, compute, order);
}

/// Distances reach the oracle within float rounding; squared distances near 0 lose half of their
/// digits in sqrt(|a.a + b.b - 2 a.b|).
inline void expect_near(const std::vector<double>& expected, const std::vector<float>& Z) {
  ASSERT_EQ(expected.size(), Z.size());
  for (size_t at = 0; at < Z.size(); ++at) {
    ASSERT_NEAR(expected[at], Z[at], 4e-3 + 1e-5 * std::fabs(expected[at])) << "at " << at;
  }
}

}  // namespace talvik::test

#endif
