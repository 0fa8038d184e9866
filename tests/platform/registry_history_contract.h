// What callers of the client can expect of the history, of batches and of undo, as tests, the same for every store.
//
// A test program links registry_history_contract and says which store to test:
//
//   INSTANTIATE_TEST_SUITE_P(Lmdb, History, ::testing::Values(&make_home<InDirectory>));
//
// and likewise PurgeableHistory, if the store can remove former values. Each test makes a home of its own, so each
// works on a registry of its own.
#ifndef TKV_TESTS_PLATFORM_REGISTRY_HISTORY_CONTRACT_H
#define TKV_TESTS_PLATFORM_REGISTRY_HISTORY_CONTRACT_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "registry_fixture.h"

namespace tkv::registry {

// Where a registry is whose root grants everybody all rights.
class Home {
 public:
  virtual ~Home() = default;
  // Opens the registry, which is created first if need be.
  virtual std::shared_ptr<store::Store> open() = 0;
};

template <typename Kind>
std::unique_ptr<Home> make_home() {
  return std::make_unique<Kind>();
}

// Adds one to a number by comparing and setting, until it succeeds.
Status increment(Client& client, const std::string& name);

class History : public ::testing::TestWithParam<std::unique_ptr<Home> (*)()> {
 protected:
  std::shared_ptr<Client> as(Identity identity) { return client_on(store_, std::move(identity)); }
  void make(const std::string& name, const std::string& bytes = "", const sec_attr& security = open_to_all());
  void set(const std::string& name, const std::string& bytes);
  void move(const std::string& name, const std::string& target);  // both below the root
  // Creates more keys below "a.b", "k0" and so on with the value "1", than the log lists one by one, in one change.
  Revision make_many();

  Revision latest();
  // The code of a failure in brackets instead of a value.
  std::string value(KeyReader& reader, const std::string& name);
  std::string value_at(Client& client, Revision revision, const std::string& name);
  // "a=1 [63]" for each key: its value and the mask of others.
  std::vector<std::string> everything(KeyReader& reader);
  // "created a" for each change of a key.
  std::vector<std::string> log(Client& client, const ChangeQuery& query);
  std::vector<std::string> log(Revision after) { return log(*root_, {.range = {.after = after}}); }

  Status commit(const Batch& batch, CommitResult* result) { return root_->commit(batch, result); }
  Batch undo(Revision revision, const UndoOptions& options = {});

  std::unique_ptr<Home> home_ = GetParam()();
  std::shared_ptr<store::Store> store_ = home_->open();
  std::shared_ptr<Client> root_ = as(superuser());
  std::shared_ptr<Client> bob_ = as(person("bob", {"users"}));
};

// Of stores that keep their past themselves.
class PurgeableHistory : public History {};

}  // namespace tkv::registry

#endif
