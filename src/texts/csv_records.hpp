// Records of a CSV file by RFC 4180.
#ifndef TALVIK_TEXTS_CSV_RECORDS_HPP
#define TALVIK_TEXTS_CSV_RECORDS_HPP

#include <csv.h>  // libcsv, which parses

#include <deque>
#include <exception>
#include <string>
#include <vector>

#include "texts/text_lines.hpp"

namespace talvik::texts {

/// Walks the records of a file.  Fields are separated by commas and may be quoted; within quotes,
/// commas and line breaks belong to the field, and two quotes are one.  Blanks are part of a field.
/// Empty lines are no records.
class CsvRecords {
 public:
  /// @param lines  none of which has been read; borrowed
  explicit CsvRecords(TextLines& lines);
  ~CsvRecords() { csv_free(&parser_); }
  CsvRecords(const CsvRecords&) = delete;
  CsvRecords& operator=(const CsvRecords&) = delete;

  /// The next record; false at the end of the file.  Throws FileError naming the line where quotes
  /// are misplaced, or where a quoted field begins that has no end.
  bool next(std::vector<std::string>& fields);

  long long line() const { return line_; }  ///< where the record last read begins, from 1

 private:
  struct Record {
    long long line;
    std::vector<std::string> fields;
  };
  void parse_line();
  void finish();
  void rethrow_failure();
  // The parser's calls.
  static void take_field(void* bytes, size_t count, void* self) noexcept;
  static void take_record(int end, void* self) noexcept;

  TextLines& lines_;
  csv_parser parser_{};
  bool finished_ = false;
  std::exception_ptr failure_;  // of a call, which must not throw through the parser
  std::string text_;            // the line that is being parsed
  std::vector<std::string> fields_;
  size_t fields_seen_ = 0;      // of the whole file
  long long first_line_ = 0;    // of the record under construction
  size_t record_bytes_ = 0;     // of its lines
  long long field_line_ = 0;    // where the field begins that is open at the end of the line
  std::deque<Record> records_;  // parsed and not handed out
  long long line_ = 0;
};

}  // namespace talvik::texts

#endif
