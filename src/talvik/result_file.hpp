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

/// An open result file; what is written to it collects in text first.
struct ResultFile {
  std::string path;
  std::unique_ptr<std::FILE, CloseFile> file;
  std::string text;
};

/// The neighbour lists of the queries first_query .. first_query+num_queries-1.
struct NeighbourLists {
  int first_query;
  int num_queries;
  int k;
  const int* ind;    // num_queries x k indices of labels of the resident collection
  const float* val;  // num_queries x k distances
};

/// Creates or empties the file.  Here and below a failure ends the whole job.
ResultFile open_result_file(const std::string& path);

/// Appends a line "query label", "neighbour label", "distance" for every entry of the lists.
void write_lists(ResultFile& file, const NeighbourLists& lists, const LabelList& query_labels,
                 const LabelList& resident_labels);

/// Makes sure that everything has been written.
void close_result_file(ResultFile file);

}  // namespace talvik::internal

#endif
