#include "strings_exchange.hpp"

#include <cstdint>
#include <cstring>
#include <iterator>
#include <string_view>
#include <utility>

#include "agreement.hpp"

namespace talvik::tool {
namespace {

// Each string behind its length.
void pack(std::string& bytes, std::string_view text) {
  const std::uint64_t length = text.size();
  bytes.append(reinterpret_cast<const char*>(&length), sizeof length);
  bytes += text;
}

std::string unpack(std::string_view& bytes) {
  std::uint64_t length = 0;
  std::memcpy(&length, bytes.data(), sizeof length);
  std::string text(bytes.substr(sizeof length, length));
  bytes.remove_prefix(sizeof length + length);
  return text;
}

}  // namespace

std::vector<Text> texts_from_first_process(std::vector<Text> texts) {
  if (num_procs <= 1) return texts;
  std::string packed;
  for (const Text& text : texts) {
    pack(packed, text.id);
    pack(packed, text.text);
    pack(packed, text.label ? "+" + *text.label : "");
    pack(packed, text.place);
  }
  packed = from_first_process(packed);
  if (myid == 0) return texts;
  texts.clear();
  for (std::string_view rest = packed; !rest.empty();) {
    Text& text = texts.emplace_back();
    text.id = unpack(rest);
    text.text = unpack(rest);
    if (const std::string label = unpack(rest); !label.empty()) text.label = label.substr(1);
    text.place = unpack(rest);
  }
  return texts;
}

std::vector<std::string> strings_of_all(std::span<const std::string> own) {
  if (num_procs <= 1) return {own.begin(), own.end()};
  std::string packed;
  for (const std::string& text : own) pack(packed, text);
  std::vector<std::string> all;
  for (int root = 0; root < num_procs; ++root) {
    const std::string part = from_process(packed, root);
    if (myid != 0) continue;
    for (std::string_view rest = part; !rest.empty();) all.push_back(unpack(rest));
  }
  return all;
}

}  // namespace talvik::tool
