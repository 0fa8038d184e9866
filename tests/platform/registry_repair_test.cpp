#include "registry_repair.h"

#include "lmdb_files.h"
#include "temporary_directory.h"

namespace tkv::registry {
namespace {

class LmdbRegistry final : public DamageableRegistry {
 public:
  LmdbRegistry() { options_.directory = directory_ / "registry"; }

  std::shared_ptr<store::Store> open() override { return store::open_or_fail(options_); }

  void damage_a_record(std::mt19937& random) override {
    store::with_plain_lmdb(options_.directory, [&](MDB_txn* txn, MDB_dbi database) {
      std::vector<std::string> keys;
      MDB_cursor* cursor = nullptr;
      MDB_val key{};
      MDB_val data{};
      ASSERT_EQ(mdb_cursor_open(txn, database, &cursor), 0);
      while (mdb_cursor_get(cursor, &key, &data, MDB_NEXT) == 0) {
        keys.emplace_back(static_cast<const char*>(key.mv_data), key.mv_size);
      }
      mdb_cursor_close(cursor);
      const std::string& chosen = keys[random() % keys.size()];
      key = store::val_of(chosen);
      ASSERT_EQ(mdb_get(txn, database, &key, &data), 0);
      std::string record(static_cast<const char*>(data.mv_data), data.mv_size);
      change_bytes(random, &record);
      data = store::val_of(record);
      ASSERT_EQ(mdb_put(txn, database, &key, &data, 0), 0);
    });
  }

 private:
  TemporaryDirectory directory_{TemporaryDirectory::Where::kInMemory};
  store::LmdbOptions options_;
};

TEST(RegistryRepair, AnyDamageToRecordsIsUndoneByARepairAndOneRestore) {
  LmdbRegistry registry;
  RepairTrial(registry, 3).run(200);
}

}  // namespace
}  // namespace tkv::registry
