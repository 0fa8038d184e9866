// UTF-8, the JVM's modified UTF-8, and UTF-16.
//
// Modified UTF-8 differs from UTF-8 in two ways: it writes U+0000 as the two bytes C0 80, and each character above
// U+FFFF as two surrogates of three bytes each. A Java string may contain a surrogate without its partner, and modified
// UTF-8 can represent it.
//
// Conversions that return a string throw std::bad_alloc; nothing else here allocates. Any thread may call.
#ifndef TKV_PLATFORM_BASE_UTF8_H
#define TKV_PLATFORM_BASE_UTF8_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tkv {

enum class Utf8 {
  standard,  // UTF-8: shortest forms only, no surrogates, nothing above U+10FFFF
  modified,  // modified UTF-8: no zero byte, no sequences of four bytes
  either     // any mixture of both
};

struct Utf8Character {
  std::uint32_t code_point = 0;  // U+FFFD if ill-formed
  std::size_t size = 0;          // in bytes; none if the first byte does not begin a well-formed character
};

// Decodes the first character of `text`, which must not be empty. A pair of surrogates is one character of six bytes.
Utf8Character decode_utf8(std::string_view text, Utf8 form);

bool is_utf8(std::string_view text, Utf8 form);

// Whether all bytes are less than 0x80.
bool is_ascii(std::string_view text);

// Writes characters above U+FFFF as pairs of surrogates, or pairs of surrogates as four bytes. All other bytes are
// copied unchanged, well-formed or not, NUL in either form included.
std::string modified_from_utf8(std::string_view text);
std::string utf8_from_modified(std::string_view text);

enum class IllFormed {
  reject,  // the conversion fails
  replace  // each ill-formed byte becomes U+FFFD
};

// Converts either form of UTF-8 to UTF-16 and returns the number of code units, which never exceeds the number of
// bytes. If `to` is null, only counts; otherwise writes at most `capacity` units and stops before the character that
// does not fit. Returns nullopt if `ill_formed` is `reject` and an ill-formed byte was reached.
std::optional<std::size_t> utf8_to_utf16(std::string_view from, std::uint16_t* to, std::size_t capacity,
                                         IllFormed ill_formed);

// Converts to standard UTF-8. Returns nullopt if the text contains a surrogate without its partner.
std::optional<std::string> utf16_to_utf8(std::u16string_view from);

constexpr bool is_high_surrogate(std::uint32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
constexpr bool is_low_surrogate(std::uint32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

}  // namespace tkv

#endif
