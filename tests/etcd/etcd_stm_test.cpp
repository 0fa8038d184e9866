// The parts of a transaction on etcd (read set, write set, commit, recovery), against a cluster in memory.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "fake_kv.h"
#include "store/etcd/commit.h"
#include "store/etcd/limits.h"
#include "store/etcd/redo_log.h"
#include "store/etcd/settled_view.h"
#include "store/etcd/stm.h"
#include "store/etcd/token.h"
#include "store/record.h"
#include "tree.h"

namespace tkv::store::etcd {
namespace {

using Purpose = ReadSet::Purpose;

std::string value_record(NodeId id, std::string_view text) {
  std::string record(value_record_size(text.size()), '\0');
  encode_value(id, {3, bytes_of(text)}, std::as_writable_bytes(std::span(record)));
  return record;
}

// ---- write set

class EtcdWriteSet : public testing::Test {
 protected:
  const Keys keys_{"/tkv/"};
  WriteSet writes_{keys_};
};

TEST_F(EtcdWriteSet, HoldsTheLastWriteToEachPlace) {
  EXPECT_TRUE(writes_.is_empty());
  EXPECT_EQ(writes_.find_node({1, "a"}), nullptr);
  writes_.put_node({1, "a"}, Node{5, {}});
  writes_.put_node({1, "a"}, Node{6, {}});
  ASSERT_NE(writes_.find_node({1, "a"}), nullptr);
  EXPECT_EQ((*writes_.find_node({1, "a"}))->id, 6u);
  writes_.put_node({1, "a"}, {});
  EXPECT_FALSE(writes_.find_node({1, "a"})->has_value()) << "a removal is a write";
  EXPECT_EQ(writes_.removed_below(1), 1);
  EXPECT_FALSE(writes_.has_child(1));
  writes_.forget_node({1, "a"});
  EXPECT_TRUE(writes_.is_empty());
}

TEST_F(EtcdWriteSet, KnowsFreshIdsInRanges) {
  for (const NodeId id : {10, 11, 12, 20}) writes_.add_fresh(id);
  EXPECT_EQ(writes_.fresh().size(), 2u);
  EXPECT_TRUE(writes_.is_fresh(11));
  EXPECT_TRUE(writes_.is_fresh(20));
  EXPECT_FALSE(writes_.is_fresh(13));
}

TEST_F(EtcdWriteSet, StagesWhatConcernsFreshNodesOnly) {
  writes_.add_fresh(10);
  writes_.add_fresh(11);
  writes_.put_node({1, "top"}, Node{10, {}});
  writes_.put_node({10, "below"}, Node{11, {}});
  writes_.put_node({10, "moved"}, Node{5, {}});
  writes_.put_value(11, value_record(11, "fresh"));
  writes_.put_value(5, value_record(5, "visible"));
  const std::vector<TxnRequest> batches = writes_.take_staged(0);
  ASSERT_EQ(batches.size(), 1u);
  ASSERT_EQ(batches[0].success_size(), 2);
  EXPECT_EQ(batches[0].success(0).request_put().key(), keys_.node({10, "below"}));
  EXPECT_EQ(batches[0].success(1).request_put().key(), keys_.value(11));
  EXPECT_TRUE(writes_.is_staged({10, "below"}));
  EXPECT_FALSE(writes_.is_staged({1, "top"}));
  EXPECT_TRUE(writes_.take_staged(0).empty());
  EXPECT_EQ(writes_.puts({}).size(), 3u);
}

TEST_F(EtcdWriteSet, GivesATicketToWhatIsSentAheadOnly) {
  constexpr Revision kTicket = kTicketBit | 7;
  writes_.add_fresh(10);
  writes_.add_fresh(11);
  writes_.put_node({10, "fresh"}, Node{11, {}, 5});
  writes_.put_value(11, value_record(11, "fresh"));
  writes_.put_node({5, "visible"}, Node{6, {}, 5});
  writes_.put_value(6, value_record(6, "visible"));
  const auto revisions = [this](const auto& operations) {
    std::vector<Revision> found;
    for (const RequestOp& operation : operations) {
      const auto& [key, record] = std::pair(operation.request_put().key(), operation.request_put().value());
      Node node;
      Value value;
      if (const auto place = keys_.parse_node(key)) {
        EXPECT_TRUE(done(decode_node(place->parent, place->name, as_bytes(record), &node)));
        found.push_back(node.revision);
      } else {
        EXPECT_TRUE(done(decode_value(*keys_.parse_value(key), as_bytes(record), &value)));
        found.push_back(value.revision);
      }
    }
    return found;
  };
  const std::vector<TxnRequest> staged = writes_.take_staged(kTicket);
  ASSERT_EQ(staged.size(), 1u);
  EXPECT_EQ(revisions(staged[0].success()), std::vector({kTicket, kTicket}));
  EXPECT_EQ(revisions(writes_.puts({})), std::vector<Revision>({0, 0}));
  EXPECT_EQ(revisions(writes_.puts({}, kTicket)), std::vector({kTicket, kTicket}));
}

TEST_F(EtcdWriteSet, DividesWhatIsStagedByCountAndBySize) {
  for (NodeId id = 10; id < 310; ++id) {
    writes_.add_fresh(id);
    writes_.put_node({10, std::to_string(id)}, Node{id, {}});
  }
  EXPECT_EQ(writes_.take_staged(0).size(), 3u);
  const std::string large(kMaxTxnBytes / 2, 'x');
  for (NodeId id = 10; id < 13; ++id) writes_.put_value(id, large);
  EXPECT_EQ(writes_.take_staged(0).size(), 3u) << "two of them do not fit one request";
}

TEST_F(EtcdWriteSet, SaysWhenABatchIsFull) {
  for (int i = 0; i < kBatchOperations; ++i) EXPECT_TRUE(writes_.has_room(1)) << i;
  EXPECT_FALSE(writes_.has_room(1));
  EXPECT_TRUE(writes_.has_room(1)) << "the count began anew";
  EXPECT_FALSE(writes_.has_room(kMaxTxnBytes));
}

TEST_F(EtcdWriteSet, RemovesDiscardedNodesWithoutChildrenAtOnce) {
  writes_.put_value(7, value_record(7, "lost"));
  writes_.discard(7);
  writes_.discard(8);
  EXPECT_EQ(writes_.garbage({7}), std::vector<std::string>{keys_.garbage(8)});
  const std::vector<RequestOp> puts = writes_.puts({7});
  ASSERT_EQ(puts.size(), 2u);
  EXPECT_EQ(puts[0].request_delete_range().key(), keys_.value(7));
  EXPECT_EQ(puts[1].request_put().key(), keys_.garbage(8));
  writes_.put_node({7, "late"}, Node{9, {}});
  EXPECT_EQ(writes_.garbage({7}).size(), 2u) << "this run has put a child there";
}

// ---- what needs requests

class EtcdParts : public testing::Test {
 protected:
  EtcdParts() {
    auto kv = std::make_unique<FakeKv>();
    kv_ = kv.get();
    core_ = std::make_unique<Core>(std::move(kv), "/tkv/");
    kv_->put(keys().meta(), as_text(encode_meta(Meta{100, 1})));
    put_node({kNoNode, ""}, kRootNode);
    put_node({kRootNode, "a"}, 2);
    put_node({2, "b"}, 3);
    kv_->put(keys().value(3), value_record(3, "former"));
    Owner owner;
    EXPECT_TRUE(done(core_->session.owner(&owner, core_->deadline())));
  }

