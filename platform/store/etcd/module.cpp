#include "store/etcd/module.h"

#include "store/etcd/etcd_store.h"

extern "C" __attribute__((visibility("default"))) tkv::Status tkv_open_etcd_store(
    std::uint64_t abi, const tkv::store::EtcdOptions& options, std::shared_ptr<tkv::store::Store>* store) {
  if (abi != tkv::store::kEtcdModuleAbi) {
    return {PRTKV_UNUSABLE,
            "libtkv_etcd.so belongs to another release of TKV than the library that loads it; install both from one "
            "release"};
  }
  return tkv::store::etcd::open_etcd_store(options, store);
}
