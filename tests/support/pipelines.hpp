// What the tests of several processes share: the process group around a test program, splits, and
// worlds whose results are exact, with the results that they must give.
#ifndef TALVIK_TESTS_PIPELINES_HPP
#define TALVIK_TESTS_PIPELINES_HPP

#include <gtest/gtest.h>
#include <unistd.h>  // getpid

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <numeric>
#include <string>
#include <vector>

#include "support/files.hpp"
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

/// Distribution info for a collection of num_docs documents of one entry.
inline void split_evenly(int num_docs) {
  cleanup_distribution_info();
  load_balancing(DocumentSet(num_docs, Document(1)), num_docs, num_docs);
}

/// A path that all processes of the job share and no other job has.
inline std::string scratch_path(const std::string& name) {
  int job = static_cast<int>(getpid());
  broadcast_mpi(&job, sizeof(job), 0);
  return std::filesystem::temp_directory_path() / ("talvik." + std::to_string(job) + "." + name);
}

/// The text of a file, which is then removed; "(no file)" without one.
inline std::string take_file(const std::string& path) {
  std::string text = std::filesystem::exists(path) ? read_file(path) : "(no file)";
  std::filesystem::remove(path);
  return text;
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

using Matrix = std::vector<std::vector<float>>;

/// Row q, column i: distance from resident document i to query document q.  The other way round by
/// resident documents.
inline Matrix expected_distances(const World& world, const DocumentSet& resident,
                                 const DocumentSet& queries, int steps, bool use_gpu,
                                 bool by_resident = false) {
  const StepRule rule = use_gpu     ? StepRule::powers_of_two
                        : steps > 1 ? StepRule::halving
                                    : StepRule::single;
  Matrix distances(by_resident ? resident.size() : queries.size());
  for (size_t q = 0; q < queries.size(); ++q) {
    for (size_t i = 0; i < resident.size(); ++i) {
      distances[by_resident ? i : q].push_back(oracle_distance(
          world.embeddings, world.shape.vec_size, resident[i], queries[q], steps, rule));
    }
  }
  return distances;
}

/// The columns first .. first + count - 1 of a row, nearest first: NaN last, of equal distances the
/// lower column first.
inline std::vector<int> nearest_first(const std::vector<float>& row, int first, int count) {
  std::vector<int> order(count);
  std::iota(order.begin(), order.end(), first);
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) {
    return row[a] < row[b] || (std::isnan(row[b]) && !std::isnan(row[a]));
  });
  return order;
}

/// The result line of a pair, as the C library writes it.
inline std::string result_line(unsigned long query, unsigned long neighbour, float distance) {
  char line[128];
  std::snprintf(line, sizeof line, "\"%lu\", \"%lu\", \"%f\"\n", query, neighbour, distance);
  return line;
}

/// The result lines of rows first .. first+count-1: each row's min(k, columns) nearest.
inline std::string expected_lines(const Matrix& distances, int first, int count, int k,
                                  const LabelList& row_labels, const LabelList& column_labels) {
  std::string text;
  for (int q = first; q < first + count; ++q) {
    const int columns = static_cast<int>(distances[q].size());
    std::vector<int> order = nearest_first(distances[q], 0, columns);
    order.resize(std::clamp(k, 0, columns));
    for (const int i : order) {
      text += result_line(row_labels[q], column_labels[i], distances[q][i]);
    }
  }
  return text;
}

}  // namespace talvik::test

#endif
