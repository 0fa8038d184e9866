// How the registry client loads the store for etcd: a module of its own, so that embedded use never loads its
// libraries.
#ifndef TKV_PLATFORM_STORE_ETCD_MODULE_H
#define TKV_PLATFORM_STORE_ETCD_MODULE_H

#include <cstdint>
#include <memory>

#include "store/etcd/module_abi.h"
#include "store/etcd/options.h"
#include "store/store.h"

namespace tkv::store {

// The only symbol that libtkv_etcd.so exports. The module refuses a caller whose `abi` is not its own kEtcdModuleAbi: a
// digest of the headers that declare the types below, so that no two sides ever disagree about their layout.
constexpr const char* kEtcdModuleSymbol = "tkv_open_etcd_store";
using OpenEtcdStore = Status (*)(std::uint64_t abi, const EtcdOptions& options, std::shared_ptr<Store>* store);

}  // namespace tkv::store

#endif
