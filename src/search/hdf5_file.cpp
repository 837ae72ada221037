#include "search/hdf5_file.hpp"

namespace talvik::internal {
namespace {

std::mutex& hdf5_mutex() {
  static std::mutex mutex;
  return mutex;
}

}  // namespace

Hdf5Session::Hdf5Session() : lock_(hdf5_mutex()) {
  H5open();
  H5Eauto_is_v2(H5E_DEFAULT, &version_);
  if (version_ != 0) {
    H5Eget_auto2(H5E_DEFAULT, &print2_, &data_);
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
  } else {
    H5Eget_auto1(&print1_, &data_);
    H5Eset_auto1(nullptr, nullptr);
  }
}

Hdf5Session::~Hdf5Session() {
  H5Eclear2(H5E_DEFAULT);
  if (version_ != 0) {
    H5Eset_auto2(H5E_DEFAULT, print2_, data_);
  } else {
    H5Eset_auto1(print1_, data_);
  }
}

}  // namespace talvik::internal
