// Arrays and strings from an HDF5 file, which may be damaged.
#ifndef TALVIK_SEARCH_HDF5_READER_HPP
#define TALVIK_SEARCH_HDF5_READER_HPP

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "search/hdf5_file.hpp"

namespace talvik::internal {

/// Reads arrays as Hdf5Writer writes them: chunks with checksums.  Memory is asked for only where
/// the file is as large.  All functions throw FileError.
class Hdf5Reader {
 public:
  explicit Hdf5Reader(const std::string& path);

  /// The attribute of the file; none where it has no such string.
  std::optional<std::string> text_attribute(const char* name) const;
  std::int32_t number_attribute(const char* name) const;

  bool has(const std::string& name) const;

  /// An array of one or two dimensions; columns is 1 for one.
  template <class T>
  struct Array {
    std::string name;
    Hdf5Handle id;
    hsize_t rows = 0, columns = 1;
  };
  template <class T>
  Array<T> open(const std::string& name, int rank = 1) const {
    Array<T> array{name, open_dataset(name, Hdf5Type<T>::file()), 0, 1};
    measure(name, array.id, sizeof(T), rank, array.rows, array.columns);
    return array;
  }

  /// The rows [begin, end).
  /// @param array  std::vector or std::string of elements
  template <class T, class Values = std::vector<T>>
  Values read(const Array<T>& array, hsize_t begin, hsize_t end) const {
    Values values((end - begin) * array.columns, T{});
    read(array.name, array.id, Hdf5Type<T>::memory(), {begin, array.columns, end - begin},
         values.data());
    return values;
  }
  template <class T>
  std::vector<T> read(const Array<T>& array) const {
    return read(array, 0, array.rows);
  }

  /// The strings [begin, end) of `count`.
  std::vector<std::string> strings(const std::string& name, hsize_t count, hsize_t begin,
                                   hsize_t end) const;
  std::vector<std::string> strings(const std::string& name) const;

  [[noreturn]] void refuse(const std::string& what) const;

 private:
  struct Range {
    hsize_t begin, columns, rows;
  };
  Hdf5Handle open_dataset(const std::string& name, hid_t type) const;
  void measure(const std::string& name, hid_t dataset, size_t element_bytes, int rank,
               hsize_t& rows, hsize_t& columns) const;
  void require_checksums(const std::string& name, hid_t dataset, hsize_t element_bytes) const;
  void read(const std::string& name, hid_t dataset, hid_t type, const Range& range,
            void* values) const;
  void require(bool readable, const std::string& name) const;

  std::string path_;
  hsize_t file_bytes_ = 0;
  Hdf5Session session_;
  Hdf5Handle file_;
};

}  // namespace talvik::internal

#endif
