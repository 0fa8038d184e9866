// Names of keys: levels joined by ".", from the root, whose name is "".
//
// A level is 1 to 264 bytes of well-formed modified UTF-8 that contains neither "." nor NUL (neither the byte 0 nor the
// two bytes that modified UTF-8 uses for U+0000). A full name has at most 64 levels and 1,023 bytes; see base/limits.h.
//
// Nothing here allocates, except for messages. All functions are pure; any thread may call them.
#ifndef TKV_PLATFORM_REGISTRY_NAME_H
#define TKV_PLATFORM_REGISTRY_NAME_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "base/limits.h"
#include "base/status.h"

namespace tkv::registry {

// Tells whether a name is a full name, which "" is. Returns PRTKV_INVALID_NAME with the reason if it is not.
Status check_name(std::string_view name);

// As check_name, for a name relative to a key: "" is refused.
Status check_relative_name(std::string_view name);

// Takes the first level off `rest`, which is a valid name, not empty. It is empty after its last level.
std::string_view take_level(std::string_view* rest);

// The name without its last level ("" for a name of one level), and that last level. For the root, both are "".
std::string_view parent_of(std::string_view name);
std::string_view last_level(std::string_view name);

std::size_t count_levels(std::string_view name);

// Tells whether `name` is `ancestor` or lies below it.
bool is_within(std::string_view name, std::string_view ancestor);

// The order of full names: parents before their subkeys, siblings by their bytes. A subtree is one run of names.
bool name_before(std::string_view left, std::string_view right);

// The longest prefix of at most `size` bytes that does not end inside a character.
std::string_view beginning(std::string_view text, std::size_t size);

// The hash of names in containers that are searched without making a string. All of its bits depend on all of the name.
struct NameHash {
  using is_transparent = void;

  std::size_t operator()(std::string_view name) const {
    constexpr std::size_t kWord = sizeof(std::uint64_t);
    std::uint64_t hash = name.size();
    const char* at = name.data();
    const char* const end = at + name.size();
    if (name.size() < kWord) {
      std::uint64_t word = 0;
      while (at != end) word = word << 8 | static_cast<unsigned char>(*at++);
      return mixed(mixed(hash ^ word));
    }
    for (; end - at > static_cast<std::ptrdiff_t>(kWord); at += kWord) hash = mixed(hash ^ word_at(at));
    return mixed(mixed(hash ^ word_at(end - kWord)));
  }

 private:
  static std::uint64_t word_at(const char* at) {
    std::uint64_t word = 0;
    std::memcpy(&word, at, sizeof word);
    return word;
  }

  static std::uint64_t mixed(std::uint64_t hash) {
    hash *= 0x9E3779B97F4A7C15;  // 2^64 divided by the golden ratio
    return hash ^ hash >> 32;
  }
};

// A full name in a buffer of its own.
class FullName {
 public:
  FullName() : size_(0) {}

  // Sets it to a valid name.
  void assign(std::string_view name) {
    std::memcpy(bytes_.data(), name.data(), name.size());
    size_ = name.size();
  }

  // Sets it to `relative` below `parent`, which are both valid. Returns PRTKV_INVALID_NAME if the result is too long or
  // too deep; then it is unchanged. Neither may be part of this name itself.
  Status join(std::string_view parent, std::string_view relative);

  std::string_view view() const { return {bytes_.data(), size_}; }

 private:
  std::array<char, kMaxNameSize> bytes_;  // the first size_ of them
  std::size_t size_;
};

// A key in messages: "key 'a.b'", "the root key". A very long name is abbreviated in the middle.
std::string describe(std::string_view name);

}  // namespace tkv::registry

#endif
