// The part of HDF5 that saved collections use, with the library's own errors.
#ifndef TALVIK_SEARCH_HDF5_FILE_HPP
#define TALVIK_SEARCH_HDF5_FILE_HPP

#include <hdf5.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

namespace talvik::internal {

/// To be held around all use of HDF5, which Debian builds without support of threads.  Meanwhile
/// HDF5 prints no errors; afterwards it does again what the host program has chosen.
class Hdf5Session {
 public:
  Hdf5Session();
  ~Hdf5Session();
  Hdf5Session(const Hdf5Session&) = delete;
  Hdf5Session& operator=(const Hdf5Session&) = delete;

 private:
  std::unique_lock<std::mutex> lock_;
  unsigned version_ = 0;  // of the host's error function
  H5E_auto1_t print1_ = nullptr;
  H5E_auto2_t print2_ = nullptr;
  void* data_ = nullptr;
};

/// Something of HDF5 that is closed at the end.
class Hdf5Handle {
 public:
  using Close = herr_t (*)(hid_t);
  Hdf5Handle(hid_t id, Close close) : id_(id), close_(close) {}
  Hdf5Handle(Hdf5Handle&& other) noexcept
      : id_(std::exchange(other.id_, H5I_INVALID_HID)), close_(other.close_) {}
  Hdf5Handle& operator=(Hdf5Handle&&) = delete;
  ~Hdf5Handle() { close(); }

  bool valid() const { return id_ >= 0; }
  operator hid_t() const { return id_; }  // NOLINT(google-explicit-constructor): as HDF5's own
  bool close() { return !valid() || close_(std::exchange(id_, H5I_INVALID_HID)) >= 0; }

 private:
  hid_t id_;
  Close close_;
};

/// Types as they are in the file, and in memory.
template <class T>
struct Hdf5Type;
template <>
struct Hdf5Type<float> {
  static hid_t file() { return H5T_IEEE_F32LE; }
  static hid_t memory() { return H5T_NATIVE_FLOAT; }
};
template <>
struct Hdf5Type<std::int32_t> {
  static hid_t file() { return H5T_STD_I32LE; }
  static hid_t memory() { return H5T_NATIVE_INT32; }
};
template <>
struct Hdf5Type<std::int64_t> {
  static hid_t file() { return H5T_STD_I64LE; }
  static hid_t memory() { return H5T_NATIVE_INT64; }
};
template <>
struct Hdf5Type<std::uint8_t> {
  static hid_t file() { return H5T_STD_U8LE; }
  static hid_t memory() { return H5T_NATIVE_UINT8; }
};
template <>
struct Hdf5Type<char> : Hdf5Type<std::uint8_t> {};

}  // namespace talvik::internal

#endif
