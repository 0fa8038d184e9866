#include "base/utf8.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace tkv {
namespace {

constexpr Utf8Character kIllFormed{0xFFFD, 0};

std::uint32_t combine(std::uint32_t high, std::uint32_t low) {
  return 0x10000 + ((high - 0xD800) << 10) + (low - 0xDC00);
}

std::uint32_t high_surrogate_of(std::uint32_t code_point) { return 0xD7C0 + (code_point >> 10); }
std::uint32_t low_surrogate_of(std::uint32_t code_point) { return 0xDC00 + (code_point & 0x3FF); }

std::uint32_t byte_at(std::string_view text, std::size_t index) { return static_cast<unsigned char>(text[index]); }

// Whether `count` continuation bytes follow the first byte.
bool is_continued(std::string_view text, std::size_t count) {
  if (text.size() <= count) return false;
  return std::all_of(text.begin() + 1, text.begin() + 1 + static_cast<std::ptrdiff_t>(count),
                     [](char byte) { return (byte & 0xC0) == 0x80; });
}

std::uint32_t low_bits(std::string_view text, std::size_t index) { return byte_at(text, index) & 0x3F; }

Utf8Character decode_two(std::string_view text, Utf8 form) {
  if (!is_continued(text, 1)) return kIllFormed;
  const std::uint32_t code_point = (byte_at(text, 0) & 0x1F) << 6 | low_bits(text, 1);
  const bool is_nul = code_point == 0 && form != Utf8::standard;
  return code_point >= 0x80 || is_nul ? Utf8Character{code_point, 2} : kIllFormed;
}

Utf8Character decode_three(std::string_view text) {
  if (!is_continued(text, 2)) return kIllFormed;
  const std::uint32_t unit = (byte_at(text, 0) & 0x0F) << 12 | low_bits(text, 1) << 6 | low_bits(text, 2);
  return unit >= 0x800 ? Utf8Character{unit, 3} : kIllFormed;
}

Utf8Character decode_four(std::string_view text) {
  if (!is_continued(text, 3)) return kIllFormed;
  const std::uint32_t code_point =
      (byte_at(text, 0) & 0x07) << 18 | low_bits(text, 1) << 12 | low_bits(text, 2) << 6 | low_bits(text, 3);
  return code_point >= 0x10000 && code_point <= 0x10FFFF ? Utf8Character{code_point, 4} : kIllFormed;
}

bool begins_three(std::string_view text) { return !text.empty() && (byte_at(text, 0) & 0xF0) == 0xE0; }

// Combines a high surrogate with the low one in `rest`, or returns it as it is if none follows.
Utf8Character with_partner(Utf8Character high, std::string_view rest) {
  const Utf8Character low = begins_three(rest) ? decode_three(rest) : kIllFormed;
  if (low.size == 0 || !is_low_surrogate(low.code_point)) return high;
  return {combine(high.code_point, low.code_point), high.size + low.size};
}

Utf8Character decode_unit_or_pair(std::string_view text, Utf8 form) {
  const Utf8Character unit = decode_three(text);
  if (is_high_surrogate(unit.code_point)) {
    return form == Utf8::standard ? kIllFormed : with_partner(unit, text.substr(unit.size));
  }
  return is_low_surrogate(unit.code_point) && form == Utf8::standard ? kIllFormed : unit;
}

// Returns the length of the ASCII text at the start: most texts are ASCII from end to end.
std::size_t ascii_prefix(std::string_view text) {
  std::size_t index = 0;
  for (std::uint64_t eight = 0; index + sizeof(eight) <= text.size(); index += sizeof(eight)) {
    std::memcpy(&eight, text.data() + index, sizeof(eight));
    if ((eight & 0x8080808080808080U) != 0) break;
  }
  while (index < text.size() && byte_at(text, index) < 0x80) ++index;
  return index;
}

// Widens ASCII text. Compilers make a few instructions of a block.
void widen(std::string_view from, std::uint16_t* to) {
  constexpr std::size_t kBlock = 8;
  std::size_t index = 0;
  for (; index + kBlock <= from.size(); index += kBlock) {
    std::array<unsigned char, kBlock> bytes;
    std::array<std::uint16_t, kBlock> units;
    std::memcpy(bytes.data(), from.data() + index, sizeof bytes);
    for (std::size_t each = 0; each < kBlock; ++each) units[each] = bytes[each];
    std::memcpy(to + index, units.data(), sizeof units);
  }
  for (; index < from.size(); ++index) to[index] = static_cast<unsigned char>(from[index]);
}

void append_utf8(std::uint32_t code_point, std::string* to) {
  const auto put = [to](std::uint32_t byte) { to->push_back(static_cast<char>(byte)); };
  if (code_point < 0x80) return put(code_point);
  if (code_point < 0x800) {
    put(0xC0 | code_point >> 6);
  } else {
    if (code_point < 0x10000) {
      put(0xE0 | code_point >> 12);
    } else {
      put(0xF0 | code_point >> 18);
      put(0x80 | (code_point >> 12 & 0x3F));
    }
    put(0x80 | (code_point >> 6 & 0x3F));
  }
  put(0x80 | (code_point & 0x3F));
}

// Copies `text`, except for the characters above U+FFFF, which are passed to `append`.
template <typename Append>
std::string convert_supplementary(std::string_view text, Utf8 form, Append append) {
  std::string converted;
  converted.reserve(text.size());
  while (!text.empty()) {
    const Utf8Character character = decode_utf8(text, form);
    const std::size_t size = std::max<std::size_t>(character.size, 1);
    if (character.code_point > 0xFFFF) {
      append(character.code_point, &converted);
    } else {
      converted.append(text.substr(0, size));
    }
    text.remove_prefix(size);
  }
  return converted;
}

}  // namespace