  const Keys& keys() const { return core_->keys; }
  void put_node(const NodePlace& place, NodeId id) {
    kv_->put(keys().node(place), as_text(encode_node(place.parent, place.name, Node{id, {}})));
  }
  bool has_node(const NodePlace& place) const { return kv_->mod_revision(keys().node(place)) != 0; }
  std::string value_of(NodeId id) const {
    const std::string record = kv_->get(keys().value(id));
    Value value;
    return decode_value(id, as_bytes(record), &value).ok() ? text_of(value) : "";
  }

  static Deadline patience() { return Deadline(std::chrono::seconds(60)); }

  // Runs a function as a store does, until it need not run again.
  template <typename Function>
  Status run(Function function, Purpose purpose = Purpose::kWrite, int most = 5) {
    NextRun next;
    for (runs_ = 1; runs_ <= most; ++runs_) {
      Stm stm(*core_, purpose, std::move(next), patience());
      Status result = stm.start();
      if (result.ok()) result = function(stm);
      if (stm.finish(&result)) return result;
      next = stm.take_next();
    }
    return {PRTKV_UNREACHABLE, "ran too often"};
  }

  FakeKv* kv_ = nullptr;
  std::unique_ptr<Core> core_;
  int runs_ = 0;
};

class EtcdReadSet : public EtcdParts {
 protected:
  std::unique_ptr<ReadSet> reads(Purpose purpose = Purpose::kWrite) {
    run_ = std::make_unique<etcd::Run>(patience(), std::chrono::milliseconds(2000));
    return std::make_unique<ReadSet>(*core_, *run_, start_, purpose);
  }

