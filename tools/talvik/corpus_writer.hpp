// The corpus layout that the library reads: a directory per class, a file with a decimal name per
// document; beside them documents.tsv, the list of all documents.
#ifndef TALVIK_TOOL_CORPUS_WRITER_HPP
#define TALVIK_TOOL_CORPUS_WRITER_HPP

#include <fstream>
#include <string>
#include <vector>

#include "atomic_output.hpp"

namespace talvik::tool {

/// A line of documents.tsv.
struct ListedDocument {
  long long id;
  std::string source;  ///< control characters become spaces
  std::string label;
  long long tokens_in;     ///< in the vocabulary; without one, all
  std::string tokens_out;  ///< out of the vocabulary; "-" without one
};

/// A class becomes a directory of its name; throws RunError where it cannot.
/// @param place  of the text with this label, for the message
void require_class_name(const std::string& label, const std::string& place);

/// Writes a corpus that appears whole or not at all.  Every function throws RunError.
class CorpusWriter {
 public:
  explicit CorpusWriter(const std::string& path);

  /// Writes the file label/id: the tokens, separated by single spaces.
  void write_document(const std::string& label, long long id,
                      const std::vector<std::string>& tokens);
  void list_document(const ListedDocument& document);
  void commit();

 private:
  AtomicDirectory directory_;
  std::ofstream list_;
};

}  // namespace talvik::tool

#endif
