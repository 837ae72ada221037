// Conversion of word vectors from text to the embedding file.
#include "text_vectors.hpp"

#include <fmt/core.h>
#include <unistd.h>  // getpid

#include <algorithm>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string_view>

#include "run_error.hpp"
#include "text_lines.hpp"

namespace talvik::tool {
namespace {

static_assert(std::endian::native == std::endian::little, "floats are written as they lie");

constexpr size_t zero_words_named = 5;
constexpr int unannounced_count_digits = 10;  // room for the count of a file without a header

struct Header {
  long long words, dimensions;
};

std::vector<std::string_view> fields_of(std::string_view line) {
  std::vector<std::string_view> fields;
  for (size_t at = 0; at < line.size();) {
    const size_t begin = line.find_first_not_of(" \t", at);
    if (begin == std::string_view::npos) break;
    const size_t end = std::min(line.find_first_of(" \t", begin), line.size());
    fields.push_back(line.substr(begin, end - begin));
    at = end;
  }
  return fields;
}

template <class Number>
std::optional<Number> whole_field(std::string_view field) {
  Number value{};
  const auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), value);
  if (error != std::errc() || end != field.data() + field.size()) return std::nullopt;
  return value;
}

// A number, finite or not; what is too small for a float becomes 0.
std::optional<float> number_of(std::string_view field) {
  if (!field.empty() && field.front() == '+') field.remove_prefix(1);
  if (const auto value = whole_field<float>(field)) return value;
  if (const auto wide = whole_field<double>(field)) return static_cast<float>(*wide);
  return std::nullopt;
}

std::optional<Header> header_of(const std::vector<std::string_view>& fields) {
  if (fields.size() != 2) return std::nullopt;
  const auto words = whole_field<long long>(fields[0]);
  const auto dimensions = whole_field<long long>(fields[1]);
  if (!words || !dimensions || *words < 1 || *dimensions < 1) return std::nullopt;
  return Header{*words, *dimensions};
}

// Raw floats are full of bytes that no text holds.
bool looks_binary(std::string_view line) {
  return std::any_of(line.begin(), line.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && c != '\t' && c != '\r') || byte == 0x7F;
  });
}

// The output under a temporary name, renamed at the end.
class EmbeddingFile {
 public:
  EmbeddingFile(const std::string& path, int count_digits)
      : path_(path),
        temporary_(fmt::format("{}.partial-{}", path, getpid())),
        count_digits_(count_digits) {
    if (std::filesystem::is_directory(path)) {
      throw RunError(path + ": is a directory, the name of a file was expected");
    }
    file_ = std::fopen(temporary_.c_str(), "wb");
    if (!file_) throw RunError(path + ": cannot be created: " + std::strerror(errno));
  }
  ~EmbeddingFile() {
    if (file_) std::fclose(file_);
    if (!temporary_.empty()) std::remove(temporary_.c_str());
  }
  EmbeddingFile(const EmbeddingFile&) = delete;
  EmbeddingFile& operator=(const EmbeddingFile&) = delete;

  void header(long long words, long long dimensions) {
    write(fmt::format("{:>{}} {}\n", words, count_digits_, dimensions));
  }
  void record(std::string_view word, const std::vector<float>& row) {
    write(word);
    write(" ");
    write({reinterpret_cast<const char*>(row.data()), row.size() * sizeof(float)});
    write("\n");
  }
  // Writes the header again, over the one that stood for it, and puts the file into place.
  void commit(long long words, long long dimensions) {
    std::rewind(file_);
    header(words, dimensions);
    std::FILE* file = file_;
    file_ = nullptr;
    if (std::fclose(file) != 0) fail("written");
    if (std::rename(temporary_.c_str(), path_.c_str()) != 0) fail("put into place");
    temporary_.clear();
  }

 private:
  [[noreturn]] void fail(const char* what) {
    throw RunError(fmt::format("{}: cannot be {}: {}", path_, what, std::strerror(errno)));
  }
  void write(std::string_view bytes) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size()) fail("written");
  }

  std::string path_, temporary_;
  int count_digits_;
  std::FILE* file_ = nullptr;
};