  std::unique_ptr<etcd::Run> run_;
  NextRun start_;
};

TEST_F(EtcdReadSet, ReadsEverythingAtTheRevisionOfTheFirstRequest) {
  const auto set = reads();
  const SeenNode* seen = nullptr;
  ASSERT_TRUE(done(set->get({kNoNode, ""}, &seen)));
  put_node({2, "b"}, 33);
  ASSERT_TRUE(done(set->get({2, "b"}, &seen)));
  EXPECT_EQ(seen->node->id, 3u);
}

TEST_F(EtcdReadSet, ComparesWhatItTakesFromTheCacheWithTheNextRequest) {
  const SeenNode* seen = nullptr;
  ASSERT_TRUE(done(reads()->get({kRootNode, "a"}, &seen)));
  put_node({kRootNode, "a"}, 22);
  const auto set = reads();
  ASSERT_TRUE(done(set->get({kRootNode, "a"}, &seen)));
  EXPECT_EQ(seen->node->id, 2u) << "from the cache, outdated";
  EXPECT_FALSE(set->get({2, "b"}, &seen).ok());
  EXPECT_TRUE(run_->repeats());
  EXPECT_EQ(run_->next.prefetch.nodes.at({kRootNode, "a"}).node->id, 22u);
}

TEST_F(EtcdReadSet, StartsFromThePrefetchOfTheRunBefore) {
  start_.prefetch.revision = kv_->revision();
  start_.prefetch.claims = core_->claims.known();
  start_.prefetch.nodes[{kRootNode, "a"}] = SeenNode{7, Node{77, {}}, {}};
  const int before = kv_->requests();
  const auto set = reads();
  const SeenNode* seen = nullptr;
  ASSERT_TRUE(done(set->get({kRootNode, "a"}, &seen)));
  EXPECT_EQ(seen->node->id, 77u);
  EXPECT_EQ(kv_->requests(), before);
}

TEST_F(EtcdReadSet, ComparesNodesValuesAndListings) {
  const auto set = reads();
  const SeenNode* seen = nullptr;
  Value value;
  ListedNodes children;
  ASSERT_TRUE(done(set->get({2, "b"}, &seen)));
  ASSERT_TRUE(done(set->get_value(3, &value)));
  ASSERT_TRUE(done(set->list(3, &children)));
  TxnRequest request;
  set->add_compares(&request);
  const auto stands = [&] {
    TxnResponse response;
    EXPECT_TRUE(kv_->txn(request, &response, patience()).ok());
    return response.succeeded();
  };
  EXPECT_TRUE(stands());
  put_node({3, "newcomer"}, 9);
  EXPECT_FALSE(stands());
  kv_->erase(keys().node({3, "newcomer"}));
  EXPECT_TRUE(stands());
  kv_->put(keys().value(3), value_record(3, "later"));
  EXPECT_FALSE(stands());
}

TEST_F(EtcdReadSet, ADamagedValueIsDamagedEveryTimeItIsRead) {
  kv_->put(keys().value(3), "nonsense");
  const auto set = reads();
  Value value;
  EXPECT_TRUE(set->get_value(3, &value).is(PRTKV_STORAGE_FAILED));
  EXPECT_TRUE(set->get_value(3, &value).is(PRTKV_STORAGE_FAILED));
}

TEST_F(EtcdReadSet, SurveysWhatOneTransactionCannotCompare) {
  for (NodeId id = 1000; id < 1200; ++id) put_node({3, std::to_string(id)}, id);
  const auto set = reads();
  ListedNodes children;
  ASSERT_TRUE(done(set->list(3, &children)));
  EXPECT_EQ(children.size(), 200u);
  EXPECT_TRUE(set->is_surveying());
  TxnRequest request;
  set->add_compares(&request);
  EXPECT_LT(request.compare_size(), kMaxTxnOperations);
}

TEST_F(EtcdReadSet, OfARunThatOnlyReadsNeverSurveys) {
  for (NodeId id = 1000; id < 1200; ++id) put_node({3, std::to_string(id)}, id);
  const auto set = reads(Purpose::kRead);
  int count = 0;
  const auto visit = [&](std::string_view, const Node&) {
    ++count;
    return Status();
  };
  ASSERT_TRUE(done(set->scan(3, visit, kEndAtDamage)));
  EXPECT_EQ(count, 200);
  EXPECT_FALSE(set->is_surveying());
}

TEST_F(EtcdReadSet, ACompactedRevisionMakesTheRunRepeatFromScratch) {
  const auto set = reads();
  const SeenNode* seen = nullptr;
  ASSERT_TRUE(done(set->get({kNoNode, ""}, &seen)));
  kv_->put("/elsewhere", "");
  kv_->compact();
  EXPECT_FALSE(set->get({kRootNode, "a"}, &seen).ok());
  EXPECT_TRUE(run_->repeats());
  EXPECT_EQ(run_->next.prefetch.revision, 0);
}

// ---- commit

class EtcdCommit : public EtcdParts {};

TEST_F(EtcdCommit, MakesWhatFitsInOneTransaction) {
  ASSERT_TRUE(done(run([](Update& update) { return update.set_value(3, 3, bytes_of("later")); })));
  EXPECT_EQ(value_of(3), "later");
  EXPECT_EQ(runs_, 1);
  EXPECT_EQ(kv_->count(keys().all_staging()), 0u);
}

TEST_F(EtcdCommit, RepeatsTheRunWhenWhatItReadHasChanged) {
  bool changed = false;
  ASSERT_TRUE(done(run([&](Update& update) -> Status {
    Node node;
    Value value;
    if (Status status = follow(update, "a.b", &node); !status.ok()) return status;
    if (Status status = update.value(node.id, &value); !status.ok()) return status;
    const std::string text = text_of(value) + "+";
    if (!std::exchange(changed, true)) kv_->put(keys().value(3), value_record(3, "other"));
    return update.set_value(node.id, 3, bytes_of(text));
  })));
  EXPECT_EQ(runs_, 2);
  EXPECT_EQ(value_of(3), "other+");
}

TEST_F(EtcdCommit, DoesNotRepeatTheRunForAClaimThatWasLaidMeanwhile) {
  bool laid = false;
  ASSERT_TRUE(done(run([&](Update& update) -> Status {
    Node node;
    if (Status status = follow(update, "a.b", &node); !status.ok()) return status;
    if (!std::exchange(laid, true)) kv_->put(keys().claim(2, "token"), ClaimText().print());
    return update.set_value(node.id, 3, bytes_of("later"));
  })));
  EXPECT_EQ(runs_, 1);
  EXPECT_EQ(value_of(3), "later");
  EXPECT_EQ(kv_->count(keys().all_claims()), 0u) << "whoever writes below a claimed key removes the claim";
}

TEST_F(EtcdCommit, LeavesTheClaimOfAnotherSubtreeAlone) {
  kv_->put(keys().claim(50, "token"), ClaimText().print());
  ASSERT_TRUE(done(run([&](Update& update) -> Status {
    Node node;
    if (Status status = follow(update, "a.b", &node); !status.ok()) return status;
    return update.set_value(node.id, 3, bytes_of("later"));
  })));
  EXPECT_EQ(kv_->count(keys().all_claims()), 1u);
}

TEST_F(EtcdCommit, DecidesALargeChangeUnderAClaimAndCarriesItOut) {
  for (NodeId id = 1000; id < 1300; ++id) put_node({3, std::to_string(id)}, id);
  std::vector<std::string> claims;
  kv_->before_txn = [&](const TxnRequest& request) {
    for (const RequestOp& operation : request.success()) {
      if (operation.request_put().key().starts_with("/tkv/claims/")) claims.push_back(operation.request_put().value());
    }
    return Reply();
  };
  ASSERT_TRUE(done(run([&](Update& update) -> Status {
    Node node;
    if (Status status = follow(update, "a.b", &node); !status.ok()) return status;
    return update.children(
        node.id, [&](std::string_view, const Node& child) { return update.set_value(child.id, 3, bytes_of("all")); });
  })));
  EXPECT_EQ(runs_, 1) << "the claim is laid when the list turns out to be too long to compare";
  ASSERT_GE(claims.size(), 2u);
  EXPECT_FALSE(ClaimText::parse(claims[0]).decided);
  EXPECT_TRUE(ClaimText::parse(claims[1]).decided);
  for (NodeId id = 1000; id < 1300; ++id) EXPECT_EQ(value_of(id), "all") << id;
  for (const KeyRange& range : {keys().all_claims(), keys().all_plans(), keys().all_staging()}) {
    EXPECT_EQ(kv_->count(range), 0u) << range.begin;
  }
}

TEST_F(EtcdCommit, AFailureOfTheFunctionChangesNothing) {
  const Status status = run([](Update& update) -> Status {
    if (Status set = update.set_value(3, 3, bytes_of("lost")); !set.ok()) return set;
    return {PRTKV_ACCESS_DENIED, "no"};
  });
  EXPECT_TRUE(status.is(PRTKV_ACCESS_DENIED));
  EXPECT_EQ(value_of(3), "former");
}

TEST_F(EtcdCommit, AWriteWhoseAnswerWasLostIsMadeOnce) {
  bool lost = false;
  kv_->after_txn = [&](const TxnRequest& request) -> Reply {
    if (request.success_size() == 0 || !request.success(0).has_request_put() || std::exchange(lost, true)) return {};
    return {Verdict::kFinal, Status(PRTKV_UNREACHABLE, "lost"), true};
  };
  ASSERT_TRUE(done(run([](Update& update) { return update.set_value(3, 3, bytes_of("later")); })));
  EXPECT_EQ(value_of(3), "later");
  EXPECT_EQ(runs_, 1);
}

// ---- what a change rests on

// Two sessions on one cluster: the other one writes while a function of the first runs.
class EtcdRecursiveChange : public EtcdParts {
 protected:
  EtcdRecursiveChange() : other_(std::make_unique<SharedKv>(*kv_), "/tkv/") {
    for (NodeId id = 1000; id < 1010; ++id) put_node({3, std::to_string(id)}, id);
  }

