#include "memory_store.h"

#include "store_contract.h"

namespace tkv::store {
namespace {

class MemoryFactory final : public StoreFactory {
 public:
  std::shared_ptr<Store> open_fresh(const sec_attr& root_security) override {
    return store_ = std::make_shared<MemoryStore>(root_security);
  }
  std::shared_ptr<Store> open_again() override { return store_; }
  void damage_node(NodeId parent, std::string_view name) override { store_->damage_node(parent, name); }
  void damage_value(NodeId id) override { store_->damage_value(id); }

 private:
  std::shared_ptr<MemoryStore> store_;
};

INSTANTIATE_TEST_SUITE_P(Memory, StoreContract, ::testing::Values([]() -> std::unique_ptr<StoreFactory> {
                           return std::make_unique<MemoryFactory>();
                         }));
INSTANTIATE_TEST_SUITE_P(Memory, StoreHistoryContract, ::testing::Values([]() -> std::unique_ptr<StoreFactory> {
                           return std::make_unique<MemoryFactory>();
                         }));

}  // namespace
}  // namespace tkv::store
