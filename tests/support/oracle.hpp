// The distances once more, slowly and in double precision, straight from their definition.
#ifndef TALVIK_TESTS_ORACLE_HPP
#define TALVIK_TESTS_ORACLE_HPP

#include <algorithm>
#include <bit>  // bit_ceil
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include "support/world.hpp"
#include "talvik.hpp"

namespace talvik::test {

/// How many nearest words share a resident word's weight.
enum class StepRule {
  single,        ///< ed_min_vocab_cpu: at most one step, whatever the document's length
  halving,       ///< ed_min_vocab_cpu_multi: steps + 1 halved until it fits the document
  powers_of_two  ///< ed_min_vocab_multi: a power of two above the steps, at most 16, halved
                 ///< likewise
};

/// Nearest words that share a resident word's weight, for a query document of n entries.
inline int oracle_nearest(int delta_iterations, int n, StepRule rule) {
  const int steps = std::max(delta_iterations, 0);
  if (rule == StepRule::single) return std::min(steps, 1) + 1;
  int nearest = steps + 1;
  if (rule == StepRule::powers_of_two) nearest = std::bit_ceil(std::min(nearest, 16) + 0u);
  while (nearest > n && nearest > 1) nearest /= 2;
  return std::min(nearest, steps + 1);
}

/// Distance between words a and b of an embedding matrix under the current settings.
inline double oracle_word_distance(const std::vector<float>& embeddings, int vec_size, unsigned a,
                                   unsigned b) {
  const float* x = embeddings.data() + a * vec_size;
  const float* y = embeddings.data() + b * vec_size;
  double dot = 0, norm_x = 0, norm_y = 0;
  for (int j = 0; j < vec_size; ++j) {
    dot += 1.0 * x[j] * y[j];
    norm_x += 1.0 * x[j] * x[j];
    norm_y += 1.0 * y[j] * y[j];
  }
  if (normalize_embeddings && norm_x > 0) dot /= std::sqrt(norm_x);
  if (normalize_embeddings && norm_y > 0) dot /= std::sqrt(norm_y);
  if (use_cosine) return 1 - dot;
  return std::sqrt(std::fabs((normalize_embeddings ? 2 : norm_x + norm_y) - 2 * dot));
}

/// Distance from a resident to a query document under the current settings.
inline double oracle_distance(const std::vector<float>& embeddings, int vec_size,
                              const Document& resident, const Document& query, int delta_iterations,
                              StepRule rule) {
  double total = 0;
  for (const auto& [word, weight] : resident) {
    std::vector<std::pair<double, double>> nearest;  // distance and capacity
    for (const auto& [other, capacity] : query) {
      const double distance = oracle_word_distance(embeddings, vec_size, word, other);
      nearest.emplace_back(rule == StepRule::halving ? distance : std::min(distance, 1e30),
                           capacity);
    }
    std::stable_sort(nearest.begin(), nearest.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    // A missing word is far away and takes nothing; the last one takes all that is left.
    nearest.resize(oracle_nearest(delta_iterations, static_cast<int>(query.size()), rule),
                   {1e30, 0});
    nearest.back().second = std::numeric_limits<double>::infinity();
    double left = weight;
    for (const auto& [distance, capacity] : nearest) {
      const double moved = std::min(left, capacity);
      total += moved * distance;
      left -= moved;
    }
  }
  return total;
}

/// The whole block Z[query * resident documents + resident] under the current settings.
inline std::vector<double> oracle_block(const World& world, int delta_iterations, StepRule rule) {
  std::vector<double> Z;
  for (const Document& query : world.queries) {
    for (const Document& resident : world.resident) {
      Z.push_back(oracle_distance(world.embeddings, world.shape.vec_size, resident, query,
                                  delta_iterations, rule));
    }
  }
  return Z;
}

}  // namespace talvik::test

#endif