  void make_large() {
    for (NodeId id = 1010; id < 1400; ++id) put_node({3, std::to_string(id)}, id);
  }

  // As a chmod does, in the other session.
  void protect(NodeId id) {
    NextRun next;
    for (int i = 0; i < 5; ++i) {
      Stm stm(other_, Purpose::kWrite, std::move(next), patience());
      Status result = stm.start();
      Node node;
      if (result.ok()) result = follow(stm, "a.b", &node);
      if (result.ok()) result = stm.set_security(node.id, std::to_string(id), security(7));
      if (stm.finish(&result)) {
        EXPECT_TRUE(done(result));
        return;
      }
      next = stm.take_next();
    }
    ADD_FAILURE() << "ran too often";
  }

  static sec_attr security(std::uint32_t mask) {
    sec_attr attr{};
    attr.user_perm = mask;
    return attr;
  }

  std::uint32_t mask_of(NodeId id) const {
    const NodePlace place{3, std::to_string(id)};
    Node node;
    const std::string record = kv_->get(keys().node(place));
    EXPECT_TRUE(done(decode_node(place.parent, place.name, as_bytes(record), &node)));
    return static_cast<std::uint32_t>(node.security.user_perm);
  }

  // As a recursive chmod does that adds a right: computes all records first, then writes them.
  Status add_right_below(bool* interrupted, NodeId changed) {
    return run([&](Update& update) -> Status {
      Node top;
      if (Status status = follow(update, "a.b", &top); !status.ok()) return status;
      std::vector<std::pair<std::string, sec_attr>> wanted;
      Status status = update.before().children(top.id, [&](std::string_view name, const Node& node) {
        wanted.emplace_back(name, security(static_cast<std::uint32_t>(node.security.user_perm) | 0x10));
        return Status();
      });
      if (!status.ok()) return status;
      if (!std::exchange(*interrupted, true)) protect(changed);
      for (const auto& [name, attr] : wanted) {
        if (status = update.set_security(top.id, name, attr); !status.ok()) return status;
      }
      return {};
    });
  }

  // As a recursive delete does: looks at everything, then unlinks the top.
  Status remove_if_unprotected(bool* interrupted, NodeId changed) {
    return run([&](Update& update) -> Status {
      Node top;
      if (Status status = follow(update, "a.b", &top); !status.ok()) return status;
      Status status = update.before().children(top.id, [&](std::string_view, const Node& node) {
        return node.security.user_perm == 7 ? Status(PRTKV_ACCESS_DENIED) : Status();
      });
      if (!status.ok()) return status;
      if (!std::exchange(*interrupted, true)) protect(changed);
      if (status = update.unlink(2, "b"); !status.ok()) return status;
      return update.discard(top.id);
    });
  }

