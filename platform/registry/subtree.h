// Reading a subtree whole, and bringing one from what it is to what it should be.
#ifndef TKV_PLATFORM_REGISTRY_SUBTREE_H
#define TKV_PLATFORM_REGISTRY_SUBTREE_H

#include <span>
#include <string>
#include <string_view>

#include "registry/client.h"
#include "registry/difference.h"
#include "registry/tree.h"

namespace tkv::registry {

// Reads a subtree; it has no keys if its top does not exist. Needs TKV_RIGHT_READ and TKV_RIGHT_LIST on all of it.
// With `over_damage`, it includes keys whose record or value is damaged, with what is known of them.
Status read_subtree(Reader& tree, const std::string& top, bool over_damage, KeyProgress progress, Subtree* subtree);

// Makes all changes of a difference. A subtree that is added becomes visible at once. The parent of the top exists.
Status apply_difference(Writer& tree, std::span<const KeyChange> changes);

}  // namespace tkv::registry

#endif
