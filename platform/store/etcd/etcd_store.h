// The store for a registry on an etcd cluster.
#ifndef TKV_PLATFORM_STORE_ETCD_ETCD_STORE_H
#define TKV_PLATFORM_STORE_ETCD_ETCD_STORE_H

#include <functional>
#include <memory>

#include "store/etcd/cluster.h"
#include "store/etcd/module.h"
#include "store/store.h"

namespace tkv::store::etcd {

// Connects, and opens the registry under the prefix or, with options.create, creates it. Returns
//   PRTKV_INVALID_CONFIGURATION or PRTKV_CONFIGURATION_UNREADABLE  for options that cannot be used
//   PRTKV_ACCESS_DENIED     if etcd refuses the login
//   PRTKV_NO_SUCH_KEY       if there is no registry and none is to be created
//   PRTKV_STORAGE_FAILED    if the registry is damaged or of a newer release
//   PRTKV_UNREACHABLE       if no endpoint can be used, with the reason of each
//
// `interceptors`, if given, see the requests of every channel.
Status open_etcd_store(const EtcdOptions& options, std::shared_ptr<Store>* store,
                       std::function<Interceptors()> interceptors = {});

}  // namespace tkv::store::etcd

#endif
