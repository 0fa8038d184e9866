// Who owns unfinished work, against a cluster in memory whose leases run out when a test says so.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "fake_kv.h"
#include "store/etcd/checker.h"
#include "store/etcd/cluster_status.h"
#include "store/etcd/limits.h"
#include "store/etcd/opening.h"
#include "store/etcd/redo_log.h"
#include "store/etcd/registry_mark.h"
#include "store/etcd/stm.h"
#include "store/etcd/token.h"
#include "store/record.h"
#include "tree.h"

namespace tkv::store::etcd {
namespace {

constexpr int kMany = 150;          // more than one transaction holds
constexpr unsigned kPatience = 60;  // seconds

class EtcdSession : public testing::Test {
 protected:
  EtcdSession() : one_(session(&kv_of_one_)) {}

  std::unique_ptr<Core> session(SharedKv** connection = nullptr) {
    auto kv = std::make_unique<SharedKv>(kv_);
    if (connection != nullptr) *connection = kv.get();
    auto core = std::make_unique<Core>(std::move(kv), "/tkv/");
    EtcdOptions options;
    EXPECT_TRUE(done(open_registry(*core, options)));
    return core;
  }

  // Runs a function as a store does, until it need not run again.
  template <typename Function>
  Status run(Core& core, Function function, Stm::Purpose purpose = Stm::Purpose::kWrite) {
    NextRun next;
    for (runs_ = 1; runs_ <= 5; ++runs_) {
      Stm stm(core, purpose, std::move(next), core.deadline());
      Status result = stm.start();
      if (result.ok()) result = function(stm);
      if (stm.finish(&result)) return result;
      next = stm.take_next();
    }
    return {PRTKV_UNREACHABLE, "ran too often"};
  }

  Status create(Core& core, const std::string& name) {
    return run(core, [&](Update& update) -> Status {
      Node node;
      if (Status status = update.new_id(&node.id); !status.ok()) return status;
      return update.insert(kRootNode, name, node);
    });
  }

  // Makes many subkeys of a new key that is not attached yet.
  static Status stage(Update& update, Node* top) {
    if (Status status = update.new_id(&top->id); !status.ok()) return status;
    for (int i = 0; i < kMany; ++i) {
      Node node;
      if (Status status = update.new_id(&node.id); !status.ok()) return status;
      if (Status status = update.insert(top->id, "k" + std::to_string(i), node); !status.ok()) return status;
    }
    return {};
  }

  // Builds "top" with many subkeys. `meanwhile` is called once, when most of them have been staged.
  template <typename Meanwhile>
  Status build(Core& core, Meanwhile meanwhile) {
    bool called = false;
    return run(core, [&](Update& update) -> Status {
      Node top;
      if (Status status = stage(update, &top); !status.ok()) return status;
      if (!std::exchange(called, true)) meanwhile();
      return update.insert(kRootNode, "top", top);
    });
  }

  int count_children(Core& core, const std::string& path) {
    int count = 0;
    EXPECT_TRUE(done(run(
        core,
        [&](View& view) -> Status {
          count = 0;
          Node node;
          if (Status status = follow(view, path, &node); !status.ok()) return status;
          return view.children(node.id, [&](std::string_view, const Node&) {
            ++count;
            return Status();
          });
        },
        Stm::Purpose::kRead)));
    return count;
  }

  std::vector<KeyValue> all(const KeyRange& range) {
    RangeResponse found;
    EXPECT_TRUE(kv_.range(get_all(range), &found, Deadline(std::chrono::seconds(1))).ok());
    return {found.kvs().begin(), found.kvs().end()};
  }

  void expect_only_nodes(std::size_t nodes) {
    EXPECT_EQ(kv_.count(keys_.all_nodes()), nodes);
    EXPECT_EQ(kv_.count(keys_.all_staging()), 0u);
    EXPECT_EQ(kv_.count(keys_.all_claims()), 0u);
    EXPECT_EQ(kv_.count(keys_.all_plans()), 0u);
  }

