// A file that takes the place of another one once it is whole.
#ifndef TALVIK_SEARCH_REPLACEMENT_FILE_HPP
#define TALVIK_SEARCH_REPLACEMENT_FILE_HPP

#include <string>

namespace talvik::internal {

/// A temporary beside the target, removed at the end of the scope unless it has been put into
/// place.
class ReplacementFile {
 public:
  /// Links are followed: the file that they lead to is replaced.  The new file has the permissions
  /// of the old one; without an old one, those that the process gives to new files.
  /// @throws FileError  where no file can be created, or path is something else than a file
  explicit ReplacementFile(const std::string& path);
  ~ReplacementFile();
  ReplacementFile(const ReplacementFile&) = delete;
  ReplacementFile& operator=(const ReplacementFile&) = delete;

  int descriptor() const { return descriptor_; }

  /// Waits until the device has the bytes, then renames.
  /// @throws FileError
  void put_into_place();

  [[noreturn]] void fail(int error) const;  ///< throws FileError, by an error number of the system

 private:
  std::string path_, target_, temporary_;
  int descriptor_ = -1;
};

}  // namespace talvik::internal

#endif
