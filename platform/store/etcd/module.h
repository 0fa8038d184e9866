// How the registry client loads the store for etcd: a module of its own, so that embedded use never loads its
// libraries.
#ifndef TKV_PLATFORM_STORE_ETCD_MODULE_H
#define TKV_PLATFORM_STORE_ETCD_MODULE_H

#include <memory>

#include "store/etcd/module_abi.h"
#include "store/etcd/options.h"
#include "store/store.h"

namespace tkv::store {

// The only symbol that libtkv_etcd.so exports. Its name ends with a digest of the headers that declare the types below:
// a module and a library that disagree about their layout do not find each other, and nothing of the module is called.
#define TKV_JOIN_NAMES(begin, end) begin##end
#define TKV_SYMBOL_OF_RELEASE(begin, release) TKV_JOIN_NAMES(begin, release)
#define TKV_OPEN_ETCD_STORE TKV_SYMBOL_OF_RELEASE(tkv_open_etcd_store_, TKV_ETCD_MODULE_ABI)

#define TKV_QUOTE_NAME(name) #name
#define TKV_TEXT_OF_NAME(name) TKV_QUOTE_NAME(name)
constexpr const char* kEtcdModuleSymbol = TKV_TEXT_OF_NAME(TKV_OPEN_ETCD_STORE);
using OpenEtcdStore = Status (*)(const EtcdOptions& options, std::shared_ptr<Store>* store);

}  // namespace tkv::store

#endif
