// How a query batch is cut into pieces whose distance rows fit the block.
#include "internal/gpu_plan.hpp"

#include <cstddef>

namespace talvik::internal {
namespace {

bool takes(const Piece& piece, const RowPass& pass, int entries, int max_entries, int max_docs) {
  return piece.complete && !piece.goes_on && piece.last_doc - piece.first_doc < max_docs &&
         entries <= max_entries - (piece.last_entry - piece.first_entry) &&
         piece.last_entry + entries <= pass.last_entry;
}

}  // namespace

std::vector<Piece> cut_into_pieces(const int* start, int num_docs,
                                   const std::vector<RowPass>& passes, int max_entries,
                                   int max_docs) {
  std::vector<Piece> pieces;
  std::size_t pass = 0;
  for (int doc = 0; doc < num_docs; ++doc) {
    int entry = start[doc];
    const int end = start[doc + 1];
    if (!pieces.empty() && takes(pieces.back(), passes[pass], end - entry, max_entries, max_docs)) {
      pieces.back().last_doc = doc + 1;
      pieces.back().last_entry = end;
      continue;
    }
    bool goes_on = false;
    do {
      while (entry < end && entry >= passes[pass].last_entry) ++pass;
      const int most = std::min(max_entries, end - entry);
      const int stop = entry < end ? std::min(entry + most, passes[pass].last_entry) : end;
      pieces.push_back({doc, doc + 1, entry, stop, static_cast<int>(pass), goes_on, stop == end});
      goes_on = true;
      entry = stop;
    } while (entry < end);
  }
  return pieces;
}

}  // namespace talvik::internal
