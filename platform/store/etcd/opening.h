// Opening a registry under a prefix: finding or creating it, and making sure that no other registry is in the way.
#ifndef TKV_PLATFORM_STORE_ETCD_OPENING_H
#define TKV_PLATFORM_STORE_ETCD_OPENING_H

#include "store/etcd/core.h"
#include "store/etcd/options.h"

namespace tkv::store::etcd {

// Finds the registry under options.prefix or, with options.create, creates it. `core` learns what was found. A registry
// of a release that did not mark its prefix is marked if options.create is set and etcd permits it.
//
// Returns PRTKV_UNUSABLE if the prefix is within that of another registry, contains another registry, or is to be
// created where there are other keys; PRTKV_NO_SUCH_KEY if there is no registry and none is to be created;
// PRTKV_STORAGE_FAILED if the registry is damaged or of a later format.
Status open_registry(Core& core, const EtcdOptions& options);

}  // namespace tkv::store::etcd

#endif
