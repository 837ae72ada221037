// Distances between all pairs of vocabulary words.
#ifndef TALVIK_INTERNAL_GROUND_DISTANCES_HPP
#define TALVIK_INTERNAL_GROUND_DISTANCES_HPP

#include "internal/distance_block.hpp"
#include "internal/word_distance.hpp"

namespace talvik::internal {

/// D[u*voc_size + v] = distance between words u and v.  Each pair is computed once.
void compute_ground_matrix(const Vocabulary& vocabulary, Metric metric, int threads, float* D);

}  // namespace talvik::internal

#endif
