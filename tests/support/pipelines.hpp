// What the tests of the pipelines share: worlds whose results are exact, the results that they must
// give, and the process group around a test program.
#ifndef TALVIK_TESTS_PIPELINES_HPP
#define TALVIK_TESTS_PIPELINES_HPP

#include <gtest/gtest.h>
#include <unistd.h>  // getpid

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <numeric>
#include <sstream>
#include <string>
#include <vector>

#include "support/oracle.hpp"
#include "support/world.hpp"
#include "talvik.hpp"

namespace talvik::test {

/// Sets the process group up before the tests and takes it down after them.
class ProcessGroup : public testing::Environment {
  void SetUp() override {
    init_mpi(&myid, &num_procs, &local_id, &num_local_procs);
    num_cpu_threads = num_procs > 2 ? 1 : 2;  // more threads than cores take turns, slowly
  }
  void TearDown() override { finalize_mpi(); }
};

/// A path that all processes of the job share and no other job has.
inline std::string scratch_path(const std::string& name) {
  int job = static_cast<int>(getpid());
  broadcast_mpi(&job, sizeof(job), 0);
  return std::filesystem::temp_directory_path() / ("talvik." + std::to_string(job) + "." + name);
}

/// The text of a file, which is then removed; "(no file)" without one.
inline std::string take_file(const std::string& path) {
  std::ifstream file(path);
  if (!file) return "(no file)";
  std::ostringstream text;
  text << file.rdbuf();
  std::filesystem::remove(path);
  return text.str();
}

/// Words on a line at whole numbers with weights in eighths: word distances, and so all results,
/// are exact floats, and many of them are equal.  Two words a document at least: a single one would
/// leave weight without a second-nearest word.
inline World exact_world(unsigned seed) {
  return random_world({.seed = seed,
                       .vec_size = 1,
                       .num_resident = 14,
                       .num_queries = 11,
                       .min_words = 2,
                       .whole_numbers = true});
}

/// The same with two empty documents among the resident ones.
inline World with_empty_documents(World world) {
  world.resident.at(3).clear();
  world.resident.at(13).clear();
  return world;
}

/// Row q, column i: distance from resident document i to query document q.
using Matrix = std::vector<std::vector<float>>;

inline Matrix expected_distances(const World& world, const DocumentSet& resident,
                                 const DocumentSet& queries, int delta_iterations,
                                 bool use_gpu = false) {
  const StepRule rule = use_gpu                ? StepRule::powers_of_two
                        : delta_iterations > 1 ? StepRule::halving
                                               : StepRule::single;
  Matrix distances;
  for (const Document& query : queries) {
    auto& row = distances.emplace_back();
    for (const Document& doc : resident) {
      row.push_back(static_cast<float>(oracle_distance(world.embeddings, world.shape.vec_size, doc,
                                                       query, delta_iterations, rule)));
    }
  }
  return distances;
}

/// Row i, column q: the larger distance of both directions between docs1 i and docs2 q.
inline Matrix expected_two_way(const World& world, int delta_iterations, bool use_gpu = false) {
  const Matrix there =
      expected_distances(world, world.resident, world.queries, delta_iterations, use_gpu);
  Matrix larger =
      expected_distances(world, world.queries, world.resident, delta_iterations, use_gpu);
  for (size_t i = 0; i < larger.size(); ++i) {
    for (size_t q = 0; q < larger[i].size(); ++q)
      larger[i][q] = std::max(larger[i][q], there[q][i]);
  }
  return larger;
}

/// The result lines of rows first .. first+count-1: each row's min(k, columns) smallest values.
inline std::string expected_lines(const Matrix& distances, int first, int count, int k,
                                  const LabelList& row_labels, const LabelList& column_labels) {
  std::string text;
  for (int q = first; q < first + count; ++q) {
    const auto& row = distances[static_cast<size_t>(q)];
    std::vector<size_t> order(row.size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t a, size_t b) { return row[a] < row[b]; });
    for (size_t j = 0; j < order.size() && static_cast<int>(j) < k; ++j) {
      char line[128];
      std::snprintf(line, sizeof line, "\"%lu\", \"%lu\", \"%f\"\n",
                    row_labels[static_cast<size_t>(q)], column_labels[order[j]],
                    static_cast<double>(row[order[j]]));
      text += line;
    }
  }
  return text;
}

struct Free {
  void operator()(float* matrix) const { std::free(matrix); }
};

/// A matrix that the library hands over.
using OwnedMatrix = std::unique_ptr<float[], Free>;

/// Collects the batches that batch_finished reports as long as it lives.
class BatchWatch {
 public:
  BatchWatch() {
    batch_finished_context = this;
    batch_finished = [](const BatchResult& batch, void* context) {
      auto& to = *static_cast<BatchWatch*>(context);
      to.batches.push_back(batch);
      if (!batch.neighbours) return;
      const int entries = batch.num_queries * batch.k;
      to.neighbours.insert(to.neighbours.end(), batch.neighbours, batch.neighbours + entries);
    };
  }
  ~BatchWatch() { batch_finished = nullptr, batch_finished_context = nullptr; }

  /// What was reported must be queries first .. first + count - 1 in their order, with lists of k.
  void expect_batches(int first, int count, int k) const {
    int next = first;
    for (const BatchResult& batch : batches) {
      EXPECT_EQ(batch.first_query, next);
      EXPECT_EQ(batch.end_query, first + count);
      EXPECT_EQ(batch.k, k);
      next += batch.num_queries;
    }
    EXPECT_EQ(next, first + count);
    EXPECT_EQ(neighbours.size(), static_cast<size_t>(count) * static_cast<size_t>(k));
  }

  std::vector<BatchResult> batches;  // their lists are gone
  std::vector<int> neighbours;
};

}  // namespace talvik::test

#endif
