// The two collections of a run, as the readers of the program make them.
#ifndef TALVIK_TOOL_PROBLEM_HPP
#define TALVIK_TOOL_PROBLEM_HPP

#include <memory>
#include <string>
#include <vector>

#include "talvik.hpp"

namespace talvik::tool {

/// Documents with at least one entry, in an order that depends on nothing but the input.
struct LoadedCollection {
  DocumentSet docs;
  LabelList ids;      ///< identifiers: file names, or places in the IDX file
  LabelList classes;  ///< the same number is the same class in both collections
  long long entries = 0;
  long long words_read = 0;          ///< tokens of the texts; 0 for images
  long long words_unknown = 0;       ///< of these, out of vocabulary
  std::vector<std::string> dropped;  ///< documents without an entry
};

struct Problem {
  LoadedCollection resident;
  LoadedCollection queries;
  /// Self run: number in resident of every query; else empty.
  std::vector<int> self_of_query;
  int voc_size = 0;
  int vec_size = 0;
  std::unique_ptr<float[]> embeddings;  ///< voc_size x vec_size
  std::vector<std::string> warnings;

  bool self_run() const { return !self_of_query.empty(); }
};

/// Sets entries; throws RunError where the counts pass the library's 32-bit numbers or there is no
/// document.
/// @param source  named in the message
void finish_collection(LoadedCollection& collection, const std::string& source);

/// Makes resident also the query collection, or the `limit` documents of it that choose_spread
/// names (limit 0: all).
void make_self_run(Problem& problem, int limit);

/// `limit` of `count` numbers in ascending order, evenly spread, so that a collection sorted by
/// class keeps all its classes; all of them where limit is 0 or not below count.
std::vector<int> choose_spread(int count, int limit);

/// Words that occur in either collection.
int count_used_words(const Problem& problem);

/// Identifiers that stand for more than one document.
int count_shared_ids(const LabelList& ids);

/// Documents of the largest group when the library splits the collection over the processes.
int largest_group(const LoadedCollection& collection);

/// Makes the library's split of the collection over the processes, in the place of an earlier one.
void split_over_processes(const LoadedCollection& collection);

}  // namespace talvik::tool

#endif
