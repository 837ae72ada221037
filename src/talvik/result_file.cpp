// Result files: lines are formatted into a large buffer, several times faster than by printf and
// with the same bytes.
#include "talvik/result_file.hpp"

#include <charconv>
#include <utility>

#include "libmpi/abort_job.hpp"

namespace talvik::internal {
namespace {

constexpr size_t flush_bytes = 1 << 20;
constexpr int distance_decimals = 6;

// The longest pieces: 20 digits of a label; sign, 39 digits, point and decimals of a float.
constexpr size_t max_number_bytes = 64;

void append(std::string& text, unsigned long label) {
  char digits[max_number_bytes];
  text.append(digits, std::to_chars(digits, digits + max_number_bytes, label).ptr);
}

void append(std::string& text, float distance) {
  char digits[max_number_bytes];
  const auto end = std::to_chars(digits, digits + max_number_bytes, static_cast<double>(distance),
                                 std::chars_format::fixed, distance_decimals);
  text.append(digits, end.ptr);
}

void require_written(bool written, const std::string& path) {
  if (!written) abort_job("Failed to write result file: " + path);
}

void flush(ResultFile& file) {
  const size_t written = std::fwrite(file.text.data(), 1, file.text.size(), file.file.get());
  require_written(written == file.text.size(), file.path);
  file.text.clear();
}

}  // namespace

ResultFile open_result_file(const std::string& path) {
  ResultFile result{path, {}, {}};
  result.file.reset(std::fopen(path.c_str(), "w"));
  if (!result.file) abort_job("Failed to open result file: " + path);
  return result;
}

void write_lists(ResultFile& file, const NeighbourLists& lists, const LabelList& query_labels,
                 const LabelList& resident_labels) {
  const auto length = static_cast<size_t>(lists.k);
  for (size_t q = 0; q < static_cast<size_t>(lists.num_queries); ++q) {
    const unsigned long query_label = query_labels[static_cast<size_t>(lists.first_query) + q];
    for (size_t at = q * length; at < (q + 1) * length; ++at) {
      file.text += '"';
      append(file.text, query_label);
      file.text += "\", \"";
      append(file.text, resident_labels[static_cast<size_t>(lists.ind[at])]);
      file.text += "\", \"";
      append(file.text, lists.val[at]);
      file.text += "\"\n";
      if (file.text.size() >= flush_bytes) flush(file);
    }
  }
}

void close_result_file(ResultFile file) {
  flush(file);
  // The C library may hold bytes back until here, and so report a full disk only here.
  require_written(std::fclose(file.file.release()) == 0, file.path);
}

}  // namespace talvik::internal