  Core other_;
};

TEST_F(EtcdRecursiveChange, LosesNoChangeThatWasMadeMeanwhile) {
  bool interrupted = false;
  ASSERT_TRUE(done(add_right_below(&interrupted, 1004)));
  EXPECT_EQ(mask_of(1004), 0x17u);
  EXPECT_EQ(mask_of(1005), 0x10u);
}

TEST_F(EtcdRecursiveChange, OfManyKeysLosesNoChangeThatWasMadeMeanwhile) {
  make_large();
  bool interrupted = false;
  ASSERT_TRUE(done(add_right_below(&interrupted, 1304)));
  EXPECT_EQ(mask_of(1304), 0x17u);
  EXPECT_EQ(mask_of(1399), 0x10u);
  EXPECT_EQ(kv_->count(keys().all_claims()), 0u);
}

TEST_F(EtcdRecursiveChange, RemovesNothingThatWasProtectedMeanwhile) {
  bool interrupted = false;
  EXPECT_TRUE(remove_if_unprotected(&interrupted, 1004).is(PRTKV_ACCESS_DENIED));
  EXPECT_TRUE(has_node({2, "b"}));
}

TEST_F(EtcdRecursiveChange, OfManyKeysRemovesNothingThatWasProtectedMeanwhile) {
  make_large();
  bool interrupted = false;
  EXPECT_TRUE(remove_if_unprotected(&interrupted, 1304).is(PRTKV_ACCESS_DENIED));
  EXPECT_TRUE(has_node({2, "b"}));
}

TEST_F(EtcdRecursiveChange, ComparesAValueThatWasReadBefore) {
  bool interrupted = false;
  ASSERT_TRUE(done(run([&](Update& update) -> Status {
    Value value;
    if (Status status = update.before().value(3, &value); !status.ok()) return status;
    const std::string text = text_of(value) + "+";
    if (!std::exchange(interrupted, true)) kv_->put(keys().value(3), value_record(3, "other"));
    return update.set_value(1004, 3, bytes_of(text));
  })));
  EXPECT_EQ(value_of(1004), "other+");
}

TEST_F(EtcdRecursiveChange, ComparesThatThereWereNoChildren) {
  bool interrupted = false;
  const Status status = run([&](Update& update) -> Status {
    bool any = false;
    if (Status found = update.has_children(1004, &any); !found.ok()) return found;
    if (any) return PRTKV_HAS_SUBKEYS;
    if (!std::exchange(interrupted, true)) put_node({1004, "late"}, 5000);
    if (Status unlinked = update.unlink(3, "1004"); !unlinked.ok()) return unlinked;
    return update.discard(1004);
  });
  EXPECT_TRUE(status.is(PRTKV_HAS_SUBKEYS)) << status.text();
  EXPECT_TRUE(has_node({3, "1004"}));
}

// ---- waiting for large changes

// A large change of another session is being prepared below "a.b".
class EtcdClaim : public EtcdRecursiveChange {
 protected:
  EtcdClaim() {
    lay("token");
    learn();
  }

  void lay(const std::string& token) {
    kv_->put(keys().staging(token), "batch 1");
    kv_->put(keys().claim(3, token), ClaimText{}.print());
  }

  void learn() {
    RangeResponse claims;
    EXPECT_TRUE(kv_->range(get_all(keys().all_claims()), &claims, patience()).ok());
    core_->claims.learn(claims, kv_->revision());
  }

  // Calls `look` each time that a session looks how far the change of this token is.
  void on_look(const std::string& token, std::function<void()> look) {
    kv_->before_txn = [this, token, look = std::move(look)](const TxnRequest& request) -> Reply {
      const bool looks = request.compare_size() == 0 && request.success_size() > 0 &&
                         request.success(0).request_range().key() == keys().claim(3, token);
      if (looks) look();
      return {};
    };
  }

  void end(const std::string& token) {
    kv_->erase(keys().claim(3, token));
    kv_->erase(keys().staging(token));
  }

