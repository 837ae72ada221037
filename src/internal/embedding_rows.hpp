// Norms and normalisation of embedding rows, as every engine and reader does them.
#ifndef TALVIK_INTERNAL_EMBEDDING_ROWS_HPP
#define TALVIK_INTERNAL_EMBEDDING_ROWS_HPP

#include <cmath>

namespace talvik::internal {

/// Squared norm of a row of m floats.
inline float squared_norm(const float* row, int m) {
  double sum = 0;
  for (int j = 0; j < m; ++j) sum += static_cast<double>(row[j] * row[j]);  // float product
  return static_cast<float>(sum);
}

/// Divides a row by the root of its squared norm; a zero row stays zero.
inline void normalise_row(float* row, int m, float norm) {
  if (norm == 0) return;
  const double length = std::sqrt(static_cast<double>(norm));
  for (int j = 0; j < m; ++j) row[j] = static_cast<float>(static_cast<double>(row[j]) / length);
}

}  // namespace talvik::internal

#endif
