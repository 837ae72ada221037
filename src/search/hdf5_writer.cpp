#include "search/hdf5_writer.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <vector>

#include "talvik/error.hpp"

namespace talvik::internal {
namespace {

// Elements of a chunk, which has one checksum and is read as a whole: 1 MiB of floats.
constexpr hsize_t chunk_elements = 1 << 18;

// Attributes that fit the head of the file itself.
constexpr unsigned most_attributes = 32;

Hdf5Handle create(Hdf5Sink& sink) {
  const Hdf5Handle root(H5Pcreate(H5P_FILE_CREATE), H5Pclose);
  H5Pset_obj_track_times(root, false);
  H5Pset_attr_phase_change(root, most_attributes, 0);
  const Hdf5Handle access(H5Pcreate(H5P_FILE_ACCESS), H5Pclose);
  // This version of the format has checksums on all metadata.
  const bool set = H5Pset_libver_bounds(access, H5F_LIBVER_V110, H5F_LIBVER_V110) >= 0 &&
                   use_sink(access, sink) >= 0;
  return {set ? H5Fcreate("collection", H5F_ACC_TRUNC, root, access) : H5I_INVALID_HID, H5Fclose};
}

// Chunks with checksums; HDF5 has no chunks for what is empty.
Hdf5Handle layout_of(std::span<const hsize_t> shape) {
  Hdf5Handle layout(H5Pcreate(H5P_DATASET_CREATE), H5Pclose);
  H5Pset_obj_track_times(layout, false);
  H5Pset_fill_time(layout, H5D_FILL_TIME_NEVER);
  if (std::ranges::find(shape, hsize_t{0}) != shape.end()) return layout;
  std::vector<hsize_t> chunk(shape.begin(), shape.end());
  hsize_t room = chunk_elements;
  for (size_t d = chunk.size(); d-- > 0;) {
    chunk[d] = std::min(chunk[d], room);
    room = std::max<hsize_t>(room / chunk[d], 1);
  }
  H5Pset_chunk(layout, static_cast<int>(chunk.size()), chunk.data());
  H5Pset_fletcher32(layout);
  return layout;
}

}  // namespace

Hdf5Writer::Hdf5Writer(const std::string& path)
    : path_(path),
      replacement_(path),
      sink_{.descriptor = replacement_.descriptor()},
      file_(create(sink_)) {
  require(file_.valid(), "the file");
}

void Hdf5Writer::require(bool done, std::string_view name) const {
  if (sink_.error != 0) replacement_.fail(sink_.error);
  if (!done) throw FileError(path_, fmt::format("HDF5 cannot write {}", name));
}

void Hdf5Writer::attribute(const char* name, std::int32_t value) {
  const Hdf5Handle scalar(H5Screate(H5S_SCALAR), H5Sclose);
  const Hdf5Handle made(
      H5Acreate2(file_, name, Hdf5Type<std::int32_t>::file(), scalar, H5P_DEFAULT, H5P_DEFAULT),
      H5Aclose);
  require(H5Awrite(made, Hdf5Type<std::int32_t>::memory(), &value) >= 0, name);
}

void Hdf5Writer::attribute(const char* name, std::string_view value) {
  const Hdf5Handle type(H5Tcopy(H5T_C_S1), H5Tclose);
  H5Tset_size(type, value.size());
  H5Tset_strpad(type, H5T_STR_NULLPAD);
  const Hdf5Handle scalar(H5Screate(H5S_SCALAR), H5Sclose);
  const Hdf5Handle made(H5Acreate2(file_, name, type, scalar, H5P_DEFAULT, H5P_DEFAULT), H5Aclose);
  require(H5Awrite(made, type, value.data()) >= 0, name);
}

void Hdf5Writer::group(const std::string& name) {
  const Hdf5Handle settings(H5Pcreate(H5P_GROUP_CREATE), H5Pclose);
  H5Pset_obj_track_times(settings, false);
  const Hdf5Handle made(H5Gcreate2(file_, name.c_str(), H5P_DEFAULT, settings, H5P_DEFAULT),
                        H5Gclose);
  require(made.valid(), name);
}

void Hdf5Writer::write(const std::string& name, hid_t file_type, hid_t memory_type,
                       const void* values, std::span<const hsize_t> shape) {
  const Hdf5Handle space(H5Screate_simple(static_cast<int>(shape.size()), shape.data(), nullptr),
                         H5Sclose);
  const Hdf5Handle layout = layout_of(shape);
  Hdf5Handle made(
      H5Dcreate2(file_, name.c_str(), file_type, space, H5P_DEFAULT, layout, H5P_DEFAULT),
      H5Dclose);
  require(made.valid(), name);
  const bool empty = std::ranges::find(shape, hsize_t{0}) != shape.end();
  if (!empty) {
    require(H5Dwrite(made, memory_type, H5S_ALL, H5S_ALL, H5P_DEFAULT, values) >= 0, name);
  }
  require(made.close(), name);
}

void Hdf5Writer::strings(const std::string& name, std::span<const std::string> values) {
  group(name);
  std::vector<std::int64_t> offsets = {0};
  offsets.reserve(values.size() + 1);
  for (const std::string& value : values) {
    offsets.push_back(offsets.back() + static_cast<std::int64_t>(value.size()));
  }
  std::string bytes;
  bytes.reserve(offsets.back());
  for (const std::string& value : values) bytes += value;
  array<std::int64_t>(name + "/offsets", offsets);
  array<char>(name + "/bytes", bytes);
}

void Hdf5Writer::finish() {
  require(file_.close(), "the file");
  replacement_.put_into_place();
}

}  // namespace talvik::internal
