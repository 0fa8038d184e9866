// A session whose cluster goes back to a snapshot, against a cluster in memory.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "fake_kv.h"
#include "store/etcd/build.h"
#include "store/etcd/checker.h"
#include "store/etcd/opening.h"
#include "store/etcd/stm.h"
#include "store/etcd/token.h"
#include "tree.h"

namespace tkv::store::etcd {
namespace {

class EtcdRestoredSnapshot : public testing::Test {
 protected:
  // A session of the registry.
  std::unique_ptr<Core> session(bool may_create = true) {
    auto core = std::make_unique<Core>(std::make_unique<SharedKv>(kv_), "/tkv/");
    EtcdOptions options;
    options.create = may_create;
    EXPECT_TRUE(done(open_registry(*core, options)));
    return core;
  }

  template <typename Function>
  static Status run(Core& core, Function function) {
    NextRun next;
    for (int runs = 0; runs < 5; ++runs) {
      Stm stm(core, Stm::Purpose::kWrite, std::move(next), core.deadline());
      Status result = stm.start();
      if (result.ok()) result = function(stm);
      if (stm.finish(&result)) return result;
      next = stm.take_next();
    }
    return {PRTKV_UNREACHABLE, "ran too often"};
  }

  static Status take_block(Core& core, std::uint64_t size, IdRange* block) {
    Owner owner;
    if (Status status = core.session.owner(&owner, core.deadline()); !status.ok()) return status;
    bool lost = false;
    Status status = core.ids.take_block(owner, size, block, &lost, core.deadline());
    EXPECT_FALSE(lost);
    return status;
  }

  static Status create(Core& core, const std::string& name, NodeId* id = nullptr) {
    return run(core, [&](Update& update) -> Status {
      Node root;
      Node node;
      if (Status status = update.find(kNoNode, "", &root); !status.ok()) return status;
      if (Status status = update.new_id(&node.id); !status.ok()) return status;
      if (id != nullptr) *id = node.id;
      return update.insert(kRootNode, name, node);
    });
  }

  // Others write until the cluster's revision is what it was before the restoration, and more.
  void catch_up(Core& core, std::int64_t revision) {
    for (int i = 0; kv_.revision() <= revision; ++i) {
      ASSERT_TRUE(done(create(core, "other" + std::to_string(i))));
    }
  }

  static void expect_ended(const Status& status) {
    EXPECT_TRUE(status.is(PRTKV_UNUSABLE)) << status.text();
    EXPECT_NE(status.text().find("another history"), std::string::npos) << status.text();
  }

  FakeKv kv_;
};

TEST_F(EtcdRestoredSnapshot, IsDistinguishedFromADamagedMark) {
  const auto open = session();
  const Keys keys("/tkv/");
  const std::string mark = kv_.get(keys.mark());
  ASSERT_TRUE(done(create(*open, "before")));
  kv_.put(keys.mark(), "damaged");
  const Status status = create(*open, "meanwhile");
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED)) << status.text();
  EXPECT_NE(status.text().find("etcdctl del /tkv/registry"), std::string::npos) << status.text();
  kv_.put(keys.mark(), mark);
  EXPECT_TRUE(done(create(*open, "afterwards")));
}

TEST_F(EtcdRestoredSnapshot, EndsASessionThatSeesARevisionGoBackwards) {
  const auto before = session();
  ASSERT_TRUE(done(create(*before, "a")));
  const FakeKv::State snapshot = kv_.state();
  ASSERT_TRUE(done(create(*before, "b")));
  kv_.restore(snapshot);
  Node node;
  expect_ended(run(*before, [&](View& view) { return view.find(kNoNode, "", &node); }));
  const auto after = session();
  EXPECT_TRUE(done(create(*after, "b")));
  expect_ended(create(*before, "c"));
}

TEST_F(EtcdRestoredSnapshot, GivesNoIdTwiceHoweverFarTheOthersHaveCome) {
  const auto before = session();
  const FakeKv::State snapshot = kv_.state();
  NodeId first = kNoNode;
  ASSERT_TRUE(done(create(*before, "a", &first)));
  const std::int64_t revision = kv_.revision();
  kv_.restore(snapshot);
  const auto after = session();
  NodeId again = kNoNode;
  ASSERT_TRUE(done(create(*after, "b", &again)));
  EXPECT_EQ(again, first) << "the counter went back";
  catch_up(*after, revision + 10);
  expect_ended(create(*before, "c"));
}

TEST_F(EtcdRestoredSnapshot, EndsASessionWhoseLastClaimOfIdsWasUndone) {
  const auto before = session();
  ASSERT_TRUE(done(create(*before, "a")));
  const FakeKv::State snapshot = kv_.state();
  IdRange block;
  ASSERT_TRUE(done(take_block(*before, 1000, &block)));
  const std::int64_t revision = kv_.revision();
  kv_.restore(snapshot);
  const auto after = session();
  catch_up(*after, revision + 10);
  expect_ended(create(*before, "c"));
}

