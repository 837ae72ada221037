#include "search/hdf5_driver.hpp"

#include <sys/types.h>
#include <unistd.h>  // pread, pwrite

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <limits>
#include <new>

namespace talvik::internal {
namespace {

constexpr haddr_t largest_address = std::numeric_limits<off_t>::max();

// What a property list keeps, as bytes.
struct SinkInfo {
  Hdf5Sink* sink;
};

struct SinkFile : H5FD_t {
  Hdf5Sink* sink = nullptr;
  haddr_t allocated = 0;  // end of what HDF5 has given out
  haddr_t written = 0;    // end of the file
};

// One transfer may be cut short by the system, or by a signal.
template <class Transfer>
int transfer_all(size_t size, const Transfer& transfer) {
  for (size_t done = 0; done < size;) {
    const ssize_t bytes = transfer(done, size - done);
    if (bytes < 0 && errno == EINTR) continue;
    if (bytes < 0) return errno;
    if (bytes == 0) return EIO;
    done += static_cast<size_t>(bytes);
  }
  return 0;
}

SinkFile& sink_file(H5FD_t* file) { return *static_cast<SinkFile*>(file); }
const SinkFile& sink_file(const H5FD_t* file) { return *static_cast<const SinkFile*>(file); }

H5FD_t* open_sink(const char*, unsigned, hid_t file_access, haddr_t) {
  const auto* info = static_cast<const SinkInfo*>(H5Pget_driver_info(file_access));
  if (!info) return nullptr;
  auto* file = new (std::nothrow) SinkFile{};
  if (file) file->sink = info->sink;
  return file;
}

herr_t close_sink(H5FD_t* file) {
  delete &sink_file(file);
  return 0;
}

herr_t query_sink(const H5FD_t*, unsigned long* flags) {
  // Another driver may open the file: the driver leaves no trace in it.
  *flags = H5FD_FEAT_AGGREGATE_METADATA | H5FD_FEAT_ACCUMULATE_METADATA |
           H5FD_FEAT_AGGREGATE_SMALLDATA | H5FD_FEAT_IGNORE_DRVRINFO |
           H5FD_FEAT_DEFAULT_VFD_COMPATIBLE;
  return 0;
}

haddr_t allocated_end(const H5FD_t* file, H5FD_mem_t) { return sink_file(file).allocated; }

herr_t set_allocated_end(H5FD_t* file, H5FD_mem_t, haddr_t end) {
  sink_file(file).allocated = end;
  return 0;
}

haddr_t written_end(const H5FD_t* file, H5FD_mem_t) { return sink_file(file).written; }

herr_t read_sink(H5FD_t* file, H5FD_mem_t, hid_t, haddr_t address, size_t size, void* buffer) {
  const SinkFile& from = sink_file(file);
  std::memset(buffer, 0, size);  // what lies behind the end, or went nowhere
  if (from.sink->error != 0 || address >= from.written) return 0;
  const size_t there = std::min<haddr_t>(size, from.written - address);
  const int error = transfer_all(there, [&](size_t done, size_t rest) {
    return pread(from.sink->descriptor, static_cast<char*>(buffer) + done, rest,
                 static_cast<off_t>(address + done));
  });
  if (error != 0) from.sink->error = error;
  return 0;
}

herr_t write_sink(H5FD_t* file, H5FD_mem_t, hid_t, haddr_t address, size_t size,
                  const void* buffer) {
  SinkFile& to = sink_file(file);
  if (to.sink->error == 0) {
    to.sink->error = transfer_all(size, [&](size_t done, size_t rest) {
      return pwrite(to.sink->descriptor, static_cast<const char*>(buffer) + done, rest,
                    static_cast<off_t>(address + done));
    });
  }
  to.written = std::max(to.written, address + size);
  return 0;
}

// HDF5 asks for the size that the file's head announces.
herr_t truncate_sink(H5FD_t* file, hid_t, hbool_t) {
  SinkFile& to = sink_file(file);
  if (to.sink->error == 0 &&
      ftruncate(to.sink->descriptor, static_cast<off_t>(to.allocated)) != 0) {
    to.sink->error = errno;
  }
  to.written = to.allocated;
  return 0;
}

H5FD_class_t sink_class() {
  H5FD_class_t driver{};
  driver.name = "talvik_sink";
  driver.maxaddr = largest_address;
  driver.fc_degree = H5F_CLOSE_STRONG;
  driver.fapl_size = sizeof(SinkInfo);
  driver.open = open_sink;
  driver.close = close_sink;
  driver.query = query_sink;
  driver.get_eoa = allocated_end;
  driver.set_eoa = set_allocated_end;
  driver.get_eof = written_end;
  driver.read = read_sink;
  driver.write = write_sink;
  driver.truncate = truncate_sink;
  constexpr H5FD_mem_t one_list[] = H5FD_FLMAP_SINGLE;
  std::copy(std::begin(one_list), std::end(one_list), driver.fl_map);
  return driver;
}

}  // namespace

herr_t use_sink(hid_t file_access, Hdf5Sink& sink) {
  const H5FD_class_t driver = sink_class();  // HDF5 keeps a copy
  const hid_t id = H5FDregister(&driver);
  if (id < 0) return -1;
  const SinkInfo info{.sink = &sink};
  const herr_t set = H5Pset_driver(file_access, id, &info);
  H5FDunregister(id);  // the property list holds on to it
  return set;
}

}  // namespace talvik::internal
