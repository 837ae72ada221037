// Scaling of float sequences: the components of a vector, or the weights of a document.  Sums are
// formed in double precision, in order.
#ifndef TALVIK_INTERNAL_NORMALISE_HPP
#define TALVIK_INTERNAL_NORMALISE_HPP

#include <cmath>
#include <utility>

namespace talvik::internal {

inline float& value_of(float& component) { return component; }
inline float& value_of(std::pair<unsigned, float>& entry) { return entry.second; }

template <class Items>
double sum_of(Items& items) {
  double sum = 0;
  for (auto& item : items) sum += value_of(item);
  return sum;
}

template <class Items>
double squared_norm(Items& items) {
  double sum = 0;
  for (auto& item : items) {
    const float square = value_of(item) * value_of(item);  // float product, double sum
    sum += square;
  }
  return sum;
}

template <class Items>
double euclidean_length(Items& items) {
  return std::sqrt(squared_norm(items));
}

/// Every value becomes value * scale / measure.  A measure of zero leaves the values as they are,
/// where a division would make them NaN.
template <class Items>
void rescale(Items& items, double scale, double measure) {
  if (measure == 0) return;
  for (auto& item : items) {
    value_of(item) = static_cast<float>(value_of(item) * scale / measure);
  }
}

}  // namespace talvik::internal

#endif
