#include "search/hdf5_reader.hpp"

#include <fmt/core.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <iterator>
#include <system_error>

#include "talvik/error.hpp"

namespace talvik::internal {
namespace {

hsize_t size_of(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    throw FileError(path, "cannot be read: " + std::generic_category().message(errno));
  }
  if (!S_ISREG(status.st_mode)) throw FileError(path, "is no regular file");
  return static_cast<hsize_t>(status.st_size);
}

Hdf5Handle open_file(const std::string& path) {
  const Hdf5Handle access(H5Pcreate(H5P_FILE_ACCESS), H5Pclose);
  // Files are replaced as a whole; some network file systems know no locks.
  H5Pset_file_locking(access, false, true);
  return {H5Fopen(path.c_str(), H5F_ACC_RDONLY, access), H5Fclose};
}

}  // namespace

Hdf5Reader::Hdf5Reader(const std::string& path)
    : path_(path), file_bytes_(size_of(path)), file_(open_file(path)) {
  if (file_.valid()) return;
  if (H5Fis_hdf5(path.c_str()) > 0) refuse("cannot be opened: damaged or cut");
  refuse("is no collection");
}

void Hdf5Reader::refuse(const std::string& what) const { throw FileError(path_, what); }

void Hdf5Reader::require(bool readable, const std::string& name) const {
  if (!readable) refuse(fmt::format("{} cannot be read: damaged or cut", name));
}

std::optional<std::string> Hdf5Reader::text_attribute(const char* name) const {
  const htri_t there = H5Aexists(file_, name);
  require(there >= 0, name);
  if (there == 0) return std::nullopt;
  const Hdf5Handle attribute(H5Aopen(file_, name, H5P_DEFAULT), H5Aclose);
  require(attribute.valid(), name);
  const Hdf5Handle type(H5Aget_type(attribute), H5Tclose);
  const Hdf5Handle space(H5Aget_space(attribute), H5Sclose);
  const bool fixed = H5Tget_class(type) == H5T_STRING && H5Tis_variable_str(type) == 0;
  if (!fixed || H5Sget_simple_extent_npoints(space) != 1) return std::nullopt;
  const size_t length = H5Tget_size(type);
  if (length > file_bytes_) return std::nullopt;
  std::string value(length, '\0');
  require(H5Aread(attribute, type, value.data()) >= 0, name);
  return value;
}

std::int32_t Hdf5Reader::number_attribute(const char* name) const {
  using Type = Hdf5Type<std::int32_t>;
  const Hdf5Handle attribute(H5Aopen(file_, name, H5P_DEFAULT), H5Aclose);
  require(attribute.valid(), name);
  const Hdf5Handle type(H5Aget_type(attribute), H5Tclose);
  const Hdf5Handle space(H5Aget_space(attribute), H5Sclose);
  if (H5Tequal(type, Type::file()) <= 0 || H5Sget_simple_extent_npoints(space) != 1) {
    refuse(fmt::format("{} is no number of 32 bits", name));
  }
  std::int32_t value = 0;
  require(H5Aread(attribute, Type::memory(), &value) >= 0, name);
  return value;
}

bool Hdf5Reader::has(const std::string& name) const {
  const htri_t there = H5Lexists(file_, name.c_str(), H5P_DEFAULT);
  require(there >= 0, name);
  return there > 0;
}

Hdf5Handle Hdf5Reader::open_dataset(const std::string& name, hid_t type) const {
  Hdf5Handle dataset(H5Dopen2(file_, name.c_str(), H5P_DEFAULT), H5Dclose);
  require(dataset.valid(), name);
  const Hdf5Handle found(H5Dget_type(dataset), H5Tclose);
  if (H5Tequal(found, type) <= 0) refuse(fmt::format("{} has another type than expected", name));
  return dataset;
}