  const Keys keys_{"/tkv/"};
  FakeKv kv_;
  SharedKv* kv_of_one_ = nullptr;
  std::unique_ptr<Core> one_;
  int runs_ = 0;
};

TEST_F(EtcdSession, HasNoLeaseWhileItOnlyReads) {
  EXPECT_EQ(count_children(*one_, ""), 0);
  EXPECT_EQ(kv_.leases(), 0u);
  EXPECT_EQ(kv_.count(keys_.all_sessions()), 0u);
}

TEST_F(EtcdSession, HasAKeyFromItsFirstWriteToItsEnd) {
  ASSERT_TRUE(done(create(*one_, "a")));
  ASSERT_TRUE(done(create(*one_, "b")));
  EXPECT_EQ(kv_.leases(), 1u);
  ASSERT_EQ(kv_.count(keys_.all_sessions()), 1u);
  EXPECT_NE(all(keys_.all_sessions())[0].lease(), 0);
  const auto other = session();
  ASSERT_TRUE(done(create(*other, "c")));
  EXPECT_EQ(kv_.count(keys_.all_sessions()), 2u);
  one_.reset();
  EXPECT_EQ(kv_.leases(), 1u);
  EXPECT_EQ(kv_.count(keys_.all_sessions()), 1u);
}

TEST_F(EtcdSession, LeavesNoMarkWhenItDies) {
  ASSERT_TRUE(done(create(*one_, "a")));
  EXPECT_GT(kv_.count(keys_.all_writers()), 0u);
  kv_.expire_leases();
  EXPECT_EQ(kv_.count(keys_.all_writers()), 0u);
  EXPECT_EQ(kv_.count(keys_.all_sessions()), 0u);
}

TEST_F(EtcdSession, BeginsAnewWhenItsLeaseRanOut) {
  ASSERT_TRUE(done(create(*one_, "a")));
  kv_.expire_leases();
  ASSERT_TRUE(done(create(*one_, "b")));
  EXPECT_EQ(kv_.count(keys_.all_sessions()), 1u);
  EXPECT_EQ(count_children(*one_, ""), 2);
  kv_.expire_leases();
  kv_.compact();  // nothing shows any more what the cluster was like
  ASSERT_TRUE(done(create(*one_, "c")));
  EXPECT_EQ(count_children(*one_, ""), 3);
}

// No process is looked at, and no clock: two sessions on machines that cannot see each other's processes, whatever
// their clocks say.
TEST_F(EtcdSession, LeavesABuildAloneWhoseOwnerLives) {
  const auto other = session();
  ASSERT_TRUE(done(build(*one_, [&] {
    ASSERT_GT(kv_.count(keys_.all_staging()), 0u);
    EXPECT_TRUE(done(other->sweeper.sweep_all()));
    EXPECT_TRUE(done(other->sweeper.sweep_for_repair()));
    EXPECT_EQ(kv_.count(keys_.all_staging()), 1u);
  })));
  EXPECT_EQ(runs_, 1) << "it was disturbed";
  EXPECT_EQ(count_children(*other, "top"), kMany);
  expect_only_nodes(2 + kMany);
}

TEST_F(EtcdSession, WritesDownNeitherTimesNorProcessesToBeJudged) {
  ASSERT_TRUE(done(build(*one_, [&] {
    const auto builds = all(keys_.all_staging());
    ASSERT_EQ(builds.size(), 1u);
    const auto text = BuildText::parse(builds[0].value());
    ASSERT_TRUE(text);
    EXPECT_EQ(kv_.count({keys_.session(text->session), keys_.session(text->session) + '\0'}), 1u);
    for (const char* word : {"time", "owner"}) EXPECT_EQ(builds[0].value().find(word), std::string::npos) << word;
  })));
  for (const KeyValue& mark : all(keys_.all_writers())) {
    EXPECT_LT(mark.value().size(), 4u) << "more than a number: " << mark.value();
  }
}

TEST_F(EtcdSession, RemovesTheBuildOfAnOwnerThatDied) {
  EXPECT_TRUE(build(*one_, [&] { kv_of_one_->die(); }).is(PRTKV_UNREACHABLE));
  const auto other = session();
  ASSERT_TRUE(done(other->sweeper.sweep_all()));
  EXPECT_EQ(kv_.count(keys_.all_staging()), 1u) << "its session goes on";
  kv_.expire_leases();
  ASSERT_TRUE(done(other->sweeper.sweep_all()));
  expect_only_nodes(1);
}

TEST_F(EtcdSession, AnOwnerWhoseBuildWasSweptBeginsAgainAndDamagesNothing) {
  const auto other = session();
  ASSERT_TRUE(done(build(*one_, [&] {
    kv_.expire_leases();
    ASSERT_TRUE(done(other->sweeper.sweep_all()));
    expect_only_nodes(1);
  })));
  EXPECT_GT(runs_, 1) << "the commit of what was swept must have been refused";
  EXPECT_EQ(count_children(*other, "top"), kMany);
  one_.reset();
  ASSERT_TRUE(done(other->sweeper.sweep_all()));
  expect_only_nodes(2 + kMany);
}

TEST_F(EtcdSession, AnOwnerWhoseLeaseRanOutCannotDecide) {
  ASSERT_TRUE(done(build(*one_, [&] { kv_.expire_leases(); })));
  EXPECT_GT(runs_, 1) << "nobody has swept yet, but anybody may";
  EXPECT_EQ(count_children(*one_, "top"), kMany);
  const auto other = session();
  ASSERT_TRUE(done(other->sweeper.sweep_all()));
  expect_only_nodes(2 + kMany);
}

// What it reads of its own build tells nothing once that may have been removed.
TEST_F(EtcdSession, AnOwnerThatMissesWhatItHasStagedBeginsAgain) {
  const auto other = session();
  bool swept = false;
  EXPECT_TRUE(done(run(*one_, [&](Update& update) -> Status {
    Node top;
    if (Status status = stage(update, &top); !status.ok()) return status;
    if (!std::exchange(swept, true)) {
      kv_.expire_leases();
      EXPECT_TRUE(done(other->sweeper.sweep_all()));
    }
    Node staged;
    if (Status status = update.find(top.id, "k0", &staged); !status.ok()) return status;
    return update.insert(kRootNode, "top", top);
  })));
  EXPECT_EQ(count_children(*other, "top"), kMany);
}

TEST_F(EtcdSession, ADeadOwnersClaimIsRemovedWithItsBuild) {
  ASSERT_TRUE(done(build(*one_, [] {})));
  const auto change = [&](Core& core) {
    return run(core, [&](Update& update) -> Status {
      Node top;
      if (Status status = follow(update, "top", &top); !status.ok()) return status;
      return update.children(top.id, [&](std::string_view, const Node& node) {
        return update.set_value(node.id, 3, bytes_of("changed"));
      });
    });
  };
  kv_.after_txn = [&](const TxnRequest&) {
    if (kv_.count(keys_.all_claims()) > 0) kv_of_one_->die();
    return Reply();
  };
  EXPECT_TRUE(change(*one_).is(PRTKV_UNREACHABLE));
  ASSERT_EQ(kv_.count(keys_.all_claims()), 1u);
  const auto other = session();
  ASSERT_TRUE(done(other->sweeper.sweep_all()));
  EXPECT_EQ(kv_.count(keys_.all_claims()), 1u) << "its owner lives";
  kv_.expire_leases();
  ASSERT_TRUE(done(other->sweeper.sweep_all()));
  expect_only_nodes(2 + kMany);
}

// The answer to the first copy of the batch was lost, and the second one was refused. Nothing refers to what the batch
// has staged, so there is no need to know whether it was made.
TEST_F(EtcdSession, AnOwnerThatEndedWhileItsFirstBatchWasUnansweredBeginsAgain) {
  bool lost = false;
  kv_.after_txn = [&](const TxnRequest&) {
    if (kv_.count(keys_.all_staging()) == 0 || std::exchange(lost, true)) return Reply();
    kv_.expire_leases();
    return Reply{Verdict::kFinal, Status(PRTKV_STORAGE_FAILED, "refused"), true};
  };
  ASSERT_TRUE(done(build(*one_, [] {})));
  ASSERT_TRUE(lost);
  EXPECT_EQ(runs_, 2);
  const auto other = session();
  ASSERT_TRUE(done(other->sweeper.sweep_all()));
  EXPECT_EQ(count_children(*other, "top"), kMany);
  expect_only_nodes(2 + kMany);
}

// The first copy of the write was made, but its answer was lost, and the lease ran out before the second was sent.
TEST_F(EtcdSession, AWriteWhoseMarkEndedWithItsSessionIsUndecided) {
  ASSERT_TRUE(done(create(*one_, "a")));
  bool lost = false;
  kv_.after_txn = [&](const TxnRequest& request) {
    const bool is_write =
        request.compare_size() > 0 && request.success_size() > 0 && request.success(0).has_request_put();
    if (!is_write || std::exchange(lost, true)) return Reply();
    kv_.expire_leases();
    return Reply{Verdict::kTryElsewhere, Status(PRTKV_UNREACHABLE, "no answer"), true};
  };
  const Status status = run(*one_, [](Update& update) { return update.set_value(kRootNode, 3, bytes_of("x")); });
  EXPECT_TRUE(status.is(PRTKV_UNDECIDED)) << status.text();
  kv_.after_txn = nullptr;
  EXPECT_TRUE(done(create(*one_, "b"))) << "in a session of its own";
}

TEST_F(EtcdSession, LooksAroundAgainWhileItIsOpen) {
  auto patient = session();
  auto busy = std::make_unique<Core>(std::make_unique<SharedKv>(kv_), "/tkv/", Session::kDefaultTtl,
                                     std::chrono::milliseconds(0));
  ASSERT_TRUE(done(open_registry(*busy, EtcdOptions())));
  EXPECT_TRUE(build(*one_, [&] { kv_of_one_->die(); }).is(PRTKV_UNREACHABLE));
  kv_.put(keys_.garbage(77), "");
  kv_.put(keys_.node({77, "below"}), "whatever");
  kv_.expire_leases();
  patient->sweeper.look_around_when_due();
  EXPECT_EQ(kv_.count(keys_.all_staging()), 1u) << "it has just been opened";
  busy->sweeper.look_around_when_due();
  busy.reset();  // which gives it the time it needs
  EXPECT_EQ(kv_.count(keys_.all_garbage()), 0u);
  expect_only_nodes(1);
}

TEST_F(EtcdSession, TheStatusCountsWhatIsUnderWayAndWhatIsLeftOver) {
  StoreStatus status;
  const auto look = [&] {
    EXPECT_TRUE(done(read_cluster_status(*one_, &status)));
    return *status.cluster;
  };
  EXPECT_EQ(look().builds, 0u);
  SharedKv* connection = nullptr;
  auto dying = session(&connection);
  EXPECT_TRUE(build(*dying, [&] {
                EXPECT_EQ(look().builds, 1u);
                EXPECT_EQ(look().dead_builds, 0u);
                connection->die();
              }).is(PRTKV_UNREACHABLE));
  EXPECT_EQ(look().dead_builds, 0u) << "its lease has not run out";
  kv_.expire_leases();
  kv_.put(keys_.garbage(77), "");
  kv_.put(keys_.claim(kRootNode, "token"), ClaimText{}.print());
  EXPECT_EQ(look().builds, 1u);
  EXPECT_EQ(look().dead_builds, 1u);
  EXPECT_EQ(look().garbage, 1u);
  EXPECT_EQ(look().claims, 1u);
  EXPECT_EQ(look().revision, static_cast<std::uint64_t>(kv_.revision()));
}

// ---- requests that are carried out late

// Each request is answered when it is sent for the second time. The member of the cluster that got the first copy had
// stopped: it carries the copy out after any of the requests that follow, and after the end of the session.
class EtcdLateCopies : public EtcdSession {
 protected:
  EtcdLateCopies() {
    kv_.after_txn = [this](const TxnRequest& request) {
      if (std::exchange(copying_, true)) return Reply();
      if (writes(request)) sent_.push_back(request);
      for (const TxnRequest& each : sent_) expect_no_change_by(each);
      copying_ = false;
      return Reply{Verdict::kDone, {}, true};
    };
  }
  ~EtcdLateCopies() override {
    one_.reset();
    kv_.after_txn = nullptr;
  }

