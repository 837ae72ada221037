// Neighbours as arrays of NumPy in one uncompressed zip archive.
#ifndef TALVIK_TOOL_NPZ_HPP
#define TALVIK_TOOL_NPZ_HPP

#include <functional>
#include <string_view>

#include "neighbours_file.hpp"

namespace talvik::tool {

/// The members `ids` and `queries` (texts), and lists of numbers in ids with their distances: of
/// equal length as `indices` (int64) and `distances` (float32; float64 where exact), queries x k;
/// ragged ones end to end, that of query q being [offsets[q], offsets[q + 1]) of `offsets` (int64).
/// The same lists give the same bytes.  Throws RunError.
void write_npz(const NeighboursFile& file, const Neighbours& neighbours,
               const std::function<void(std::string_view)>& write);

}  // namespace talvik::tool

#endif
