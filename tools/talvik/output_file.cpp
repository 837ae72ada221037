// Result files under temporary names.
#include "output_file.hpp"

#include <fmt/core.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "run_error.hpp"

namespace talvik::tool {
namespace {

[[noreturn]] void fail_to(const char* what, const std::string& path) {
  throw RunError(fmt::format("{}: cannot be {}: {}", path, what, std::strerror(errno)));
}

}  // namespace

OutputFile::OutputFile(const std::string& path) : path_(path), temporary_(path + ".partial") {
  std::error_code ignored;
  const auto status = std::filesystem::status(path, ignored);
  if (std::filesystem::is_directory(status)) {
    throw RunError(path + ": is a directory, the name of a result file was expected");
  }
  if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
    throw RunError(path + ": exists and is not a regular file");
  }
  file_ = std::fopen(temporary_.c_str(), "wb");
  if (!file_) fail_to("created", path_);
}

OutputFile::~OutputFile() {
  if (file_) std::fclose(file_);
  if (!temporary_.empty()) std::remove(temporary_.c_str());
}

void OutputFile::write(const void* data, size_t bytes) {
  if (std::fwrite(data, 1, bytes, file_) != bytes) fail_to("written", path_);
}

void OutputFile::commit() {
  std::FILE* file = file_;
  file_ = nullptr;
  if (std::fclose(file) != 0) fail_to("written", path_);
  if (std::rename(temporary_.c_str(), path_.c_str()) != 0) fail_to("put into place", path_);
  temporary_.clear();
}

void make_discarded(const std::string& path) {
  std::error_code error;
  std::filesystem::remove(path, error);
  error.clear();
  std::filesystem::create_symlink("/dev/null", path, error);
  if (!error) return;
  // A file system without links gets a file.
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) fail_to("created", path);
  std::fclose(file);
}

}  // namespace talvik::tool
