// Names of keys: levels joined by ".", from the root, whose name is "".
//
// A level is 1 to 264 bytes of well-formed modified UTF-8 without "." and NUL (in either of its forms: the byte 0 and
// the two bytes that modified UTF-8 writes for U+0000). A full name has at most 64 levels and 1,023 bytes.
//
// Nothing here allocates except the texts of failures. All functions are pure; any thread may call them.
#ifndef TKV_PLATFORM_REGISTRY_NAME_H
#define TKV_PLATFORM_REGISTRY_NAME_H

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "base/limits.h"
#include "base/status.h"

namespace tkv::registry {

// Tells whether a name is a full name ("" included): done, or 5 with a text that says what is wrong with it.
Status check_name(std::string_view name);

// As check_name, for a name below some key: "" is refused.
Status check_relative_name(std::string_view name);

// Takes the first level off `rest`. `rest` is not empty and passed check_name; it is empty after its last level.
std::string_view take_level(std::string_view* rest);

// The name without its last level ("" for a name of one level), and that last level. The root has neither: "" twice.
std::string_view parent_of(std::string_view name);
std::string_view last_level(std::string_view name);

std::size_t count_levels(std::string_view name);

// Tells whether `name` is `ancestor` or lies below it.
bool is_within(std::string_view name, std::string_view ancestor);

// The order of full names: parents before their subkeys, siblings by their bytes. A subtree is one run of names.
bool name_before(std::string_view left, std::string_view right);

// The longest beginning of at most `size` bytes that does not end inside a character.
std::string_view beginning(std::string_view text, std::size_t size);

// A full name in a buffer of its own.
class FullName {
 public:
  FullName() = default;

  // Makes it `relative` below `parent`; both passed their checks. 5 when the whole is too long or too deep; then it
  // is what it was. Neither may be a part of this name itself.
  Status join(std::string_view parent, std::string_view relative);

  std::string_view view() const { return {bytes_.data(), size_}; }

 private:
  std::array<char, kMaxNameSize> bytes_{};
  std::size_t size_ = 0;
};

// How texts for people call a key: "key 'a.b'", "the root key". A name that would drown the text is shown by its two
// ends.
std::string describe(std::string_view name);

}  // namespace tkv::registry

#endif
