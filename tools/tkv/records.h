// Records of keys, outside any registry: what walks and exports give, and names within them.
#ifndef TKV_TOOLS_TKV_RECORDS_H
#define TKV_TOOLS_TKV_RECORDS_H

#include <string>
#include <string_view>

#include "base/status.h"
#include "registry/client.h"

namespace tkv::command {

// A copy of what a walk shows only during a visit. A damaged value is left out.
registry::KeyRecord record_of(const registry::WalkEntry& entry);

// The full name of a subkey.
std::string child_name(std::string_view parent, std::string_view level);

// Gives a subtree another top. Returns PRTKV_INVALID_NAME if a name would exceed the limits; the subtree is unspecified
// then.
Status rebase(registry::Subtree* subtree, const std::string& top);

}  // namespace tkv::command

#endif
