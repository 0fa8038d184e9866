// Checking a whole registry: the store's findings with the names of keys.
#ifndef TKV_PLATFORM_REGISTRY_CHECK_H
#define TKV_PLATFORM_REGISTRY_CHECK_H

#include "registry/client.h"
#include "store/store.h"

namespace tkv::registry {

// As Client::check. The superuser may check a registry whose root key cannot be read. `repair` is null, or describes
// the repair for the log.
Status check_registry(store::Store& store, const Identity& identity, const ChangeDescription* repair,
                      FunctionRef<void(const CheckStep& step)> progress, CheckResult* result);

}  // namespace tkv::registry

#endif
