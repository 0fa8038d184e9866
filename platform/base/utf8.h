// UTF-8 and the JVM's modified UTF-8 to UTF-16, and back.
//
// Both spellings are understood at once: sequences of four bytes, surrogates of three bytes each, and C0 80 for NUL. A
// managed string may hold a surrogate without its partner, and modified UTF-8 carries it, so that it is understood as
// well. Everything else is ill-formed: stray and missing continuation bytes, longer forms than needed, numbers above
// U+10FFFF.
#ifndef TKV_PLATFORM_BASE_UTF8_H
#define TKV_PLATFORM_BASE_UTF8_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tkv::lx {

enum class IllFormed {
  reject,  // the text is refused
  replace  // each ill-formed byte becomes U+FFFD
};

// Converts to UTF-16 and gives the number of code units, which never exceeds the number of bytes. With a null `to` it
// only counts; otherwise it writes at most `capacity` units and stops before the character that does not fit. Nothing
// when `ill_formed` is `reject` and a byte that it came to is ill-formed.
std::optional<std::size_t> utf8_to_utf16(std::string_view from, std::uint16_t* to, std::size_t capacity,
                                         IllFormed ill_formed);

// Converts to UTF-8 proper. Nothing when the text has a surrogate without its partner.
std::optional<std::string> utf16_to_utf8(std::u16string_view from);

}  // namespace tkv::lx

#endif
