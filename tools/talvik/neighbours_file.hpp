// The neighbours of every query in a file, by the ids of the user.
#ifndef TALVIK_TOOL_NEIGHBOURS_FILE_HPP
#define TALVIK_TOOL_NEIGHBOURS_FILE_HPP

#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "talvik/search.hpp"

namespace talvik::tool {

enum class NeighboursFormat { tsv, jsonl, trec, npz };

struct NeighboursFile {
  NeighboursFormat format = NeighboursFormat::tsv;
  std::span<const std::string> ids;      ///< of the whole collection
  std::span<const std::string> queries;  ///< ids of the queries
  bool ragged = false;                   ///< lists differ in length, as within a radius
};

/// Throws RunError naming an id that the format cannot hold.
void require_writable_ids(const NeighboursFile& file);

/// Hands the file's bytes to write, in pieces.
///   tsv    header "query neighbour rank distance", then a line per neighbour, between tabs
///   jsonl  an object per query: {"query", "neighbours": [{"id", "rank", "distance"}, ...]}; null
///   for
///          a distance without an end
///   trec   "query Q0 neighbour rank score talvik" per neighbour, score = -distance
///   npz    arrays of NumPy: see docs/search.md
void write_neighbours(const NeighboursFile& file, const Neighbours& neighbours,
                      const std::function<void(std::string_view)>& write);

}  // namespace talvik::tool

#endif
