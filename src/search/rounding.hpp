// How far what is computed in single precision may be off: bounds on it, so that pruning never
// depends on luck.
//
// Notation of N. J. Higham, Accuracy and Stability of Numerical Algorithms, 2nd ed., 3.1 and 3.5:
// with the unit roundoff u = 2^-24, a dot product of n terms, summed in any order, is off by at
// most n u / (1 - n u) times the sum of the terms' magnitudes, which is at most |a| |b|.
#ifndef TALVIK_SEARCH_ROUNDING_HPP
#define TALVIK_SEARCH_ROUNDING_HPP

#include <algorithm>
#include <cmath>
#include <limits>

#include "talvik/search.hpp"

namespace talvik::internal {

inline constexpr double unit_roundoff = 1.0 / (1 << 24);

/// Terms that are added up in the dot product of two rows: the matrix unit splits numbers in parts
/// and adds six products of them.
constexpr int terms_of_product(int dimensions, bool on_matrix_unit) {
  constexpr int products_of_parts = 6;
  return on_matrix_unit ? products_of_parts * dimensions : dimensions;
}

struct Rounding {
  /// Of a squared distance |a|^2 + |b|^2 - 2 a.b, or of a cosine distance 1 - a.b.
  double score;
  /// Of a distance between words.
  double word;

  /// @param terms         of a dot product: terms_of_product
  /// @param largest_norm  squared, of all rows of both sides
  static Rounding of(talvik::Metric metric, int terms, double largest_norm) {
    // Besides the products: rows of length 1 and norms are rounded themselves, the parts of the
    // matrix unit's numbers drop a few u, and the sum of the three terms, at most 4 |a|^2, is
    // rounded twice.
    constexpr double others = 16;
    // A product below the smallest normal number may become 0.
    constexpr double underflow = std::numeric_limits<float>::min();
    const double dot = (terms + others) * (unit_roundoff * largest_norm + underflow);
    if (metric == talvik::Metric::cosine) return {dot, dot};
    // |sqrt(x) - sqrt(y)| <= sqrt(|x - y|): the worst is two words that are nearly the same.
    return {2 * dot, std::sqrt(2 * dot)};
  }
};

/// Of a sum of weight x distance over `entries` entries, relative to the sum of the magnitudes.
inline double rounding_of_sum(double entries) {
  constexpr double others = 16;  // the product, the root, sums of partial sums
  return (entries + others) * unit_roundoff;
}

}  // namespace talvik::internal

#endif
