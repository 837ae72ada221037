// The library's own lines have six digits after the point; the other formats carry nine significant
// digits, which is enough to read back the very float.
#include "result_writer.hpp"

#include <fmt/format.h>

#include <cmath>
#include <iterator>

#include "atomic_output.hpp"
#include "internal/index.hpp"

namespace talvik::tool {
namespace {

unsigned long name_of(const LabelList* names, int document) {
  return names ? (*names)[document] : static_cast<unsigned long>(document);
}

void append_line(fmt::memory_buffer& text, Format format, unsigned long query,
                 unsigned long neighbour, int rank, float distance) {
  const auto out = std::back_inserter(text);
  switch (format) {
    case Format::library:
      fmt::format_to(out, "\"{}\", \"{}\", \"{:f}\"\n", query, neighbour,
                     static_cast<double>(distance));
      return;
    case Format::tsv:
      fmt::format_to(out, "{}\t{}\t{}\t{:.9g}\n", query, neighbour, rank, distance);
      return;
    case Format::jsonl:
      fmt::format_to(out, "{{\"query\": {}, \"neighbour\": {}, \"rank\": {}, \"distance\": ", query,
                     neighbour, rank);
      if (std::isfinite(distance)) {
        fmt::format_to(out, "{:.9g}}}\n", distance);
      } else {
        fmt::format_to(out, "null}}\n");  // JSON has no word for it
      }
      return;
  }
}

}  // namespace

void write_results(const ResultLists& lists, bool skip_first, Format format,
                   const DocumentNames& names,
                   const std::function<void(const std::string&)>& write) {
  fmt::memory_buffer text;
  if (format == Format::tsv) {
    fmt::format_to(std::back_inserter(text), "query\tneighbour\trank\tdistance\n");
  }
  const int skipped = skip_first ? 1 : 0;
  for (int q = 0; q < lists.num_queries; ++q) {
    const unsigned long query = name_of(names.queries, q);
    for (int j = skipped; j < lists.k; ++j) {
      const internal::Index at = internal::elements(q, lists.k) + j;
      append_line(text, format, query, name_of(names.resident, lists.neighbours[at]),
                  j - skipped + 1, lists.distances[at]);
    }
    if (text.size() >= piece_bytes) {
      write(fmt::to_string(text));
      text.clear();
    }
  }
  write(fmt::to_string(text));
}

}  // namespace talvik::tool
