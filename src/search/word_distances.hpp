// The distances between the words of two documents, in double precision.
#ifndef TALVIK_SEARCH_WORD_DISTANCES_HPP
#define TALVIK_SEARCH_WORD_DISTANCES_HPP

#include <span>
#include <vector>

#include "talvik/search.hpp"

namespace talvik::internal {

/// Some rows of a table: row i begins at rows + words[i]*dimensions.
struct WordRows {
  const float* rows;
  int dimensions;
  std::span<const int> words;
};

/// Copies of rows, as the loops want them; kept from call to call.
struct WordDistanceScratch {
  std::vector<double> rows;   // of `from`, row-major
  std::vector<double> norms;  // squared, of `from`
  std::vector<double> panel;  // some rows of `to`, component by component
};

/// Writes the distance from row i of `from` to row j of `to` at distances[i*to.words.size() + j].
///
///   euclidean  sqrt(sum of (a - b)^2): 0 for equal rows and for no others
///   cosine     max(0, 1 - a.b / sqrt(|a|^2 |b|^2)): 0 for equal rows; 1 where a row is zero
///
/// Every sum is taken over the components in order, in double precision and without fused
/// operations, so that the bits are the same on every processor; and the distances from b to a are
/// those from a to b.
/// @pre from.dimensions == to.dimensions
void word_distances(talvik::Metric metric, const WordRows& from, const WordRows& to,
                    WordDistanceScratch& scratch, double* distances);

}  // namespace talvik::internal

#endif
