#include "texts/text_sources.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>  // istreambuf_iterator
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "talvik/error.hpp"
#include "texts/csv_records.hpp"
#include "texts/input_files.hpp"
#include "texts/text_lines.hpp"
#include "texts/tokenizer.hpp"

namespace talvik::texts {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view replacement_character = "\xEF\xBF\xBD";  // U+FFFD

constexpr std::string_view blanks = " \t\r\n";

std::string trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return "";
  return std::string(text.substr(first, text.find_last_not_of(blanks) - first + 1));
}

// An empty label is none.
std::optional<std::string> label_of(std::string_view text) {
  std::string label = trimmed(text);
  if (label.empty()) return std::nullopt;
  return label;
}

std::string whole_file(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text;
  if (file) text.assign(std::istreambuf_iterator<char>(file), {});
  if (!file || file.bad()) {
    throw FileError(printable(path.string()),
                    std::string("cannot be read: ") + std::strerror(errno));
  }
  return text;
}

// Paths of the files below root, relative to it, sorted by their components; hidden ones left out.
std::vector<fs::path> files_below(const fs::path& root) {
  std::vector<fs::path> files;
  std::error_code error;
  fs::recursive_directory_iterator at(root, error);
  while (!error && at != fs::recursive_directory_iterator()) {
    const bool hidden = at->path().filename().string().starts_with(".");
    std::error_code leads_nowhere;  // a link that does is no text
    if (hidden && at->is_directory(leads_nowhere)) at.disable_recursion_pending();
    if (!hidden && at->is_regular_file(leads_nowhere)) {
      files.push_back(at->path().lexically_relative(root));
    }
    at.increment(error);
  }
  if (error) throw FileError(root.string(), "cannot be listed: " + error.message());
  std::sort(files.begin(), files.end());
  return files;
}

// Hands texts over and counts them.
class Reader {
 public:
  Reader(const TextsOptions& options, Labels labels, const TextHandler& handle)
      : options_(options), labels_(labels), handle_(handle) {}

  void read_tree(const fs::path& root);
  void read_tsv(TextLines& lines);
  void read_csv(TextLines& lines);
  void read_jsonl(TextLines& lines);
  void read_lines(TextLines& lines);

  const TextsRead& read() const { return read_; }

 private:
  void hand_over(Text&& text) {
    ++read_.texts;
    handle_(std::move(text));
  }

  const TextsOptions& options_;
  Labels labels_;
  const TextHandler& handle_;
  TextsRead read_;
};

void Reader::read_tree(const fs::path& root) {
  for (const fs::path& file : files_below(root)) {
    if (!file.has_parent_path()) {
      ++read_.without_class;
      continue;
    }
    hand_over({.id = file.string(),
               .text = whole_file(root / file),
               .label = file.begin()->string(),
               .place = printable((root / file).string())});
  }
}

// The id of a text that has none: file and line without the folder.
std::string default_id(const TextLines& lines, long long number) {
  return fmt::format("{}:{}", fs::path(lines.path()).filename().string(), number);
}

bool next_line_with_text(TextLines& lines, std::string& line) {
  while (lines.next(line)) {
    if (!trimmed(line).empty()) return true;
  }
  return false;
}

void Reader::read_tsv(TextLines& lines) {
  for (std::string line; next_line_with_text(lines, line);) {
    const size_t tab = line.find('\t');
    if (tab == std::string::npos) throw FileError(lines.place(), "no tab between label and text");
    hand_over({.id = default_id(lines, lines.number()),
               .text = line.substr(tab + 1),
               .label = label_of(line.substr(0, tab)),
               .place = lines.place()});
  }
}

void Reader::read_lines(TextLines& lines) {
  for (std::string line; next_line_with_text(lines, line);) {
    hand_over({.id = default_id(lines, lines.number()),
               .text = line,
               .label = std::nullopt,
               .place = lines.place()});
  }
}

// The place of a name in the first record of a CSV file.
std::optional<size_t> column_of(const std::vector<std::string>& names, const std::string& name,
                                const std::string& place) {
  const auto found = std::find(names.begin(), names.end(), name);
  if (found == names.end()) return std::nullopt;
  if (std::find(found + 1, names.end(), name) != names.end()) {
    throw FileError(place, fmt::format("two columns \"{}\"", printable(name)));
  }
  return static_cast<size_t>(found - names.begin());
}

void Reader::read_csv(TextLines& lines) {
  CsvRecords records(lines);
  std::vector<std::string> names, fields;
  if (!records.next(names)) {
    throw FileError(lines.path(),
                    "is empty, a first record with the names of the columns was expected");
  }
  const std::string head = lines.place_of(records.line());
  const auto id = column_of(names, options_.id_field, head);
  const auto text = column_of(names, options_.text_field, head);
  const auto label = column_of(names, options_.label_field, head);
  const auto require = [&](const std::optional<size_t>& column, const std::string& name) {
    if (!column) throw FileError(head, fmt::format("no column \"{}\"", printable(name)));
  };
  if (labels_ == Labels::required) require(label, options_.label_field);
  require(text, options_.text_field);
  while (records.next(fields)) {
    const std::string place = lines.place_of(records.line());
    if (fields.size() != names.size()) {
      throw FileError(
          place, fmt::format("{} fields, the first record has {}", fields.size(), names.size()));
    }
    const bool has_id = id && !fields[*id].empty();
    hand_over({.id = has_id ? fields[*id] : default_id(lines, records.line()),
               .text = fields[*text],
               .label = label ? label_of(fields[*label]) : std::nullopt,
               .place = place});
  }
}