void Hdf5Reader::measure(const std::string& name, hid_t dataset, size_t element_bytes, int rank,
                         hsize_t& rows, hsize_t& columns) const {
  const Hdf5Handle space(H5Dget_space(dataset), H5Sclose);
  hsize_t shape[] = {0, 1};
  if (H5Sget_simple_extent_ndims(space) != rank ||
      H5Sget_simple_extent_dims(space, shape, nullptr) != rank) {
    refuse(fmt::format("{} has another number of dimensions than {}", name, rank));
  }
  rows = shape[0];
  columns = shape[1];
  if (rows == 0 || columns == 0) return;
  if (columns > file_bytes_ / element_bytes / rows) {
    refuse(fmt::format("{} has {} x {} elements, more than the file has room for", name, rows,
                       columns));
  }
  require_checksums(name, dataset, element_bytes);
}

// Any other layout could name files beside this one, or unpack to any size.
void Hdf5Reader::require_checksums(const std::string& name, hid_t dataset,
                                   hsize_t element_bytes) const {
  const Hdf5Handle layout(H5Dget_create_plist(dataset), H5Pclose);
  unsigned flags = 0, configuration = 0;
  size_t no_values = 0;
  hsize_t chunk[] = {0, 1};
  const bool as_written = H5Pget_layout(layout) == H5D_CHUNKED && H5Pget_nfilters(layout) == 1 &&
                          H5Pget_filter2(layout, 0, &flags, &no_values, nullptr, 0, nullptr,
                                         &configuration) == H5Z_FILTER_FLETCHER32 &&
                          H5Pget_chunk(layout, static_cast<int>(std::size(chunk)), chunk) > 0;
  if (!as_written) refuse(fmt::format("{} is not in chunks with checksums", name));
  if (chunk[0] == 0 || chunk[1] > file_bytes_ / element_bytes / chunk[0]) {
    refuse(fmt::format("{} has chunks larger than the file", name));
  }
}

void Hdf5Reader::read(const std::string& name, hid_t dataset, hid_t type, const Range& range,
                      void* values) const {
  if (range.rows == 0 || range.columns == 0) return;
  const Hdf5Handle from(H5Dget_space(dataset), H5Sclose);
  const hsize_t start[] = {range.begin, 0};
  const hsize_t count[] = {range.rows, range.columns};
  H5Sselect_hyperslab(from, H5S_SELECT_SET, start, nullptr, count, nullptr);
  // Of the shape that the file has: to another one HDF5 copies element by element.
  const int rank = H5Sget_simple_extent_ndims(from);
  const Hdf5Handle to(H5Screate_simple(rank, count, nullptr), H5Sclose);
  require(H5Dread(dataset, type, to, from, H5P_DEFAULT, values) >= 0, name);
}

std::vector<std::string> Hdf5Reader::strings(const std::string& name, hsize_t count, hsize_t begin,
                                             hsize_t end) const {
  const auto offsets_array = open<std::int64_t>(name + "/offsets");
  const auto bytes_array = open<char>(name + "/bytes");
  if (offsets_array.rows != count + 1) {
    refuse(fmt::format("{} has {} offsets for {} strings", name, offsets_array.rows, count));
  }
  const auto offsets = read(offsets_array, begin, end + 1);
  const bool ascending = offsets.front() >= 0 && (begin > 0 || offsets.front() == 0) &&
                         std::ranges::adjacent_find(offsets, std::greater<>()) == offsets.end();
  const auto length = static_cast<hsize_t>(offsets.back());
  if (!ascending || length > bytes_array.rows || (end == count && length != bytes_array.rows)) {
    refuse(fmt::format("{} has offsets that do not ascend within its bytes", name));
  }
  const auto bytes = read<char, std::string>(bytes_array, offsets.front(), offsets.back());
  std::vector<std::string> values;
  values.reserve(end - begin);
  for (std::size_t i = 0; i + 1 < offsets.size(); ++i) {
    values.emplace_back(bytes, offsets[i] - offsets.front(), offsets[i + 1] - offsets[i]);
  }
  return values;
}

std::vector<std::string> Hdf5Reader::strings(const std::string& name) const {
  const hsize_t offsets = open<std::int64_t>(name + "/offsets").rows;
  if (offsets == 0) refuse(fmt::format("{} has no offsets", name));
  return strings(name, offsets - 1, 0, offsets - 1);
}

}  // namespace talvik::internal
