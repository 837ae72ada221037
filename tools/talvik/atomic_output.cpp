#include "atomic_output.hpp"

#include <fcntl.h>  // open
#include <fmt/core.h>
#include <unistd.h>  // getpid, dup, close

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <random>

#include "run_error.hpp"

namespace talvik::tool {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void fail_to(const char* what, const std::string& path) {
  throw RunError(fmt::format("{}: cannot be {}: {}", path, what, std::strerror(errno)));
}

std::string without_slashes_at_end(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// Whatever file it is, a rename over it would part it from whoever holds it open.
bool is_open_file(const std::string& path) {
  return path.starts_with("/dev/std") || path.starts_with("/dev/fd/") ||
         path.starts_with("/proc/self/fd/");
}

// Standard output as it was; from now on its number leads to standard error.
int take_standard_output() {
  std::cout.flush();
  std::fflush(stdout);
  const int taken = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0);
  if (taken >= 0) dup2(STDERR_FILENO, STDOUT_FILENO);
  return taken;
}

}  // namespace

std::string unique_beside(const std::string& path) {
  return fmt::format("{}.partial-{}-{:08x}", path, getpid(), std::random_device{}());
}

bool is_standard_output(const std::string& path) {
  return path == "-" || path == "/dev/stdout" || path == "/dev/fd/1" || path == "/proc/self/fd/1";
}

bool is_stream(const std::string& path) {
  if (is_standard_output(path) || is_open_file(path)) return true;
  std::error_code none;
  const fs::file_status status = fs::status(path, none);
  return fs::is_fifo(status) || fs::is_character_file(status);
}

AtomicFile::AtomicFile(const std::string& path) : path_(path) {
  if (is_stream(path)) {
    open_stream();
  } else {
    create_temporary();
  }
}

void AtomicFile::open_stream() {
  const int stream = is_standard_output(path_) ? take_standard_output()
                                               : open(path_.c_str(), O_WRONLY | O_CLOEXEC);
  if (stream < 0) fail("opened");
  stream_.reset(fdopen(stream, "wb"));
  if (!stream_) close_and_fail(stream);
  // Whole or not at all, and the writer may go back to the front.
  file_.reset(std::tmpfile());
  if (!file_) fail("created");
}

void AtomicFile::create_temporary() {
  std::error_code error;
  const fs::file_status status = fs::status(path_, error);
  if (fs::is_directory(status)) {
    throw RunError(path_ + ": is a directory, the name of a result file was expected");
  }
  if (fs::exists(status) && !fs::is_regular_file(status)) {
    throw RunError(path_ + ": exists and is not a regular file");
  }
  if (error == std::errc::too_many_symbolic_link_levels) {
    throw RunError(path_ + ": cannot be created: " + error.message());
  }
  target_ = path_;
  while (fs::is_symlink(target_)) {  // relative to the folder that the link stands in
    target_ = (fs::path(target_).parent_path() / fs::read_symlink(target_)).string();
  }
  const std::string name = unique_beside(target_);
  constexpr mode_t anyone = 0666;  // less what the user's mask takes away
  const int file = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, anyone);
  if (file < 0) fail("created");
  temporary_.emplace(name);
  file_.reset(fdopen(file, "wb"));
  if (!file_) close_and_fail(file);
}

void AtomicFile::close_and_fail(int file) const {
  const int error = errno;
  ::close(file);
  errno = error;
  fail("opened");
}

void AtomicFile::fail(const char* what) const { fail_to(what, path_); }

void AtomicFile::write(const void* data, size_t bytes) {
  if (std::fwrite(data, 1, bytes, file_.get()) != bytes) fail("written");
}

void AtomicFile::rewind() {
  if (std::fseek(file_.get(), 0, SEEK_SET) != 0) fail("written");
}

void AtomicFile::commit() {
  if (stream_) {
    rewind();
    std::array<char, 1 << 16> piece{};
    while (const size_t bytes = std::fread(piece.data(), 1, piece.size(), file_.get())) {
      if (std::fwrite(piece.data(), 1, bytes, stream_.get()) != bytes) fail("written");
    }
    if (std::ferror(file_.get()) != 0) fail("written");
    if (std::fclose(stream_.release()) != 0) fail("written");
    return;
  }
  if (std::fclose(file_.release()) != 0) fail("written");
  if (!temporary_->rename_to(target_)) fail("put into place");
}

AtomicDirectory::AtomicDirectory(const std::string& path)
    : path_(without_slashes_at_end(path)), temporary_(unique_beside(path_)) {
  std::error_code error;
  const fs::file_status status = fs::status(path_, error);
  if (fs::exists(status) && !fs::is_directory(status)) {
    throw RunError(path_ + ": exists and is not a directory");
  }
  if (fs::is_directory(status) && !fs::is_empty(path_, error)) {
    throw RunError(path_ + ": is not empty; remove it or name another directory");
  }
  error.clear();  // that nothing is there yet is no error
  const fs::path parent = fs::path(path_).parent_path();
  if (!parent.empty()) fs::create_directories(parent, error);
  if (!error) fs::create_directory(temporary(), error);
  if (error) throw RunError(path_ + ": cannot be created: " + error.message());
}

void AtomicDirectory::commit() {
  if (!temporary_.rename_to(path_)) fail_to("put into place", path_);
}

void AtomicDirectory::fail_to_write() const { fail_to("written", path_); }

void make_discarded(const std::string& path) {
  std::error_code error;
  fs::create_symlink("/dev/null", path, error);
  if (!error) return;
  // A file system without links gets a file.
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) fail_to("created", path);
  std::fclose(file);
}

}  // namespace talvik::tool
