#include <gtest/gtest.h>

#include <map>
#include <memory>

#include "etcd_cluster.h"
#include "store/etcd/etcd_store.h"
#include "store/etcd/keys.h"
#include "store/etcd/requests.h"
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

  void damage_node(NodeId parent, std::string_view name) override {
    damage(etcd::Keys(options_.prefix).node({parent, std::string(name)}));
  }
  void damage_value(NodeId id) override { damage(etcd::Keys(options_.prefix).value(id)); }

 private:
  // Changes a byte of a record behind its header.
  void damage(const std::string& key) {
    etcd::ClusterOptions connection;
    connection.endpoints = options_.endpoints;
    connection.timeout = etcd::patience().left();
    std::unique_ptr<etcd::Cluster> raw;
    const Status connected = etcd::Cluster::connect(connection, &raw);
    ASSERT_TRUE(connected.ok()) << connected.text();
    etcd::RangeResponse found;
    ASSERT_TRUE(raw->range(etcd::get_one(key), &found, etcd::patience()).ok());
    ASSERT_EQ(found.kvs_size(), 1);
    std::string record = found.kvs(0).value();
    record[5] ^= 0x10;
    etcd::TxnRequest request;
    etcd::put(request.add_success(), key, record);
    etcd::TxnResponse response;
    ASSERT_TRUE(raw->txn(request, &response, etcd::patience()).ok());
  }

  EtcdOptions options_ = cluster(members).registry();
};

INSTANTIATE_TEST_SUITE_P(EtcdOfOneMember, StoreContract, ::testing::Values([]() -> std::unique_ptr<StoreFactory> {
                           return std::make_unique<EtcdFactory<1>>();
                         }));

INSTANTIATE_TEST_SUITE_P(EtcdOfThreeMembers, StoreContract, ::testing::Values([]() -> std::unique_ptr<StoreFactory> {
                           return std::make_unique<EtcdFactory<3>>();
                         }));

INSTANTIATE_TEST_SUITE_P(EtcdOfOneMember, StoreHistoryContract,
                         ::testing::Values([]() -> std::unique_ptr<StoreFactory> {
                           return std::make_unique<EtcdFactory<1>>();
                         }));

INSTANTIATE_TEST_SUITE_P(EtcdOfThreeMembers, StoreHistoryContract,
                         ::testing::Values([]() -> std::unique_ptr<StoreFactory> {
                           return std::make_unique<EtcdFactory<3>>();
                         }));

}  // namespace
}  // namespace tkv::store