Utf8Character decode_utf8(std::string_view text, Utf8 form) {
  const std::uint32_t first = byte_at(text, 0);
  if (first < 0x80) return first == 0 && form == Utf8::modified ? kIllFormed : Utf8Character{first, 1};
  if ((first & 0xE0) == 0xC0) return decode_two(text, form);
  if ((first & 0xF0) == 0xE0) return decode_unit_or_pair(text, form);
  if ((first & 0xF8) == 0xF0 && form != Utf8::modified) return decode_four(text);
  return kIllFormed;
}

bool is_utf8(std::string_view text, Utf8 form) {
  while (!text.empty()) {
    const std::size_t size = decode_utf8(text, form).size;
    if (size == 0) return false;
    text.remove_prefix(size);
  }
  return true;
}

bool is_ascii(std::string_view text) {
  constexpr std::size_t kBlock = 64;
  for (; text.size() >= kBlock; text.remove_prefix(kBlock)) {
    std::array<std::uint64_t, kBlock / sizeof(std::uint64_t)> words;
    std::memcpy(words.data(), text.data(), sizeof words);
    std::uint64_t all = 0;
    for (const std::uint64_t word : words) all |= word;
    if ((all & 0x8080808080808080U) != 0) return false;
  }
  return ascii_prefix(text) == text.size();
}

std::string modified_from_utf8(std::string_view text) {
  return convert_supplementary(text, Utf8::standard, [](std::uint32_t code_point, std::string* to) {
    append_utf8(high_surrogate_of(code_point), to);
    append_utf8(low_surrogate_of(code_point), to);
  });
}

std::string utf8_from_modified(std::string_view text) {
  return convert_supplementary(text, Utf8::modified, append_utf8);
}

std::optional<std::size_t> utf8_to_utf16(std::string_view from, std::uint16_t* to, std::size_t capacity,
                                         IllFormed ill_formed) {
  std::size_t units = 0;
  while (!from.empty()) {
    std::size_t plain = ascii_prefix(from);
    if (to != nullptr) {
      plain = std::min(plain, capacity - units);
      widen(from.substr(0, plain), to + units);
    }
    units += plain;
    from.remove_prefix(plain);
    if (from.empty()) break;

    const auto [code_point, size] = decode_utf8(from, Utf8::either);
    if (size == 0 && ill_formed == IllFormed::reject) return std::nullopt;
    const std::size_t needed = code_point > 0xFFFF ? 2 : 1;
    if (to != nullptr) {
      if (capacity - units < needed) break;
      to[units] = static_cast<std::uint16_t>(needed == 1 ? code_point : high_surrogate_of(code_point));
      if (needed == 2) to[units + 1] = static_cast<std::uint16_t>(low_surrogate_of(code_point));
    }
    units += needed;
    from.remove_prefix(std::max<std::size_t>(size, 1));
  }
  return units;
}

std::optional<std::string> utf16_to_utf8(std::u16string_view from) {
  std::string to;
  to.reserve(from.size() * 3);
  for (std::size_t index = 0; index < from.size(); ++index) {
    std::uint32_t code_point = from[index];
    if (is_high_surrogate(code_point) && index + 1 < from.size() && is_low_surrogate(from[index + 1])) {
      code_point = combine(code_point, from[++index]);
    } else if (is_high_surrogate(code_point) || is_low_surrogate(code_point)) {
      return std::nullopt;
    }
    append_utf8(code_point, &to);
  }
  return to;
}

}  // namespace tkv
