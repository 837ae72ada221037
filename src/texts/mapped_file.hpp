// The bytes of a file, mapped instead of copied: what is not looked at is not kept in memory, and
// the processes of one machine share the rest.
#ifndef TALVIK_TEXTS_MAPPED_FILE_HPP
#define TALVIK_TEXTS_MAPPED_FILE_HPP

#include <fcntl.h>     // open
#include <sys/mman.h>  // mmap
#include <unistd.h>    // lseek, close

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "talvik/error.hpp"

namespace talvik::texts {

class MappedFile {
 public:
  /// Throws FileError where the file cannot be opened or mapped.  A file that another program
  /// shortens meanwhile ends the process.
  explicit MappedFile(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) throw FileError(path, std::string("cannot be opened: ") + std::strerror(errno));
    const off_t size = lseek(file, 0, SEEK_END);
    void* const bytes =
        size > 0 ? mmap(nullptr, static_cast<size_t>(size), PROT_READ, MAP_PRIVATE, file, 0)
                 : nullptr;
    const int error = errno;
    close(file);
    if (size < 0 || bytes == MAP_FAILED) {
      throw FileError(path, std::string("cannot be read: ") + std::strerror(error));
    }
    bytes_ = Bytes(static_cast<const char*>(bytes), Unmap{static_cast<size_t>(size)});
  }

  std::string_view bytes() const { return {bytes_.get(), bytes_.get_deleter().size}; }

 private:
  struct Unmap {
    size_t size;
    void operator()(const char* bytes) const { munmap(const_cast<char*>(bytes), size); }
  };
  using Bytes = std::unique_ptr<const char, Unmap>;
  Bytes bytes_{nullptr, Unmap{0}};
};

}  // namespace talvik::texts

#endif
