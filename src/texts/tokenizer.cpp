// Characters are classified, lowered and composed by utf8proc.
#include "texts/tokenizer.hpp"

#include <fmt/core.h>
#include <utf8proc.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

namespace talvik::texts {
namespace {

constexpr utf8proc_int32_t replacement = 0xFFFD;

// The character at `at`, and moves on; an invalid sequence gives the replacement character.
utf8proc_int32_t next_character(std::string_view text, size_t& at, Count& replaced) {
  const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  utf8proc_int32_t character = 0;
  const auto length =
      utf8proc_iterate(bytes + at, static_cast<utf8proc_ssize_t>(text.size() - at), &character);
  if (length > 0) {
    at += static_cast<size_t>(length);
    return character;
  }
  ++replaced;
  const auto continues = [&] { return at < text.size() && (bytes[at] & 0xC0) == 0x80; };
  do ++at;
  while (continues());
  return replacement;
}

void append(std::string& text, utf8proc_int32_t character) {
  utf8proc_uint8_t bytes[4];
  const auto length = utf8proc_encode_char(character, bytes);
  text.append(reinterpret_cast<const char*>(bytes), static_cast<size_t>(length));
}

enum class Role { letter, other_of_word, apostrophe, hyphen, nothing, separator };

Role role_of(utf8proc_int32_t c) {
  constexpr utf8proc_int32_t right_quote = 0x2019, modifier_apostrophe = 0x02BC;
  constexpr utf8proc_int32_t hyphen = 0x2010, non_breaking_hyphen = 0x2011;
  if (c == '\'' || c == right_quote || c == modifier_apostrophe) return Role::apostrophe;
  if (c == '-' || c == hyphen || c == non_breaking_hyphen) return Role::hyphen;
  switch (utf8proc_category(c)) {
    case UTF8PROC_CATEGORY_LU:
    case UTF8PROC_CATEGORY_LL:
    case UTF8PROC_CATEGORY_LT:
    case UTF8PROC_CATEGORY_LM:
    case UTF8PROC_CATEGORY_LO:
      return Role::letter;
    case UTF8PROC_CATEGORY_MN:
    case UTF8PROC_CATEGORY_MC:
    case UTF8PROC_CATEGORY_ME:
    case UTF8PROC_CATEGORY_ND:
      return Role::other_of_word;
    case UTF8PROC_CATEGORY_CF:
      return Role::nothing;
    default:
      return Role::separator;
  }
}

// Marks and their letter as one character where there is one: vocabularies are composed.
std::string composed(std::string word) {
  const bool ascii =
      std::all_of(word.begin(), word.end(), [](unsigned char c) { return c < 0x80; });
  if (ascii) return word;
  const std::unique_ptr<utf8proc_uint8_t, void (*)(void*)> text(
      utf8proc_NFC(reinterpret_cast<const utf8proc_uint8_t*>(word.c_str())), std::free);
  if (!text) throw std::bad_alloc();
  return reinterpret_cast<const char*>(text.get());
}

std::string lowered(std::string_view word) {
  std::string lower;
  Count none = 0;
  for (size_t at = 0; at < word.size();) {
    append(lower, utf8proc_tolower(next_character(word, at, none)));
  }
  return lower;
}

int length_of(std::string_view word) {
  int characters = 0;
  for (const char c : word) characters += (c & 0xC0) != 0x80;
  return characters;
}

// A lower-case letter may compose with a mark that its capital left alone.
std::string lower_case(std::string_view word) { return composed(lowered(word)); }

}  // namespace

// Words joined by hyphens, under construction.
struct Tokenizer::Compound {
  std::vector<std::string> parts;
  std::vector<char> has_letter;  // one per part, as bool
  bool cut = false;              // an apostrophe has ended it, what follows is left out
};

Tokenizer::Tokenizer(const TextRules& rules, HasWord vocabulary)
    : keep_case_(rules.keep_case),
      min_length_(rules.min_length),
      stop_words_(rules.stop_words.begin(), rules.stop_words.end()),
      vocabulary_(std::move(vocabulary)) {}

void Tokenizer::add(const std::string& part, std::vector<std::string>& tokens) const {
  const std::string word = composed(part);
  const std::string lower = lower_case(word);
  if (length_of(word) < min_length_) return;
  if (stop_words_.contains(lower)) return;
  tokens.push_back(keep_case_ ? word : lower);
}

void Tokenizer::finish(Compound& compound, std::vector<std::string>& tokens) const {
  if (compound.parts.size() > 1 && vocabulary_) {
    std::string whole;
    bool letter = false;
    for (size_t i = 0; i < compound.parts.size(); ++i) {
      whole += (i > 0 ? "-" : "") + compound.parts[i];
      letter = letter || compound.has_letter[i];
    }
    const std::string word = composed(whole);
    if (letter && vocabulary_(keep_case_ ? word : lower_case(word))) {
      add(whole, tokens);
      compound = {};
      return;
    }
  }
  for (size_t i = 0; i < compound.parts.size(); ++i) {
    if (compound.has_letter[i]) add(compound.parts[i], tokens);
  }
  compound = {};
}

std::vector<std::string> Tokenizer::tokens(std::string_view text, Count& replaced) const {
  std::vector<std::string> tokens;
  Compound compound;
  bool in_word = false;         // the character before belongs to a word
  bool hyphen_pending = false;  // joins two words if the next character belongs to one
  for (size_t at = 0; at < text.size();) {
    const utf8proc_int32_t character = next_character(text, at, replaced);
    const Role role = role_of(character);
    if (role == Role::nothing) continue;
    if (role == Role::letter || role == Role::other_of_word) {
      if (!in_word) {
        if (!hyphen_pending) finish(compound, tokens);
        compound.parts.emplace_back();
        compound.has_letter.push_back(false);
      }
      if (!compound.cut) {
        append(compound.parts.back(), character);
        if (role == Role::letter) compound.has_letter.back() = true;
      }
      in_word = true;
      hyphen_pending = false;
      continue;
    }
    if (role == Role::apostrophe && in_word) {
      compound.cut = true;
      continue;
    }
    hyphen_pending = role == Role::hyphen && in_word && !compound.cut;
    if (!hyphen_pending) finish(compound, tokens);
    in_word = false;
  }
  finish(compound, tokens);
  return tokens;
}

std::string valid_utf8(std::string_view text, Count& replaced) {
  std::string valid;
  valid.reserve(text.size());
  for (size_t at = 0; at < text.size();) append(valid, next_character(text, at, replaced));
  return valid;
}

bool is_valid_utf8(std::string_view text) {
  Count replaced = 0;
  valid_utf8(text, replaced);
  return replaced == 0;
}

std::string printable(std::string_view text) {
  std::string shown;
  for (const unsigned char byte : text) {
    constexpr unsigned char delete_character = 0x7F;
    if (byte < ' ' || byte == delete_character) {
      shown += fmt::format("\\x{:02x}", byte);
    } else {
      shown += static_cast<char>(byte);
    }
  }
  Count replaced = 0;
  return valid_utf8(shown, replaced);
}

}  // namespace talvik::texts
