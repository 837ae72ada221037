// Lines of a text file, plain or compressed by gzip.
#ifndef TALVIK_TOOL_TEXT_LINES_HPP
#define TALVIK_TOOL_TEXT_LINES_HPP

#include <zlib.h>  // reads plain files as they are

#include <string>
#include <vector>

namespace talvik::tool {

class TextLines {
 public:
  /// Throws RunError where there is no such file or it cannot be opened.
  explicit TextLines(const std::string& path);
  ~TextLines() { gzclose_r(file_); }
  TextLines(const TextLines&) = delete;
  TextLines& operator=(const TextLines&) = delete;

  /// The next line without its end ("\n" or "\r\n") and, the first, without a byte order mark.
  /// False at the end of the file.
  bool next(std::string& line);

  long long number() const { return number_; }  ///< of the line last read, from 1
  std::string place() const;                    ///< "path:number"
  /// Share of the file read so far; 0 where its size is not known.
  double fraction() const;

 private:
  bool fill();

  std::string path_;
  gzFile file_ = nullptr;
  long long size_ = 0;
  long long number_ = 0;
  std::vector<char> buffer_;
  size_t begin_ = 0, end_ = 0;  // what of the buffer has not been handed out
};

}  // namespace talvik::tool

#endif