  static bool writes(const TxnRequest& request) {
    return std::any_of(request.success().begin(), request.success().end(),
                       [](const RequestOp& operation) { return !operation.has_request_range(); });
  }

  void expect_no_change_by(const TxnRequest& copy) {
    const std::int64_t revision = kv_.revision();
    TxnResponse response;
    (void)kv_.txn(copy, &response, Deadline(std::chrono::seconds(1)));
    std::string keys = "compares";
    for (const Compare& compare : copy.compare()) keys += " " + compare.key();
    keys += "\nputs";
    for (const RequestOp& operation : copy.success()) keys += " " + operation.request_put().key();
    EXPECT_EQ(kv_.revision(), revision) << "a request that " << keys;
  }

  // The copies are carried out once more when all sessions have ended, before others remove what seems to be left.
  void end_sessions() {
    kv_.expire_leases();
    ASSERT_TRUE(done(session()->sweeper.sweep_all()));
  }

  Status change(Core& core, const std::string& path) {
    return run(core, [&](Update& update) -> Status {
      Node top;
      if (Status status = follow(update, path, &top); !status.ok()) return status;
      return update.children(top.id, [&](std::string_view, const Node& node) {
        return update.set_value(node.id, 3, bytes_of("changed"));
      });
    });
  }

  // Lets the session die before its first transaction of which `ends` is true.
  void die_before(SharedKv* connection, std::function<bool(const TxnRequest& request)> ends) {
    kv_.before_txn = [this, connection, ends = std::move(ends)](const TxnRequest& request) {
      if (copying_ || !ends(request)) return Reply();
      connection->die();
      kv_.before_txn = nullptr;
      return Reply{Verdict::kFinal, Status(PRTKV_UNREACHABLE, "the process has died"), false};
    };
  }

