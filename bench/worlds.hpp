// Generated, deterministic collections for the benchmarks, and their form as the CPU engine takes
// it.
#ifndef TALVIK_BENCH_WORLDS_HPP
#define TALVIK_BENCH_WORLDS_HPP

#include <string>
#include <vector>

#include "talvik.hpp"

namespace talvik::bench {

/// A resident and a query collection over one vocabulary, as a host program has them.
struct Collections {
  int voc_size, vec_size;
  std::vector<float> embeddings;  ///< voc_size x vec_size
  DocumentSet resident, queries;
};

/// Documents as compressed sparse rows.
struct SparseRows {
  std::vector<int> start, ind;
  std::vector<float> weight;
};

/// One block's inputs: the resident side compressed to the words that it uses, as the pipelines do,
/// and the whole query collection as one batch in vector form.
struct World {
  std::string name;
  int num_resident, num_queries;
  int voc_size, vec_size;
  std::vector<float> words;  ///< voc_size x vec_size
  SparseRows resident;       ///< over the compressed vocabulary
  SparseRows queries;        ///< over the vocabulary of the collections
  std::vector<float> X2;     ///< one row per query entry
};

/// The worlds by name:
///   text      4,000 resident and 1,000 query documents of about 95 distinct words, Zipf(1.05) over
///             60,000 words without the 100 most frequent, 300 dimensions
///   small     the same over 20,000 words, whose ground distances fit any machine (1.6 GB)
///   distinct  text's resident side; 20,000 query entries, all of different words
///   large     500,000 resident and 64 query documents of 60 words, Zipf(1.05) over 50,000 words
///             without the 100 most frequent, 300 dimensions
///   images    60,000 resident and 256 query images of 28 x 28 pixels, of which a pen stroke covers
///             about 150; a pixel's vector is its place
Collections make_collections(const std::string& name);

World make_world(const std::string& name);
World world_of(const std::string& name, Collections collections);

/// One line: the name and the counts.
std::string description_of(const World& world);

int entries_of(const DocumentSet& docs);

/// The interface takes plain pointers; what stands behind them is only read.
template <class T>
T* plain_pointer(const std::vector<T>& values) {
  return const_cast<T*>(values.data());
}

}  // namespace talvik::bench

#endif