// The snapshot is younger than the session's ids, and the others have gone on: only the mark of the session's writer
// tells. A large change begins with a batch, of which it is also compared.
TEST_F(EtcdRestoredSnapshot, EndsASessionWhoseNextWriteIsALargeOne) {
  constexpr int kMany = 150;
  const auto create_many = [](Core& core) {
    return run(core, [](Update& update) -> Status {
      Node top;
      if (Status status = update.new_id(&top.id); !status.ok()) return status;
      for (int i = 0; i < kMany; ++i) {
        Node node;
        if (Status status = update.new_id(&node.id); !status.ok()) return status;
        if (Status status = update.insert(top.id, "k" + std::to_string(i), node); !status.ok()) return status;
      }
      return update.insert(kRootNode, "top", top);
    });
  };
  for (const bool repeated : {false, true}) {
    const auto before = session();
    ASSERT_TRUE(done(create(*before, repeated ? "a2" : "a1")));
    const FakeKv::State snapshot = kv_.state();
    ASSERT_TRUE(done(create(*before, repeated ? "b2" : "b1")));
    const std::int64_t revision = kv_.revision();
    kv_.restore(snapshot);
    const auto after = session();
    while (kv_.revision() <= revision) ASSERT_TRUE(done(create(*after, std::to_string(kv_.revision()))));
    kv_.after_txn = [repeated](const TxnRequest&) { return Reply{Verdict::kDone, {}, repeated}; };
    expect_ended(create_many(*before));
    kv_.after_txn = nullptr;
  }
}

TEST_F(EtcdRestoredSnapshot, EndsASessionOfARegistryThatWasMadeAnew) {
  const auto before = session();
  ASSERT_TRUE(done(create(*before, "a")));
  TxnRequest wipe;
  erase(wipe.add_success(), Keys("/tkv/").all());
  TxnResponse response;
  ASSERT_TRUE(kv_.txn(wipe, &response, before->deadline()).ok());
  const auto after = session();
  expect_ended(run(*before, [](Update& update) { return update.set_value(kRootNode, 3, bytes_of("lost")); }));
  EXPECT_TRUE(done(create(*after, "b")));
}

// A registry of an earlier release has no mark, and a session that may not create does not make one.
TEST_F(EtcdRestoredSnapshot, GivesNoIdTwiceInARegistryWithoutAMark) {
  const Keys keys("/tkv/");
  (void)session();
  kv_.erase(keys.mark());
  const auto before = session(false);
  const FakeKv::State snapshot = kv_.state();
  ASSERT_TRUE(done(create(*before, "a")));
  const std::int64_t revision = kv_.revision();
  kv_.restore(snapshot);
  const auto after = session(false);
  ASSERT_TRUE(done(create(*after, "b")));
  catch_up(*after, revision + 10);
  expect_ended(create(*before, "c"));
  EXPECT_EQ(kv_.count(KeyRange{keys.mark(), keys.mark() + '\0'}), 0u);
}

TEST_F(EtcdRestoredSnapshot, LeavesSessionsInTheirOwnHistoryAlone) {
  const auto one = session();
  const auto two = session();
  for (int i = 0; i < 600; ++i) {
    ASSERT_TRUE(done(create(i % 2 == 0 ? *one : *two, "k" + std::to_string(i))));
  }
}

// ---- sweeping, which knows nothing of what is below the key or the ids that it has been told to remove

class EtcdRestoredWhileSweeping : public EtcdRestoredSnapshot {
 protected:
  // A key with a subkey, both new. Returns the key's id.
  NodeId create_family(Core& core, const std::string& name) {
    Node top;
    EXPECT_TRUE(done(run(core, [&](Update& update) -> Status {
      Node child;
      if (Status status = update.new_id(&top.id); !status.ok()) return status;
      if (Status status = update.new_id(&child.id); !status.ok()) return status;
      if (Status status = update.insert(top.id, "child", child); !status.ok()) return status;
      return update.insert(kRootNode, name, top);
    })));
    return top.id;
  }

  // Calls `meanwhile` once, right before the `number`th removal from here on.
  void before_removal(int number, std::function<void()> meanwhile) {
    kv_.before_txn = [this, number, meanwhile = std::move(meanwhile)](const TxnRequest& request) {
      const bool removes = request.success_size() > 0 && request.success(0).has_request_delete_range();
      if (removes && ++removals_ == number) meanwhile();
      return Reply();
    };
  }

  // Restores a snapshot, and lets others write until they have caught up with the revision.
  void restore(const FakeKv::State& snapshot, const std::function<void()>& others = nullptr) {
    const std::int64_t revision = kv_.revision();
    kv_.restore(snapshot);
    if (others) others();
    while (kv_.revision() <= revision) kv_.put("/elsewhere", "something");
  }

  Status remove_family(Core& core, const std::string& name) {
    return run(core, [&](Update& update) -> Status {
      Node top;
      if (Status status = update.find(kRootNode, name, &top); !status.ok()) return status;
      if (Status status = update.unlink(kRootNode, name); !status.ok()) return status;
      return update.discard(top.id);
    });
  }

  const Keys keys_{"/tkv/"};
  std::atomic<int> removals_ = 0;
};

