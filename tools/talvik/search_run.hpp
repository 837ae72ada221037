// The command search: a saved collection and queries in, the neighbours of every query out.
#ifndef TALVIK_TOOL_SEARCH_RUN_HPP
#define TALVIK_TOOL_SEARCH_RUN_HPP

#include <cstddef>
#include <optional>
#include <string>

#include "neighbours_file.hpp"
#include "talvik/search.hpp"
#include "talvik/texts.hpp"

namespace talvik::tool {

struct SearchRun {
  std::string collection;
  std::string texts;  ///< queries
  bool self = false;  ///< instead: every document of the collection against the others
  TextsOptions reading;
  std::string vectors;  ///< for words of the queries that the collection lacks; empty: none
  int k = 10;
  std::optional<double> radius;  ///< in the place of k
  Distance distance;
  std::string out;
  NeighboursFormat format = NeighboursFormat::tsv;
  int threads = 0;  ///< 0: hardware threads over local processes
  int memory_mib = 512;
  bool stats = false;
  bool quiet = false;
};

/// Every process loads its slice of the collection; process 0 reads the texts, writes and reports.
/// @return the exit status
int execute_search(const SearchRun& options);

}  // namespace talvik::tool

#endif
