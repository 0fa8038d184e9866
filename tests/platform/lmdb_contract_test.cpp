#include "lmdb_files.h"
#include "store/lmdb/file.h"
#include "store/lmdb/lmdb_store.h"
#include "store_contract.h"
#include "temporary_directory.h"

namespace tkv::store {
namespace {

class LmdbFactory final : public StoreFactory {
 public:
  std::shared_ptr<Store> open_fresh(const sec_attr& root_security) override {
    LmdbOptions options;
    options.directory = directory_ / "registry";
    options.root_security = root_security;
    return open(options);
  }

  std::shared_ptr<Store> open_again() override {
    LmdbOptions options;
    options.directory = directory_ / "registry";
    options.create = false;
    return open(options);
  }

  void damage_node(NodeId parent, std::string_view name) override { damage(Key::node(parent, name)); }
  void damage_value(NodeId id) override { damage(Key::value(id)); }

 private:
  // Changes a byte of a record behind its header.
  void damage(const Key& key) {
    with_plain_lmdb(directory_ / "registry", [&](MDB_txn* txn, MDB_dbi database) {
      MDB_val key_val = key.val();
      MDB_val data{};
      ASSERT_EQ(mdb_get(txn, database, &key_val, &data), 0);
      std::string record(static_cast<const char*>(data.mv_data), data.mv_size);
      record[5] ^= 0x10;
      data = val_of(record);
      ASSERT_EQ(mdb_put(txn, database, &key_val, &data, 0), 0);
    });
  }

  static std::shared_ptr<Store> open(const LmdbOptions& options) {
    std::shared_ptr<Store> store;
    const Status status = open_lmdb_store(options, &store);
    EXPECT_TRUE(status.ok()) << status.text();
    return store;
  }

  TemporaryDirectory directory_{TemporaryDirectory::Where::kInMemory};
};

INSTANTIATE_TEST_SUITE_P(Lmdb, StoreContract, ::testing::Values([]() -> std::unique_ptr<StoreFactory> {
                           return std::make_unique<LmdbFactory>();
                         }));
INSTANTIATE_TEST_SUITE_P(Lmdb, StoreHistoryContract, ::testing::Values([]() -> std::unique_ptr<StoreFactory> {
                           return std::make_unique<LmdbFactory>();
                         }));

}  // namespace
}  // namespace tkv::store
