#include "text_sources.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>  // istreambuf_iterator
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "input_files.hpp"
#include "run_error.hpp"
#include "text_lines.hpp"
#include "tokenizer.hpp"

namespace talvik::tool {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view replacement_character = "\xEF\xBF\xBD";  // U+FFFD

using TextHandler = std::function<void(const SourceText&)>;

std::string trimmed(std::string_view text) {
  constexpr const char* blanks = " \t\r\n";
  const size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return "";
  return std::string(text.substr(first, text.find_last_not_of(blanks) - first + 1));
}

std::string whole_file(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text;
  if (file) text.assign(std::istreambuf_iterator<char>(file), {});
  if (!file || file.bad()) {
    throw RunError(printable(path.string()) + ": cannot be read: " + std::strerror(errno));
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
  if (error) throw RunError(root.string() + ": cannot be listed: " + error.message());
  std::sort(files.begin(), files.end());
  return files;
}

void read_tree(const fs::path& root, ReadTexts& read, const TextHandler& handle) {
  for (const fs::path& file : files_below(root)) {
    if (!file.has_parent_path()) {
      ++read.classless;
      continue;
    }
    handle({.source = file.string(),
            .label = file.begin()->string(),
            .text = whole_file(root / file),
            .place = printable((root / file).string())});
  }
}

// Calls handle_line(line, where) for every line that is not blank; where names file and line
// without the folder.
template <class HandleLine>
void for_each_line(const std::string& path, const HandleLine& handle_line) {
  TextLines lines(path);
  const std::string name = fs::path(path).filename().string();
  for (std::string line; lines.next(line);) {
    if (trimmed(line).empty()) continue;
    handle_line(line, fmt::format("{}:{}", name, lines.number()), lines.place());
  }
}

void read_tsv(const std::string& path, const TextHandler& handle) {
  for_each_line(path,
                [&](const std::string& line, const std::string& where, const std::string& place) {
                  const size_t tab = line.find('\t');
                  if (tab == std::string::npos)
                    throw RunError(place + ": no tab between label and text");
                  handle({.source = where,
                          .label = trimmed(line.substr(0, tab)),
                          .text = line.substr(tab + 1),
                          .place = place});
                });
}

// A text or whole number of a JSON object, as text.
std::string member(const nlohmann::json& object, const char* name, const std::string& place) {
  const auto found = object.find(name);
  if (found == object.end()) throw RunError(fmt::format("{}: no \"{}\"", place, name));
  if (found->is_string()) return found->get<std::string>();
  if (found->is_number_integer()) return found->dump();
  throw RunError(fmt::format("{}: \"{}\" is neither a text nor a whole number", place, name));
}

nlohmann::json object_of(const std::string& line, const std::string& place, ReadTexts& read) {
  nlohmann::json object;
  try {
    object = nlohmann::json::parse(valid_utf8(line, read.replaced));
  } catch (const nlohmann::json::parse_error& error) {
    throw RunError(fmt::format("{}: no valid JSON at byte {}", place, error.byte));
  } catch (const nlohmann::json::out_of_range&) {
    throw RunError(place + ": a number that is too large");
  }
  if (!object.is_object()) throw RunError(place + ": not a JSON object");
  return object;
}

void read_jsonl(const std::string& path, ReadTexts& read, const TextHandler& handle) {
  for_each_line(
      path, [&](const std::string& line, const std::string& where, const std::string& place) {
        const long long replaced_before = read.replaced;
        const nlohmann::json object = object_of(line, place, read);
        const std::string label = trimmed(member(object, "label", place));
        const bool repaired = read.replaced > replaced_before;
        // Labels that differ in invalid bytes would become one class.
        if (repaired && label.find(replacement_character) != std::string::npos) {
          throw RunError(
              fmt::format("{}: the class name \"{}\" is not valid UTF-8", place, printable(label)));
        }
        handle({.source = object.contains("id") ? member(object, "id", place) : where,
                .label = label,
                .text = member(object, "text", place),
                .place = place});
      });
}

TextsFormat format_of(const std::string& input, TextsFormat asked) {
  std::error_code error;
  const bool directory = fs::is_directory(input, error);
  TextsFormat format = asked;
  if (format == TextsFormat::automatic) {
    std::string name = input;
    if (name.ends_with(".gz")) name.resize(name.size() - std::strlen(".gz"));
    const bool json = name.ends_with(".jsonl") || name.ends_with(".ndjson");
    format = directory ? TextsFormat::tree : json ? TextsFormat::jsonl : TextsFormat::tsv;
  }
  if (format == TextsFormat::tree) {
    require_directory(input, "a directory of classes");
  } else {
    require_file(input);
  }
  return format;
}

}  // namespace

ReadTexts read_texts(const std::string& input, TextsFormat format, const TextHandler& handle) {
  ReadTexts read;
  switch (format_of(input, format)) {
    case TextsFormat::tree:
      read_tree(input, read, handle);
      break;
    case TextsFormat::jsonl:
      read_jsonl(input, read, handle);
      break;
    case TextsFormat::tsv:
    case TextsFormat::automatic:
      read_tsv(input, handle);
  }
  return read;
}

}  // namespace talvik::tool
