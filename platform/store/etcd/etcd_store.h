// The store for a registry on an etcd cluster.
#ifndef TKV_PLATFORM_STORE_ETCD_ETCD_STORE_H
#define TKV_PLATFORM_STORE_ETCD_ETCD_STORE_H

#include <functional>
#include <memory>

#include "store/etcd/cluster.h"
#include "store/etcd/module.h"
#include "store/store.h"

namespace tkv::store::etcd {

// Connects, and opens the registry under the prefix or, with options.create, creates it. Returns what Cluster::connect
// returns, PRTKV_NO_SUCH_KEY if there is no registry and none is to be created, PRTKV_STORAGE_FAILED if the registry is
// damaged or of a newer release, and PRTKV_UNUSABLE if its prefix cannot be used.
//
// `interceptors`, if given, see the requests of every channel.
Status open_etcd_store(const EtcdOptions& options, std::shared_ptr<Store>* store,
                       std::function<Interceptors()> interceptors = {});

}  // namespace tkv::store::etcd

#endif
