// Norms of embedding rows, and their scaling to unit length.
#include "libwmd/embedding_rows.hpp"

#include <cmath>
#include <span>

#include "internal/index.hpp"
#include "internal/normalise.hpp"
#include "internal/team.hpp"

namespace talvik::internal {

void norm_and_normalise(float* rows, int num_rows, int m, float* norms, bool normalise,
                        int threads) {
  for_each_share(threads, num_rows, [&](int first, int last, int) {
    for (int r = first; r < last; ++r) {
      const std::span<float> row(rows + elements(r, m), m);
      norms[r] = static_cast<float>(squared_norm(row));
      if (normalise) rescale(row, 1.0, std::sqrt(static_cast<double>(norms[r])));
    }
  });
}

}  // namespace talvik::internal
