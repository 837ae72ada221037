// Lines of a text file, plain or compressed by gzip.
#ifndef TALVIK_TEXTS_TEXT_LINES_HPP
#define TALVIK_TEXTS_TEXT_LINES_HPP

#include <zlib.h>  // reads plain files as they are

#include <string>
#include <string_view>
#include <vector>

namespace talvik::texts {

/// What is longer is no text, or has lost its line breaks.
inline constexpr size_t longest_line_bytes = 256u << 20;

inline constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF";

class TextLines {
 public:
  /// Throws FileError where there is no such file or it cannot be opened.
  explicit TextLines(const std::string& path);
  /// Reads standard input, which messages name so.  Throws FileError where it is closed.
  static TextLines of_standard_input() { return TextLines(StandardInput{}); }
  ~TextLines() { gzclose_r(file_); }
  TextLines(const TextLines&) = delete;
  TextLines& operator=(const TextLines&) = delete;

  /// The next line without its end ("\n" or "\r\n") and, the first, without a byte order mark.
  /// False at the end of the file.
  bool next(std::string& line);
  /// The same with its end, which the last line may lack.
  bool next_with_end(std::string& line);

  /// What comes next, a few dozen KiB or up to the end of the file.
  /// @pre no line has been read
  std::string_view first_bytes();
  /// @pre something has been read
  bool is_compressed() const { return gzdirect(file_) == 0; }

  const std::string& path() const { return path_; }
  long long number() const { return number_; }  ///< of the line last read, from 1
  std::string place() const { return place_of(number_); }
  std::string place_of(long long number) const;  ///< "path:number"
  /// Share of the file read so far; 0 where its size is not known.
  double fraction() const;
  long long file_bytes() const { return file_bytes_; }  ///< as it is stored; 0: not known

 private:
  struct StandardInput {};
  explicit TextLines(StandardInput);
  bool fill();

  std::string path_;
  gzFile file_ = nullptr;
  long long file_bytes_ = 0;
  long long number_ = 0;
  std::vector<char> buffer_;
  size_t begin_ = 0, end_ = 0;  // what of the buffer has not been handed out
};

}  // namespace talvik::texts

#endif
