#include "characters.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

#include "base/utf8.h"

namespace tkv::command {
namespace {

constexpr std::string_view kBase64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view kStoredNul = "\xc0\x80";

unsigned byte_at(std::string_view text, std::size_t at) {
  return at < text.size() ? static_cast<unsigned char>(text[at]) : 0;
}

Utf8Character character_at(std::string_view text, std::size_t at) {
  return decode_utf8(text.substr(at), Utf8::standard);
}

std::string replaced(std::string_view text, std::string_view from, std::string_view to) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t at = 0;;) {
    const std::size_t next = text.find(from, at);
    result.append(text.substr(at, next - at));
    if (next == std::string_view::npos) return result;
    result.append(to);
    at = next + from.size();
  }
}

bool changes_terminal(std::uint32_t code) {
  const bool control = code < 0x20 || (code >= 0x7f && code < 0xa0);
  const bool direction = (code >= 0x202a && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069) || code == 0x200e ||
                         code == 0x200f || code == 0x2028 || code == 0x2029 || code == 0x61c;
  return control || direction;
}

std::string escaped(std::uint32_t code) {
  if (code == '\n') return "\\n";
  if (code == '\t') return "\\t";
  if (code == '\r') return "\\r";
  char text[16];
  static_cast<void>(std::snprintf(text, sizeof text, code < 0x80 ? "\\x%02x" : "\\u{%x}", code));
  return text;
}

int hex_digit(char letter) {
  if (letter >= '0' && letter <= '9') return letter - '0';
  if (letter >= 'a' && letter <= 'f') return letter - 'a' + 10;
  if (letter >= 'A' && letter <= 'F') return letter - 'A' + 10;
  return -1;
}

bool is_blank(char letter) { return letter == ' ' || letter == '\n' || letter == '\t' || letter == '\r'; }

}  // namespace

bool is_utf8(std::string_view text) { return is_utf8(text, Utf8::standard); }

std::string stored_from_utf8(std::string_view text) {
  return replaced(modified_from_utf8(text), std::string_view("\0", 1), kStoredNul);
}

std::string utf8_for_people(std::string_view bytes) {
  return replaced(utf8_from_modified(bytes), kStoredNul, std::string_view("\0", 1));
}

std::optional<std::string> utf8_from_stored(std::string_view bytes) {
  std::string text = utf8_for_people(bytes);
  if (!is_utf8(text) || stored_from_utf8(text) != bytes) return std::nullopt;
  return text;
}

std::string safe(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const Utf8Character character = character_at(text, at);
    if (character.size == 0) {
      char raw[8];
      static_cast<void>(std::snprintf(raw, sizeof raw, "\\x%02x", byte_at(text, at)));
      result += raw;
      ++at;
      continue;
    }
    if (changes_terminal(character.code_point)) {
      result += escaped(character.code_point);
    } else {
      result += text.substr(at, character.size);
    }
    at += character.size;
  }
  return result;
}

std::string safe_lines(std::string_view text) {
  std::string lines;
  for (;;) {
    const std::size_t end = text.find('\n');
    lines += safe(text.substr(0, end));
    if (end == std::string_view::npos) return lines;
    lines += '\n';
    text.remove_prefix(end + 1);
  }
}

std::string escaped_for_json(std::string_view utf8) {
  std::string result;
  result.reserve(utf8.size());
  for (std::size_t at = 0; at < utf8.size();) {
    const Utf8Character character = character_at(utf8, at);
    const std::size_t size = std::max<std::size_t>(character.size, 1);
    if (character.size == 0) {
      result += "\\ufffd";
    } else if (character.code_point == '"' || character.code_point == '\\') {
      result.append("\\").append(utf8.substr(at, 1));
    } else if (character.code_point == '\n' || character.code_point == '\t' || character.code_point == '\r') {
      result += escaped(character.code_point);
    } else if (changes_terminal(character.code_point)) {
      char text[8];
      static_cast<void>(std::snprintf(text, sizeof text, "\\u%04x", character.code_point));
      result += text;
    } else {
      result += utf8.substr(at, size);
    }
    at += size;
  }
  return result;
}

std::string base64_from(std::string_view bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t at = 0; at < bytes.size(); at += 3) {
    const std::uint32_t group = byte_at(bytes, at) << 16 | byte_at(bytes, at + 1) << 8 | byte_at(bytes, at + 2);
    const std::size_t have = std::min<std::size_t>(3, bytes.size() - at);
    text.push_back(kBase64[group >> 18]);
    text.push_back(kBase64[group >> 12 & 63]);
    text.push_back(have > 1 ? kBase64[group >> 6 & 63] : '=');
    text.push_back(have > 2 ? kBase64[group & 63] : '=');
  }
  return text;
}

std::optional<std::string> bytes_from_base64(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::size_t padding = 0;
  while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') ++padding;
  std::string bytes;
  std::uint32_t group = 0;
  for (std::size_t at = 0; at < text.size() - padding; ++at) {
    const std::size_t digit = kBase64.find(text[at]);
    if (digit == std::string_view::npos) return std::nullopt;
    group = group << 6 | static_cast<std::uint32_t>(digit);
    if (at % 4 == 0) continue;
    bytes.push_back(static_cast<char>(group >> (6 - at % 4 * 2) & 0xff));
  }
  const std::uint32_t rest = padding == 1 ? group & 3 : padding == 2 ? group & 15 : 0;
  if (rest != 0) return std::nullopt;  // bits that no byte holds: not what base64_from wrote
  return bytes;
}

std::string hex_from(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const char byte : bytes) {
    text.push_back(kDigits[static_cast<unsigned char>(byte) >> 4]);
    text.push_back(kDigits[static_cast<unsigned char>(byte) & 15]);
  }
  return text;
}

std::optional<std::string> bytes_from_hex(std::string_view text) {
  std::string bytes;
  for (std::size_t at = 0; at < text.size();) {
    if (is_blank(text[at])) {
      ++at;
      continue;
    }
    const int high = hex_digit(text[at]);
    const int low = at + 1 < text.size() ? hex_digit(text[at + 1]) : -1;
    if (high < 0 || low < 0) return std::nullopt;
    bytes.push_back(static_cast<char>(high * 16 + low));
    at += 2;
  }
  return bytes;
}

}  // namespace tkv::command