TEST_F(EtcdRestoredWhileSweeping, AKeyThatWasDeletedWithoutSpaceKeepsItsSubkeys) {
  const auto deleting = session();
  const NodeId top = create_family(*session(), "top");
  const FakeKv::State snapshot = kv_.state();
  kv_.is_full = true;
  before_removal(2, [this, snapshot] { restore(snapshot); });
  (void)remove_family(*deleting, "top");
  EXPECT_NE(kv_.get(keys_.node({kRootNode, "top"})), "") << "the snapshot was restored";
  EXPECT_NE(kv_.get(keys_.node({top, "child"})), "");
}

// The log had been removed before the snapshot was made.
TEST_F(EtcdRestoredWhileSweeping, ASecondKeyThatWasDeletedWithoutSpaceKeepsItsSubkeysToo) {
  const auto deleting = session();
  (void)create_family(*session(), "first");
  const NodeId top = create_family(*session(), "top");
  kv_.is_full = true;
  ASSERT_TRUE(done(remove_family(*deleting, "first")));
  before_removal(2, [this, snapshot = kv_.state()] { restore(snapshot); });
  (void)remove_family(*deleting, "top");
  EXPECT_NE(kv_.get(keys_.node({kRootNode, "top"})), "") << "the snapshot was restored";
  EXPECT_NE(kv_.get(keys_.node({top, "child"})), "");
}

TEST_F(EtcdRestoredWhileSweeping, WhatWasDeletedWithoutSpaceIsRemovedThoughTheLogIsBack) {
  const auto deleting = session();
  const NodeId top = create_family(*session(), "top");
  kv_.is_full = true;
  before_removal(2, [this] { kv_.put(keys_.log(), ChangeLog::encode({})); });
  ASSERT_TRUE(done(remove_family(*deleting, "top")));
  EXPECT_GE(removals_, 2) << "the log was put back";
  EXPECT_EQ(kv_.get(keys_.node({top, "child"})), "");
}

TEST_F(EtcdRestoredWhileSweeping, AKeyThatIsNoLongerDeletedKeepsItsSubkeys) {
  const auto sweeping = session();
  const NodeId top = create_family(*session(), "top");
  const FakeKv::State snapshot = kv_.state();
  kv_.erase(keys_.node({kRootNode, "top"}));
  kv_.put(keys_.garbage(top), "");
  before_removal(1, [this, snapshot] { restore(snapshot); });
  EXPECT_TRUE(done(sweeping->sweeper.sweep_all()));
  EXPECT_EQ(kv_.get(keys_.garbage(top)), "");
  EXPECT_NE(kv_.get(keys_.node({kRootNode, "top"})), "");
  EXPECT_NE(kv_.get(keys_.node({top, "child"})), "");
}

TEST_F(EtcdRestoredWhileSweeping, IdsThatNowBelongToOthersAreLeftAlone) {
  const auto sweeping = session();
  const FakeKv::State snapshot = kv_.state();
  IdRange ids;
  ASSERT_TRUE(done(take_block(*session(), 100, &ids)));
  BuildText build;
  build.ids = {ids};
  build.batch = 1;
  build.given_up = true;
  build.session = random_token();
  kv_.put(keys_.staging(random_token()), build.print());
  kv_.put(keys_.node({ids.first, "staged"}), "");
  NodeId top = kNoNode;
  before_removal(1, [&] { restore(snapshot, [&] { top = create_family(*session(), "top"); }); });
  EXPECT_TRUE(done(sweeping->sweeper.sweep_all()));
  EXPECT_LE(ids.first, top);
  EXPECT_LE(top, ids.last);
  EXPECT_NE(kv_.get(keys_.node({top, "child"})), "");
}

class EtcdRestoredWhileRepairing : public EtcdRestoredWhileSweeping {
 protected:
  // Repairs an orphan that a snapshot has brought back to its parent right before it is removed.
  void expect_no_orphan_removed(Core& repairing) {
    const NodeId top = create_family(*session(), "top");
    const FakeKv::State snapshot = kv_.state();
    kv_.erase(keys_.node({kRootNode, "top"}));
    before_removal(1, [this, snapshot] { restore(snapshot); });
    const ChangeDescription description;
    Totals totals;
    const auto ignore_finding = [](const Finding&) {};
    const auto ignore_progress = [](const CheckProgress&) {};
    const Status repaired = check_registry(repairing, &description, ignore_finding, ignore_progress, &totals);
    EXPECT_FALSE(repaired.ok());
    EXPECT_NE(kv_.get(keys_.node({kRootNode, "top"})), "");
    EXPECT_NE(kv_.get(keys_.node({top, "child"})), "");
  }
};

TEST_F(EtcdRestoredWhileRepairing, LeavesWhatIsNoLongerAnOrphan) { expect_no_orphan_removed(*session()); }

TEST_F(EtcdRestoredWhileRepairing, LeavesItThoughTheSessionIsOlderThanTheSnapshot) {
  const auto repairing = session();
  Owner owner;
  ASSERT_TRUE(done(repairing->session.owner(&owner, repairing->deadline())));
  expect_no_orphan_removed(*repairing);
}

}  // namespace
}  // namespace tkv::store::etcd
