// What the high-availability daemon must wait for when it starts, kept in the registry itself.
#ifndef TKV_PLATFORM_REGISTRY_ZUVED_H
#define TKV_PLATFORM_REGISTRY_ZUVED_H

#include <cstdint>

#include "base/status.h"
#include "registry/client.h"

namespace tkv::registry {

// Records a storage mode of prtkv.h: its number as a text at SYSTEM.ZUVED.mode and its services as a list at
// SYSTEM.ZUVED.dependencies, both or neither. Keys that are missing on the way are made, owned by the identity, with
// masks 0x3f, 0x34, 0x3. 8 for a mode that there is not. Needs 0x04 on the keys that exist, and 0x10 on the parent of
// the first that does not.
Status record_zuved_dependencies(Client& client, std::int32_t mode);

}  // namespace tkv::registry

#endif
