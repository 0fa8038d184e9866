#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "etcd_store_fixture.h"
#include "store/etcd/claims.h"

namespace tkv::store::etcd {
namespace {

// Changes of existing keys that are larger than one transaction of etcd.
class EtcdLargeChange : public EtcdStore {
 protected:
  static constexpr int kKeys = 150;

  void SetUp() override {
    EtcdStore::SetUp();
    ASSERT_TRUE(done(build_keys(*store_, "top", kKeys)));
    ASSERT_TRUE(done(change_values(*store_, [](const std::string&) { return "0"; })));
  }

  static std::string name(int key) { return "top.k" + std::to_string(key); }

  // Replaces the value of every subkey of "top" by what `change` makes of it, in one write.
  template <typename Change>
  static Status change_values(Store& store, Change change, int* runs = nullptr) {
    return store.write([&](Update& update) -> Status {
      if (runs != nullptr) ++*runs;
      for (int key = 0; key < kKeys; ++key) {
        Node node;
        if (Status status = follow(update, name(key), &node); !status.ok()) return status;
        Value value;
        if (Status status = update.value(node.id, &value); !status.ok()) return status;
        const std::string text = change(text_of(value));
        if (Status status = update.set_value(node.id, 3, bytes_of(text)); !status.ok()) return status;
      }
      return {};
    });
  }

  static std::string incremented(const std::string& text) { return std::to_string(std::stoi(text) + 1); }

  static Status increment(Store& store, const std::string& path) {
    return store.write([&](Update& update) -> Status {
      Node node;
      if (Status status = follow(update, path, &node); !status.ok()) return status;
      Value value;
      if (Status status = update.value(node.id, &value); !status.ok()) return status;
      return update.set_value(node.id, 3, bytes_of(incremented(text_of(value))));
    });
  }

  static std::string value_of(Store& store, const std::string& path) {
    std::string text;
    EXPECT_TRUE(done(read_key(store, path, &text))) << path;
    return text;
  }

