// The row of the store for etcd in the table of store kinds. It loads the module that the store is.
#ifndef TKV_PLATFORM_STORE_ETCD_KIND_H
#define TKV_PLATFORM_STORE_ETCD_KIND_H

#include "store/store_kinds.h"

namespace tkv::store {

extern const StoreKind kEtcdKind;

}  // namespace tkv::store

#endif
