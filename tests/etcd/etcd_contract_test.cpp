#include <gtest/gtest.h>

#include <map>
#include <memory>

#include "etcd_cluster.h"
#include "store/etcd/etcd_store.h"
#include "store_contract.h"

namespace tkv::store {
namespace {

// One cluster per program, and a registry under a prefix of its own for each test.
etcd::EtcdCluster& cluster(int members) {
  static std::map<int, std::unique_ptr<etcd::EtcdCluster>> clusters;
  auto& cluster = clusters[members];
  if (!cluster) {
    etcd::EtcdCluster::Options options;
    options.members = members;
    cluster = std::make_unique<etcd::EtcdCluster>(options);
  }
  return *cluster;
}

template <int members>
class EtcdFactory final : public StoreFactory {
 public:
  std::shared_ptr<Store> open_fresh(const sec_attr& root_security) override {
    options_.root_security = root_security;
    return etcd::open_when_ready(options_);
  }

  std::shared_ptr<Store> open_again() override {
    options_.create = false;
    return etcd::open_when_ready(options_);
  }

 private:
  EtcdOptions options_ = cluster(members).registry();
};

INSTANTIATE_TEST_SUITE_P(EtcdOfOneMember, StoreContract, ::testing::Values([]() -> std::unique_ptr<StoreFactory> {
                           return std::make_unique<EtcdFactory<1>>();
                         }));

INSTANTIATE_TEST_SUITE_P(EtcdOfThreeMembers, StoreContract, ::testing::Values([]() -> std::unique_ptr<StoreFactory> {
                           return std::make_unique<EtcdFactory<3>>();
                         }));

}  // namespace
}  // namespace tkv::store
