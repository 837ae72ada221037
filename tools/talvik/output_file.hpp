// A result file that appears whole or not at all: written under a temporary name beside it, renamed
// at the end, removed if the run fails.
#ifndef TALVIK_TOOL_OUTPUT_FILE_HPP
#define TALVIK_TOOL_OUTPUT_FILE_HPP

#include <cstdio>
#include <string>

namespace talvik::tool {

class OutputFile {
 public:
  /// Creates the temporary.  Throws RunError naming path where that cannot be done, and where path
  /// exists and is no regular file: a rename would put a file in the place of a device.
  explicit OutputFile(const std::string& path);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  void write(const void* data, size_t bytes);  ///< throws RunError when the device is full
  void write(const std::string& text) { write(text.data(), text.size()); }
  void commit();  ///< closes and renames; throws RunError

 private:
  std::string path_, temporary_;
  std::FILE* file_ = nullptr;
};

/// Removes a file when it goes out of scope: the library's own result files, shards.
struct RemovedAtEnd {
  std::string path;
  bool keep = false;
  explicit RemovedAtEnd(std::string path) : path(std::move(path)) {}
  ~RemovedAtEnd() {
    if (!keep && !path.empty()) std::remove(path.c_str());
  }
  RemovedAtEnd(const RemovedAtEnd&) = delete;
  RemovedAtEnd& operator=(const RemovedAtEnd&) = delete;
};

/// Makes a file whose contents nobody wants: a link to the null device, so that writing to it takes
/// no space and cannot fail.  Throws RunError where it cannot be created.
void make_discarded(const std::string& path);

}  // namespace talvik::tool

#endif
