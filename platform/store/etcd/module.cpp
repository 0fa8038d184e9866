#include "store/etcd/module.h"

#include "store/etcd/etcd_store.h"

extern "C" __attribute__((visibility("default"))) tkv::Status TKV_OPEN_ETCD_STORE(
    const tkv::store::EtcdOptions& options, std::shared_ptr<tkv::store::Store>* store) {
  return tkv::store::etcd::open_etcd_store(options, store);
}
