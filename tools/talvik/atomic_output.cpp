#include "atomic_output.hpp"

#include <fcntl.h>  // open
#include <fmt/core.h>
#include <unistd.h>  // getpid, close

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <random>

#include "run_error.hpp"

namespace talvik::tool {

namespace fs = std::filesystem;

namespace {

std::string without_slashes_at_end(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

[[noreturn]] void fail_to(const char* what, const std::string& path) {
  throw RunError(fmt::format("{}: cannot be {}: {}", path, what, std::strerror(errno)));
}

// The process number keeps two runs on one machine apart, the random part those on two machines.
std::string temporary_beside(const std::string& path) {
  return fmt::format("{}.partial-{}-{:08x}", path, getpid(), std::random_device{}());
}

}  // namespace

AtomicOutput::AtomicOutput(const std::string& path)
    : path_(without_slashes_at_end(path)), temporary_(temporary_beside(path_)) {}

AtomicOutput::~AtomicOutput() {
  std::error_code ignored;
  if (!temporary_.empty()) fs::remove_all(temporary_, ignored);
}

void AtomicOutput::fail(const char* what) const { fail_to(what, path_); }

void AtomicOutput::put_into_place() {
  if (std::rename(temporary_.c_str(), path_.c_str()) != 0) fail("put into place");
  temporary_.clear();
}

AtomicFile::AtomicFile(const std::string& path) : AtomicOutput(path) {
  std::error_code ignored;
  const fs::file_status status = fs::status(path, ignored);
  if (fs::is_directory(status)) {
    throw RunError(path + ": is a directory, the name of a result file was expected");
  }
  if (fs::exists(status) && !fs::is_regular_file(status)) {
    throw RunError(path + ": exists and is not a regular file");
  }
  constexpr mode_t anyone = 0666;  // less what the user's mask takes away
  const int file = open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, anyone);
  if (file < 0) {
    temporary_.clear();
    fail("created");
  }
  file_ = fdopen(file, "wb");
  if (!file_) {
    close(file);
    fail("created");
  }
}

AtomicFile::~AtomicFile() {
  if (file_) std::fclose(file_);
}

void AtomicFile::write(const void* data, size_t bytes) {
  if (std::fwrite(data, 1, bytes, file_) != bytes) fail("written");
}

void AtomicFile::rewind() {
  if (std::fseek(file_, 0, SEEK_SET) != 0) fail("written");
}

void AtomicFile::commit() {
  std::FILE* file = file_;
  file_ = nullptr;
  if (std::fclose(file) != 0) fail("written");
  put_into_place();
}

AtomicDirectory::AtomicDirectory(const std::string& path) : AtomicOutput(path) {
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
  if (!error) fs::create_directory(temporary_, error);
  if (error) throw RunError(path_ + ": cannot be created: " + error.message());
}

void make_discarded(const std::string& path) {
  std::error_code error;
  fs::remove(path, error);
  error.clear();
  fs::create_symlink("/dev/null", path, error);
  if (!error) return;
  // A file system without links gets a file.
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) fail_to("created", path);
  std::fclose(file);
}

}  // namespace talvik::tool
