// Outputs that appear whole or not at all: written under a temporary name beside their own, put
// into place at the end, removed if the run fails.
#ifndef TALVIK_TOOL_ATOMIC_OUTPUT_HPP
#define TALVIK_TOOL_ATOMIC_OUTPUT_HPP

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "unfinished.hpp"

namespace talvik::tool {

/// Text is gathered until there is so much of it, and written then.
inline constexpr size_t piece_bytes = size_t{1} << 20;

/// A name beside path that no other run has: of the process, and of chance.
std::string unique_beside(const std::string& path);

/// Whether path names a stream, which is written but not replaced: "-" and /dev/stdout for standard
/// output, a pipe, a terminal or another character device.
bool is_stream(const std::string& path);
bool is_standard_output(const std::string& path);

/// A result file.  Links are followed: the file that they lead to is replaced.
class AtomicFile {
 public:
  /// Opens the stream, or creates the temporary.  Where standard output is the stream, what else
  /// would be written there goes to standard error from now on.  Throws RunError naming path where
  /// that cannot be done, and where path is a directory or a device that a file would replace.
  explicit AtomicFile(const std::string& path);

  void write(const void* data, size_t bytes);  ///< throws RunError when the device is full
  void write(std::string_view text) { write(text.data(), text.size()); }
  void rewind();  ///< what is written next replaces the file's first bytes

  /// Puts the file into place, or hands its bytes to the stream.  Throws RunError.
  void commit();

 private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  using File = std::unique_ptr<std::FILE, Close>;

  void open_stream();
  void create_temporary();
  [[noreturn]] void close_and_fail(int file) const;
  [[noreturn]] void fail(const char* what) const;  // with the system's reason

  std::string path_, target_;
  std::optional<Unfinished> temporary_;
  File file_, stream_;
};

/// A directory of results.
class AtomicDirectory {
 public:
  /// Creates the temporary, and the folders above path.  Throws RunError naming path where that
  /// cannot be done, and where path exists and is no empty directory.
  explicit AtomicDirectory(const std::string& path);

  const std::string& path() const { return path_; }  ///< without a slash at its end
  const std::string& temporary() const { return temporary_.path(); }
  void commit();

  /// Throws RunError: "<path>: cannot be written: <the system's reason>".
  [[noreturn]] void fail_to_write() const;

 private:
  std::string path_;
  Unfinished temporary_;
};

/// Makes a file whose contents nobody wants: a link to the null device, so that writing to it takes
/// no space and cannot fail.  Throws RunError where it cannot be created.
void make_discarded(const std::string& path);

}  // namespace talvik::tool

#endif
