#include "npz.hpp"

#include <fmt/core.h>
#include <zip.h>

#include <algorithm>
#include <bit>
#include <memory>
#include <string>
#include <vector>

#include "npy.hpp"
#include "run_error.hpp"
#include "texts/tokenizer.hpp"

namespace talvik::tool {
namespace {

static_assert(std::endian::native == std::endian::little);  // the arrays are little-endian

[[noreturn]] void fail(const char* reason) {
  throw RunError(std::string("the zip archive cannot be made: ") + reason);
}

// An archive in memory.
class Archive {
 public:
  Archive() {
    zip_error_init(&error_);
    source_ = zip_source_buffer_create(nullptr, 0, 0, &error_);
    if (!source_) fail(zip_error_strerror(&error_));
    zip_source_keep(source_);  // for reading what the archive leaves in it
    zip_ = zip_open_from_source(source_, ZIP_TRUNCATE, &error_);
    if (!zip_) {
      zip_source_free(source_);
      zip_source_free(source_);
      fail(zip_error_strerror(&error_));
    }
  }
  ~Archive() {
    if (zip_) zip_discard(zip_);
    zip_source_free(source_);
    zip_error_fini(&error_);
  }
  Archive(const Archive&) = delete;
  Archive& operator=(const Archive&) = delete;

  /// @param bytes  stay until the archive is written
  void add(const std::string& name, const std::string& bytes) {
    zip_source_t* const data = zip_source_buffer(zip_, bytes.data(), bytes.size(), 0);
    const zip_int64_t at = data ? zip_file_add(zip_, name.c_str(), data, ZIP_FL_ENC_UTF_8) : -1;
    if (at < 0) {
      zip_source_free(data);
      fail(zip_strerror(zip_));
    }
    constexpr zip_uint16_t midnight = 0,
                           first_day = 1 << 5 | 1;  // of 1980, where zip's time begins
    if (zip_set_file_compression(zip_, at, ZIP_CM_STORE, 0) != 0 ||
        zip_file_set_dostime(zip_, at, midnight, first_day, 0) != 0) {
      fail(zip_strerror(zip_));
    }
  }

  void write(const std::function<void(std::string_view)>& write) {
    if (zip_close(zip_) != 0) fail(zip_strerror(zip_));
    zip_ = nullptr;
    if (zip_source_open(source_) != 0) fail(zip_error_strerror(zip_source_error(source_)));
    std::vector<char> piece(size_t{1} << 20);
    zip_int64_t read = 0;
    while ((read = zip_source_read(source_, piece.data(), piece.size())) > 0) {
      write({piece.data(), static_cast<size_t>(read)});
    }
    zip_source_close(source_);
    if (read < 0) fail(zip_error_strerror(zip_source_error(source_)));
  }

 private:
  zip_error_t error_{};
  zip_source_t* source_ = nullptr;
  zip_t* zip_ = nullptr;
};

template <class Value>
std::string array(const char* type, const std::string& shape, const std::vector<Value>& values) {
  std::string bytes = npy_header(type, shape);
  bytes.append(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(Value));
  return bytes;
}

std::string shape_of(size_t length) { return fmt::format("({},)", length); }

// The code points of a text; U+FFFD for what is no UTF-8.
std::u32string code_points(const std::string& text) {
  constexpr int bits_a_byte = 6, all_bits = 0x7F, low_bits = 0x3F;
  Count replaced = 0;
  const std::string valid = texts::valid_utf8(text, replaced);
  std::u32string points;
  for (size_t at = 0; at < valid.size();) {
    const auto lead = static_cast<unsigned char>(valid[at++]);
    const int length = std::countl_one(lead);  // 0 of ASCII
    char32_t point = lead & (all_bits >> length);
    for (int i = 1; i < length; ++i) {
      point = point << bits_a_byte | (static_cast<unsigned char>(valid[at++]) & low_bits);
    }
    points.push_back(point);
  }
  return points;
}

// Texts of equal length in UTF-32, filled up with zeros: what NumPy reads without pickle.
std::string text_array(std::span<const std::string> texts) {
  std::vector<std::u32string> decoded;
  size_t longest = 1;
  for (const std::string& text : texts) {
    longest = std::max(longest, decoded.emplace_back(code_points(text)).size());
  }
  std::string bytes = npy_header(fmt::format("<U{}", longest), shape_of(texts.size()));
  for (std::u32string& text : decoded) {
    text.resize(longest, U'\0');
    bytes.append(reinterpret_cast<const char*>(text.data()), longest * sizeof(char32_t));
  }
  return bytes;
}

}  // namespace

void write_npz(const NeighboursFile& file, const Neighbours& neighbours,
               const std::function<void(std::string_view)>& write) {
  const Count queries = neighbours.num_queries();
  const size_t places = neighbours.documents.size();
  const std::string shape =
      file.ragged ? shape_of(places)
                  : fmt::format("({}, {})", queries, places / std::max<Count>(queries, 1));
  const std::string ids = text_array(file.ids), names = text_array(file.queries);
  const std::string indices = array("<i8", shape, neighbours.documents);
  const std::string distances = neighbours.exact.empty() ? array("<f4", shape, neighbours.distances)
                                                         : array("<f8", shape, neighbours.exact);
  const std::string offsets =
      file.ragged ? array("<i8", shape_of(neighbours.offsets.size()), neighbours.offsets) : "";
  Archive archive;
  archive.add("ids.npy", ids);
  archive.add("queries.npy", names);
  if (file.ragged) archive.add("offsets.npy", offsets);
  archive.add("indices.npy", indices);
  archive.add("distances.npy", distances);
  archive.write(write);
}

}  // namespace talvik::tool
