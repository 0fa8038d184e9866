#include "etcd_store_fixture.h"
#include "registry_repair.h"

namespace tkv::store::etcd {
namespace {

class EtcdRegistry final : public registry::DamageableRegistry {
 public:
  EtcdRegistry() {
    ClusterOptions connection;
    connection.endpoints = options_.endpoints;
    connection.timeout = patience().left();
    EXPECT_TRUE(done(Cluster::connect(connection, &raw_)));
  }

  std::shared_ptr<Store> open() override { return open_when_ready(options_); }

  void damage_a_record(std::mt19937& random) override {
    std::vector<KeyValue> records;
    const Keys keys(options_.prefix);
    for (const KeyRange& range : {keys.all_nodes(), keys.all_values(), KeyRange{keys.meta(), keys.meta() + '\0'}}) {
      RangeResponse found;
      ASSERT_TRUE(raw_->range(get_range(range, 0), &found, patience()).ok());
      records.insert(records.end(), found.kvs().begin(), found.kvs().end());
    }
    KeyValue& chosen = records[random() % records.size()];
    registry::change_bytes(random, chosen.mutable_value());
    TxnRequest request;
    put(request.add_success(), chosen.key(), chosen.value());
    TxnResponse response;
    ASSERT_TRUE(raw_->txn(request, &response, patience()).ok());
  }

 private:
  EtcdCluster cluster_;
  EtcdOptions options_ = cluster_.registry();
  std::unique_ptr<Cluster> raw_;
};

TEST(EtcdRepair, AnyDamageToRecordsIsUndoneByARepairAndOneRestore) {
  EtcdRegistry registry;
  registry::RepairTrial(registry, 2).run(30);
}

}  // namespace
}  // namespace tkv::store::etcd
