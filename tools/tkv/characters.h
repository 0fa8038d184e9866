// Characters: UTF-8 as people type it, modified UTF-8 as the registry keeps it, and what may reach a terminal.
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

// A text as the registry keeps it, without a terminating NUL.
std::string stored_from_utf8(std::string_view text);

// The text that stored bytes stand for, when it gives back exactly these bytes; else nothing.
std::optional<std::string> utf8_from_stored(std::string_view bytes);

// As far as it goes, for showing: what is not well-formed passes unchanged.
std::string utf8_for_people(std::string_view bytes);

// UTF-8 without what would change a terminal's state or the line's direction: control characters, line ends and
// tabs too, bytes that are not UTF-8, and marks of direction, each shown as \n, \t, \x1b or \u{202e}.
std::string safe(std::string_view text);

// As safe, but for the line ends of a text of several lines.
std::string safe_lines(std::string_view text);

// The inside of a JSON string. What would change a terminal's state is escaped too, as JSON allows.
std::string escaped_for_json(std::string_view utf8);

std::string base64_from(std::string_view bytes);
std::optional<std::string> bytes_from_base64(std::string_view text);

std::string hex_from(std::string_view bytes);
std::optional<std::string> bytes_from_hex(std::string_view text);  // blanks between pairs are skipped

}  // namespace tkv::command

#endif
