// What every store refuses.
#ifndef TKV_PLATFORM_STORE_STORE_LIMITS_H
#define TKV_PLATFORM_STORE_STORE_LIMITS_H

#include <string>
#include <string_view>

#include "base/limits.h"
#include "store/store.h"

namespace tkv::store {

// Tells whether a node may be written at a place: below another node, under a name of 1 to kMaxLevelSize bytes. The
// root stays where it is. The registry client defines what a name may consist of.
inline Status check_place(NodeId parent, std::string_view name) {
  if (parent == kNoNode) return {PRTKV_INVALID_ARGUMENT, "the root cannot be moved or removed"};
  if (name.empty()) return {PRTKV_INVALID_NAME, "a level of a name cannot be empty"};
  if (name.size() > kMaxLevelSize) {
    return {PRTKV_INVALID_NAME, "a level of a name has " + std::to_string(name.size()) + " bytes, more than " +
                                    std::to_string(kMaxLevelSize)};
  }
  return {};
}

}  // namespace tkv::store

#endif