// A text or whole number of a JSON object, as text; none where the object lacks it.
std::optional<std::string> member(const nlohmann::json& object, const std::string& name,
                                  const std::string& place) {
  const auto found = object.find(name);
  if (found == object.end()) return std::nullopt;
  if (found->is_string()) return found->get<std::string>();
  if (found->is_number_integer()) return found->dump();
  throw FileError(place,
                  fmt::format("\"{}\" is neither a text nor a whole number", printable(name)));
}

std::string required_member(const nlohmann::json& object, const std::string& name,
                            const std::string& place) {
  if (auto value = member(object, name, place)) return *std::move(value);
  throw FileError(place, fmt::format("no \"{}\"", printable(name)));
}

nlohmann::json object_of(const std::string& line, const std::string& place, Count& replaced) {
  nlohmann::json object;
  try {
    object = nlohmann::json::parse(valid_utf8(line, replaced));
  } catch (const nlohmann::json::parse_error& error) {
    throw FileError(place, fmt::format("no valid JSON at byte {}", error.byte));
  } catch (const nlohmann::json::out_of_range&) {
    throw FileError(place, "a number that is too large");
  }
  if (!object.is_object()) throw FileError(place, "not a JSON object");
  return object;
}

std::optional<std::string> json_label(const nlohmann::json& object, const std::string& name,
                                      Labels labels, const std::string& place) {
  if (labels == Labels::required) return label_of(required_member(object, name, place));
  const auto found = object.find(name);
  if (found == object.end() || found->is_null()) return std::nullopt;
  return label_of(required_member(object, name, place));
}

void Reader::read_jsonl(TextLines& lines) {
  for (std::string line; next_line_with_text(lines, line);) {
    const std::string place = lines.place();
    const Count replaced_before = read_.replaced;
    const nlohmann::json object = object_of(line, place, read_.replaced);
    auto label = json_label(object, options_.label_field, labels_, place);
    const bool repaired = read_.replaced > replaced_before;
    // Labels that differ in invalid bytes would become one class.
    if (repaired && label && label->find(replacement_character) != std::string::npos) {
      throw FileError(place,
                      fmt::format("the class name \"{}\" is not valid UTF-8", printable(*label)));
    }
    auto id = member(object, options_.id_field, place);
    hand_over({.id = id ? *std::move(id) : default_id(lines, lines.number()),
               .text = required_member(object, options_.text_field, place),
               .label = std::move(label),
               .place = place});
  }
}

// What of a stream looks like a JSON object is one.
TextsFormat format_of_stream(TextLines& lines) {
  std::string_view bytes = lines.first_bytes();
  if (bytes.starts_with(byte_order_mark)) bytes.remove_prefix(byte_order_mark.size());
  const size_t first = bytes.find_first_not_of(blanks);
  const bool object = first != std::string_view::npos && bytes[first] == '{';
  return object ? TextsFormat::jsonl : TextsFormat::lines;
}

}  // namespace

TextsFormat format_by_name(const std::string& path) {
  std::error_code error;
  if (fs::is_directory(path, error)) return TextsFormat::tree;
  std::string_view name = path;
  if (name.ends_with(".gz")) name.remove_suffix(std::strlen(".gz"));
  if (name.ends_with(".jsonl") || name.ends_with(".ndjson")) return TextsFormat::jsonl;
  if (name.ends_with(".csv")) return TextsFormat::csv;
  if (name.ends_with(".tsv")) return TextsFormat::tsv;
  return TextsFormat::lines;
}

TextsRead read_texts(const std::string& path, const TextsOptions& options, Labels labels,
                     const TextHandler& handle) {
  Reader reader(options, labels, handle);
  const bool from_stream = path == standard_input;
  TextsFormat format = options.format;
  if (format == TextsFormat::automatic && !from_stream) format = format_by_name(path);
  if (format == TextsFormat::tree) {
    require_directory(path, "a directory of classes");
    reader.read_tree(path);
    return reader.read();
  }
  TextLines lines = from_stream ? TextLines::of_standard_input() : TextLines(path);
  if (format == TextsFormat::automatic) format = format_of_stream(lines);
  switch (format) {
    case TextsFormat::tsv:
      reader.read_tsv(lines);
      break;
    case TextsFormat::csv:
      reader.read_csv(lines);
      break;
    case TextsFormat::jsonl:
      reader.read_jsonl(lines);
      break;
    default:
      reader.read_lines(lines);
  }
  return reader.read();
}

}  // namespace talvik::texts
