// Arrays and strings into a new HDF5 file.
#ifndef TALVIK_SEARCH_HDF5_WRITER_HPP
#define TALVIK_SEARCH_HDF5_WRITER_HPP

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "search/hdf5_driver.hpp"
#include "search/hdf5_file.hpp"
#include "search/replacement_file.hpp"

namespace talvik::internal {

/// Writes a file that takes its name only when it is whole.  Equal contents make equal files: there
/// are no times in them.  All functions throw FileError.  Names are paths in groups made before.
class Hdf5Writer {
 public:
  explicit Hdf5Writer(const std::string& path);

  void attribute(const char* name, std::int32_t value);
  void attribute(const char* name, std::string_view value);

  void group(const std::string& name);

  template <class T>
  void array(const std::string& name, std::span<const T> values) {
    const hsize_t size = values.size();
    write(name, Hdf5Type<T>::file(), Hdf5Type<T>::memory(), values.data(), {&size, 1});
  }
  void matrix(const std::string& name, std::span<const float> values, hsize_t rows,
              hsize_t columns) {
    const hsize_t shape[] = {rows, columns};
    write(name, Hdf5Type<float>::file(), Hdf5Type<float>::memory(), values.data(), shape);
  }
  /// A group of two arrays: all bytes, and where each string begins and ends.
  void strings(const std::string& name, std::span<const std::string> values);

  void finish();

 private:
  void write(const std::string& name, hid_t file_type, hid_t memory_type, const void* values,
             std::span<const hsize_t> shape);
  void require(bool done, std::string_view name) const;

  std::string path_;
  Hdf5Session session_;
  ReplacementFile replacement_;
  Hdf5Sink sink_;
  Hdf5Handle file_;
};

}  // namespace talvik::internal

#endif
