// How the registry client loads the store for etcd: a module of its own, so that embedded use never loads its
// libraries.
#ifndef TKV_PLATFORM_STORE_ETCD_MODULE_H
#define TKV_PLATFORM_STORE_ETCD_MODULE_H

#include <memory>

#include "store/etcd/options.h"
#include "store/store.h"

namespace tkv::store {

// The one symbol that libtkv_etcd.so exports. It is built with the library that loads it: `abi` is
// kEtcdModuleAbi, and a module of another build refuses.
constexpr int kEtcdModuleAbi = 1;
constexpr const char* kEtcdModuleSymbol = "tkv_open_etcd_store";
using OpenEtcdStore = Status (*)(int abi, const EtcdOptions& options, std::shared_ptr<Store>* store);

}  // namespace tkv::store

#endif
