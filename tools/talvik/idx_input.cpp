#include "idx_input.hpp"

#include <fmt/core.h>

#include "parse/idx_file.hpp"
#include "run_error.hpp"
#include "texts/input_files.hpp"
#include "texts/mapped_file.hpp"

namespace talvik::tool {
namespace {

using internal::IdxFault;
using internal::IdxFile;

/// How a kind of IDX file is read, and what it is called.
struct IdxKind {
  IdxFile (*read)(std::string_view file);
  std::uint32_t magic;
  const char* name;
  const char* items;
  long long header_bytes;
  long long item_bytes;
};

constexpr IdxKind images{
    internal::read_idx_images,        internal::idx_image_magic, "image", "images",
    internal::idx_image_header_bytes, internal::image_pixels};
constexpr IdxKind labels{internal::read_idx_labels,
                         internal::idx_label_magic,
                         "label",
                         "labels",
                         internal::idx_label_header_bytes,
                         1};

void require_magic(const std::string& path, const IdxKind& kind, std::uint32_t found) {
  if (found == kind.magic) return;
  constexpr std::uint32_t gzip = 0x1f8b, bits_below = 16;
  const char* why = "";
  if (found == __builtin_bswap32(kind.magic)) why = ": its header must be big-endian";
  if (found >> bits_below == gzip) why = ": it is compressed with gzip";
  throw RunError(fmt::format("{}: not an IDX {} file (begins with {:08x}, not {:08x}){}", path,
                             kind.name, found, kind.magic, why));
}

long long check(const std::string& path, const IdxKind& kind) {
  const long long size = texts::require_regular_file(path);
  const texts::MappedFile file(path);
  const IdxFile idx = kind.read(file.bytes());
  if (idx.fault == IdxFault::short_header) {
    throw RunError(fmt::format("{}: holds {} bytes, less than an IDX header of {}", path, size,
                               kind.header_bytes));
  }
  require_magic(path, kind, idx.magic);
  if (idx.fault == IdxFault::other_side) {
    throw RunError(fmt::format("{}: holds images of {} x {} pixels, 28 x 28 were expected", path,
                               idx.rows, idx.columns));
  }
  if (idx.fault == IdxFault::short_items) {
    throw RunError(
        fmt::format("{}: the header announces {} {}, which need {} bytes; the file holds {}", path,
                    idx.count, kind.items, kind.header_bytes + idx.count * kind.item_bytes, size));
  }
  if (idx.count == 0) throw RunError(fmt::format("{}: holds no {}", path, kind.items));
  return idx.count;
}

}  // namespace

long long check_idx_images(const std::string& path) { return check(path, images); }
long long check_idx_labels(const std::string& path) { return check(path, labels); }

}  // namespace talvik::tool