// Dimensions of a file without a header: the numbers at the end of its first row.  At least one
// field is left for the word, and a word may hold spaces.
long long numbers_at_end(const std::vector<std::string_view>& fields) {
  size_t count = 0;
  while (count + 1 < fields.size() && number_of(fields[fields.size() - 1 - count])) ++count;
  return static_cast<long long>(count);
}

// The numbers of a row, which are its last `row.size()` fields.
void read_row(const std::vector<std::string_view>& fields, const std::string& place,
              std::vector<float>& row) {
  const size_t numbers = fields.empty() ? 0 : fields.size() - 1;
  if (numbers < row.size()) {
    throw RunError(fmt::format("{}: {} numbers, {} were expected", place, numbers, row.size()));
  }
  const size_t first = fields.size() - row.size();
  for (size_t j = 0; j < row.size(); ++j) {
    const std::string_view field = fields[first + j];
    const auto value = number_of(field);
    if (!value) throw RunError(fmt::format("{}: \"{}\" is not a number", place, field));
    if (!std::isfinite(*value)) {
      throw RunError(fmt::format("{}: \"{}\" is not a finite 32-bit number", place, field));
    }
    row[j] = *value;
  }
  // A word with a space in it is usual, one that ends in a number is a row that is too long.
  if (first > 1 && number_of(fields[first - 1])) {
    throw RunError(fmt::format("{}: more than {} numbers", place, row.size()));
  }
}

std::unordered_set<std::string> read_word_list(const std::string& path) {
  std::unordered_set<std::string> words;
  TextLines lines(path);
  for (std::string line; lines.next(line);) {
    if (!line.empty()) words.insert(line);
  }
  if (words.empty()) throw RunError(path + ": holds no words");
  return words;
}

// Counts a row and tells whether it is to be written.
bool wanted(std::string_view line, const std::vector<std::string_view>& fields,
            const ConvertOptions& options, const std::unordered_set<std::string>& listed,
            std::unordered_set<std::string>& seen, ConvertSummary& summary) {
  const bool whole = line.front() != ' ' && line.front() != '\t' &&
                     fields.size() == static_cast<size_t>(summary.dimensions) + 1;
  if (!whole) return ++summary.with_space, false;
  const std::string word(fields.front());
  if (!options.words.empty() && !listed.contains(word)) return ++summary.not_listed, false;
  if (!seen.insert(word).second) return ++summary.duplicates, false;
  return true;
}

void note_zero_row(std::string_view word, const std::vector<float>& row, ConvertSummary& summary) {
  if (std::any_of(row.begin(), row.end(), [](float value) { return value != 0; })) return;
  if (summary.zero_words.size() < zero_words_named) summary.zero_words.emplace_back(word);
  ++summary.zero_rows;
}

std::string progress_text(const TextLines& lines, const StatusLine& status) {
  const double fraction = lines.fraction();
  const double seconds = status.seconds();
  const std::string rows = fmt::format("{} rows, {:.0f} rows/s", lines.number(),
                                       static_cast<double>(lines.number()) / seconds);
  if (fraction <= 0) return rows;
  return fmt::format("{:.0f} %, {}, {:.0f} s left", 100 * fraction, rows,
                     seconds * (1 - fraction) / fraction);
}

}  // namespace

