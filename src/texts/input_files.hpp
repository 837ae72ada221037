// Whether an input is there at all, asked in one way by all commands.
#ifndef TALVIK_TEXTS_INPUT_FILES_HPP
#define TALVIK_TEXTS_INPUT_FILES_HPP

#include <string>

namespace talvik::texts {

/// Throws FileError where the path is not there or is a directory.  What is no regular file, such
/// as a pipe, passes.
void require_file(const std::string& path);

/// Throws FileError where the path is no regular file that can be opened, or is empty.
/// @return its size
long long require_regular_file(const std::string& path);

/// Throws FileError where the path is not there or is no directory.
/// @param what  what the directory holds, for the message: "a directory of classes"
void require_directory(const std::string& path, const std::string& what = "a directory");

}  // namespace talvik::texts

#endif
