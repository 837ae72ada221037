// Real collections for the search library: the large one of scripts/make-large and SpamAssassin.
#ifndef TALVIK_BENCH_SEARCH_DATA_HPP
#define TALVIK_BENCH_SEARCH_DATA_HPP

#include <limits>
#include <string>

#include "talvik/collection.hpp"
#include "worlds.hpp"

namespace talvik::bench {

/// A folder of scripts/make-large, and where the word vectors are.
struct LargeData {
  std::string folder;
  std::string vectors = "data/glove-100d.bin";

  std::string texts() const { return folder + "/texts.jsonl"; }
  std::string queries() const { return folder + "/queries.jsonl"; }
  std::string saved() const { return folder + "/bench.talvik"; }
};

/// Makes the saved collection, unless it is there and newer than the texts.
void index_once(const LargeData& data);

/// The texts of a file or tree as documents.
/// @param collection  whose rules and vocabulary they take
Collection read_queries(const Collection& collection, const std::string& path);
/// Whether queries may use words that no text of the collection has.
enum class AllWords { no, yes };

/// @param vectors  file of word vectors
/// @param limit    the first so many texts only
Collection read_collection(const std::string& vectors, const std::string& path,
                           AllWords all_words = AllWords::no,
                           Count limit = std::numeric_limits<Count>::max());

/// The same documents as the required library takes them.
/// @pre  the queries' words are words of the resident side
Collections collections_of(const Collection& resident, const Collection& queries);

}  // namespace talvik::bench

#endif
