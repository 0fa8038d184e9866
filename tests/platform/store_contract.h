// The promises of store.h as tests, the same for every store.
//
// A test program links store_contract and says which store to test:
//
//   INSTANTIATE_TEST_SUITE_P(Lmdb, StoreContract, ::testing::Values(&make_lmdb_factory));
//
// and likewise StoreHistoryContract. Each test makes a factory of its own, so each works on a registry of its own.
#ifndef TKV_TESTS_PLATFORM_STORE_CONTRACT_H
#define TKV_TESTS_PLATFORM_STORE_CONTRACT_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "store/store.h"

namespace tkv::store {

class StoreFactory {
 public:
  virtual ~StoreFactory() = default;

  // Makes a fresh registry whose root has this security record, and opens it.
  virtual std::shared_ptr<Store> open_fresh(const sec_attr& root_security) = 0;

  // Opens the registry once more, beside the stores that are still open. A store that nobody else can open gives
  // the same one again.
  virtual std::shared_ptr<Store> open_again() = 0;

  // Damages the record of a node or of a value behind the store's back. The stores that are open see it once they are
  // opened again.
  virtual void damage_node(NodeId parent, std::string_view name) = 0;
  virtual void damage_value(NodeId id) = 0;
};

using MakeStoreFactory = std::unique_ptr<StoreFactory> (*)();

// A record in which each byte differs from its neighbours.
sec_attr distinct_security(int seed);

class StoreContract : public ::testing::TestWithParam<MakeStoreFactory> {
 protected:
  void SetUp() override;

  // Each makes one node or value in a write of its own, and fails the test if that fails.
  NodeId add(NodeId parent, std::string_view name, int security_seed = 0);
  void set_value(NodeId id, std::int32_t type, std::string_view bytes);

  // Damages the record of a node or of a value, and opens the store again.
  void damage_node(NodeId parent, std::string_view name);
  void damage_value(NodeId id);

  // Reads in a transaction of its own. Returns kNoNode if there is no such node.
  NodeId id_of(NodeId parent, std::string_view name);
  std::string value_of(NodeId id, std::int32_t* type = nullptr);
  std::string names_below(NodeId parent);  // "a b c"
  Totals totals();                         // of a check that must find nothing
  std::vector<Finding> findings(bool repair);

  sec_attr root_security_ = distinct_security(1);
  std::unique_ptr<StoreFactory> factory_;
  std::shared_ptr<Store> store_;
};

// The same for revisions, the log and the past.
class StoreHistoryContract : public StoreContract {
 protected:
  // Each makes one change, or fails the test, and returns its revision.
  Revision write(FunctionRef<Status(Update&)> function);
  Revision set(NodeId id, std::string_view text);

  // All nodes, in order, with their values: "a(1)[b c(2) ] d ".
  std::string now();
  std::string at(Revision revision);

  Revision latest();
  std::vector<ChangeRecord> log(const LogRange& range, LogPosition* position);
  std::vector<Revision> revisions(const LogRange& range);
};

}  // namespace tkv::store

#endif
