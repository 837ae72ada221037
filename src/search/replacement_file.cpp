#include "search/replacement_file.hpp"

#include <fcntl.h>  // open
#include <fmt/core.h>
#include <sys/stat.h>  // fchmod
#include <unistd.h>    // fsync, close, unlink

#include <cerrno>
#include <cstdio>  // rename
#include <filesystem>
#include <random>
#include <system_error>
#include <utility>

#include "talvik/error.hpp"

namespace talvik::internal {

namespace fs = std::filesystem;

namespace {

constexpr int links_followed = 40;  // as many as the kernel follows

std::string followed(const std::string& path) {
  fs::path target(path);
  std::error_code error;
  for (int i = 0; i < links_followed && fs::is_symlink(fs::symlink_status(target, error)); ++i) {
    target = target.parent_path() / fs::read_symlink(target, error);
  }
  return target.string();
}

// A directory has its new entry for good only once it is written itself.  Some file systems cannot
// do that; the file is in place all the same.
void sync_directory_of(const std::string& path) {
  const fs::path parent = fs::path(path).parent_path();
  const int directory = open(parent.empty() ? "." : parent.c_str(), O_RDONLY | O_CLOEXEC);
  if (directory < 0) return;
  fsync(directory);
  close(directory);
}

}  // namespace

ReplacementFile::ReplacementFile(const std::string& path) : path_(path), target_(followed(path)) {
  struct stat old {};
  const bool exists = stat(target_.c_str(), &old) == 0;
  if (!exists && errno != ENOENT) fail(errno);
  if (exists && !S_ISREG(old.st_mode)) throw FileError(path, "exists and is no regular file");
  constexpr mode_t anyone = 0666;  // less what the process's mask takes away
  std::random_device random;
  do {
    temporary_ = fmt::format("{}.partial-{}-{:08x}", target_, getpid(), random());
    descriptor_ = open(temporary_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, anyone);
  } while (descriptor_ < 0 && errno == EEXIST);
  if (descriptor_ < 0) {
    temporary_.clear();
    fail(errno);
  }
  constexpr mode_t permissions = 0777;
  if (exists) fchmod(descriptor_, old.st_mode & permissions);
}

ReplacementFile::~ReplacementFile() {
  if (descriptor_ >= 0) close(descriptor_);
  if (!temporary_.empty()) unlink(temporary_.c_str());
}

void ReplacementFile::put_into_place() {
  if (fsync(descriptor_) != 0) fail(errno);
  if (close(std::exchange(descriptor_, -1)) != 0) fail(errno);
  if (std::rename(temporary_.c_str(), target_.c_str()) != 0) fail(errno);
  temporary_.clear();
  sync_directory_of(target_);
}

void ReplacementFile::fail(int error) const {
  throw FileError(path_, "cannot be written: " + std::generic_category().message(error));
}

}  // namespace talvik::internal
