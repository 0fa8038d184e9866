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

 private:
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

}  // namespace
}  // namespace tkv::store