  // Changes all subkeys of "top", and attaches to one of them a key that was made before, with subkeys of its own.
  Status change_and_add(Core& core, int subkeys) {
    return run(core, [subkeys](Update& update) -> Status {
      Node added;
      Node top;
      Node first;
      if (Status status = update.new_id(&added.id); !status.ok()) return status;
      for (int i = 0; i < subkeys; ++i) {
        Node below;
        if (Status status = update.new_id(&below.id); !status.ok()) return status;
        if (Status status = update.insert(added.id, std::to_string(i), below); !status.ok()) return status;
      }
      if (Status status = follow(update, "top", &top); !status.ok()) return status;
      const auto change = [&](std::string_view, const Node& node) {
        return update.set_value(node.id, 3, bytes_of("changed"));
      };
      if (Status status = update.children(top.id, change); !status.ok()) return status;
      if (Status status = update.find(top.id, "k0", &first); !status.ok()) return status;
      return update.insert(first.id, "added", added);
    });
  }

  // Calls a function right before each transaction that lays a claim, with its number.
  void before_each_claim(std::function<void(int number)> meanwhile) {
    kv_.before_txn = [this, meanwhile = std::move(meanwhile)](const TxnRequest& request) {
      const bool lays_claim = std::any_of(request.success().begin(), request.success().end(), [&](const auto& each) {
        return keys_.parse_claim(each.request_put().key()) && !ClaimText::parse(each.request_put().value()).decided;
      });
      if (lays_claim && !copying_) meanwhile(++claims_);
      return Reply();
    };
  }

