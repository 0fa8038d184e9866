#include "prsrvut/native_text.h"

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "base/utf8.h"
#include "lx/charset.h"
#include "lx/process_locale.h"

namespace tkv::prsrvut {
namespace {

bool splits_pair(std::u16string_view text, std::size_t at) {
  return at > 0 && at < text.size() && is_high_surrogate(text[at - 1]) && is_low_surrogate(text[at]);
}

// Returns the longest beginning of `text`, in whole characters, that takes at most `room` bytes. Each beginning is
// converted by itself, since in a stateful set the end of a text takes bytes, too.
std::string longest_beginning(const lx::Charset& charset, std::u16string_view text, std::size_t room) {
  std::string longest;
  std::size_t fits = 0;
  std::size_t too_long = text.size();
  while (fits + 1 < too_long) {
    const std::size_t middle = fits + (too_long - fits) / 2;
    std::size_t end = middle;
    if (splits_pair(text, end)) --end;
    auto bytes = charset.encode(text.substr(0, end));
    if (bytes && bytes->size() <= room) {
      fits = middle;
      longest = std::move(*bytes);
    } else {
      too_long = middle;
    }
  }
  return longest;
}

}  // namespace

int write_native_text(std::u16string_view text, char* buffer, int* size) {
  const lx::Charset* charset = lx::charset_of_process();
  // A NUL would end the text for its readers and turn one name into another.
  const bool has_nul = text.find(u'\0') != std::u16string_view::npos;
  auto bytes = charset == nullptr || has_nul ? std::nullopt : charset->encode(text);
  if (!bytes || bytes->size() >= INT32_MAX) return kNotConvertible;
  const int capacity = *size;
  const int needed = static_cast<int>(bytes->size()) + 1;
  if (capacity <= 0) {
    *size = needed;
    return kCut;
  }
  const auto room = static_cast<std::size_t>(capacity) - 1;
  const bool is_whole = bytes->size() <= room;
  const std::string shown = is_whole ? *std::move(bytes) : longest_beginning(*charset, text, room);
  *size = needed;
  std::memcpy(buffer, shown.data(), shown.size());
  buffer[shown.size()] = '\0';
  return is_whole ? kWhole : kCut;
}

}  // namespace tkv::prsrvut
