// Text in UTF-8, as people type it, in modified UTF-8, as the registry stores it, and as it may reach a terminal.
//
// Modified UTF-8 writes U+0000 as two bytes and characters above U+FFFF as two surrogates. All functions are pure.
#ifndef TKV_TOOLS_TKV_CHARACTERS_H
#define TKV_TOOLS_TKV_CHARACTERS_H

#include <optional>
#include <string>
#include <string_view>

namespace tkv::command {

// Well-formed UTF-8: shortest forms, no surrogates, up to U+10FFFF.
bool is_utf8(std::string_view text);

// Converts a text to the registry's form, without a terminating NUL.
std::string stored_from_utf8(std::string_view text);

// Converts from the registry's form. Returns nullopt unless converting back gives exactly the same bytes.
std::optional<std::string> utf8_from_stored(std::string_view bytes);

// Converts what can be converted, for display; ill-formed bytes pass unchanged.
std::string utf8_for_people(std::string_view bytes);

// Replaces whatever would change the state of a terminal or the direction of a line by \n, \t, \x1b or \u{202e}:
// control characters including newlines and tabs, bytes that are not UTF-8, and direction marks.
std::string safe(std::string_view text);

// As safe, but keeps the newlines of a text of several lines.
std::string safe_lines(std::string_view text);

// The contents of a JSON string. What would change the state of a terminal is escaped too, as JSON allows.
std::string escaped_for_json(std::string_view utf8);

std::string base64_from(std::string_view bytes);
std::optional<std::string> bytes_from_base64(std::string_view text);

std::string hex_from(std::string_view bytes);
std::optional<std::string> bytes_from_hex(std::string_view text);  // blanks between pairs are ignored

}  // namespace tkv::command

#endif
