// Norms of embedding rows, and rows of unit length.
#include "libwmd/embedding_rows.hpp"

#include <cmath>
#include <cstddef>
#include <span>

#include "internal/normalise.hpp"
#include "internal/team.hpp"

namespace talvik::internal {

void norm_and_normalise(float* rows, int num_rows, int m, float* norms, bool normalise,
                        int threads) {
  const auto length = static_cast<std::size_t>(m);
  for_each_share(threads, num_rows, [&](int first, int last, int) {
    for (int r = first; r < last; ++r) {
      const std::span<float> row(rows + static_cast<std::size_t>(r) * length, length);
      norms[r] = static_cast<float>(squared_norm(row));
      if (normalise) rescale(row, 1.0, std::sqrt(static_cast<double>(norms[r])));
    }
  });
}

}  // namespace talvik::internal
