#include "values.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include "characters.h"

namespace tkv::command {
namespace {

using registry::TypedValue;

constexpr char kNul = '\0';
constexpr std::size_t kHexShown = 32;  // bytes of a value shown in one line

struct TypeName {
  std::int32_t type;
  const char* name;
};
constexpr TypeName kTypeNames[] = {{kTypeNone, "none"}, {kTypeInt32, "int32"}, {kTypeInt64, "int64"},
                                   {kTypeText, "text"}, {kTypeBytes, "bytes"}, {kTypeList, "list"}};

template <typename Number>
TypedValue number_value(std::int32_t type, Number number) {
  TypedValue value{type, {}};
  for (std::size_t byte = 0; byte < sizeof number; ++byte) {
    value.bytes.push_back(static_cast<char>(static_cast<std::uint64_t>(number) >> (8 * byte) & 0xff));
  }
  return value;
}

// Parses a number: decimal with an optional sign, or hexadecimal with 0x, which gives the bits of the word.
template <typename Number>
bool parse_number(std::string_view text, Number* number) {
  if (text.starts_with("0x") || text.starts_with("0X")) {
    std::make_unsigned_t<Number> bits = 0;
    const auto [end, error] = std::from_chars(text.data() + 2, text.data() + text.size(), bits, 16);
    *number = static_cast<Number>(bits);
    return text.size() > 2 && error == std::errc() && end == text.data() + text.size();
  }
  if (text.starts_with('+')) {
    text.remove_prefix(1);
    if (text.starts_with('-')) return false;
  }
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *number, 10);
  return error == std::errc() && end == text.data() + text.size();
}

template <typename Number>
Outcome not_a_number(std::string_view text, const char* type) {
  return {Exit::kUsage, "'" + std::string(text) + "' is not an " + type + "; write a number from " +
                            std::to_string(std::numeric_limits<Number>::min()) + " to " +
                            std::to_string(std::numeric_limits<Number>::max()) + ", or 0x and hexadecimal digits"};
}

// Cuts off what exceeds `limit` bytes, but never half a character.
std::string shortened(std::string text, std::size_t limit) {
  if (limit == 0 || text.size() <= limit) return text;
  std::size_t size = limit;
  while (size > 0 && (static_cast<unsigned char>(text[size]) & 0xc0) == 0x80) --size;
  text.resize(size);
  return text + "…";
}

std::string quoted(std::string_view text) { return '"' + safe(text) + '"'; }

std::string list_line(const std::vector<std::string>& elements, std::size_t limit) {
  std::string line = "[";
  for (const std::string& element : elements) {
    if (line.size() > 1) line += ", ";
    line += quoted(element);
    if (limit != 0 && line.size() > limit) break;
  }
  return shortened(line + "]", limit);
}

std::string hexadecimal(std::string_view bytes, std::size_t limit) {
  const std::size_t shown = limit == 0 ? bytes.size() : std::min(bytes.size(), kHexShown);
  return "0x" + hex_from(bytes.substr(0, shown)) + (shown < bytes.size() ? "…" : "");
}

std::string bytes_line(std::string_view bytes, std::size_t limit) {
  const bool printable = !bytes.empty() && is_utf8(bytes) && safe(bytes) == bytes;
  const std::string line = printable ? shortened(quoted(bytes), limit) : hexadecimal(bytes, limit);
  return line + " (" + std::to_string(bytes.size()) + (bytes.size() == 1 ? " byte)" : " bytes)");
}

}  // namespace

std::string type_name(std::int32_t type) {
  for (const TypeName& each : kTypeNames) {
    if (each.type == type) return each.name;
  }
  return std::to_string(type);
}

std::optional<std::int32_t> type_from_name(std::string_view name) {
  for (const TypeName& each : kTypeNames) {
    if (name == each.name) return each.type;
  }
  std::int32_t type = 0;
  if (!parse_number(name, &type)) return std::nullopt;
  return type;
}

TypedValue text_value(std::string_view utf8) { return {kTypeText, stored_from_utf8(utf8) + kNul}; }

TypedValue int32_value(std::int32_t number) { return number_value(kTypeInt32, number); }

TypedValue int64_value(std::int64_t number) { return number_value(kTypeInt64, number); }

