// Distance matrices as NumPy files: float32, little-endian, C order.
#ifndef TALVIK_TOOL_NPY_HPP
#define TALVIK_TOOL_NPY_HPP

#include <string>
#include <vector>

#include "atomic_output.hpp"

namespace talvik::tool {

/// The bytes before the data of an array, format version 1.0.
/// @param type   NumPy's name: "<f4"
/// @param shape  as Python writes a tuple: "(3, 2)"
std::string npy_header(const std::string& type, const std::string& shape);

/// The same for a rows x cols matrix of floats.
std::string npy_header(long long rows, long long cols);

/// Writes rows x cols floats, row-major, as they are.
void write_npy(AtomicFile& file, const float* data, long long rows, long long cols);

/// Writes the transpose, cols x rows.
void write_npy_transposed(AtomicFile& file, const float* data, long long rows, long long cols);

/// A matrix's part in a file of its own, as one process wrote it.
struct Shard {
  std::string path;
  long long rows = 0;
  long long cols = 0;
};

enum class Join { one_below_the_other, side_by_side };

/// Writes the shards as one matrix, in their order; a row at a time, whatever their size.
void merge_npy(AtomicFile& file, const std::vector<Shard>& shards, Join join);

}  // namespace talvik::tool

#endif