ConvertSummary convert_text_vectors(const ConvertOptions& options) {
  const std::string& input = options.input;
  std::error_code ignored;
  if (std::filesystem::equivalent(input, options.output, ignored)) {
    throw RunError(input + ": is both input and output");
  }
  std::unordered_set<std::string> listed;
  if (!options.words.empty()) listed = read_word_list(options.words);

  TextLines lines(input);
  std::string line;
  if (!lines.next(line)) throw RunError(input + ": is empty");
  auto fields = fields_of(line);
  std::optional<Header> header;
  if (options.format != VectorFormat::without_header) header = header_of(fields);
  if (!header && options.format == VectorFormat::with_header) {
    throw RunError(lines.place() +
                   ": no header of two whole numbers, words and dimensions (a file of the format "
                   "glove has none)");
  }

  ConvertSummary summary;
  summary.dimensions = header ? header->dimensions : numbers_at_end(fields);
  if (summary.dimensions < 1) throw RunError(lines.place() + ": no word followed by numbers");
  bool more = true;
  if (header) {
    more = lines.next(line);
    if (more && looks_binary(line)) {
      throw RunError(fmt::format("{}: is an embedding file already ({} words, {} dimensions)",
                                 input, header->words, header->dimensions));
    }
    // The dimensions size no array before a row has shown that many numbers.
    const auto numbers = static_cast<long long>(fields_of(line).size()) - 1;
    if (more && numbers < summary.dimensions) {
      throw RunError(fmt::format("{}: {} numbers, the header announces {}", lines.place(), numbers,
                                 summary.dimensions));
    }
  }

  EmbeddingFile output(options.output, header
                                           ? static_cast<int>(std::to_string(header->words).size())
                                           : unannounced_count_digits);
  output.header(0, summary.dimensions);
  std::vector<float> row(more ? static_cast<size_t>(summary.dimensions) : 0);
  std::unordered_set<std::string> seen;
  StatusLine status;
  long long rows = 0, blank_line = 0;
  for (; more; more = lines.next(line)) {
    fields = fields_of(line);
    if (fields.empty()) {  // harmless at the end of the file
      blank_line = lines.number();
      continue;
    }
    if (blank_line > 0) throw RunError(fmt::format("{}:{}: an empty line", input, blank_line));
    if (header && rows == header->words) {
      throw RunError(fmt::format("{}: a row more than the {} that the header announces",
                                 lines.place(), header->words));
    }
    ++rows;
    read_row(fields, lines.place(), row);
    if (!wanted(line, fields, options, listed, seen, summary)) continue;
    note_zero_row(fields.front(), row, summary);
    output.record(fields.front(), row);
    ++summary.words;
    status.show([&] { return progress_text(lines, status); });
  }
  if (header && rows < header->words) {
    throw RunError(fmt::format("{}: the header announces {} words, the file holds {}", input,
                               header->words, rows));
  }
  if (summary.words == 0) {
    throw RunError(options.words.empty() ? input + ": holds no word that can be written"
                                         : input + ": holds no word of " + options.words);
  }
  if (!listed.empty()) {
    summary.listed_not_found = static_cast<long long>(listed.size()) - summary.words;
  }
  output.commit(summary.words, summary.dimensions);
  return summary;
}

std::unordered_set<std::string> read_embedding_words(const std::string& path) {
  require_file(path);
  std::ifstream file(path, std::ios::binary);
  if (!file) throw RunError(path + ": cannot be opened: " + std::strerror(errno));
  long long count = 0, dimensions = 0;
  if (!(file >> count >> dimensions) || count < 1 || dimensions < 1) {
    throw RunError(path + ": is no embedding file: it does not begin with two whole numbers");
  }
  const auto size = static_cast<long long>(std::filesystem::file_size(path));
  constexpr auto float_bytes = static_cast<long long>(sizeof(float));
  if (dimensions > size / float_bytes || count > size / (dimensions * float_bytes)) {
    throw RunError(
        fmt::format("{}: announces {} words of {} floats, which is more than its {} bytes", path,
                    count, dimensions, size));
  }
  std::unordered_set<std::string> words;
  words.reserve(static_cast<size_t>(count));
  std::string word;
  for (long long i = 0; i < count; ++i) {
    if (file.peek() == '\n') file.get();
    std::getline(file, word, ' ');
    file.ignore(dimensions * float_bytes);
    if (!file || file.gcount() != dimensions * float_bytes) {
      throw RunError(
          fmt::format("{}: ends within record {} of the {} that it announces", path, i + 1, count));
    }
    words.insert(word);
  }
  return words;
}

}  // namespace talvik::tool
