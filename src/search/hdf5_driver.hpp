// How HDF5 writes into a file that is open already.
#ifndef TALVIK_SEARCH_HDF5_DRIVER_HPP
#define TALVIK_SEARCH_HDF5_DRIVER_HPP

#include <hdf5.h>

namespace talvik::internal {

/// A file on its way to the device.
struct Hdf5Sink {
  int descriptor;  ///< readable and writable
  int error = 0;   ///< of the first write that failed; what follows goes nowhere
};

/// A driver that HDF5 creates files with, for a property list of file access.  Its writes never
/// fail: HDF5 1.10 crashes when it closes a file that could not be written.  Whoever creates a file
/// looks at sink.error once it is closed.
/// @param sink  outlives the file
/// @return negative where HDF5 refuses the driver
herr_t use_sink(hid_t file_access, Hdf5Sink& sink);

}  // namespace talvik::internal

#endif
