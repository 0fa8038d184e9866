#include "registry/error_text.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>

namespace tkv::registry {
namespace {

bool is_trail(char byte) { return (static_cast<unsigned char>(byte) & 0xc0) == 0x80; }

// Writes into a buffer with room for a NUL at the end.
class Line {
 public:
  Line(char* buffer, std::size_t capacity) : buffer_(buffer), room_(capacity - 1) {}

  void append(std::string_view text) {
    while (!text.empty() && !cut_) {
      const std::size_t size = character_size(text);
      cut_ = size > room_ - size_;
      if (!cut_) write(text.substr(0, size));
      text.remove_prefix(size);
    }
  }

  std::size_t finish() {
    buffer_[size_] = '\0';
    return size_;
  }

 private:
  // The size of a byte and the trail bytes after it, well-formed or not.
  static std::size_t character_size(std::string_view text) {
    std::size_t size = 1;
    while (size < text.size() && size < 4 && is_trail(text[size])) ++size;
    return size;
  }

  static bool is_shown(std::string_view character) {
    const auto first = static_cast<unsigned char>(character.front());
    if (first < 0x20 || first == 0x7f || first == '%') return false;
    // U+0080 to U+009F are control characters too.
    return !(first == 0xc2 && character.size() == 2 && static_cast<unsigned char>(character[1]) < 0xa0);
  }

  void write(std::string_view character) {
    if (!is_shown(character)) character = "?";
    std::copy(character.begin(), character.end(), buffer_ + size_);
    size_ += character.size();
  }

  char* buffer_;
  std::size_t room_;
  std::size_t size_ = 0;
  bool cut_ = false;
};

}  // namespace

std::size_t write_error_text(const Status& status, char* buffer, std::size_t capacity) noexcept {
  char code[24];
  static_cast<void>(std::snprintf(code, sizeof code, "TKV-%04d: ", static_cast<int>(status.code())));
  Line line(buffer, capacity);
  line.append(code);
  try {
    line.append(status.text());
  } catch (...) {
    line.append(Status::result_text(status.code()));
  }
  return line.finish();
}

}  // namespace tkv::registry
