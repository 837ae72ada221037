// Runs the CPU engine over whole worlds, for tests.
#ifndef TALVIK_TESTS_ENGINE_HPP
#define TALVIK_TESTS_ENGINE_HPP

#include <vector>

#include "support/oracle.hpp"
#include "support/world.hpp"
#include "talvik.hpp"

namespace talvik::test {

/// All word distances of the world, voc_size x voc_size.
inline std::vector<float> ground_matrix(World& world) {
  const size_t n = static_cast<size_t>(world.shape.voc_size);
  std::vector<float> D(n * n);
  copy_vocabulary_cpu(world.shape.voc_size, world.shape.vec_size, world.embeddings.data());
  compute_ground_distances_cpu(D.data());
  remove_vocabulary_cpu();
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
inline std::vector<float> distance_block(const World& world, int steps, StepRule rule,
                                         bool ground) {
  World copy = world;
  const int num_docs = static_cast<int>(world.resident.size());
  const int num_docs2 = static_cast<int>(world.queries.size());
  Csr resident = csr_of(world.resident), batch = csr_of(world.queries);
  const int n = static_cast<int>(resident.ind.size()), n2 = static_cast<int>(batch.ind.size());
  copy_raw_data_cpu(n, resident.ind.data(), resident.weight.data(), num_docs,
                    resident.start.data());
  std::vector<float> D;
  if (ground) {
    D = ground_matrix(copy);
    copy_ground_distances_cpu(world.shape.voc_size, D.data());
    copy_raw_data2_cpu(n2, batch.ind.data(), batch.weight.data(), num_docs2, batch.start.data());
  } else {
    copy_vocabulary_cpu(world.shape.voc_size, world.shape.vec_size, copy.embeddings.data());
    std::vector<float> X(static_cast<size_t>(n2) * static_cast<size_t>(world.shape.vec_size));
    setup_vectors(copy.embeddings.data(), world.shape.vec_size, world.queries, 0, num_docs2,
                  X.data(), batch.start.data(), batch.weight.data());
    copy_vectors2_cpu(n2, world.shape.vec_size, X.data(), batch.weight.data(), num_docs2,
                      batch.start.data());
  }
  std::vector<float> Z(static_cast<size_t>(num_docs) * static_cast<size_t>(num_docs2), -1.0f);
  if (rule == StepRule::single) {
    ed_min_vocab_cpu(Z.data(), steps, ground);
  } else {
    ed_min_vocab_cpu_multi(Z.data(), steps, ground);
  }
  if (ground) {
    remove_raw_data2_cpu();
    remove_ground_distances_cpu();
  } else {
    remove_vectors2_cpu();
    remove_vocabulary_cpu();
  }
  remove_raw_data_cpu();
  return Z;
}

}  // namespace talvik::test

#endif
