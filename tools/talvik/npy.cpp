// NumPy files, written in bounded memory.
#include "npy.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <fstream>

#include "run_error.hpp"

namespace talvik::tool {
namespace {

constexpr size_t prefix_bytes = 10;  // magic, version, length of the dictionary
constexpr size_t alignment = 64;     // data start, as the format wants it
constexpr long long transpose_floats = 1 << 22;

std::ifstream open_shard(const Shard& shard) {
  std::ifstream file(shard.path, std::ios::binary);
  file.seekg(static_cast<std::streamoff>(npy_header(shard.rows, shard.cols).size()));
  if (!file) throw RunError(shard.path + ": the shard of a process cannot be read back");
  return file;
}

void copy_row(std::ifstream& from, const Shard& shard, std::vector<float>& row, AtomicFile& to) {
  if (shard.cols == 0) return;
  row.resize(shard.cols);
  const size_t bytes = row.size() * sizeof(float);
  from.read(reinterpret_cast<char*>(row.data()), static_cast<std::streamsize>(bytes));
  if (!from) throw RunError(shard.path + ": the shard of a process is cut short");
  to.write(row.data(), bytes);
}

}  // namespace

std::string npy_header(long long rows, long long cols) {
  return npy_header("<f4", fmt::format("({}, {})", rows, cols));
}

std::string npy_header(const std::string& type, const std::string& shape) {
  std::string dictionary =
      fmt::format("{{'descr': '{}', 'fortran_order': False, 'shape': {}, }}", type, shape);
  const size_t unpadded = prefix_bytes + dictionary.size() + 1;  // 1: the closing newline
  dictionary.append((alignment - unpadded % alignment) % alignment, ' ');
  dictionary.push_back('\n');
  std::string header("\x93NUMPY\x01\x00", 8);  // magic, version 1.0
  header += static_cast<char>(dictionary.size() & 0xff);
  header += static_cast<char>(dictionary.size() >> 8);
  return header + dictionary;
}

void write_npy(AtomicFile& file, const float* data, long long rows, long long cols) {
  file.write(npy_header(rows, cols));
  if (rows * cols > 0) file.write(data, rows * cols * sizeof(float));
}

void write_npy_transposed(AtomicFile& file, const float* data, long long rows, long long cols) {
  file.write(npy_header(cols, rows));
  if (rows * cols == 0) return;
  const long long band = std::clamp(transpose_floats / rows, 1LL, cols);
  std::vector<float> turned(band * rows);
  for (long long first = 0; first < cols; first += band) {
    const long long width = std::min(band, cols - first);
    for (long long r = 0; r < rows; ++r) {  // reads along rows: a band of columns stays in cache
      const float* from = data + r * cols + first;
      for (long long c = 0; c < width; ++c) turned[c * rows + r] = from[c];
    }
    file.write(turned.data(), width * rows * sizeof(float));
  }
}

void merge_npy(AtomicFile& file, const std::vector<Shard>& shards, Join join) {
  const bool below = join == Join::one_below_the_other;
  long long rows = below ? 0 : shards.at(0).rows;
  long long cols = below ? shards.at(0).cols : 0;
  for (const Shard& shard : shards) (below ? rows : cols) += below ? shard.rows : shard.cols;
  file.write(npy_header(rows, cols));

  std::vector<float> row;
  if (below) {
    for (const Shard& shard : shards) {
      std::ifstream from = open_shard(shard);
      for (long long r = 0; r < shard.rows; ++r) copy_row(from, shard, row, file);
    }
    return;
  }
  std::vector<std::ifstream> from;
  from.reserve(shards.size());
  for (const Shard& shard : shards) from.push_back(open_shard(shard));
  for (long long r = 0; r < rows; ++r) {
    for (size_t p = 0; p < shards.size(); ++p) copy_row(from[p], shards[p], row, file);
  }
}

}  // namespace talvik::tool
