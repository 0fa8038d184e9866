// Reading a subtree whole, and bringing one from what it is to what it should be.
#ifndef TKV_PLATFORM_REGISTRY_SUBTREE_H
#define TKV_PLATFORM_REGISTRY_SUBTREE_H

#include <span>
#include <string>
#include <string_view>

#include "registry/client.h"
#include "registry/tree.h"

namespace tkv::registry {

// Reads a subtree; it has no keys if its top does not exist. Needs TKV_RIGHT_READ and TKV_RIGHT_LIST on all of it.
// With `over_damage`, it includes keys whose record or value is damaged, with what is known of them.
Status read_subtree(Reader& tree, const std::string& top, bool over_damage, KeyProgress progress, Subtree* subtree);

// What has to change to bring `current` to `wanted`; both have the same top. A key to be added takes what it leaves out
// from `rules`; the top inherits from a key with the security `above`. A key whose record is damaged is removed and, if
// it is wanted, added anew. Returns PRTKV_KEY_EXISTS for MergeMode::kAdd if a key exists and differs; `*difference` is
// complete all the same.
Status find_difference(const Subtree& current, const Subtree& wanted, MergeMode mode, const NewKeySecurity& rules,
                       const sec_attr& above, Difference* difference);

// Makes all changes of a difference. A subtree that is added becomes visible at once. The parent of the top exists.
Status apply_difference(Writer& tree, std::span<const KeyChange> changes);

// As Client::apply_changes.
Status apply_found(Writer& tree, std::span<const KeyChange> changes);

}  // namespace tkv::registry

#endif
