// The distance block of a query batch: dense products, nearest entries and sparse stage, tile by
// tile, so that nothing larger than the caches is written and read again.
#ifndef TALVIK_LIBWMD_CPU_DISTANCE_BLOCK_HPP
#define TALVIK_LIBWMD_CPU_DISTANCE_BLOCK_HPP

#include <vector>

#include "libwmd/cpu/pour.hpp"
#include "libwmd/cpu/sizes.hpp"
#include "libwmd/distinct_rows.hpp"
#include "libwmd/word_distance.hpp"

namespace talvik::internal {

/// Where the distance of vocabulary word v and query entry c is read from.
enum class DistanceSource {
  vectors,         ///< the embedding rows
  ground_of_word,  ///< ground[v*voc_size + word of c]
  ground_of_entry  ///< ground[word of c*voc_size + v]
};

/// How many nearest entries share the weight of a resident entry.
enum class NearestRule {
  as_asked,  ///< as asked, whatever the document's length; missing entries are far_away
  halving    ///< nearest_of_document
};

struct Vocabulary {
  int voc_size, vec_size;
  const float* rows;   ///< voc_size x vec_size
  const float* norms;  ///< voc_size squared norms, readable up to the next multiple of line_floats
};

struct QueryBatch {
  int num_docs;
  const int* start;
  const float* weight;
  const int* ind;                ///< word per entry (ground distances)
  const DistinctRows* distinct;  ///< ordered by word for ground distances
  const float* rows;             ///< distinct rows x vec_size (vectors)
  const float* row_norms;        ///< their squared norms
};

struct BlockRequest {
  DistanceSource source;
  Metric metric;        ///< read for DistanceSource::vectors
  const float* ground;  ///< voc_size x voc_size, else null
  int steps;            ///< capacity steps; negative as 0
  NearestRule rule;
  int threads;
  EngineBudget budget;
};

/// Nearest entries that the longest document of the batch calls for.
int nearest_of_batch(const QueryBatch& batch, int steps, NearestRule rule);

/// Working memory that a block needs, in floats.
struct BlockSizes {
  long long panels;  ///< all threads together
  long long table;   ///< each of 2 * nearest_of_batch - 1 tables
};

BlockSizes block_sizes(const Vocabulary& vocabulary, const QueryBatch& batch,
                       const BlockRequest& request);

/// The caller's arrays of at least these sizes; what they hold before and after means nothing.
struct BlockBuffers {
  float* panels;
  std::vector<float*> distance;  ///< nearest_of_batch tables
  std::vector<float*> capacity;  ///< one fewer
};

/// Z[d*resident.num_docs + i] = distance from resident document i to query document d, written
/// whole.
void compute_distance_block(const Vocabulary& vocabulary, const CsrCollection& resident,
                            const QueryBatch& batch, const BlockRequest& request,
                            const BlockBuffers& buffers, float* Z);

}  // namespace talvik::internal

#endif