Outcome list_value(const std::vector<std::string>& elements, TypedValue* value) {
  *value = {kTypeList, {}};
  for (std::size_t at = 0; at < elements.size(); ++at) {
    if (elements[at].empty()) {
      return {Exit::kUsage, "element " + std::to_string(at + 1) +
                                " of the list is empty; a list cannot contain an empty text, which would end it"};
    }
    if (elements[at].find(kNul) != std::string::npos) {
      return {Exit::kUsage,
              "element " + std::to_string(at + 1) + " of the list contains a NUL, which would end the element"};
    }
    value->bytes += stored_from_utf8(elements[at]) + kNul;
  }
  if (!elements.empty()) value->bytes += kNul;
  return {};
}

Outcome parse_int32(std::string_view text, TypedValue* value) {
  std::int32_t number = 0;
  if (!parse_number(text, &number)) return not_a_number<std::int32_t>(text, "int32");
  *value = int32_value(number);
  return {};
}

Outcome parse_int64(std::string_view text, TypedValue* value) {
  std::int64_t number = 0;
  if (!parse_number(text, &number)) return not_a_number<std::int64_t>(text, "int64");
  *value = int64_value(number);
  return {};
}

std::optional<std::string> exact_text(const TypedValue& value) {
  if (value.type != kTypeText || !value.bytes.ends_with(kNul)) return std::nullopt;
  return utf8_from_stored(std::string_view(value.bytes).substr(0, value.bytes.size() - 1));
}

std::optional<std::vector<std::string>> exact_list(const TypedValue& value) {
  if (value.type != kTypeList) return std::nullopt;
  std::vector<std::string> elements;
  for (std::size_t at = 0; at < value.bytes.size();) {
    const std::size_t end = value.bytes.find(kNul, at);
    if (end == std::string::npos) return std::nullopt;
    if (end == at) {  // the empty text that ends the list; nothing may follow it
      if (at + 1 != value.bytes.size() || elements.empty()) return std::nullopt;
      return elements;
    }
    std::optional<std::string> element = utf8_from_stored(std::string_view(value.bytes).substr(at, end - at));
    if (!element || element->find(kNul) != std::string::npos) return std::nullopt;
    elements.push_back(std::move(*element));
    at = end + 1;
  }
  if (!value.bytes.empty()) return std::nullopt;
  return elements;
}

std::optional<std::int64_t> exact_number(const TypedValue& value) {
  const bool int32 = value.type == kTypeInt32 && value.bytes.size() == 4;
  const bool int64 = value.type == kTypeInt64 && value.bytes.size() == 8;
  if (!int32 && !int64) return std::nullopt;
  std::uint64_t bits = 0;
  for (std::size_t byte = value.bytes.size(); byte-- > 0;) {
    bits = bits << 8 | static_cast<unsigned char>(value.bytes[byte]);
  }
  if (int32) return static_cast<std::int32_t>(static_cast<std::uint32_t>(bits));
  return static_cast<std::int64_t>(bits);
}

std::optional<std::string> text_in_number(const TypedValue& value) {
  if (value.type != kTypeInt32 && value.type != kTypeInt64) return std::nullopt;
  const std::size_t end = value.bytes.find_last_not_of(kNul);
  if (end == std::string::npos) return std::nullopt;
  const std::string text = value.bytes.substr(0, end + 1);
  if (!is_utf8(text) || safe(text) != text) return std::nullopt;
  return text;
}

bool reads_as(const TypedValue& value, std::string_view utf8) {
  if (value.type == kTypeNone && value.bytes.empty()) return false;
  if (const auto text = exact_text(value)) return *text == utf8;
  if (const auto elements = exact_list(value)) {
    std::string lines;
    for (const std::string& element : *elements) lines += (&element == &elements->front() ? "" : "\n") + element;
    return lines == utf8;
  }
  if (const auto number = exact_number(value)) {
    return std::to_string(*number) == utf8 || text_in_number(value) == std::string(utf8);
  }
  return value.bytes == utf8 || hex_from(value.bytes) == utf8;
}

std::string one_line(const TypedValue& value, std::size_t limit) {
  if (value.type == kTypeNone && value.bytes.empty()) return "";
  if (const auto text = exact_text(value)) return shortened(quoted(*text), limit);
  if (const auto elements = exact_list(value)) return list_line(*elements, limit);
  if (const auto number = exact_number(value)) {
    const auto text = text_in_number(value);
    const bool telling = text && text->size() > 1;  // a single letter is more likely a small number
    return std::to_string(*number) + (telling ? " (or " + quoted(*text) + ")" : "");
  }
  return bytes_line(value.bytes, limit);
}

}  // namespace tkv::command