  std::vector<TxnRequest> sent_;
  bool copying_ = false;
  int claims_ = 0;
};

TEST_F(EtcdLateCopies, OfChangesChangeNothing) {
  ASSERT_TRUE(done(create(*one_, "a")));
  ASSERT_TRUE(done(build(*one_, [] {})));
  ASSERT_TRUE(done(change(*one_, "top")));
  ASSERT_TRUE(done(change_and_add(*one_, kMany)));
  ASSERT_TRUE(done(run(*one_, [](Update& update) -> Status {
    Node to;
    Node top;
    if (Status status = follow(update, "a", &to); !status.ok()) return status;
    if (Status status = follow(update, "top", &top); !status.ok()) return status;
    if (Status status = update.unlink(kRootNode, "top"); !status.ok()) return status;
    return update.insert(to.id, "moved", top);
  })));
  ASSERT_TRUE(done(run(*one_, [](Update& update) { return delete_key(update, "a.moved.k1"); })));
  end_sessions();
  EXPECT_EQ(count_children(*one_, "a.moved"), kMany - 1);
  EXPECT_EQ(count_children(*one_, "a.moved.k0.added"), kMany);
  ASSERT_TRUE(done(run(*session(), [](Update& update) { return delete_key(update, "a"); })));
  end_sessions();
  expect_only_nodes(1);
}

TEST_F(EtcdLateCopies, OfWhatIsLeftToOthersChangeNothing) {
  ASSERT_TRUE(done(build(*one_, [] {})));
  const auto is_large = [this](const TxnRequest&) { return kv_.count(keys_.all_plans()) > 0; };
  const auto is_decided = [this](const TxnRequest&) {
    const auto claims = kv_.keys_of(keys_.all_claims());
    return !claims.empty() && ClaimText::parse(kv_.get(claims[0])).decided;
  };
  SharedKv* connection = nullptr;
  auto dying = session(&connection);
  die_before(connection, is_large);
  EXPECT_TRUE(change(*dying, "top").is(PRTKV_UNREACHABLE));
  end_sessions();
  EXPECT_EQ(kv_.count(keys_.all_values()), 0u);

  dying = session(&connection);
  die_before(connection, is_decided);
  EXPECT_TRUE(done(change(*dying, "top")));
  EXPECT_GT(kv_.count(keys_.all_plans()), 0u);
  end_sessions();
  EXPECT_EQ(kv_.count(keys_.all_values()), std::size_t{kMany});
  EXPECT_EQ(count_children(*one_, "top"), kMany);
  expect_only_nodes(2 + kMany);
}

TEST_F(EtcdLateCopies, OfRemovalsWithoutSpaceChangeNothing) {
  ASSERT_TRUE(done(create(*one_, "leaf")));
  ASSERT_TRUE(done(build(*one_, [] {})));
  kv_.is_full = true;
  ASSERT_TRUE(done(run(*one_, [](Update& update) { return delete_key(update, "leaf"); })));
  ASSERT_TRUE(done(run(*one_, [](Update& update) { return delete_key(update, "top"); })));
  kv_.is_full = false;
  ASSERT_TRUE(done(create(*one_, "leaf")));
  ASSERT_TRUE(done(build(*one_, [] {})));
  end_sessions();
  EXPECT_EQ(count_children(*one_, "top"), kMany);
  expect_only_nodes(3 + kMany);
}

TEST_F(EtcdLateCopies, OfOpeningsChangeNothing) {
  const auto open = [this](const std::string& prefix) {
    Core core(std::make_unique<SharedKv>(kv_), prefix);
    EtcdOptions options;
    options.prefix = prefix;
    ASSERT_TRUE(done(open_registry(core, options)));
    EXPECT_TRUE(done(create(core, std::to_string(kv_.revision()))));
  };
  open("/created/");
  const Keys unmarked("/unmarked/");
  kv_.put(unmarked.meta(), as_text(encode_meta(Meta())));
  kv_.put(unmarked.node({kNoNode, ""}), as_text(encode_node(kNoNode, "", {kRootNode, {}})));
  open("/unmarked/");
  const Keys unlogged("/unlogged/");
  kv_.put(unlogged.meta(), as_text(encode_meta(Meta())));
  kv_.put(unlogged.node({kNoNode, ""}), as_text(encode_node(kNoNode, "", {kRootNode, {}})));
  kv_.put(unlogged.mark(), RegistryMark{2, random_token()}.print());
  open("/unlogged/");
  kv_.expire_leases();
  open("/created/");
}

TEST_F(EtcdLateCopies, OfRepairsChangeNothing) {
  ASSERT_TRUE(done(build(*one_, [] {})));
  const ChangeDescription description{.note = "repair"};
  Totals totals;
  const auto repair = [&] {
    return check_registry(
        *one_, &description, [](const Finding&) {}, [](const CheckProgress&) {}, &totals);
  };
  const auto put_orphan = [this](NodeId id) {
    kv_.put(keys_.node({id - 1, "orphan"}), as_text(encode_node(id - 1, "orphan", {id, {}})));
    kv_.put(keys_.value(id), "damaged");
  };
  kv_.put(keys_.meta(), "damaged");
  put_orphan(7000);
  kv_.put(keys_.claim(2, claim_token(1)), "damaged");
  kv_.put(keys_.staging(claim_token(1)), "damaged");
  ASSERT_TRUE(done(repair()));
  put_orphan(8000);
  ASSERT_TRUE(done(repair()));
  ASSERT_TRUE(done(create(*one_, "a")));
  end_sessions();
  expect_only_nodes(3 + kMany);
}

// The first claim of the change is refused. What keeps its late copy from being made also gives the build up: another
// session has begun to remove what was staged, and was interrupted, when the next claim is laid.
TEST_F(EtcdLateCopies, OfARefusedBatchEndTheBuild) {
  kv_.after_txn = [](const TxnRequest&) { return Reply{Verdict::kDone, {}, true}; };
  ASSERT_TRUE(done(build(*one_, [] {})));
  SharedKv* connection = nullptr;
  const auto sweeping = session(&connection);
  before_each_claim([&](int number) {
    if (number == 1) kv_.put(keys_.claim(77, "other"), ClaimText().print());
    if (number != 2) return;
    auto after_txn = kv_.after_txn.replace([&](const TxnRequest& request) {
      if (writes(request)) connection->die();
      return Reply();
    });
    (void)sweeping->sweeper.sweep_all();
    kv_.after_txn = std::move(after_txn);
  });
  ASSERT_TRUE(done(change_and_add(*one_, kMany)));
  ASSERT_GE(claims_, 2);
  EXPECT_EQ(count_children(*one_, "top.k0.added"), kMany);
}

TEST_F(EtcdLateCopies, OfAClaimThatAnotherOneCameAheadOfChangeNothing) {
  ASSERT_TRUE(done(build(*one_, [] {})));
  before_each_claim([this](int number) {
    if (number == 1) kv_.put(keys_.claim(77, "other"), ClaimText().print());
  });
  ASSERT_TRUE(done(change_and_add(*one_, 1)));
  ASSERT_EQ(claims_, 2);
  kv_.expire_leases();
  const auto other = session();
  ASSERT_TRUE(done(other->sweeper.sweep_all()));
  EXPECT_EQ(count_children(*other, "top.k0.added"), 1);
  EXPECT_EQ(count_children(*other, "top"), kMany);
  expect_only_nodes(4 + kMany);
}

// ---- forked children

// A session that has garbage to remove, and is due to look for it each time that it is asked.
class EtcdForkedSession : public EtcdSession {
 protected:
  EtcdForkedSession()
      : busy_(std::make_unique<Core>(std::make_unique<SharedKv>(kv_), "/tkv/", Session::kDefaultTtl,
                                     std::chrono::milliseconds(0))) {
    EXPECT_TRUE(done(open_registry(*busy_, EtcdOptions())));
    kv_.put(keys_.garbage(77), "");
    kv_.put(keys_.node({77, "below"}), "whatever");
  }

  static std::ptrdiff_t threads() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), std::filesystem::directory_iterator());
  }

  // Forks a child that uses the session and closes it. Expects that this starts no thread and waits for none.
  void expect_child_to_close_it() {
    const pid_t child = fork();
    if (child == 0) {
      alarm(kPatience);
      const auto before = threads();  // a sanitizer may have one of its own
      busy_->sweeper.look_around_when_due();
      const bool started_none = threads() == before;
      busy_.reset();
      _exit(started_none ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status)) << "it waited for a thread of its parent";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "it has a thread of its own";
  }

  std::unique_ptr<Core> busy_;
};

