// What both engines do with embedding rows before they keep them.
#ifndef TALVIK_LIBWMD_EMBEDDING_ROWS_HPP
#define TALVIK_LIBWMD_EMBEDDING_ROWS_HPP

namespace talvik::internal {

/// Squared norms of rows as given; then, if asked for, scales every row to unit length.  A zero row
/// stays zero.
/// @param[in,out] rows  num_rows x m
/// @param[out] norms    num_rows
void norm_and_normalise(float* rows, int num_rows, int m, float* norms, bool normalise,
                        int threads);

}  // namespace talvik::internal

#endif
