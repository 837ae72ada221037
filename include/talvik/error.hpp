// What the search library throws.  Exhausted memory is std::bad_alloc; after any exception the
// arguments of the call are what they were before.
#ifndef TALVIK_ERROR_HPP
#define TALVIK_ERROR_HPP

#include <stdexcept>
#include <string>

#include "talvik/api.hpp"

namespace talvik {

/// what() is one line, "where: what is wrong".
class TALVIK_API Error : public std::runtime_error {
 public:
  /// Of an argument, file or line, and what is wrong there.
  Error(std::string where, const std::string& what)
      : std::runtime_error(where.empty() ? what : where + ": " + what), where_(std::move(where)) {}

  /// The argument, the file, or the line of a file ("news.jsonl:17"); may be empty.
  const std::string& where() const noexcept { return where_; }

 private:
  std::string where_;
};

/// An argument, or an option, that makes no sense; where() is its name.
class TALVIK_API ArgumentError : public Error {
 public:
  using Error::Error;
};

/// A file that cannot be read or written, or whose contents are not what they should be.
class TALVIK_API FileError : public Error {
 public:
  using Error::Error;
};

/// The progress callback has asked for the end.
class TALVIK_API Cancelled : public Error {
 public:
  Cancelled() : Error("", "cancelled") {}
};

}  // namespace talvik

#endif
