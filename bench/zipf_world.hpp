// Generated, deterministic collections with the word statistics of text, for benchmarks.
#ifndef TALVIK_BENCH_ZIPF_WORLD_HPP
#define TALVIK_BENCH_ZIPF_WORLD_HPP

#include <vector>

#include "talvik.hpp"

namespace talvik::bench {

struct ZipfShape {
  int num_resident = 4000;
  int num_queries = 1000;
  int words_per_doc = 95;  ///< distinct, on average; lengths are uniform from half to 1.5 times
  int voc_size = 60000;
  int skipped_words = 100;  ///< the most frequent ones, as a stop list takes away
  double exponent = 1.05;   ///< the r-th most frequent word is drawn with weight r^-exponent
  int vec_size = 300;
  unsigned seed = 20;
};

/// The resident side is compressed to the words that it uses, as the pipelines do.
struct ZipfWorld {
  ZipfShape shape;
  std::vector<float> embeddings;  ///< voc_size x vec_size
  DocumentSet resident, queries;  ///< over the whole vocabulary
  int comp_voc_size;
  std::vector<float> comp_embeddings;  ///< comp_voc_size x vec_size
  std::vector<int> start, ind;         ///< resident collection over the compressed vocabulary
  std::vector<float> weight;
  std::vector<int> start2, ind2;  ///< query batch
  std::vector<float> weight2;
  std::vector<float> X2;  ///< one row per query entry
};

ZipfWorld make_zipf_world(const ZipfShape& shape);

}  // namespace talvik::bench

#endif
