// Texts as the commands of the search library take them: options, reading, progress.
#ifndef TALVIK_TOOL_TEXTS_INPUT_HPP
#define TALVIK_TOOL_TEXTS_INPUT_HPP

#include <string>
#include <vector>

#include "status_line.hpp"
#include "talvik/collection.hpp"
#include "talvik/texts.hpp"
#include "talvik/vectors.hpp"

namespace CLI {
class App;
}

namespace talvik::tool {

/// --texts-format, --id-field, --text-field, --label-field.
void add_texts_options(CLI::App& command, TextsOptions& options);

/// Reads all texts of a path or of standard input.  Throws FileError, and RunError where there are
/// none.
std::vector<Text> read_all_texts(const std::string& path, const TextsOptions& options,
                                 StatusLine& status, TextsRead& read);

/// Says what of the texts was left out or repaired, where something was.
void report_texts_read(const TextsRead& read);

/// Reads word vectors; that takes a while.
Vectors read_vectors(const std::string& path, bool unit_length, StatusLine& status);

/// Where the words of queries are looked up: in the collection and, if a file is named, in what it
/// has beyond that.
Vectors query_vectors(const Collection& collection, const std::string& more, StatusLine& status);

/// "12 of 345 (3.5 %)".
std::string share_of(Count part, Count all);

}  // namespace talvik::tool

#endif
