// Loading the store for etcd from its module. See open_store.h for where it is looked for.
#ifndef TKV_PLATFORM_REGISTRY_ETCD_LOADER_H
#define TKV_PLATFORM_REGISTRY_ETCD_LOADER_H

#include "base/status.h"
#include "store/etcd/module.h"

namespace tkv::registry {

// Gives the module's function. Loaded once, for good; a failure is tried again by the next call. Any thread may call.
Status load_etcd_module(store::OpenEtcdStore* open);

}  // namespace tkv::registry

#endif
