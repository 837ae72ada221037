#include "corpus_writer.hpp"

#include <fmt/core.h>

#include <algorithm>
#include <filesystem>
#include <string_view>

#include "run_error.hpp"
#include "texts/tokenizer.hpp"

namespace talvik::tool {
namespace {

namespace fs = std::filesystem;

constexpr const char* list_name = "documents.tsv";

bool is_control_character(char c) {
  constexpr char delete_character = 0x7F;
  return static_cast<unsigned char>(c) < ' ' || c == delete_character;
}

}  // namespace

void require_class_name(const std::string& label, const std::string& place) {
  constexpr size_t longest_file_name = 255;
  const char* problem = nullptr;
  if (label.empty()) {
    problem = "is empty";
  } else if (label == "." || label == "..") {
    problem = "cannot name a directory";
  } else if (label == list_name) {
    problem = "is the name of the list of documents";
  } else if (label.find('/') != std::string::npos) {
    problem = "holds a path separator";
  } else if (std::any_of(label.begin(), label.end(), is_control_character)) {
    throw RunError(place + ": the class name holds a control character");
  } else if (!texts::is_valid_utf8(label)) {
    problem = "is not valid UTF-8";
  } else if (label.size() > longest_file_name) {
    throw RunError(
        fmt::format("{}: the class name is longer than {} bytes", place, longest_file_name));
  }
  if (problem) {
    throw RunError(
        fmt::format("{}: the class name \"{}\" {}", place, texts::printable(label), problem));
  }
}

CorpusWriter::CorpusWriter(const std::string& path)
    : directory_(path), list_(fs::path(directory_.temporary()) / list_name, std::ios::binary) {
  list_ << "id\tsource\tclass\ttokens_in\ttokens_out\n";
}

void CorpusWriter::write_document(const std::string& label, long long id,
                                  const std::vector<std::string>& tokens) {
  const fs::path directory = fs::path(directory_.temporary()) / label;
  std::error_code error;
  fs::create_directory(directory, error);
  if (error) {
    throw RunError((fs::path(directory_.path()) / label).string() + ": " + error.message());
  }
  std::string text;
  for (const std::string& token : tokens) {
    if (!text.empty()) text += ' ';
    text += token;
  }
  std::ofstream file(directory / std::to_string(id), std::ios::binary);
  file << text;
  if (!file.flush()) directory_.fail_to_write();
}

void CorpusWriter::list_document(const ListedDocument& document) {
  std::string source = document.source;  // a tab or line break would break the table
  std::replace_if(source.begin(), source.end(), is_control_character, ' ');
  list_ << fmt::format("{}\t{}\t{}\t{}\t{}\n", document.id, source, document.label,
                       document.tokens_in, document.tokens_out);
}

void CorpusWriter::commit() {
  list_.close();
  if (!list_) directory_.fail_to_write();
  directory_.commit();
}

}  // namespace talvik::tool
