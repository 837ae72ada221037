// The distance between two words, as a formula of their dot product, and the choice of the formula.
#ifndef TALVIK_LIBWMD_WORD_DISTANCE_HPP
#define TALVIK_LIBWMD_WORD_DISTANCE_HPP

#include <cmath>

// Marks functions that device code may call, too.
#ifdef __CUDACC__
#define TALVIK_BOTH __host__ __device__
#else
#define TALVIK_BOTH
#endif

namespace talvik::internal {

enum class Metric {
  euclidean,       ///< sqrt(|a.a + b.b - 2 a.b|) of the rows as given
  unit_euclidean,  ///< sqrt(|2 - 2 a.b|) of rows of unit length
  cosine           ///< 1 - a.b
};

/// Cosine wins over normalisation.
constexpr Metric chosen_metric(bool use_cosine, bool normalize_embeddings) {
  if (use_cosine) return Metric::cosine;
  return normalize_embeddings ? Metric::unit_euclidean : Metric::euclidean;
}

/// Calls f.operator()<metric>(): the formula is chosen once, outside the loops.
template <class F>
void with_metric(Metric metric, const F& f) {
  switch (metric) {
    case Metric::euclidean:
      return f.template operator()<Metric::euclidean>();
    case Metric::unit_euclidean:
      return f.template operator()<Metric::unit_euclidean>();
    case Metric::cosine:
      return f.template operator()<Metric::cosine>();
  }
}

/// Norms are squared; only euclidean reads them.
template <Metric metric>
TALVIK_BOTH inline float word_distance(float dot, float norm_a, float norm_b) {
  if constexpr (metric == Metric::cosine) return 1 - dot;
  if constexpr (metric == Metric::unit_euclidean) return std::sqrt(std::fabs(2 - (dot + dot)));
  // fabs: rounding may take the square of a small distance below 0.
  return std::sqrt(std::fabs((-2 * dot + norm_a) + norm_b));
}

// The CPU engine compares scores instead of distances.  For one vocabulary word, the scores of
// query words are ordered as their distances, so that only the nearest ones need a square root.
//   euclidean       score = query norm - 2 dot    distance = sqrt(|score + vocabulary norm|)
//   unit_euclidean  score = -2 dot                distance = sqrt(|2 + score|)
//   cosine          score = -2 dot                distance = 1 + score / 2
// The score of a ground distance is the distance itself.
inline constexpr float score_per_dot = -2;

/// The cost per unit of weight for which there is no query word.
inline constexpr float far_away = 1e30f;

}  // namespace talvik::internal

#endif
