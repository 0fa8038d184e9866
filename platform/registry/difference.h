// What distinguishes two subtrees that were read.
#ifndef TKV_PLATFORM_REGISTRY_DIFFERENCE_H
#define TKV_PLATFORM_REGISTRY_DIFFERENCE_H

#include "base/status.h"
#include "registry/key_values.h"
#include "sec_attr.h"

namespace tkv::registry {

// What has to change to bring `current` to `wanted`; both have the same top. A key to be added takes what it leaves out
// from `rules`; the top inherits from a key with the security `above`. A key whose record is damaged is removed, unless
// `wanted` may have had it, and, if it is wanted, added anew. Returns PRTKV_KEY_EXISTS for MergeMode::kAdd if a key
// exists and differs; `*difference` is complete all the same.
Status find_difference(const Subtree& current, const Subtree& wanted, MergeMode mode, const NewKeySecurity& rules,
                       const sec_attr& above, Difference* difference);

}  // namespace tkv::registry

#endif
