// How the registry client loads the store for etcd: a module of its own, so that embedded use never loads its
// libraries.
#ifndef TKV_PLATFORM_STORE_ETCD_MODULE_H
#define TKV_PLATFORM_STORE_ETCD_MODULE_H

#include <memory>
#include <string>
#include <vector>

#include "store.h"

namespace tkv::store {

struct EtcdOptions {
  std::vector<std::string> endpoints;  // "host:port", one to five
  std::string ca;                      // PEM files; empty: not used. With a ca the connection is TLS
  std::string cert;
  std::string key;
  std::string user;
  std::string password_file;     // one line; readable by its owner only
  std::string prefix = "/tkv/";  // of every key of this registry
  int timeout_ms = 5000;         // of one operation, over all endpoints
  bool create = true;            // make a fresh registry when there is none
  sec_attr root_security{};      // security record of a fresh registry's root
};

// The one symbol that libtkv_etcd.so exports. It is built with the library that loads it: `abi` is
// kEtcdModuleAbi, and a module of another build refuses.
constexpr int kEtcdModuleAbi = 1;
constexpr const char* kEtcdModuleSymbol = "tkv_open_etcd_store";
using OpenEtcdStore = Status (*)(int abi, const EtcdOptions& options, std::shared_ptr<Store>* store);

}  // namespace tkv::store

#endif