  Status write_below() {
    return run([](Update& update) -> Status {
      Node node;
      if (Status status = follow(update, "a.b.1004", &node); !status.ok()) return status;
      return update.set_value(node.id, 3, bytes_of("written"));
    });
  }
};

TEST_F(EtcdClaim, ASmallWriteWaitsWhileTheChangeMakesProgress) {
  int looks = 0;
  on_look("token", [&] {
    EXPECT_EQ(value_of(1004), "");
    kv_->put(keys().staging("token"), "batch " + std::to_string(++looks));
    if (looks == 10) end("token");
  });
  ASSERT_TRUE(done(write_below()));
  EXPECT_EQ(looks, 10);
  EXPECT_EQ(value_of(1004), "written");
}

TEST_F(EtcdClaim, ASmallWriteRemovesTheClaimOfAChangeThatMakesNoProgress) {
  ASSERT_TRUE(done(write_below()));
  EXPECT_EQ(value_of(1004), "written");
  EXPECT_EQ(kv_->count(keys().all_claims()), 0u);
}

TEST_F(EtcdClaim, ASmallWriteWaitsForAClaimThatIsLaidWhileItIsSent) {
  end("token");
  learn();
  bool laid = false;
  int looks = 0;
  on_look("late", [&] {
    ++looks;
    end("late");
  });
  const auto watch = kv_->before_txn.replace(nullptr);
  kv_->before_txn = [&](const TxnRequest& request) {
    const bool writes = request.success_size() > 0 && request.success(0).has_request_put();
    if (writes && !std::exchange(laid, true)) lay("late");
    return watch(request);
  };
  ASSERT_TRUE(done(write_below()));
  EXPECT_EQ(looks, 1);
  EXPECT_EQ(value_of(1004), "written");
}

TEST_F(EtcdClaim, ASmallWriteDoesNotWaitForOneLargeChangeAfterAnother) {
  on_look("token", [&] {
    end("token");
    lay("later");
  });
  ASSERT_TRUE(done(write_below()));
  EXPECT_EQ(value_of(1004), "written");
  EXPECT_EQ(kv_->count(keys().all_claims()), 0u);
}

TEST_F(EtcdClaim, ASmallWriteWaitsForAnEarlierChangeThatHadToLayItsClaimAgain) {
  end("token");
  const std::string first = claim_token(kv_->revision());
  const std::string again = claim_token(Claim{3, first, kv_->revision(), {}}.began());
  lay(first);
  learn();
  int looks = 0;
  on_look(first, [&] {
    end(first);
    lay(again);
    on_look(again, [&] {
      ++looks;
      end(again);
    });
  });
  ASSERT_TRUE(done(write_below()));
  EXPECT_EQ(looks, 1);
}

TEST_F(EtcdClaim, AWriteElsewhereDoesNotWait) {
  on_look("token", [] { ADD_FAILURE() << "waits"; });
  put_node({2, "c"}, 4);
  ASSERT_TRUE(done(run([](Update& update) -> Status {
    Node node;
    if (Status status = follow(update, "a.c", &node); !status.ok()) return status;
    return update.set_value(node.id, 3, bytes_of("written"));
  })));
  EXPECT_EQ(value_of(4), "written");
  EXPECT_EQ(kv_->count(keys().all_claims()), 1u);
}

TEST_F(EtcdClaim, ALargeChangeWaitsBeforeItLaysItsOwn) {
  make_large();
  int looks = 0;
  on_look("token", [&] {
    EXPECT_EQ(kv_->count(keys().all_claims()), 1u);
    kv_->put(keys().staging("token"), "batch " + std::to_string(++looks));
    if (looks == 3) end("token");
  });
  bool interrupted = true;
  ASSERT_TRUE(done(add_right_below(&interrupted, 0)));
  EXPECT_EQ(looks, 3);
  EXPECT_EQ(mask_of(1399), 0x10u);
}

TEST_F(EtcdClaim, ALargeChangeTakesItsTurnBeforeThoseThatBeganLater) {
  make_large();
  end("token");
  learn();
  const std::string later = claim_token(kv_->revision() + 1000);  // as of a revision that is still to come
  bool laid = false;
  on_look(later, [] { ADD_FAILURE() << "waits"; });
  const auto watch = kv_->before_txn.replace(nullptr);
  kv_->before_txn = [&, watch](const TxnRequest& request) {
    const bool lays = !request.success().empty() && keys().parse_claim(request.success(0).request_put().key());
    if (lays && !std::exchange(laid, true)) {
      while (number_of(later) > static_cast<std::uint64_t>(kv_->revision())) kv_->put("/elsewhere", "");
      lay(later);
    }
    return watch(request);
  };
  bool interrupted = true;
  ASSERT_TRUE(done(add_right_below(&interrupted, 0)));
  EXPECT_TRUE(laid);
  EXPECT_EQ(runs_, 1);
  EXPECT_EQ(mask_of(1399), 0x10u);
  EXPECT_EQ(kv_->count(keys().all_claims()), 0u);
}

// Writes above the subtree do not know of the claim, and would interrupt the change again and again.
TEST_F(EtcdClaim, ALargeChangeClaimsWhatOthersChangeAboveItAsWell) {
  make_large();
  end("token");
  learn();
  int writes = 0;
  std::set<NodeId> tops;
  ASSERT_TRUE(done(run([&](Update& update) -> Status {
    Node top;
    if (Status status = follow(update, "a.b", &top); !status.ok()) return status;
    Status status = update.before().children(top.id, [](std::string_view, const Node&) { return Status(); });
    for (const std::string& key : kv_->keys_of(keys().all_claims())) tops.insert(keys().parse_claim(key)->top);
    if (tops.contains(3) && !tops.contains(kRootNode)) {
      put_node({kRootNode, "a"}, 2);
      ++writes;
    }
    for (NodeId id = 1000; status.ok() && id < 1400; ++id) status = update.set_value(id, 3, bytes_of("changed"));
    return status;
  })));
  EXPECT_EQ(tops, (std::set<NodeId>{kRootNode, 3}));
  EXPECT_EQ(writes, 1);
  EXPECT_EQ(value_of(1399), "changed");
}

// Reads under a claim until `ended`.
class EtcdClaimant : public EtcdClaim {
 protected:
  EtcdClaimant() {
    end("token");
    learn();
    make_large();
  }

