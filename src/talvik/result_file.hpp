// The text files in which top-k runs leave their neighbour lists.
#ifndef TALVIK_TALVIK_RESULT_FILE_HPP
#define TALVIK_TALVIK_RESULT_FILE_HPP

#include <cstdio>
#include <memory>
#include <string>

#include "talvik.hpp"

namespace talvik::internal {

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

/// An open result file, and the text on its way to it.
struct ResultFile {
  std::string path;
  std::unique_ptr<std::FILE, CloseFile> file;
  std::string text;
};

/// The neighbour lists of the queries first_query .. first_query+num_queries-1.
struct NeighbourLists {
  int first_query = 0;
  int num_queries = 0;
  int k = 0;
  const int* ind = nullptr;    ///< num_queries x k numbers of resident documents
  const float* val = nullptr;  ///< num_queries x k distances
};

/// Creates or empties the file.  A failure of this function, and of those below, ends the whole
/// job.
ResultFile open_result_file(const std::string& path);

/// Appends a line "query label", "neighbour label", "distance" per neighbour.
void write_lists(ResultFile& file, const NeighbourLists& lists, const LabelList& query_labels,
                 const LabelList& resident_labels);

/// Writes the rest of the text and closes the file.
void close_result_file(ResultFile file);

}  // namespace talvik::internal

#endif
