#include "texts/input_files.hpp"

#include <fmt/core.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "talvik/error.hpp"

namespace talvik::texts {

namespace fs = std::filesystem;

void require_file(const std::string& path) {
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (status.type() == fs::file_type::not_found) throw FileError(path, "no such file");
  if (!fs::exists(status)) throw FileError(path, error.message());
  if (fs::is_directory(status)) throw FileError(path, "is a directory, a file was expected");
}

long long require_regular_file(const std::string& path) {
  require_file(path);
  if (!fs::is_regular_file(path)) throw FileError(path, "is not a regular file");
  if (!std::ifstream(path)) {
    throw FileError(path, fmt::format("cannot be opened: {}", std::strerror(errno)));
  }
  const auto size = static_cast<long long>(fs::file_size(path));
  if (size == 0) throw FileError(path, "is empty");
  return size;
}

void require_directory(const std::string& path, const std::string& what) {
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (status.type() == fs::file_type::not_found) throw FileError(path, "no such directory");
  if (!fs::exists(status)) throw FileError(path, error.message());
  if (!fs::is_directory(status)) throw FileError(path, "is a file, " + what + " was expected");
}

}  // namespace talvik::texts
