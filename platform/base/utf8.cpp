#include "base/utf8.h"

#include <cstring>

namespace tkv::lx {
namespace {

struct Character {
  std::uint32_t code_point;
  std::size_t length;  // bytes; 0: the first byte is ill-formed
};

constexpr Character kIllFormed{0xFFFD, 0};

bool is_high_surrogate(std::uint32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool is_low_surrogate(std::uint32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

std::uint32_t pair_of(std::uint32_t high, std::uint32_t low) {
  return 0x10000 + ((high - 0xD800) << 10) + (low - 0xDC00);
}

// The bytes that are left of a text, with an end that no look past it crosses.
class Bytes {
 public:
  explicit Bytes(std::string_view text) : text_(text) {}

  std::uint32_t operator[](std::size_t index) const { return static_cast<unsigned char>(text_[index]); }

  // Whether `count` continuation bytes follow the first one.
  bool continued(std::size_t count) const {
    if (text_.size() <= count) return false;
    for (std::size_t index = 1; index <= count; ++index) {
      if (((*this)[index] & 0xC0) != 0x80) return false;
    }
    return true;
  }

  std::uint32_t low_bits(std::size_t index) const { return (*this)[index] & 0x3F; }

  Bytes after(std::size_t count) const { return Bytes(text_.substr(count)); }
  bool empty() const { return text_.empty(); }

 private:
  std::string_view text_;
};

Character two_bytes(Bytes bytes) {
  const std::uint32_t first = bytes[0];
  if (!bytes.continued(1)) return kIllFormed;
  const std::uint32_t code_point = (first & 0x1F) << 6 | bytes.low_bits(1);
  return code_point >= 0x80 || code_point == 0 ? Character{code_point, 2} : kIllFormed;
}

Character three_bytes(Bytes bytes) {
  if (!bytes.continued(2)) return kIllFormed;
  const std::uint32_t unit = (bytes[0] & 0x0F) << 12 | bytes.low_bits(1) << 6 | bytes.low_bits(2);
  return unit >= 0x800 ? Character{unit, 3} : kIllFormed;
}

Character four_bytes(Bytes bytes) {
  if (!bytes.continued(3)) return kIllFormed;
  const std::uint32_t code_point =
      (bytes[0] & 0x07) << 18 | bytes.low_bits(1) << 12 | bytes.low_bits(2) << 6 | bytes.low_bits(3);
  return code_point >= 0x10000 && code_point <= 0x10FFFF ? Character{code_point, 4} : kIllFormed;
}

// A surrogate with its partner, when that follows; otherwise the surrogate alone.
Character joined(Character high, Bytes rest) {
  if (rest.empty() || (rest[0] & 0xF0) != 0xE0) return high;
  const Character low = three_bytes(rest);
  if (low.length == 0 || !is_low_surrogate(low.code_point)) return high;
  return {pair_of(high.code_point, low.code_point), high.length + low.length};
}

Character decode(Bytes bytes) {
  const std::uint32_t first = bytes[0];
  if (first < 0x80) return {first, 1};
  if ((first & 0xE0) == 0xC0) return two_bytes(bytes);
  if ((first & 0xF8) == 0xF0) return four_bytes(bytes);
  if ((first & 0xF0) != 0xE0) return kIllFormed;
  const Character character = three_bytes(bytes);
  return is_high_surrogate(character.code_point) ? joined(character, bytes.after(3)) : character;
}

// Length of the ASCII text at the start: most texts are ASCII from end to end.
std::size_t ascii_prefix(std::string_view text) {
  std::size_t index = 0;
  for (std::uint64_t eight = 0; index + sizeof(eight) <= text.size(); index += sizeof(eight)) {
    std::memcpy(&eight, text.data() + index, sizeof(eight));
    if ((eight & 0x8080808080808080U) != 0) break;
  }
  while (index < text.size() && static_cast<unsigned char>(text[index]) < 0x80) ++index;
  return index;
}

}  // namespace

std::optional<std::size_t> utf8_to_utf16(std::string_view from, std::uint16_t* to, std::size_t capacity,
                                         IllFormed ill_formed) {
  std::size_t units = 0;
  while (!from.empty()) {
    std::size_t plain = ascii_prefix(from);
    if (to != nullptr) {
      plain = plain < capacity - units ? plain : capacity - units;
      for (std::size_t index = 0; index < plain; ++index) to[units + index] = static_cast<unsigned char>(from[index]);
    }
    units += plain;
    from.remove_prefix(plain);
    if (from.empty()) break;

    const Character character = decode(Bytes(from));
    if (character.length == 0 && ill_formed == IllFormed::reject) return std::nullopt;
    const std::size_t needed = character.code_point >= 0x10000 ? 2 : 1;
    if (to != nullptr) {
      if (capacity - units < needed) break;
      if (needed == 1) {
        to[units] = static_cast<std::uint16_t>(character.code_point);
      } else {
        to[units] = static_cast<std::uint16_t>(0xD7C0 + (character.code_point >> 10));
        to[units + 1] = static_cast<std::uint16_t>(0xDC00 + (character.code_point & 0x3FF));
      }
    }
    units += needed;
    from.remove_prefix(character.length == 0 ? 1 : character.length);
  }
  return units;
}

std::optional<std::string> utf16_to_utf8(std::u16string_view from) {
  std::string to;
  to.reserve(from.size() * 3);
  const auto put = [&to](std::uint32_t byte) { to.push_back(static_cast<char>(byte)); };
  for (std::size_t index = 0; index < from.size(); ++index) {
    std::uint32_t code_point = from[index];
    if (is_high_surrogate(code_point) && index + 1 < from.size() && is_low_surrogate(from[index + 1])) {
      code_point = pair_of(code_point, from[++index]);
    } else if (is_high_surrogate(code_point) || is_low_surrogate(code_point)) {
      return std::nullopt;
    }
    if (code_point < 0x80) {
      put(code_point);
    } else if (code_point < 0x800) {
      put(0xC0 | code_point >> 6);
      put(0x80 | (code_point & 0x3F));
    } else {
      if (code_point < 0x10000) {
        put(0xE0 | code_point >> 12);
      } else {
        put(0xF0 | code_point >> 18);
        put(0x80 | (code_point >> 12 & 0x3F));
      }
      put(0x80 | (code_point >> 6 & 0x3F));
      put(0x80 | (code_point & 0x3F));
    }
  }
  return to;
}

}  // namespace tkv::lx
