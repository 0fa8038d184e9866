#include "data_reader.h"

#include <string>

namespace tkv::java {
namespace {

// As KeySecurity.java writes them. Do not change one side alone.
constexpr std::int32_t kInherits = 1;
constexpr std::int32_t kHasOwner = 2;
constexpr std::int32_t kHasGroup = 4;

// A negative mask is not specified.
registry::MaskChange change_to(std::int32_t mask) {
  if (mask < 0) return {};
  return {TKV_RIGHT_ALL, mask};
}

}  // namespace

KeySecurity read_security(DataReader& from) {
  KeySecurity security;
  const std::int32_t flags = from.word32();
  security.inherits = (flags & kInherits) != 0;
  security.specified.owner_mask = change_to(from.word32());
  security.specified.group_mask = change_to(from.word32());
  security.specified.other_mask = change_to(from.word32());
  if ((flags & kHasOwner) != 0) security.specified.owner = std::string(from.text());
  if ((flags & kHasGroup) != 0) security.specified.group = std::string(from.text());
  return security;
}

}  // namespace tkv::java
