// The services that the high-availability daemon must wait for when it starts, recorded in the registry.
#ifndef TKV_PLATFORM_REGISTRY_ZUVED_H
#define TKV_PLATFORM_REGISTRY_ZUVED_H

#include <cstdint>

#include "base/status.h"
#include "registry/client.h"

namespace tkv::registry {

// Records a storage mode of prtkv.h: its number as a text at SYSTEM.ZUVED.mode and its services as a list at
// SYSTEM.ZUVED.dependencies, both or neither. Creates missing keys, with default_security(). Returns
// PRTKV_INVALID_ARGUMENT for an unknown mode. Needs TKV_RIGHT_WRITE on the keys that exist, and TKV_RIGHT_CREATE on the
// parent of the first that does not.
Status record_zuved_dependencies(Client& client, std::int32_t mode);

}  // namespace tkv::registry

#endif