TEST_F(EtcdForkedSession, StartsNoSweeping) {
  expect_child_to_close_it();
  EXPECT_EQ(kv_.count(keys_.all_garbage()), 1u);
  busy_->sweeper.look_around_when_due();
  busy_.reset();
  EXPECT_EQ(kv_.count(keys_.all_garbage()), 0u) << "the parent's does";
}

TEST_F(EtcdForkedSession, LeavesTheSweepingUnderWayToItsParent) {
  std::promise<void> begun;
  std::promise<void> forked;
  kv_.before_txn = [&, first = true](const TxnRequest&) mutable {
    if (std::exchange(first, false)) {
      begun.set_value();
      forked.get_future().wait();
    }
    return Reply();
  };
  busy_->sweeper.look_around_when_due();
  begun.get_future().wait();
  expect_child_to_close_it();
  forked.set_value();
  busy_.reset();
  EXPECT_EQ(kv_.count(keys_.all_garbage()), 0u);
  expect_only_nodes(1);
}

// ---- without space

class EtcdWithoutSpace : public EtcdSession {
 protected:
  Status remove(Core& core, const std::string& path) {
    return run(core, [&](Update& update) { return delete_key(update, path); });
  }

  // Builds a large key "top" and lets a session die right after the transaction that deletes it, still without space.
  void die_while_removing_top() {
    SharedKv* connection = nullptr;
    auto dying = session(&connection);
    ASSERT_TRUE(done(build(*one_, [] {})));
    kv_.is_full = true;
    kv_.after_txn = [&](const TxnRequest& request) {
      if (request.success_size() > 0 && request.success(0).has_request_delete_range()) connection->die();
      return Reply();
    };
    EXPECT_TRUE(done(remove(*dying, "top")));
    dying.reset();
    kv_.after_txn = nullptr;
  }

  int orphans_found_by(Core& core, bool repair) {
    int orphans = 0;
    Totals totals;
    const ChangeDescription change;
    EXPECT_TRUE(done(check_registry(
        core, repair ? &change : nullptr,
        [&](const Finding& finding) {
          EXPECT_EQ(finding.kind, Finding::Kind::kOrphan) << finding.detail;
          ++orphans;
        },
        [](const CheckProgress&) {}, &totals)));
    return orphans;
  }
};

TEST_F(EtcdWithoutSpace, KeysCanBeDeletedAndNothingElse) {
  ASSERT_TRUE(done(build(*one_, [] {})));
  ASSERT_TRUE(done(create(*one_, "leaf")));
  kv_.is_full = true;
  EXPECT_TRUE(create(*one_, "new").is(PRTKV_STORAGE_FULL));
  EXPECT_TRUE(done(remove(*one_, "leaf")));
  EXPECT_TRUE(done(remove(*one_, "top.k7")));
  EXPECT_TRUE(remove(*one_, "leaf").is(PRTKV_NO_SUCH_KEY));
  const auto fresh = session();
  EXPECT_TRUE(create(*fresh, "new").is(PRTKV_STORAGE_FULL));
  EXPECT_EQ(count_children(*fresh, "top"), kMany - 1);
  EXPECT_TRUE(done(remove(*fresh, "top"))) << "a session that has never had a lease";
  EXPECT_EQ(count_children(*fresh, ""), 0);
  expect_only_nodes(1);
  kv_.is_full = false;
  EXPECT_TRUE(done(create(*fresh, "new")));
}

// Nothing says that what hung below the key is to be removed. It must not come back, and a repair must find it.
TEST_F(EtcdWithoutSpace, WhatADeadSessionDidNotRemoveIsFoundByARepair) {
  ASSERT_NO_FATAL_FAILURE(die_while_removing_top());
  ASSERT_EQ(kv_.count(keys_.all_nodes()), 1u + kMany);

  const auto later = session();
  EXPECT_EQ(count_children(*later, ""), 0);
  EXPECT_EQ(orphans_found_by(*later, false), kMany);
  EXPECT_EQ(orphans_found_by(*later, true), kMany) << "without space";
  EXPECT_EQ(orphans_found_by(*later, false), 0);
  expect_only_nodes(1);
  kv_.is_full = false;
  ASSERT_TRUE(done(create(*later, "top")));
  EXPECT_EQ(count_children(*later, "top"), 0);
}

// The same where a session later builds a key of the same name: no id of what remains is used again.
TEST_F(EtcdWithoutSpace, WhatADeadSessionDidNotRemoveIsNotTakenForSomethingNew) {
  ASSERT_NO_FATAL_FAILURE(die_while_removing_top());
  kv_.is_full = false;

  const auto later = session();
  ASSERT_TRUE(done(create(*later, "top")));
  EXPECT_EQ(count_children(*later, "top"), 0);
  EXPECT_EQ(count_children(*one_, "top"), 0) << "in the session that had built the former key";
  ASSERT_TRUE(done(remove(*later, "top")));
  ASSERT_TRUE(done(build(*later, [] {})));
  EXPECT_EQ(orphans_found_by(*later, true), kMany);
  EXPECT_EQ(count_children(*one_, "top"), kMany);
  EXPECT_EQ(orphans_found_by(*one_, false), 0);
}

// A key that was deleted, of which one subkey is left.
class EtcdGarbageWithoutSpace : public EtcdWithoutSpace {
 protected:
  // From here on, there is no space.
  void leave_garbage() {
    kv_.put(keys_.node({kTop, "left"}), as_text(encode_node(kTop, "left", {kTop + 1, {}})));
    kv_.put(keys_.garbage(kTop), "");
    kv_.is_full = true;
  }

  void expect_garbage_removed() {
    EXPECT_EQ(kv_.count(keys_.all_garbage()), 0u);
    EXPECT_EQ(kv_.get(keys_.node({kTop, "left"})), "");
  }

