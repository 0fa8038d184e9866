// History, batches and undo on a registry on etcd.
#include <gtest/gtest.h>

#include <memory>

#include "etcd_cluster.h"
#include "registry_history_contract.h"
#include "store/etcd/etcd_store.h"

namespace tkv::registry {
namespace {

// All tests share one cluster; each has a registry of its own.
store::etcd::EtcdCluster& cluster() {
  static store::etcd::EtcdCluster cluster;
  return cluster;
}

class OnEtcd final : public Home {
 public:
  std::shared_ptr<store::Store> open() override {
    options_.root_security = open_to_all();
    return store::etcd::open_when_ready(options_);
  }

 private:
  store::EtcdOptions options_ = cluster().registry();
};

INSTANTIATE_TEST_SUITE_P(Etcd, History, ::testing::Values(&make_home<OnEtcd>));

}  // namespace
}  // namespace tkv::registry
