// Outputs that appear whole or not at all: written under a temporary name beside their own, put
// into place at the end, removed if the run fails.
#ifndef TALVIK_TOOL_ATOMIC_OUTPUT_HPP
#define TALVIK_TOOL_ATOMIC_OUTPUT_HPP

#include <cstdio>
#include <string>
#include <string_view>

namespace talvik::tool {

/// The names of an output and of its temporary, and how one becomes the other.
class AtomicOutput {
 public:
  AtomicOutput(const AtomicOutput&) = delete;
  AtomicOutput& operator=(const AtomicOutput&) = delete;

  const std::string& temporary() const { return temporary_; }

  /// Throws RunError: "<path>: cannot be <what>: <the system's reason>".
  [[noreturn]] void fail(const char* what) const;

 protected:
  explicit AtomicOutput(const std::string& path);
  ~AtomicOutput();  ///< removes what was not put into place
  void put_into_place();

  std::string path_, temporary_;
};

/// A result file.
class AtomicFile : public AtomicOutput {
 public:
  /// Creates the temporary.  Throws RunError naming path where that cannot be done, and where path
  /// exists and is no regular file: a rename would put a file in the place of a device.
  explicit AtomicFile(const std::string& path);
  ~AtomicFile();

  void write(const void* data, size_t bytes);  ///< throws RunError when the device is full
  void write(std::string_view text) { write(text.data(), text.size()); }
  void rewind();  ///< what is written next replaces the file's first bytes
  void commit();  ///< closes and renames; throws RunError

 private:
  std::FILE* file_ = nullptr;
};

/// A directory of results.
class AtomicDirectory : public AtomicOutput {
 public:
  /// Creates the temporary, and the folders above path.  Throws RunError naming path where that
  /// cannot be done, and where path exists and is no empty directory.
  explicit AtomicDirectory(const std::string& path);

  const std::string& path() const { return path_; }  ///< without a slash at its end
  void commit() { put_into_place(); }
};

/// Removes a file when it goes out of scope: the library's own result files, shards.
struct RemovedAtEnd {
  std::string path;
  bool keep = false;
  explicit RemovedAtEnd(std::string path_to_remove) : path(std::move(path_to_remove)) {}
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
