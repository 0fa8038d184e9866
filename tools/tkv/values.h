// Values: how the command reads and writes the bytes behind a type word.
//
//   text   type 3  the text and one NUL
//   list   type 5  each text followed by a NUL, then one more NUL; no bytes at all for a list without elements
//   int32  type 1  4 bytes, a signed number, least significant byte first
//   int64  type 2  8 bytes, likewise
//   bytes  type 4  any bytes
//
// A value has the reading of its type only if writing that reading gives the same bytes; otherwise it is bytes of that
// type. Types 1 and 2 may hold text as well: a JVM stores the first 4 or 8 bytes of what it was given, padded with
// NULs. Both readings are shown.
#ifndef TKV_TOOLS_TKV_VALUES_H
#define TKV_TOOLS_TKV_VALUES_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "outcome.h"
#include "registry/client.h"

namespace tkv::command {

constexpr std::int32_t kTypeNone = 0;
constexpr std::int32_t kTypeInt32 = 1;
constexpr std::int32_t kTypeInt64 = 2;
constexpr std::int32_t kTypeText = 3;
constexpr std::int32_t kTypeBytes = 4;
constexpr std::int32_t kTypeList = 5;

// "text", "list", "int32", "int64", "bytes", "none", or the number of another type.
std::string type_name(std::int32_t type);

// Parses a type's name or number. Returns nullopt if it is neither.
std::optional<std::int32_t> type_from_name(std::string_view name);

registry::TypedValue text_value(std::string_view utf8);
registry::TypedValue int32_value(std::int32_t number);
registry::TypedValue int64_value(std::int64_t number);

// Fails with Exit::kUsage for an element that is empty or contains a NUL: readers take an empty text for the end of a
// list.
Outcome list_value(const std::vector<std::string>& elements, registry::TypedValue* value);

Outcome parse_int32(std::string_view text, registry::TypedValue* value);
Outcome parse_int64(std::string_view text, registry::TypedValue* value);

// The exact readings: written again, each gives the same bytes.
std::optional<std::string> exact_text(const registry::TypedValue& value);
std::optional<std::vector<std::string>> exact_list(const registry::TypedValue& value);
std::optional<std::int64_t> exact_number(const registry::TypedValue& value);

// The text in a value of type 1 or 2, if it holds one: printable characters, then nothing but NULs.
std::optional<std::string> text_in_number(const registry::TypedValue& value);

// Tells whether `get` shows a value as this text, without a newline at the end: the text, the number or the text in it,
// the elements of a list as lines, other bytes as text or in hexadecimal.
bool reads_as(const registry::TypedValue& value, std::string_view utf8);

// One line for people: quoted texts, numbers, the first bytes in hexadecimal. Safe for a terminal. Has about `limit`
// characters at most; 0: no limit.
std::string one_line(const registry::TypedValue& value, std::size_t limit);

}  // namespace tkv::command

#endif
