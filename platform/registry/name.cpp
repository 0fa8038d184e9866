#include "registry/name.h"

#include <string.h>

#include <algorithm>
#include <bit>

#include "base/utf8.h"

namespace tkv::registry {
namespace {

constexpr char kSeparator = '.';

constexpr std::size_t kLongestShown = 256;  // bytes of a name that messages show in full
constexpr std::size_t kShownEnd = 120;      // bytes of each end otherwise

unsigned char byte_at(std::string_view text, std::size_t at) {
  return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
}

bool is_trail(unsigned char byte) { return (byte & 0xc0) == 0x80; }

// Eight bytes of a text, the first of them lowest.
std::uint64_t word_at(std::string_view text, std::size_t at) {
  std::uint64_t word = 0;
  std::memcpy(&word, text.data() + at, sizeof word);
  return std::endian::native == std::endian::little ? word : __builtin_bswap64(word);
}

// The number of bytes of a word before the first one that is a separator, zero or above 0x7f. A byte of the difference
// borrows only from those after a zero, so the first one that is found is right.
std::size_t plain_bytes(std::uint64_t word) {
  constexpr std::uint64_t kOnes = 0x0101010101010101;
  constexpr std::uint64_t kHighBits = 0x80 * kOnes;
  const auto zeros = [](std::uint64_t bytes) { return (bytes - kOnes) & ~bytes; };
  const std::uint64_t found = (word | zeros(word) | zeros(word ^ kSeparator * kOnes)) & kHighBits;
  return static_cast<std::size_t>(std::countr_zero(found)) / 8;  // all 8 if there is none
}

// The end of the characters from `at` on that need no further look, which are nearly all of a name: the next byte that
// is a separator, zero or above 0x7f, or the end of the text.
std::size_t plain_end(std::string_view text, std::size_t at) {
  constexpr std::size_t kWord = sizeof(std::uint64_t);
  for (; at + kWord <= text.size(); at += kWord) {
    if (const std::size_t plain = plain_bytes(word_at(text, at)); plain < kWord) return at + plain;
  }
  if (text.size() >= kWord && at < text.size()) {
    // The last word without what comes before `at`. Zeros stand for the end.
    const std::size_t left = text.size() - at;
    return at + plain_bytes(word_at(text, text.size() - kWord) >> 8 * (kWord - left));
  }
  const auto is_plain = [&](unsigned char byte) { return byte != 0 && byte != kSeparator && byte < 0x80; };
  while (at < text.size() && is_plain(byte_at(text, at))) ++at;
  return at;
}

// The size of the character at `at`. A character that is not well-formed modified UTF-8, or is NUL, has none.
std::size_t character_size(std::string_view text, std::size_t at) {
  const Utf8Character character = decode_utf8(text.substr(at), Utf8::modified);
  return character.code_point == 0 ? 0 : character.size;
}

std::size_t last_separator(std::string_view name) {
  const void* found = name.empty() ? nullptr : ::memrchr(name.data(), kSeparator, name.size());
  if (found == nullptr) return std::string_view::npos;
  return static_cast<std::size_t>(static_cast<const char*>(found) - name.data());
}

Status empty_level() { return {PRTKV_INVALID_NAME, "invalid name: a level is empty"}; }

Status ill_formed() {
  return {PRTKV_INVALID_NAME, "invalid name: a level is not well-formed modified UTF-8 or holds NUL"};
}

Status level_too_long(std::size_t size) {
  return {PRTKV_INVALID_NAME,
          "invalid name: a level has " + std::to_string(size) + " bytes, more than " + std::to_string(kMaxLevelSize)};
}

bool is_level_size(std::size_t size) { return size != 0 && size <= kMaxLevelSize; }

Status wrong_level_size(std::size_t size) { return size == 0 ? empty_level() : level_too_long(size); }

Status too_long(std::size_t size) {
  return {PRTKV_INVALID_NAME,
          "invalid name: " + std::to_string(size) + " bytes, more than " + std::to_string(kMaxNameSize)};
}

Status too_deep(std::size_t levels) {
  return {PRTKV_INVALID_NAME,
          "invalid name: " + std::to_string(levels) + " levels, more than " + std::to_string(kMaxLevels)};
}

std::string_view ending(std::string_view text, std::size_t size) {
  std::size_t at = text.size() - size;
  while (at < text.size() && is_trail(byte_at(text, at))) ++at;
  return text.substr(at);
}

}  // namespace

Status check_name(std::string_view name) {
  if (name.size() > kMaxNameSize) return too_long(name.size());
  if (name.empty()) return {};
  std::size_t start = 0;  // of the level
  std::size_t levels = 1;
  std::size_t at = 0;
  while ((at = plain_end(name, at)) < name.size()) {
    if (name[at] == kSeparator) {
      if (!is_level_size(at - start)) return wrong_level_size(at - start);
      ++levels;
      start = ++at;
    } else {
      const std::size_t size = character_size(name, at);
      if (size == 0) return ill_formed();
      at += size;
    }
  }
  if (!is_level_size(at - start)) return wrong_level_size(at - start);
  return levels > kMaxLevels ? too_deep(levels) : Status();
}

Status check_relative_name(std::string_view name) {
  if (name.empty()) return {PRTKV_INVALID_NAME, "invalid name: it is empty"};
  return check_name(name);
}

std::string_view take_level(std::string_view* rest) {
  const std::size_t end = std::min(rest->find(kSeparator), rest->size());
  const std::string_view level = rest->substr(0, end);
  rest->remove_prefix(std::min(end + 1, rest->size()));
  return level;
}

std::string_view parent_of(std::string_view name) {
  const std::size_t end = last_separator(name);
  return name.substr(0, end == std::string_view::npos ? 0 : end);
}

std::string_view last_level(std::string_view name) { return name.substr(last_separator(name) + 1); }

std::size_t count_levels(std::string_view name) {
  return name.empty() ? 0 : 1 + static_cast<std::size_t>(std::count(name.begin(), name.end(), kSeparator));
}

bool is_within(std::string_view name, std::string_view ancestor) {
  if (ancestor.empty()) return true;
  return name.starts_with(ancestor) && (name.size() == ancestor.size() || name[ancestor.size()] == kSeparator);
}

bool name_before(std::string_view left, std::string_view right) {
  // No level holds a NUL, so the separator may sort below every byte of a level.
  const auto rank = [](char byte) {
    return byte == kSeparator ? 0 : static_cast<int>(static_cast<unsigned char>(byte));
  };
  return std::lexicographical_compare(left.begin(), left.end(), right.begin(), right.end(),
                                      [&](char one, char other) { return rank(one) < rank(other); });
}

std::string_view beginning(std::string_view text, std::size_t size) {
  if (size >= text.size()) return text;
  while (size > 0 && is_trail(byte_at(text, size))) --size;
  return text.substr(0, size);
}

Status FullName::join(std::string_view parent, std::string_view relative) {
  const std::size_t separator = parent.empty() || relative.empty() ? 0 : 1;
  const std::size_t size = parent.size() + separator + relative.size();
  const std::size_t levels = count_levels(parent) + count_levels(relative);
  if (size > kMaxNameSize) return too_long(size);
  if (levels > kMaxLevels) return too_deep(levels);
  char* end = std::copy(parent.begin(), parent.end(), bytes_.data());
  if (separator != 0) *end++ = kSeparator;
  std::copy(relative.begin(), relative.end(), end);
  size_ = size;
  return {};
}

std::string describe(std::string_view name) {
  if (name.empty()) return "the root key";
  std::string text = "key '";
  if (name.size() <= kLongestShown) {
    text.append(name);
  } else {
    text.append(beginning(name, kShownEnd)).append("...").append(ending(name, kShownEnd));
  }
  return text.append("'");
}

}  // namespace tkv::registry
