// The store for a registry on an etcd cluster.
#ifndef TKV_PLATFORM_STORE_ETCD_ETCD_STORE_H
#define TKV_PLATFORM_STORE_ETCD_ETCD_STORE_H

#include <functional>
#include <memory>

#include "store/etcd/cluster.h"
#include "store/etcd/module.h"
#include "store/store.h"

namespace tkv::store::etcd {

// Connects and opens the registry under the prefix, which is made when there is none. 41 and 42 for options that
// cannot be used, 2 for a refused login, 4 when there is no registry and none is to be made, 7 when it is damaged or of
// a newer release, 15 when no endpoint can be used, with the reason of each.
//
// `interceptors`, when given, look at the requests of every channel.
Status open_etcd_store(const EtcdOptions& options, std::shared_ptr<Store>* store,
                       std::function<Interceptors()> interceptors = {});

}  // namespace tkv::store::etcd

#endif
