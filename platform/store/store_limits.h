// What every store refuses, so that all of them refuse the same.
#ifndef TKV_PLATFORM_STORE_STORE_LIMITS_H
#define TKV_PLATFORM_STORE_STORE_LIMITS_H

#include <cstddef>
#include <string>
#include <string_view>

#include "store/store.h"

namespace tkv::store {

constexpr std::size_t kMaxLevelName = 264;                   // bytes of one level of a name
constexpr std::size_t kMaxValueSize = std::size_t{1} << 20;  // bytes of one value

// A place in the tree that can be written to: below a node under a name of 1 to kMaxLevelName bytes. The root stays
// where it is. What a name may consist of is the registry client's business.
inline Status check_place(NodeId parent, std::string_view name) {
  if (parent == kNoNode) return {PRTKV_INVALID_ARGUMENT, "the root cannot be moved or removed"};
  if (name.empty()) return {PRTKV_INVALID_NAME, "a level of a name cannot be empty"};
  if (name.size() > kMaxLevelName) return {PRTKV_INVALID_NAME, "a level of a name is at most 264 bytes long"};
  return {};
}

inline Status check_value_size(std::size_t size) {
  if (size <= kMaxValueSize) return {};
  return {PRTKV_VALUE_TOO_LARGE, std::to_string(size) + " bytes, and a value is at most 1 MiB"};
}

}  // namespace tkv::store

#endif
