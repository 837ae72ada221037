// The distance block of a query batch: dense products, nearest entries and sparse stage, tile by
// tile, so that nothing larger than the caches is written and read again.
#ifndef TALVIK_LIBWMD_CPU_DISTANCE_BLOCK_HPP
#define TALVIK_LIBWMD_CPU_DISTANCE_BLOCK_HPP

#include <functional>
#include <span>
#include <vector>

#include "internal/index.hpp"
#include "libwmd/cpu/pour.hpp"
#include "libwmd/cpu/sizes.hpp"
#include "libwmd/distinct_rows.hpp"
#include "libwmd/word_distance.hpp"

namespace talvik::internal {

/// Where the distance between vocabulary word v and query entry c comes from.
enum class DistanceSource {
  vectors,         ///< the embedding rows
  ground_of_word,  ///< ground[v*voc_size + word of c]
  ground_of_entry  ///< ground[word of c*voc_size + v]
};

/// How many nearest entries share the weight of a resident entry.
enum class NearestRule {
  as_asked,  ///< steps + 1, however short the document is; missing entries are far_away
  halving    ///< nearest_of_document
};

struct Vocabulary {
  int voc_size, vec_size;
  const float* rows;   ///< voc_size x vec_size
  const float* norms;  ///< voc_size squared norms, readable up to the next multiple of line_floats
  bool unit_rows;      ///< whether the rows were scaled to unit length; the norms are from before
  std::span<const RowHash> row_hash;  ///< of the rows as they are
};

struct QueryBatch {
  int num_docs;
  const int* start;              ///< num_docs + 1 entry offsets
  const float* weight;           ///< per entry
  const int* ind;                ///< per entry, its word; read for ground distances
  const DistinctRows* distinct;  ///< ordered by word for ground distances
  const float* rows;             ///< distinct rows x vec_size; read for vectors
  const float* row_norms;        ///< their squared norms
  bool unit_rows;                ///< as in Vocabulary
};

struct BlockRequest {
  DistanceSource source;
  Metric metric;        ///< read for DistanceSource::vectors; unit_cosine needs unit rows
  const float* ground;  ///< voc_size x voc_size, else null
  int steps;            ///< capacity steps; negative as 0
  NearestRule rule;
  int threads;
  EngineBudget budget;
  /// Called by every thread, with its number, before each panel; what it throws ends the
  /// computation and comes out of it.  Empty: nothing is called.
  std::function<void(int thread)> checkpoint = {};
};

/// Nearest entries of the document that has most of them.
int nearest_of_batch(const QueryBatch& batch, int steps, NearestRule rule);

/// Working memory that a block needs, in floats.
struct BlockSizes {
  Index panels;  ///< all threads together
  Index table;   ///< each of 2 * nearest_of_batch - 1 tables
};

BlockSizes block_sizes(const Vocabulary& vocabulary, const QueryBatch& batch,
                       const BlockRequest& request);

/// The caller's arrays of at least these sizes; their contents mean nothing before and after.
struct BlockBuffers {
  float* panels;
  std::vector<float*> distance;  ///< nearest_of_batch tables
  std::vector<float*> capacity;  ///< one fewer
};

/// Writes all of Z: Z[d*resident.num_docs + i] = distance from resident document i to query
/// document d.
void compute_distance_block(const Vocabulary& vocabulary, const CsrCollection& resident,
                            const QueryBatch& batch, const BlockRequest& request,
                            const BlockBuffers& buffers, float* Z);

}  // namespace talvik::internal

#endif
