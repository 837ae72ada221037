#include "texts/csv_records.hpp"

#include <fmt/core.h>

#include <new>
#include <utility>

#include "talvik/error.hpp"

namespace talvik::texts {

CsvRecords::CsvRecords(TextLines& lines) : lines_(lines) {
  constexpr size_t buffer_grows_by = 1 << 16;
  csv_init(&parser_, CSV_STRICT | CSV_STRICT_FINI);
  csv_set_blk_size(&parser_, buffer_grows_by);
  csv_set_space_func(&parser_, [](unsigned char) { return 0; });  // blanks are part of a field
}

bool CsvRecords::next(std::vector<std::string>& fields) {
  while (records_.empty()) {
    if (finished_) return false;
    if (lines_.next_with_end(text_)) {
      parse_line();
    } else {
      finish();
    }
  }
  fields = std::move(records_.front().fields);
  line_ = records_.front().line;
  records_.pop_front();
  return true;
}

// The parser knows no lines: it is given one at a time.
void CsvRecords::parse_line() {
  const bool within_quotes = parser_.entry_pos > 0;  // at the beginning of the line
  if (!within_quotes) {
    first_line_ = lines_.number();
    record_bytes_ = 0;
  }
  record_bytes_ += text_.size();
  if (record_bytes_ > longest_line_bytes) {
    throw FileError(lines_.place_of(first_line_),
                    fmt::format("the record is longer than {} MiB (a quoted field without a "
                                "closing quote?)",
                                longest_line_bytes >> 20));
  }
  const size_t fields_before = fields_seen_;
  const size_t parsed =
      csv_parse(&parser_, text_.data(), text_.size(), take_field, take_record, this);
  rethrow_failure();
  if (!within_quotes || fields_seen_ > fields_before) field_line_ = lines_.number();
  if (parsed == text_.size()) return;
  if (csv_error(&parser_) != CSV_EPARSE) throw std::bad_alloc();
  throw FileError(lines_.place(), parser_.quoted
                                      ? "text between a closing quote and the next comma"
                                      : "a quote within a field that does not begin with one");
}

void CsvRecords::finish() {
  finished_ = true;
  const int status = csv_fini(&parser_, take_field, take_record, this);
  rethrow_failure();
  if (status != 0) {
    throw FileError(lines_.place_of(field_line_), "a quoted field without a closing quote");
  }
}

void CsvRecords::rethrow_failure() {
  if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
}

void CsvRecords::take_field(void* bytes, size_t count, void* self) noexcept {
  auto& records = *static_cast<CsvRecords*>(self);
  ++records.fields_seen_;
  try {
    records.fields_.emplace_back(static_cast<const char*>(bytes), count);
  } catch (...) {
    records.failure_ = std::current_exception();
  }
}

void CsvRecords::take_record(int /*end*/, void* self) noexcept {
  auto& records = *static_cast<CsvRecords*>(self);
  try {
    records.records_.push_back({records.first_line_, std::exchange(records.fields_, {})});
  } catch (...) {
    records.failure_ = std::current_exception();
  }
}

}  // namespace talvik::texts