  static constexpr NodeId kTop = 70'000;
};

TEST_F(EtcdGarbageWithoutSpace, IsRemovedBesideTheBuildOfASessionThatDied) {
  const auto other = session();
  EXPECT_TRUE(build(*one_, [&] { kv_of_one_->die(); }).is(PRTKV_UNREACHABLE));
  leave_garbage();
  EXPECT_TRUE(done(other->sweeper.sweep_all()));
  EXPECT_EQ(kv_.count(keys_.all_staging()), 1u) << "its session goes on";
  expect_garbage_removed();
  kv_.expire_leases();
  EXPECT_TRUE(done(other->sweeper.sweep_all()));
  expect_only_nodes(1);
}

TEST_F(EtcdGarbageWithoutSpace, IsRemovedBesideADecisionThatCannotBeCarriedOut) {
  RedoLog log;
  RequestOp operation;
  put(&operation, keys_.value(2), "decided");
  log.add(std::move(operation));
  kv_.put(keys_.plan("token", 0), log.take_batches().front());
  kv_.put(keys_.claim(2, "token"), ClaimText{true, 0, 0, 1}.print());
  leave_garbage();
  EXPECT_TRUE(one_->sweeper.sweep_all().is(PRTKV_STORAGE_FULL));
  expect_garbage_removed();
  kv_.is_full = false;
  EXPECT_TRUE(done(one_->sweeper.sweep_all()));
  EXPECT_EQ(kv_.get(keys_.value(2)), "decided");
}

TEST_F(EtcdGarbageWithoutSpace, IsRemovedBesideADecisionThatIsDamaged) {
  kv_.put(keys_.claim(2, "token"), "nonsense");
  leave_garbage();
  EXPECT_TRUE(one_->sweeper.sweep_all().is(PRTKV_STORAGE_FAILED));
  expect_garbage_removed();
}

TEST_F(EtcdWithoutSpace, ADeletionWhoseAnswerWasLostIsUndecided) {
  ASSERT_TRUE(done(create(*one_, "leaf")));
  kv_.is_full = true;
  bool lost = false;
  kv_.after_txn = [&](const TxnRequest& request) {
    const bool deletes = request.success_size() > 0 && request.success(0).has_request_delete_range();
    if (!deletes || std::exchange(lost, true)) return Reply();
    return Reply{Verdict::kTryElsewhere, Status(PRTKV_UNREACHABLE, "no answer"), true};
  };
  EXPECT_TRUE(remove(*one_, "leaf").is(PRTKV_UNDECIDED));
}

// ---- repairs

class EtcdRepairInMemory : public EtcdSession {
 protected:
  EtcdRepairInMemory() { kv_.put(keys_.meta(), "damaged"); }

  Status repair() {
    Totals totals;
    const ChangeDescription change{.note = "repair"};
    return check_registry(
        *one_, &change, [](const Finding&) {}, [](const CheckProgress&) {}, &totals);
  }

  bool sets_counter(const TxnRequest& request) const {
    return request.success_size() > 0 && request.success(0).request_put().key() == keys_.meta();
  }
};

TEST_F(EtcdRepairInMemory, IsNotMadeOverAChangeThatItHasNotSeen) {
  const std::int64_t logged = kv_.mod_revision(keys_.log());
  bool overtaken = false;
  kv_.before_txn = [&](const TxnRequest& request) {
    if (sets_counter(request) && !std::exchange(overtaken, true)) kv_.put(keys_.meta(), "damaged in another way");
    return Reply();
  };
  EXPECT_TRUE(repair().is(PRTKV_BUSY));
  EXPECT_EQ(kv_.get(keys_.meta()), "damaged in another way");
  EXPECT_EQ(kv_.mod_revision(keys_.log()), logged);
  EXPECT_TRUE(done(repair()));
  EXPECT_GT(kv_.mod_revision(keys_.log()), logged);
  EXPECT_TRUE(done(create(*session(), "new")));
}

TEST_F(EtcdRepairInMemory, ReportsADamagedRecordOfTheLastChangeAndDescribesItselfInstead) {
  ASSERT_TRUE(done(repair()));
  kv_.put(keys_.log(), "damaged");
  std::vector<Finding::Kind> found;
  Totals totals;
  const auto check = [&] {
    found.clear();
    return check_registry(
        *one_, nullptr, [&](const Finding& finding) { found.push_back(finding.kind); }, [](const CheckProgress&) {},
        &totals);
  };
  EXPECT_TRUE(done(check()));
  EXPECT_EQ(found, std::vector{Finding::Kind::kDamagedChange});
  EXPECT_TRUE(done(repair()));
  EXPECT_TRUE(done(check()));
  EXPECT_EQ(found.size(), 0u);
}

TEST_F(EtcdRepairInMemory, IsUndecidedIfItsAnswerWasLost) {
  bool lost = false;
  kv_.after_txn = [&](const TxnRequest& request) {
    if (!sets_counter(request) || std::exchange(lost, true)) return Reply();
    return Reply{Verdict::kTryElsewhere, Status(PRTKV_UNREACHABLE, "no answer"), true};
  };
  EXPECT_TRUE(repair().is(PRTKV_UNDECIDED));
  EXPECT_TRUE(done(repair()));
}

// ---- repairs of large changes under way

