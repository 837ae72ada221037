// Distances between all pairs of vocabulary words.
#ifndef TALVIK_LIBWMD_CPU_GROUND_DISTANCES_HPP
#define TALVIK_LIBWMD_CPU_GROUND_DISTANCES_HPP

#include "libwmd/cpu/distance_block.hpp"
#include "libwmd/word_distance.hpp"

namespace talvik::internal {

/// Writes D[u*voc_size + v] = distance between words u and v.  Each pair is computed once.
void compute_ground_matrix(const Vocabulary& vocabulary, Metric metric, int threads, float* D);

}  // namespace talvik::internal

#endif
