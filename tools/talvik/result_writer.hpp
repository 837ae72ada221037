// The result file in its three formats.
#ifndef TALVIK_TOOL_RESULT_WRITER_HPP
#define TALVIK_TOOL_RESULT_WRITER_HPP

#include <functional>
#include <string>

#include "result_lists.hpp"
#include "talvik.hpp"

namespace talvik::tool {

enum class Format { library, tsv, jsonl };

/// How documents are called in the file.  Null: by their number in the collection.
struct DocumentNames {
  const LabelList* queries = nullptr;
  const LabelList* resident = nullptr;
};

/// Hands the file's text to write, in pieces of whole lines.
/// @param skip_first  entry 0 of every list is the query itself and is left out
void write_results(const ResultLists& lists, bool skip_first, Format format,
                   const DocumentNames& names,
                   const std::function<void(const std::string&)>& write);

}  // namespace talvik::tool

#endif
