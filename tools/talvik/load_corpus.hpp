// Text corpora: a directory per class, a file with a decimal name per document.
#ifndef TALVIK_TOOL_LOAD_CORPUS_HPP
#define TALVIK_TOOL_LOAD_CORPUS_HPP

#include <limits>
#include <string>
#include <vector>

#include "problem.hpp"

namespace talvik::tool {

struct CorpusOptions {
  std::string embeddings;
  std::string resident;
  std::string queries;  ///< empty: self run
  int max_words = std::numeric_limits<int>::max();
  int skip_index = -1;  ///< words up to this index are left out
  int limit_resident = 0;
  int limit_queries = 0;
};

struct CorpusFile {
  std::string class_name;  ///< directory below the root, without slashes around it
  std::string name;
  std::string path;
  unsigned long id = 0;
};

/// Files of all classes, by class name and number, whatever the order of the file system.  Files
/// directly in the root are no documents.  Throws RunError for a name that is no decimal number.
std::vector<CorpusFile> list_corpus(const std::string& root);

/// Reads embeddings and both collections.  Throws RunError.  Not collective.
Problem load_corpus(const CorpusOptions& options);

}  // namespace talvik::tool

#endif