  Status read_until(FunctionRef<bool()> ended) {
    return run([&](Update& update) -> Status {
      Node top;
      if (Status status = follow(update, "a.b", &top); !status.ok()) return status;
      Status status = update.before().children(top.id, [](std::string_view, const Node&) { return Status(); });
      const Deadline deadline = patience();
      while (status.ok() && !ended() && deadline.left().count() > 0) {
        Value value;
        status = update.value(1399, &value);
      }
      return status.ok() ? update.set_value(1399, 3, bytes_of("done")) : status;
    });
  }
};

TEST_F(EtcdClaimant, ShowsProgressWhileItReads) {
  std::set<std::string> batches;
  ASSERT_TRUE(done(read_until([&] {
    for (const std::string& key : kv_->keys_of(keys().all_staging())) batches.insert(kv_->get(key));
    return batches.size() == 4;
  })));
  EXPECT_EQ(batches.size(), 4u);
  EXPECT_EQ(value_of(1399), "done");
}

TEST_F(EtcdClaimant, BeginsAgainAsSoonAsItsClaimIsRemoved) {
  int runs = 0;
  bool removed = false;
  ASSERT_TRUE(done(read_until([&] {
    if (removed) return runs_ > runs;
    for (const std::string& key : kv_->keys_of(keys().all_claims())) {
      kv_->erase(key);
      removed = true;
      runs = runs_;
    }
    return false;
  })));
  EXPECT_TRUE(removed);
  EXPECT_EQ(runs_, runs + 1);
}

// ---- revisions of what a large change has written

class EtcdTicket : public EtcdParts {
 protected:
  static constexpr int kNodes = 300;

  void SetUp() override {
    for (NodeId id = 1000; id < 1000 + kNodes; ++id) put_node({3, std::to_string(id)}, id);
  }

  // A large change that cannot be carried out, since the session is cut off: it makes the first `batches` of it.
  void decide(int batches) {
    // The sweeper's thread may be within the function when the session is no longer cut off.
    const auto rest = std::make_shared<std::atomic<int>>(batches + 1);  // the decision is the first
    kv_->before_txn = [rest, claims = keys().all_claims().begin](const TxnRequest& request) {
      const bool concerns = std::any_of(request.success().begin(), request.success().end(), [&](const RequestOp& each) {
        return each.request_put().value().starts_with("state decided") ||
               each.request_delete_range().key().starts_with(claims);
      });
      const bool is_cut = concerns && rest->fetch_sub(1) <= 0;
      return is_cut ? Reply{Verdict::kFinal, Status(PRTKV_UNREACHABLE, "cut off"), false} : Reply();
    };
    EXPECT_TRUE(done(run([](Update& update) { return change_all(update); })));
    rest->store(std::numeric_limits<int>::max());
    decided_at_ = kv_->mod_revision(keys().log());
    EXPECT_EQ(kv_->count(keys().all_claims()), 1u);
  }

  static Status change_all(Update& update) {
    Node node;
    if (Status status = follow(update, "a.b", &node); !status.ok()) return status;
    return update.children(3, [&](std::string_view name, const Node& child) -> Status {
      if (Status status = update.set_security(3, name, {}); !status.ok()) return status;
      return update.set_value(child.id, 3, bytes_of("changed"));
    });
  }

  // The revisions of all nodes and values below "a.b", as a view shows them.
  static Status collect(View& view, std::set<Revision>* revisions) {
    revisions->clear();
    std::vector<NodeId> ids;
    Status status = view.children(3, [&](std::string_view, const Node& child) {
      revisions->insert(child.revision);
      ids.push_back(child.id);
      return Status();
    });
    for (const NodeId id : ids) {
      Value value;
      if (status.ok()) status = view.value(id, &value);
      revisions->insert(value.revision);
    }
    return status;
  }

  std::set<Revision> decided() const { return {static_cast<Revision>(decided_at_)}; }

  std::int64_t decided_at_ = 0;
};

TEST_F(EtcdTicket, KeysHaveTheRevisionOfTheDecisionWhoeverCarriesItOut) {
  decide(2);
  Core other(std::make_unique<SharedKv>(*kv_), "/tkv/");
  RangeResponse claims;
  ASSERT_TRUE(kv_->range(get_all(keys().all_claims()), &claims, patience()).ok());
  other.claims.learn(claims, kv_->revision());
  ASSERT_TRUE(done(other.recovery.finish_all(*other.claims.known(), std::chrono::seconds(60))));
  EXPECT_EQ(kv_->count(keys().all_plans()), 0u);
  std::set<Revision> revisions;
  RevisionView view(other, 0);
  ASSERT_TRUE(done(collect(view, &revisions)));
  EXPECT_EQ(revisions, decided());
}

TEST_F(EtcdTicket, AFormerStateShowsItAlsoInBatchesNotYetCarriedOut) {
  decide(2);
  for (const std::int64_t at : {decided_at_, kv_->revision()}) {
    SettledView past(*core_, at);
    std::set<Revision> revisions;
    ASSERT_TRUE(done(past.load()));
    ASSERT_TRUE(done(collect(past, &revisions)));
    EXPECT_EQ(revisions, decided()) << at;
  }
}

TEST_F(EtcdTicket, IsRedeemedOnceInASession) {
  ASSERT_TRUE(done(run([](Update& update) { return change_all(update); })));
  Core other(std::make_unique<SharedKv>(*kv_), "/tkv/");
  std::set<Revision> revisions;
  const auto requests = [&] {
    const int before = kv_->requests();
    RevisionView view(other, kv_->revision());
    EXPECT_TRUE(done(collect(view, &revisions)));
    return kv_->requests() - before;
  };
  const int first = requests();
  EXPECT_EQ(requests(), first - 1);
  EXPECT_EQ(revisions, std::set{static_cast<Revision>(kv_->mod_revision(keys().log()))});
}

TEST_F(EtcdTicket, WithoutAKeyTheRevisionsAreThoseOfThePuts) {
  ASSERT_TRUE(done(run([](Update& update) { return change_all(update); })));
  std::vector<std::string> tickets = kv_->keys_of(keys().all_tickets());
  ASSERT_EQ(tickets.size(), 1u);
  kv_->erase(tickets[0]);
  Core other(std::make_unique<SharedKv>(*kv_), "/tkv/");
  Node node;
  Value value;
  RevisionView view(other, 0);
  ASSERT_TRUE(done(view.find(3, "1000", &node)));
  ASSERT_TRUE(done(view.value(1000, &value)));
  EXPECT_EQ(node.revision, static_cast<Revision>(kv_->mod_revision(keys().node({3, "1000"}))));
  EXPECT_EQ(value.revision, static_cast<Revision>(kv_->mod_revision(keys().value(1000))));
}

TEST_F(EtcdTicket, AChangeInOneTransactionHasNone) {
  ASSERT_TRUE(done(run([](Update& update) { return update.set_value(3, 3, bytes_of("later")); })));
  EXPECT_EQ(kv_->count(keys().all_tickets()), 0u);
}

TEST_F(EtcdTicket, AChangeThatIsGivenUpHasNone) {
  const Status status = run([](Update& update) -> Status {
    if (Status changed = change_all(update); !changed.ok()) return changed;
    return PRTKV_ACCESS_DENIED;
  });
  EXPECT_TRUE(status.is(PRTKV_ACCESS_DENIED)) << status.text();
  EXPECT_EQ(kv_->count(keys().all_tickets()), 0u);
}

// ---- recovery

class EtcdRecovery : public EtcdParts {
 protected:
  // Leaves a decision behind as a session does that ends after it has decided.
  void leave_decision(std::uint64_t next) {
    RedoLog log;
    for (const char* text : {"first", "second"}) {
      RequestOp operation;
      put(&operation, keys().value(3), value_record(3, text));
      log.add(std::move(operation));
      put(&operation, "/tkv/pad", std::string(kMaxTxnBytes, 'x'));  // one batch for each
      log.add(std::move(operation));
    }
    const std::vector<std::string> batches = log.take_batches();
    for (std::uint64_t number = next; number < batches.size(); ++number) {
      kv_->put(keys().plan("token", number), batches[number]);
    }
    kv_->put(keys().claim(2, "token"), ClaimText{true, 0, next, batches.size()}.print());
    batches_ = batches.size();
    RangeResponse claims;
    EXPECT_TRUE(kv_->range(get_all(keys().all_claims()), &claims, patience()).ok());
    core_->claims.learn(claims, kv_->revision());
  }

