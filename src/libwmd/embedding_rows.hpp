// How both engines prepare the embedding rows that they keep.
#ifndef TALVIK_LIBWMD_EMBEDDING_ROWS_HPP
#define TALVIK_LIBWMD_EMBEDDING_ROWS_HPP

namespace talvik::internal {

/// Takes the squared norms of the rows as given; then, if `normalise` is set, scales every row to
/// unit length.  A zero row stays zero.
/// @param[in,out] rows  num_rows x m
/// @param[out] norms    num_rows squared norms
void norm_and_normalise(float* rows, int num_rows, int m, float* norms, bool normalise,
                        int threads);

}  // namespace talvik::internal

#endif
