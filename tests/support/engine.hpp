// Runs the engines over whole worlds, for tests.
#ifndef TALVIK_TESTS_ENGINE_HPP
#define TALVIK_TESTS_ENGINE_HPP

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "support/oracle.hpp"
#include "support/world.hpp"
#include "talvik.hpp"

namespace talvik::test {

/// The functions that fill an engine's roles.
struct Engine {
  int (*copy_vocabulary)(int v_size, int m, float* W);
  int (*remove_vocabulary)();
  int (*copy_raw_data)(int n, int* ind, float* weight, int num_docs, int* start);
  int (*remove_raw_data)();
  int (*copy_raw_data2)(int n2, int* ind2, float* weight2, int num_docs2, int* start2);
  int (*remove_raw_data2)();
  int (*copy_vectors2)(int n2, int m, float* X2, float* weight2, int num_docs2, int* start2);
  int (*remove_vectors2)();
  int (*compute_ground_distances)(float* D_ground);
  int (*copy_ground_distances)(int voc_size, float* D_ground);
  int (*remove_ground_distances)();
};

inline constexpr Engine cpu_engine{
    copy_vocabulary_cpu,       remove_vocabulary_cpu,      copy_raw_data_cpu,
    remove_raw_data_cpu,       copy_raw_data2_cpu,         remove_raw_data2_cpu,
    copy_vectors2_cpu,         remove_vectors2_cpu,        compute_ground_distances_cpu,
    copy_ground_distances_cpu, remove_ground_distances_cpu};

inline int copy_vocabulary_to_first_device(int v_size, int m, float* W) {
  constexpr int first_device = 0;
  return copy_vocabulary(first_device, v_size, m, W);
}

inline constexpr Engine gpu_engine{copy_vocabulary_to_first_device,
                                   remove_vocabulary,
                                   copy_raw_data,
                                   remove_raw_data,
                                   copy_raw_data2,
                                   remove_raw_data2,
                                   copy_vectors2,
                                   remove_vectors2,
                                   compute_ground_distances,
                                   copy_ground_distances,
                                   remove_ground_distances};

/// The engine whose rule it is.
inline const Engine& engine_of(StepRule rule) {
  return rule == StepRule::powers_of_two ? gpu_engine : cpu_engine;
}

/// Whether there is a device, real or emulated, for the engine with this rule.
inline bool can_run(StepRule rule) {
  return rule != StepRule::powers_of_two || count_gpu_devices() > 0;
}

/// All word distances of the world, voc_size x voc_size.
inline std::vector<float> ground_matrix(const World& world, const Engine& engine = cpu_engine) {
  const size_t n = static_cast<size_t>(world.shape.voc_size);
  std::vector<float> D(n * n), embeddings = world.embeddings;
  engine.copy_vocabulary(world.shape.voc_size, world.shape.vec_size, embeddings.data());
  engine.compute_ground_distances(D.data());
  engine.remove_vocabulary();
  return D;
}

/// A collection as compressed sparse rows.
struct Csr {
  std::vector<int> ind, start;
  std::vector<float> weight;
};

inline Csr csr_of(const DocumentSet& docs) {
  const size_t entries = static_cast<size_t>(count_entries(docs));
  Csr csr{std::vector<int>(entries), std::vector<int>(docs.size() + 1),
          std::vector<float>(entries)};
  setup_raw_data(docs, 0, static_cast<int>(docs.size()), csr.ind.data(), csr.start.data(),
                 csr.weight.data());
  return csr;
}

/// Z of the whole world as one batch: Z[d * resident documents + i].
/// @param compute  void(float* Z), run while the world is loaded
template <class Compute>
std::vector<float> distance_block(const World& world, const Engine& engine, bool ground,
                                  const Compute& compute) {
  World copy = world;
  const int num_resident = static_cast<int>(world.resident.size());
  const int num_queries = static_cast<int>(world.queries.size());
  Csr resident = csr_of(world.resident), batch = csr_of(world.queries);
  const int n = static_cast<int>(resident.ind.size()), n2 = static_cast<int>(batch.ind.size());
  engine.copy_raw_data(n, resident.ind.data(), resident.weight.data(), num_resident,
                       resident.start.data());
  std::vector<float> D, X;
  if (ground) {
    D = ground_matrix(copy, engine);
    engine.copy_ground_distances(world.shape.voc_size, D.data());
    engine.copy_raw_data2(n2, batch.ind.data(), batch.weight.data(), num_queries,
                          batch.start.data());
  } else {
    X.resize(static_cast<size_t>(n2) * static_cast<size_t>(world.shape.vec_size));
    setup_vectors(copy.embeddings.data(), world.shape.vec_size, world.queries, 0, num_queries,
                  X.data(), batch.start.data(), batch.weight.data());
    engine.copy_vocabulary(world.shape.voc_size, world.shape.vec_size, copy.embeddings.data());
    engine.copy_vectors2(n2, world.shape.vec_size, X.data(), batch.weight.data(), num_queries,
                         batch.start.data());
  }
  std::vector<float> Z(static_cast<size_t>(num_resident) * static_cast<size_t>(num_queries), -1.0f);
  compute(Z.data());
  if (ground) {
    engine.remove_raw_data2();
    engine.remove_ground_distances();
  } else {
    engine.remove_vectors2();
    engine.remove_vocabulary();
  }
  engine.remove_raw_data();
  return Z;
}

/// The function that computes by a rule.
inline auto function_of(StepRule rule) {
  return rule == StepRule::single    ? ed_min_vocab_cpu
         : rule == StepRule::halving ? ed_min_vocab_cpu_multi
                                     : ed_min_vocab_multi;
}

/// The same by the function of a rule.
inline std::vector<float> distance_block(const World& world, int steps, StepRule rule,
                                         bool ground) {
  return distance_block(world, engine_of(rule), ground,
                        [&](float* Z) { function_of(rule)(Z, steps, ground); });
}

/// Distances reach the oracle within float rounding; squared distances near 0 lose half of their
/// digits in sqrt(|a.a + b.b - 2 a.b|).
inline void expect_near(const std::vector<double>& expected, const std::vector<float>& Z,
                        size_t num_resident) {
  ASSERT_EQ(expected.size(), Z.size());
  for (size_t at = 0; at < Z.size(); ++at) {
    ASSERT_NEAR(expected[at], Z[at], 2e-3 + 1e-5 * std::fabs(expected[at]))
        << "resident " << at % num_resident << ", query " << at / num_resident;
  }
}

}  // namespace talvik::test

#endif
