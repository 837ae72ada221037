// The distance between two words, as a formula of their dot product, and the choice of the formula.
#ifndef TALVIK_LIBWMD_WORD_DISTANCE_HPP
#define TALVIK_LIBWMD_WORD_DISTANCE_HPP

#include <cmath>
#include <limits>

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
  cosine,          ///< 1 - a.b
  unit_cosine      ///< 1 - a.b of rows of unit length, where only rounding can make it negative
};

/// Cosine wins over normalisation.
constexpr Metric chosen_metric(bool use_cosine, bool normalised) {
  if (use_cosine) return normalised ? Metric::unit_cosine : Metric::cosine;
  return normalised ? Metric::unit_euclidean : Metric::euclidean;
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
    case Metric::unit_cosine:
      return f.template operator()<Metric::unit_cosine>();
  }
}

/// Norms are squared; only euclidean reads them.
template <Metric metric>
TALVIK_BOTH inline float word_distance(float dot, float norm_a, float norm_b) {
  if constexpr (metric == Metric::cosine) return 1 - dot;
  if constexpr (metric == Metric::unit_cosine) return dot > 1 ? 0 : 1 - dot;
  if constexpr (metric == Metric::unit_euclidean) return std::sqrt(std::fabs(2 - (dot + dot)));
  // fabs: rounding may take the square of a small distance below 0.
  return std::sqrt(std::fabs((-2 * dot + norm_a) + norm_b));
}

inline constexpr float largest_norm = std::numeric_limits<float>::max();

/// Whether rows that are equal have a known distance.  A zero row has one in any case, since its
/// products are exact, and a row without a finite norm has none.
TALVIK_BOTH inline bool has_direction(float norm) { return norm > 0 && norm <= largest_norm; }

// The engines compare scores instead of distances.  For one vocabulary word, the scores of query
// words are ordered as their distances, so that only the nearest ones need a square root.
//   euclidean       score = query norm - 2 dot    distance = sqrt(|score + vocabulary norm|)
//   unit_euclidean  score = -2 dot                distance = sqrt(|2 + score|)
//   cosine          score = -2 dot                distance = 1 + score / 2
//   unit_cosine     score = -2 dot                distance = max(0, 1 + score / 2)
// The score of a ground distance is the distance itself.
inline constexpr float score_per_dot = -2;

/// Stands for the product of two equal rows where no other row can be nearer: its score is below
/// all others, which rounding may have made too small, and its distance is 0.
inline constexpr float product_of_nearest = std::numeric_limits<float>::infinity();
inline constexpr float score_of_nearest = score_per_dot * product_of_nearest;

/// The distance of a score.
/// @param norm  of the vocabulary word, squared; only euclidean reads it
template <Metric metric>
TALVIK_BOTH inline float distance_of_score(float score, float norm) {
  constexpr bool rooted = metric == Metric::euclidean || metric == Metric::unit_euclidean;
  // Products with a row of endless norm may be endless, too.
  if (rooted && score == score_of_nearest && norm <= largest_norm) return 0;
  return word_distance<metric>(score / score_per_dot, norm, 0);
}

/// The product of a row with itself, without the rounding of a dense product.  For the metrics of
/// unit rows, and for the cosine, a row that came at unit length counts as such.
/// @param norm       squared
/// @param unit_rows  whether the rows were scaled to unit length; the norms are from before
TALVIK_BOTH inline float product_with_itself(Metric metric, float norm, bool unit_rows) {
  constexpr float rounding = 1e-6f;
  const bool near_one = metric != Metric::euclidean && std::fabs(norm - 1) <= rounding;
  return unit_rows || near_one ? 1 : norm;
}

/// What stands for the product of two equal rows where rows are chosen by their scores.  A cosine
/// of rows of any length has no bound, so there they need not be the nearest.
TALVIK_BOTH inline float product_of_equal_rows(Metric metric, float norm, bool unit_rows) {
  return metric == Metric::cosine ? product_with_itself(metric, norm, unit_rows)
                                  : product_of_nearest;
}

/// The distance of two words that have the same row: 0 but for the cosine of rows of any length.
template <Metric metric>
TALVIK_BOTH inline float distance_to_itself(float norm, bool unit_rows) {
  return word_distance<metric>(product_with_itself(metric, norm, unit_rows), norm, norm);
}

/// The cost per unit of weight for which there is no query word.
inline constexpr float far_away = 1e30f;

}  // namespace talvik::internal

#endif
