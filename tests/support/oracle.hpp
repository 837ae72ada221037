// The distances once more, slowly and in double precision, straight from their definition.
#ifndef TALVIK_TESTS_ORACLE_HPP
#define TALVIK_TESTS_ORACLE_HPP

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include "support/world.hpp"
#include "talvik.hpp"

namespace talvik::test {

/// What a missing nearest word costs per unit of weight.
inline constexpr double far_away = 1e30;

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
  if (rule == StepRule::powers_of_two) {
    nearest = 16;
    while (nearest / 2 > steps) nearest /= 2;
  }
  while (nearest > n && nearest > 1) nearest /= 2;
  return std::min(nearest, steps + 1);
}

/// Distance between words a and b of an embedding matrix under the current settings.
inline double oracle_word_distance(const float* embeddings, int vec_size, unsigned a, unsigned b) {
  const float* x = embeddings + static_cast<size_t>(a) * static_cast<size_t>(vec_size);
  const float* y = embeddings + static_cast<size_t>(b) * static_cast<size_t>(vec_size);
  double dot = 0, norm_x = 0, norm_y = 0;
  for (int j = 0; j < vec_size; ++j) {
    dot += static_cast<double>(x[j]) * y[j];
    norm_x += static_cast<double>(x[j]) * x[j];
    norm_y += static_cast<double>(y[j]) * y[j];
  }
  if (normalize_embeddings && norm_x > 0) dot /= std::sqrt(norm_x);
  if (normalize_embeddings && norm_y > 0) dot /= std::sqrt(norm_y);
  if (use_cosine) return 1 - dot;
  if (normalize_embeddings) return std::sqrt(std::fabs(2 - 2 * dot));
  return std::sqrt(std::fabs(norm_x + norm_y - 2 * dot));
}

/// Distance from a resident to a query document, over word_distance(resident word, query word).
template <class WordDistance>
double oracle_distance(const Document& resident, const Document& query, int delta_iterations,
                       StepRule rule, const WordDistance& word_distance) {
  const int n = static_cast<int>(query.size());
  const int nearest = oracle_nearest(delta_iterations, n, rule);
  double total = 0;
  for (const auto& [word, weight] : resident) {
    std::vector<double> distance(query.size());
    for (int c = 0; c < n; ++c) distance[c] = word_distance(word, query[c].first);
    std::vector<int> order(query.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(),
                     [&](int a, int b) { return distance[a] < distance[b]; });
    double left = weight;
    for (int t = 0; t + 1 < nearest; ++t) {
      const double moved = t < n ? std::min<double>(left, query[order[t]].second) : 0;
      total += t < n ? moved * distance[order[t]] : 0;
      left -= moved;
    }
    total += left * (nearest - 1 < n ? distance[order[nearest - 1]] : far_away);
  }
  return total;
}

/// The same over an embedding matrix and the current settings.
inline double oracle_distance(const std::vector<float>& embeddings, int vec_size,
                              const Document& resident, const Document& query, int delta_iterations,
                              StepRule rule) {
  return oracle_distance(resident, query, delta_iterations, rule, [&](unsigned a, unsigned b) {
    return oracle_word_distance(embeddings.data(), vec_size, a, b);
  });
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
