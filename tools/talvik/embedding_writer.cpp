#include "embedding_writer.hpp"

#include <fmt/core.h>

#include <bit>

namespace talvik::tool {
namespace {

static_assert(std::endian::native == std::endian::little, "floats are written as they lie");

constexpr size_t unknown_count_digits = 10;

}  // namespace

EmbeddingWriter::EmbeddingWriter(const std::string& path, long long most_words,
                                 long long dimensions)
    : file_(path),
      count_digits_(most_words > 0 ? std::to_string(most_words).size() : unknown_count_digits),
      dimensions_(dimensions) {
  write_header();
}

void EmbeddingWriter::write(std::string_view word, const std::vector<float>& vector) {
  file_.write(word);
  file_.write(" ");
  file_.write(vector.data(), vector.size() * sizeof(float));
  file_.write("\n");
  ++words_;
}

void EmbeddingWriter::commit() {
  file_.rewind();
  write_header();
  file_.commit();
}

void EmbeddingWriter::write_header() {
  file_.write(fmt::format("{:>{}} {}\n", words_, count_digits_, dimensions_));
}

}  // namespace talvik::tool