class EtcdRepairOfChanges : public EtcdSession {
 protected:
  // A decision that cannot be read. Its batches put keys that a registry does not have: one to look at, and another one
  // so large that each pair takes a batch of its own.
  void leave_damaged_decision() {
    RedoLog log;
    for (const int id : {2, 3}) {
      RequestOp operation;
      put(&operation, note(id), "decided");
      log.add(std::move(operation));
      put(&operation, "/tkv/pad" + std::to_string(id), std::string(kMaxTxnBytes, 'x'));
      log.add(std::move(operation));
    }
    const std::vector<std::string> batches = log.take_batches();
    for (std::uint64_t i = 0; i < batches.size(); ++i) kv_.put(keys_.plan(token_, i), batches[i]);
    ASSERT_GE(batches.size(), 2u);
    kv_.put(claim_, "damaged");
  }

  Status repair(Core& core) {
    Totals totals;
    const ChangeDescription change{.note = "repair"};
    return check_registry(
        core, &change, [](const Finding&) {}, [](const CheckProgress&) {}, &totals);
  }

  // Called once, before the transaction that repairs the claim.
  void before_the_repair(const std::function<void()>& meanwhile) {
    kv_.before_txn = [this, meanwhile, done = false](const TxnRequest& request) mutable {
      const bool repairs = std::any_of(request.success().begin(), request.success().end(), [&](const RequestOp& each) {
        return each.request_put().key() == claim_ || each.request_delete_range().key() == claim_;
      });
      if (repairs && !std::exchange(done, true)) meanwhile();
      return Reply();
    };
  }

  static std::string note(int id) { return "/tkv/note" + std::to_string(id); }

  const std::string token_ = claim_token(1);
  const std::string claim_ = keys_.claim(2, token_);
};

TEST_F(EtcdRepairOfChanges, IsNotMadeOverWhatOthersHaveRepairedMeanwhile) {
  leave_damaged_decision();
  const auto other = session();
  before_the_repair([&] {
    EXPECT_TRUE(done(repair(*other)));
    kv_.put(note(2), "changed since");
  });
  EXPECT_TRUE(done(repair(*one_)));
  EXPECT_EQ(kv_.get(note(2)), "changed since");
  EXPECT_EQ(kv_.count(keys_.all_claims()), 0u);
  EXPECT_EQ(kv_.count(keys_.all_plans()), 0u);
}

// The claim of a change that is being prepared cannot be read; when the repair would remove it, the change is decided.
TEST_F(EtcdRepairOfChanges, RemovesNoClaimThatIsDecidedMeanwhile) {
  leave_damaged_decision();
  BuildText build;
  build.batch = 1;
  build.session = random_token();
  kv_.put(keys_.staging(token_), build.print());
  before_the_repair([&] { kv_.erase(keys_.staging(token_)); });
  EXPECT_TRUE(done(repair(*one_)));
  EXPECT_EQ(kv_.get(note(2)), "decided");
  EXPECT_EQ(kv_.get(note(3)), "decided");
}

TEST_F(EtcdRepairOfChanges, SaysWhatIsLostEvenIfItFailsLater) {
  leave_damaged_decision();
  kv_.put(keys_.plan(token_, 0), "damaged");
  kv_.before_txn = [&](const TxnRequest& request) {
    const bool carries_out = request.success_size() > 0 && request.success(0).request_put().key() == note(3);
    return carries_out ? Reply{Verdict::kFinal, Status(PRTKV_STORAGE_FULL, "full"), false} : Reply();
  };
  const Status status = repair(*one_);
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FULL)) << status.text();
  EXPECT_NE(status.text().find("large change cannot be read"), std::string::npos) << status.text();
  kv_.before_txn = nullptr;
  EXPECT_TRUE(done(repair(*one_)));
  EXPECT_EQ(kv_.get(note(3)), "decided");
  EXPECT_EQ(kv_.get(note(2)), "");
}

TEST_F(EtcdRepairOfChanges, AnOwnerWhoseBuildWasDamagedAndRepairedBeginsAgain) {
  const auto other = session();
  ASSERT_TRUE(done(build(*one_, [&] {
    const std::vector<std::string> builds = kv_.keys_of(keys_.all_staging());
    ASSERT_EQ(builds.size(), 1u);
    kv_.put(builds[0], kv_.get(builds[0]) + "?");
    EXPECT_TRUE(done(repair(*other)));
    expect_only_nodes(1);
  })));
  EXPECT_GT(runs_, 1);
  EXPECT_EQ(count_children(*other, "top"), kMany);
  EXPECT_TRUE(done(repair(*other)));
  expect_only_nodes(2 + kMany);
}

// ---- what releases have left that named processes as owners

class EtcdFormerOwner : public EtcdSession {
 protected:
  EtcdFormerOwner() {
    kv_.put(keys_.staging(token_),
            "batch 1\ntime 1600000000\nstate building\nowner 9b1f pid:[4026531836] 1 1\nids 1000 1001\n");
    kv_.put(keys_.node({1000, "below"}), "staged");
    kv_.put(mark_, "7 1600000000 9b1f pid:[4026531836] 1 1");
  }

  const std::string token_ = random_token();
  const std::string mark_ = keys_.writer(random_token() + "-0");
};

TEST_F(EtcdFormerOwner, IsNotKnownToHaveEnded) {
  const auto other = session();
  ASSERT_TRUE(done(other->sweeper.sweep_all()));
  EXPECT_EQ(kv_.count(keys_.all_staging()), 1u);
  EXPECT_EQ(kv_.count(keys_.nodes_below(1000, 1000)), 1u);
  EXPECT_NE(kv_.get(mark_), "");
  EXPECT_EQ(count_children(*other, ""), 0) << "the registry can be read";
}

TEST_F(EtcdFormerOwner, IsCleanedUpAfterByARepair) {
  ASSERT_TRUE(done(one_->sweeper.sweep_for_repair()));
  EXPECT_EQ(kv_.get(mark_), "");
  expect_only_nodes(1);
}

}  // namespace
}  // namespace tkv::store::etcd
