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
#include "registry/registry.h"
#include "store/store.h"

namespace tkv::registry {

struct OpenOptions {
  bool create = true;      // make a fresh registry when there is none; its root belongs to the identity
  bool read_only = false;  // of an embedded store
};

// Opens the store of a configuration. The directories above a default location are made as needed, mode 0700; those
// above a configured one must exist. Failures are the store's own, and 15 when the module for etcd cannot be loaded,
// with every place that was tried and the reason. Any thread may call.
Status open_store(const Configuration& configuration, const Identity& identity, const OpenOptions& options,
                  std::shared_ptr<store::Store>* store);

// Tells whether the configured location can hold a registry, as far as that can be told without opening it: nothing is
// asked of a cluster. Changes nothing. Any thread may call.
Status check_location(const Configuration& configuration);

// Whether the configured location has no registry yet; the embedded store reports that as it reports a damaged one.
// False for a cluster. Any thread may call.
bool is_absent(const Configuration& configuration);

// Reads configuration and identity of the process and opens the registry.
Status open_registry(std::shared_ptr<Registry>* registry, const OpenOptions& options = {});

}  // namespace tkv::registry

#endif