  Status finish() { return core_->recovery.finish(*core_->claims.known()->decided_on(2), patience().left()); }

  std::uint64_t batches_ = 0;
};

TEST_F(EtcdRecovery, CarriesOutWhatIsLeftOfADecision) {
  leave_decision(0);
  ASSERT_GE(batches_, 2u);
  ASSERT_TRUE(done(finish()));
  EXPECT_EQ(value_of(3), "second");
  EXPECT_EQ(kv_->count(keys().all_claims()), 0u);
  EXPECT_EQ(kv_->count(keys().all_plans()), 0u);
  EXPECT_FALSE(core_->claims.known()->has_decided());
}

TEST_F(EtcdRecovery, LeavesItToOthersAsLongAsTheyMakeProgress) {
  leave_decision(0);
  int looks = 0;
  kv_->before_txn = [&](const TxnRequest& request) -> Reply {
    EXPECT_EQ(request.compare_size(), 0);
    kv_->put(keys().claim(2, "token"), ClaimText{true, 0, 1, batches_}.print());
    if (++looks == 10) kv_->erase(keys().claim(2, "token"));
    return {};
  };
  ASSERT_TRUE(done(finish()));
  EXPECT_EQ(looks, 10);
}

TEST_F(EtcdRecovery, BeginsWhereTheOthersHaveStopped) {
  leave_decision(1);
  ASSERT_TRUE(done(finish()));
  EXPECT_EQ(value_of(3), "second");
}

TEST_F(EtcdRecovery, EndsWhenAnotherSessionHasCarriedItOut) {
  leave_decision(0);
  kv_->erase(keys().claim(2, "token"));
  ASSERT_TRUE(done(finish()));
  EXPECT_EQ(value_of(3), "former");
}

TEST_F(EtcdRecovery, ReportsABatchThatIsMissingOrDamaged) {
  leave_decision(0);
  kv_->erase(keys().plan("token", 0));
  Status status = finish();
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED));
  EXPECT_NE(status.text().find("missing"), std::string::npos) << status.text();
  kv_->put(keys().plan("token", 0), "nonsense");
  EXPECT_TRUE(finish().is(PRTKV_STORAGE_FAILED));
  EXPECT_EQ(value_of(3), "former");
}

TEST_F(EtcdRecovery, RunsBeforeAnybodyReadsBelowTheTop) {
  leave_decision(0);
  std::string text;
  ASSERT_TRUE(done(run(
      [&](View& view) -> Status {
        Node node;
        Value value;
        if (Status status = follow(view, "a.b", &node); !status.ok()) return status;
        if (Status status = view.value(node.id, &value); !status.ok()) return status;
        text = text_of(value);
        return {};
      },
      Purpose::kRead)));
  EXPECT_EQ(text, "second");
}

TEST_F(EtcdRecovery, ASettledReadSeesEveryDecisionCarriedOut) {
  leave_decision(0);
  RangeResponse response;
  std::int64_t revision = 0;
  ASSERT_TRUE(core_->recovery.read_settled(get_one(keys().value(3)), &response, &revision).ok());
  EXPECT_EQ(response.kvs(0).value(), value_record(3, "second"));
  EXPECT_EQ(revision, kv_->revision());
}

}  // namespace
}  // namespace tkv::store::etcd
