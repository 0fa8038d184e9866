// Opening the registry that is configured: its store and, on top of it, the Registry.
//
// The embedded store is part of this library. The store for etcd is the module libtkv_etcd.so, loaded the first time
// that a location asks for it and never unloaded. It is looked for, in this order: in the directory that the
// environment variable TKV_MODULE_DIR names, when it is set; beside the file that contains this code; in the folder
// "lib" beside that file's folder; on the system's library path. A module that is found but does not fit ends the
// search.
#ifndef TKV_PLATFORM_REGISTRY_OPEN_STORE_H
#define TKV_PLATFORM_REGISTRY_OPEN_STORE_H

#include <memory>

#include "base/identity.h"
#include "registry/configuration.h"
#include "registry/open_client.h"
#include "registry/registry.h"
#include "store/store.h"

namespace tkv::registry {

// Opens the store of a configuration. The directories above a default location are made as needed, mode 0700; those
// above a configured one must exist. Failures are the store's own, and 15 when the module for etcd cannot be loaded,
// with every place that was tried and the reason. Any thread may call.
Status open_store(const Configuration& configuration, const Identity& identity, const OpenOptions& options,
                  std::shared_ptr<store::Store>* store);

// Reads configuration and identity of the process and opens the registry.
Status open_registry(std::shared_ptr<Registry>* registry, const OpenOptions& options = {});

}  // namespace tkv::registry

#endif