  void expect_nothing_left_over() {
    EXPECT_TRUE(eventually([&] {
      return count_raw(keys().all_staging()) == 0 && count_raw(keys().all_claims()) == 0 &&
             count_raw(keys().all_plans()) == 0 && count_raw(keys().all_garbage()) == 0;
    }));
    EXPECT_EQ(totals_of(*store_).nodes, static_cast<std::uint64_t>(count_raw(keys().all_nodes())));
  }
};

TEST_F(EtcdLargeChange, IsOneChangeInTheLogAndWholeInEveryFormerState) {
  Revision before = 0;
  ASSERT_TRUE(done(store_->read([&](View& view) { return view.revision(&before); })));
  Revision revision = 0;
  ASSERT_TRUE(done(store_->write(
      [](Update& update) -> Status {
        update.describe({.note = "large"});
        for (int key = 0; key < kKeys; ++key) {
          Node node;
          if (Status status = follow(update, name(key), &node); !status.ok()) return status;
          if (Status status = update.set_value(node.id, 3, bytes_of("1")); !status.ok()) return status;
        }
        return {};
      },
      &revision)));
  ASSERT_TRUE(done(increment(*store_, name(0))));
  std::vector<Revision> logged;
  LogPosition position;
  ASSERT_TRUE(done(store_->changes(
      {.after = before, .up_to = revision},
      [&](const ChangeRecord& record) {
        logged.push_back(record.revision);
        EXPECT_EQ(record.note, "large");
        return Status();
      },
      &position)));
  EXPECT_EQ(logged, std::vector{revision});
  const auto values_at = [&](Revision at) {
    std::set<std::string> values;
    EXPECT_TRUE(done(store_->read_at(at, [&](View& view) -> Status {
      values.clear();
      for (int key = 0; key < kKeys; ++key) {
        Node node;
        Value value;
        if (Status status = follow(view, name(key), &node); !status.ok()) return status;
        if (Status status = view.value(node.id, &value); !status.ok()) return status;
        values.insert(text_of(value));
      }
      return {};
    })));
    return values;
  };
  EXPECT_EQ(values_at(before), std::set<std::string>{"0"});
  EXPECT_EQ(values_at(revision - 1), std::set<std::string>{"0"});
  EXPECT_EQ(values_at(revision), std::set<std::string>{"1"});
}

TEST_F(EtcdLargeChange, ChangesKeysWhereTheyAre) {
  NodeId before = kNoNode;
  ASSERT_TRUE(done(open_key(*store_, name(7), &before)));
  int runs = 0;
  ASSERT_TRUE(done(change_values(*store_, incremented, &runs)));
  EXPECT_EQ(runs, 2) << "one to see what it is about, one to make it";
  NodeId after = kNoNode;
  ASSERT_TRUE(done(open_key(*store_, name(7), &after)));
  EXPECT_EQ(after, before);
  for (int key = 0; key < kKeys; ++key) EXPECT_EQ(value_of(*store_, name(key)), "1") << key;
  expect_nothing_left_over();
}

TEST_F(EtcdLargeChange, HoldsEveryKindOfChange) {
  ASSERT_TRUE(done(create_key(*store_, "other")));
  ASSERT_TRUE(done(create_key(*store_, "top.k0.below", "deep")));
  ASSERT_TRUE(done(store_->write([&](Update& update) -> Status {
    Node top;
    Node other;
    if (Status status = follow(update, "top", &top); !status.ok()) return status;
    if (Status status = follow(update, "other", &other); !status.ok()) return status;
    sec_attr security{};
    security.other_perm = 1;
    if (Status status = update.set_security(kRootNode, "top", security); !status.ok()) return status;
    for (int key = 0; key < kKeys; ++key) {
      const std::string level = "k" + std::to_string(key);
      Node node;
      if (Status status = update.find(top.id, level, &node); !status.ok()) return status;
      if (key % 3 == 0) {  // moved away
        if (Status status = update.unlink(top.id, level); !status.ok()) return status;
        if (Status status = update.insert(other.id, level, node); !status.ok()) return status;
      } else if (key % 3 == 1) {  // removed
        if (Status status = update.unlink(top.id, level); !status.ok()) return status;
        if (Status status = update.discard(node.id); !status.ok()) return status;
      } else {  // given a subkey
        Node below;
        if (Status status = update.new_id(&below.id); !status.ok()) return status;
        if (Status status = update.insert(node.id, "new", below); !status.ok()) return status;
        if (Status status = update.set_value(below.id, 3, bytes_of(level)); !status.ok()) return status;
      }
    }
    return {};
  })));
  EXPECT_EQ(value_of(*store_, "other.k0.below"), "deep");
  EXPECT_TRUE(open_key(*store_, "top.k0").is(PRTKV_NO_SUCH_KEY));
  EXPECT_TRUE(open_key(*store_, "top.k1").is(PRTKV_NO_SUCH_KEY));
  EXPECT_EQ(value_of(*store_, "top.k2.new"), "k2");
  Node top;
  ASSERT_TRUE(done(store_->read([&](View& view) { return follow(view, "top", &top); })));
  EXPECT_EQ(top.security.other_perm, 1);
  expect_nothing_left_over();
  EXPECT_EQ(totals_of(*store_).nodes, 1u + 2u + 50u + 1u + 50u * 2u);
}

TEST_F(EtcdLargeChange, HoldsMoreBytesThanOneTransaction) {
  const std::string large(1024 * 1024, 'x');
  ASSERT_TRUE(done(store_->write([&](Update& update) -> Status {
    for (int key = 0; key < 5; ++key) {
      Node node;
      if (Status status = follow(update, name(key), &node); !status.ok()) return status;
      if (Status status = update.set_value(node.id, 3, bytes_of(large)); !status.ok()) return status;
    }
    return {};
  })));
  for (int key = 0; key < 5; ++key) EXPECT_EQ(value_of(*store_, name(key)), large);
  expect_nothing_left_over();
}

TEST_F(EtcdLargeChange, MayBeOfTheRootItself) {
  ASSERT_TRUE(done(store_->write([&](Update& update) -> Status {
    sec_attr security{};
    security.user_perm = 0x3f;
    security.other_perm = 2;
    if (Status status = update.set_security(kNoNode, "", security); !status.ok()) return status;
    for (int i = 0; i < 200; ++i) {
      Node node;
      if (Status status = update.new_id(&node.id); !status.ok()) return status;
      if (Status status = update.insert(kRootNode, std::to_string(i), node); !status.ok()) return status;
    }
    return {};
  })));
  Node root;
  ASSERT_TRUE(done(store_->read([&](View& view) { return view.find(kNoNode, "", &root); })));
  EXPECT_EQ(root.security.other_perm, 2);
  expect_nothing_left_over();
  EXPECT_EQ(totals_of(*store_).nodes, 1u + 1u + kKeys + 200u);
}

TEST_F(EtcdLargeChange, ThatFailsChangesNothing) {
  const Status status = store_->write([&](Update& update) -> Status {
    for (int key = 0; key < kKeys; ++key) {
      Node node;
      if (Status found = follow(update, name(key), &node); !found.ok()) return found;
      if (Status set = update.set_value(node.id, 3, bytes_of("lost")); !set.ok()) return set;
    }
    return {PRTKV_ACCESS_DENIED, "no"};
  });
  EXPECT_TRUE(status.is(PRTKV_ACCESS_DENIED));
  EXPECT_EQ(value_of(*store_, name(0)), "0");
  expect_nothing_left_over();
}

TEST_F(EtcdLargeChange, AWriteIntoTheSubtreeMeanwhileMakesItBeginAgain) {
  const std::shared_ptr<Store> other = open_watched(&watch_);
  int runs = 0;
  bool written = false;
  ASSERT_TRUE(done(change_values(
      *store_,
      [&](const std::string& text) {
        if (runs == 2 && !written) {
          written = true;
          EXPECT_TRUE(done(write_key(*other, name(140), "100")));
        }
        return incremented(text);
      },
      &runs)));
  EXPECT_EQ(runs, 3);
  EXPECT_EQ(value_of(*store_, name(140)), "101");
  EXPECT_EQ(value_of(*other, name(0)), "1");
  expect_nothing_left_over();
}

TEST_F(EtcdLargeChange, AWriteElsewhereMeanwhileDoesNotDisturbIt) {
  const std::shared_ptr<Store> other = open_watched(&watch_);
  ASSERT_TRUE(done(create_key(*store_, "elsewhere", "1")));
  int runs = 0;
  ASSERT_TRUE(done(change_values(
      *store_,
      [&](const std::string& text) {
        EXPECT_TRUE(done(write_key(*other, "elsewhere", text)));
        return incremented(text);
      },
      &runs)));
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(value_of(*other, name(0)), "1");
}

TEST_F(EtcdLargeChange, TwoAtOnceInOneSubtreeAreBothMade) {
  const std::shared_ptr<Store> other = open_watched(&watch_);
  int runs = 0;
  bool made = false;
  ASSERT_TRUE(done(change_values(
      *store_,
      [&](const std::string& text) {
        if (runs == 2 && !made) {
          made = true;
          EXPECT_TRUE(done(change_values(*other, incremented)));
        }
        return incremented(text);
      },
      &runs)));
  EXPECT_EQ(runs, 3);
  for (int key = 0; key < kKeys; ++key) EXPECT_EQ(value_of(*store_, name(key)), "2") << key;
  expect_nothing_left_over();
}

// More than a change may take runs for any other reason.
TEST_F(EtcdLargeChange, ManyAtOnceInOneSubtreeAreAllMade) {
  constexpr int kSessions = 12;
  constexpr int kEach = 2;
  std::vector<std::shared_ptr<Store>> stores;
  for (int i = 0; i < kSessions; ++i) stores.push_back(open_watched(&watch_));
  std::vector<std::thread> sessions;
  for (const auto& store : stores) {
    sessions.emplace_back([&store] {
      for (int i = 0; i < kEach; ++i) EXPECT_TRUE(done(change_values(*store, incremented)));
    });
  }
  for (std::thread& session : sessions) session.join();
  for (int key = 0; key < kKeys; ++key) {
    EXPECT_EQ(value_of(*store_, name(key)), std::to_string(kSessions * kEach)) << key;
  }
  expect_nothing_left_over();
}

// Everyone increments the values: in the end no increment may be missing. The other writers never pause.
TEST_F(EtcdLargeChange, IsMadeBesideOthersWritesAndLosesNoneOfThem) {
  constexpr int kLarge = 4;
  std::atomic<bool> ended{false};
  std::vector<std::atomic<int>> small(kKeys);
  const std::shared_ptr<Store> other = open_watched(&watch_);
  std::thread writer([&] {
    for (int i = 0; !ended || i < kKeys; ++i) {
      const int key = (i * 37) % kKeys;
      const Status status = increment(*other, name(key));
      EXPECT_TRUE(done(status));
      if (status.ok()) ++small[static_cast<std::size_t>(key)];
    }
  });
  for (int i = 0; i < kLarge; ++i) EXPECT_TRUE(done(change_values(*store_, incremented)));
  ended = true;
  writer.join();
  for (int key = 0; key < kKeys; ++key) {
    EXPECT_EQ(value_of(*store_, name(key)), std::to_string(kLarge + small[static_cast<std::size_t>(key)])) << key;
  }
  expect_nothing_left_over();
}

TEST_F(EtcdLargeChange, IsSeenWhollyOrNotAtAll) {
  const std::shared_ptr<Store> other = open_watched(&watch_);
  std::atomic<bool> ended{false};
  std::atomic<int> reads{0};
  const auto compare_ends = [&](View& view) -> Status {
    std::string texts[2];
    for (int end = 0; end < 2; ++end) {
      Node node;
      if (Status status = follow(view, name(end * (kKeys - 1)), &node); !status.ok()) return status;
      Value value;
      if (Status status = view.value(node.id, &value); !status.ok()) return status;
      texts[end] = text_of(value);
    }
    return texts[0] == texts[1] ? Status() : Status(PRTKV_STORAGE_FAILED, texts[0] + " and " + texts[1]);
  };
  std::thread reader([&] {
    while (!ended) {
      EXPECT_TRUE(done(other->read(compare_ends)));
      EXPECT_TRUE(done(other->read_all(compare_ends)));
      ++reads;
    }
  });
  for (int i = 0; i < 4 || reads < 2; ++i) EXPECT_TRUE(done(change_values(*store_, incremented)));
  ended = true;
  reader.join();
}

// The session that decided is cut off before it has carried out anything.
TEST_F(EtcdLargeChange, WhatWasDecidedIsCarriedOutByWhoeverComesBy) {
  RequestWatch cut;
  raw();
  const std::shared_ptr<Store> leaving = open_watched(&cut);
  cut.decide([&](const std::string&) {
    RangeResponse claims;
    EXPECT_TRUE(raw().range(get_all(keys().all_claims()), &claims, patience()).ok());
    const bool decided = claims.kvs_size() > 0 && ClaimText::parse(claims.kvs(0).value()).decided;
    return decided ? Fate::kRefuse : Fate::kPass;
  });
  EXPECT_TRUE(done(change_values(*leaving, incremented))) << "a change that is decided is made";
  EXPECT_EQ(count_raw(keys().all_claims()), 1);
  EXPECT_GT(count_raw(keys().all_plans()), 1);

  for (int key = 0; key < kKeys; ++key) EXPECT_EQ(value_of(*store_, name(key)), "1") << key;
  EXPECT_EQ(count_raw(keys().all_claims()), 0);
  EXPECT_EQ(count_raw(keys().all_plans()), 0);
}

TEST_F(EtcdLargeChange, ADamagedDecisionHidesWhatItIsAboutAndNothingElse) {
  NodeId top = kNoNode;
  ASSERT_TRUE(done(open_key(*store_, "top", &top)));
  ASSERT_TRUE(done(create_key(*store_, "elsewhere", "1")));
  const auto expect_hidden = [&](const char* reason) {
    std::string text;
    const Status status = read_key(*store_, name(0), &text);
    EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED)) << status.text();
    EXPECT_NE(status.text().find("large change"), std::string::npos) << status.text();
    EXPECT_NE(status.text().find(reason), std::string::npos) << status.text();
    EXPECT_EQ(value_of(*store_, "elsewhere"), "1");
  };
  put_raw(keys().claim(top, "token"), "nonsense");
  expect_hidden("cannot be read");
  put_raw(keys().claim(top, "token"), "state decided\nnext 0\nbatches 2\n");
  expect_hidden("missing");
  put_raw(keys().plan("token", 0), "\x01 of this format and otherwise nonsense");
  expect_hidden("damaged record");
}

TEST_F(EtcdLargeChange, OfAThousandKeysTakesFewRequests) {
  ASSERT_TRUE(done(build_keys(*store_, "many", 1000)));
  const int requests = requests_of([&] {
    return store_->write([&](Update& update) -> Status {
      Node top;
      if (Status status = follow(update, "many", &top); !status.ok()) return status;
      return update.children(top.id, [&](std::string_view level, const Node&) {
        return update.set_security(top.id, std::string(level), sec_attr{});
      });
    });
  });
  // A page of subkeys and the claim, twice 10 batches of 100, sent and carried out, and the decision.
  EXPECT_LE(requests, 30);
}

}  // namespace
}  // namespace tkv::store::etcd
