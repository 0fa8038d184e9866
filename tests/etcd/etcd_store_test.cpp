#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "etcd_store_fixture.h"
#include "failure.h"
#include "newer_record.h"
#include "store/etcd/build.h"
#include "store/record.h"

namespace tkv::store::etcd {
namespace {

// ---- round trips

TEST_F(EtcdStore, WarmOperationsTakeOneRoundTripEach) {
  ASSERT_TRUE(done(create_key(*store_, "a")));
  ASSERT_TRUE(done(create_key(*store_, "a.b")));
  ASSERT_TRUE(done(create_key(*store_, "a.b.c", "value")));
  std::string text;
  EXPECT_EQ(requests_of([&] { return open_key(*store_, "a.b.c"); }), 1);
  EXPECT_EQ(requests_of([&] { return read_key(*store_, "a.b.c", &text); }), 1);
  EXPECT_EQ(text, "value");
  EXPECT_EQ(requests_of([&] { return write_key(*store_, "a.b.c", "other"); }), 1);
  EXPECT_EQ(requests_of([&] { return create_key(*store_, "a.b.d", "value"); }), 1);
  EXPECT_EQ(requests_of([&] { return move_key(*store_, "a.b.d", "a.e"); }), 1);
  EXPECT_EQ(requests_of([&] {
              const Status status = open_key(*store_, "a.b.none");
              return status.is(PRTKV_NO_SUCH_KEY) ? Status() : status;
            }),
            1);
  EXPECT_EQ(requests_of([&] {
              return store_->read([](View& view) -> Status {
                Node node;
                if (Status status = follow(view, "a.b", &node); !status.ok()) return status;
                return view.children(node.id, [](std::string_view, const Node&) { return Status(); });
              });
            }),
            1);
}

TEST_F(EtcdStore, AColdOpenTakesOneRoundTripALevelAndOneMoreAtMost) {
  ASSERT_TRUE(done(create_key(*store_, "a")));
  ASSERT_TRUE(done(create_key(*store_, "a.b")));
  ASSERT_TRUE(done(create_key(*store_, "a.b.c")));
  ASSERT_TRUE(done(create_key(*store_, "a.b.c.d")));
  store_ = open_watched(&watch_);
  EXPECT_LE(requests_of([&] { return open_key(*store_, "a.b.c.d"); }), 5);
  EXPECT_EQ(requests_of([&] { return open_key(*store_, "a.b.c.d"); }), 1);
}

TEST_F(EtcdStore, AnOutdatedCacheCostsOneMoreRunAndNeverAWrongAnswer) {
  RequestWatch other_watch;
  const auto other = open_watched(&other_watch);
  ASSERT_TRUE(done(create_key(*store_, "a")));
  ASSERT_TRUE(done(create_key(*store_, "a.b", "first")));
  std::string text;
  ASSERT_TRUE(done(read_key(*other, "a.b", &text)));

  ASSERT_TRUE(done(delete_key(*store_, "a.b")));
  EXPECT_TRUE(open_key(*other, "a.b").is(PRTKV_NO_SUCH_KEY));
  ASSERT_TRUE(done(create_key(*store_, "a.b", "second")));
  ASSERT_TRUE(done(read_key(*other, "a.b", &text)));
  EXPECT_EQ(text, "second");
  ASSERT_TRUE(done(move_key(*store_, "a", "z")));
  EXPECT_TRUE(read_key(*other, "a.b", &text).is(PRTKV_NO_SUCH_KEY));
  EXPECT_TRUE(write_key(*other, "a.b", "lost").is(PRTKV_NO_SUCH_KEY));
  ASSERT_TRUE(done(read_key(*other, "z.b", &text)));
  EXPECT_EQ(text, "second");
}

TEST_F(EtcdStore, ADeletedKeyWithoutSubkeysIsRemovedInTheSameTransaction) {
  ASSERT_TRUE(done(create_key(*store_, "a", "value")));
  EXPECT_EQ(requests_of([&] {
              return store_->write([](Update& update) -> Status {
                Node node;
                if (Status status = follow(update, "a", &node); !status.ok()) return status;
                bool has_children = true;
                if (Status status = update.has_children(node.id, &has_children); !status.ok()) return status;
                EXPECT_FALSE(has_children);
                if (Status status = update.unlink(kRootNode, "a"); !status.ok()) return status;
                return update.discard(node.id);
              });
            }),
            2);  // whether there are subkeys, and the deletion
  EXPECT_EQ(count_raw(keys().all_values()), 0);
  EXPECT_EQ(count_raw(keys().all_garbage()), 0);
}

// ---- much

TEST_F(EtcdStore, AHundredThousandSubkeysAreBuiltListedAndRemoved) {
  constexpr int kCount = 100000;
  ASSERT_TRUE(done(store_->write([&](Update& update) -> Status {
    Node top;
    if (Status status = update.new_id(&top.id); !status.ok()) return status;
    for (int i = 0; i < kCount; ++i) {
      Node node;
      if (Status status = update.new_id(&node.id); !status.ok()) return status;
      if (Status status = update.insert(top.id, std::to_string(i), node); !status.ok()) return status;
    }
    return update.insert(kRootNode, "much", top);
  })));
  EXPECT_EQ(count_raw(keys().all_staging()), 0);
  int count = 0;
  std::string former;
  EXPECT_LE(requests_of([&] {
              return store_->read([&](View& view) -> Status {
                Node node;
                count = 0;
                if (Status status = follow(view, "much", &node); !status.ok()) return status;
                return view.children(node.id, [&](std::string_view name, const Node&) {
                  EXPECT_TRUE(count++ == 0 || former < name);
                  former = name;
                  return Status();
                });
              });
            }),
            kCount / 1000);
  EXPECT_EQ(count, kCount);
  EXPECT_LT(watch_.largest_answer(), 4u * 1024 * 1024);

  EXPECT_EQ(requests_of([&] { return move_key(*store_, "much", "moved"); }), 1);
  ASSERT_TRUE(done(delete_key(*store_, "moved")));
  EXPECT_TRUE(open_key(*store_, "moved").is(PRTKV_NO_SUCH_KEY));
  EXPECT_TRUE(eventually([&] { return count_raw(keys().all_garbage()) == 0; }));
  EXPECT_EQ(count_raw(keys().all_nodes()), 1);
}

TEST_F(EtcdStore, LargeValuesOfASubtreeAreSentAhead) {
  const std::string large(1024 * 1024, 'x');
  ASSERT_TRUE(done(store_->write([&](Update& update) -> Status {
    Node top;
    if (Status status = update.new_id(&top.id); !status.ok()) return status;
    for (int i = 0; i < 5; ++i) {
      Node node;
      if (Status status = update.new_id(&node.id); !status.ok()) return status;
      if (Status status = update.insert(top.id, std::to_string(i), node); !status.ok()) return status;
      if (Status status = update.set_value(node.id, 3, bytes_of(large)); !status.ok()) return status;
    }
    // This update still sees what was sent ahead.
    Node first;
    if (Status status = update.find(top.id, "0", &first); !status.ok()) return status;
    Value value;
    if (Status status = update.value(first.id, &value); !status.ok()) return status;
    EXPECT_EQ(value.bytes.size(), large.size());
    EXPECT_TRUE(update.insert(top.id, "0", {first.id, {}}).is(PRTKV_KEY_EXISTS));
    bool has_children = false;
    if (Status status = update.has_children(top.id, &has_children); !status.ok()) return status;
    EXPECT_TRUE(has_children);
    std::string names;
    Status status = update.children(top.id, [&](std::string_view name, const Node&) {
      names += name;
      return Status();
    });
    EXPECT_EQ(names, "01234");
    if (!status.ok()) return status;
    if (status = update.unlink(top.id, "4"); !status.ok()) return status;
    return update.insert(kRootNode, "top", top);
  })));
  std::string text;
  EXPECT_TRUE(done(read_key(*store_, "top.3", &text)));
  EXPECT_EQ(text, large);
  EXPECT_TRUE(open_key(*store_, "top.4").is(PRTKV_NO_SUCH_KEY));
}

TEST_F(EtcdStore, AFailedBuildLeavesNothing) {
  const Status status = store_->write([&](Update& update) -> Status {
    Node top;
    if (Status made = update.new_id(&top.id); !made.ok()) return made;
    for (int i = 0; i < 1000; ++i) {
      Node node;
      if (Status made = update.new_id(&node.id); !made.ok()) return made;
      if (Status made = update.insert(top.id, std::to_string(i), node); !made.ok()) return made;
    }
    EXPECT_EQ(count_raw(keys().all_staging()), 1);
    EXPECT_GT(count_raw(keys().all_nodes()), 800);
    return {PRTKV_ACCESS_DENIED, "no"};
  });
  EXPECT_TRUE(status.is(PRTKV_ACCESS_DENIED));
  EXPECT_TRUE(eventually([&] { return count_raw(keys().all_staging()) == 0; }));
  EXPECT_EQ(count_raw(keys().all_nodes()), 1);
}

TEST_F(EtcdStore, ABuildThatAnotherSessionGaveUpIsMadeAnew) {
  int runs = 0;
  ASSERT_TRUE(done(store_->write([&](Update& update) -> Status {
    ++runs;
    Node top;
    if (Status status = update.new_id(&top.id); !status.ok()) return status;
    for (int i = 0; i < 300; ++i) {
      Node node;
      if (Status status = update.new_id(&node.id); !status.ok()) return status;
      if (Status status = update.insert(top.id, std::to_string(i), node); !status.ok()) return status;
    }
    if (runs == 1) {
      // As another session does after ten minutes of silence.
      RangeResponse response;
      EXPECT_TRUE(raw().range(get_range(keys().all_staging(), 1), &response, patience()).ok());
      auto text = BuildText::parse(response.kvs(0).value());
      EXPECT_TRUE(text);
      text->given_up = true;
      put_raw(response.kvs(0).key(), text->print());
    }
    return update.insert(kRootNode, "top", top);
  })));
  EXPECT_EQ(runs, 2);
  EXPECT_TRUE(eventually([&] { return count_raw(keys().all_staging()) == 0; }));
  EXPECT_EQ(totals_of(*store_).nodes, 302u);
}

// ---- others

TEST_F(EtcdStore, NothingIsWrittenUnderADeletedOrMovedAncestor) {
  RequestWatch other_watch;
  const auto other = open_watched(&other_watch);
  std::mt19937 random(20240607);
  for (int round = 0; round < 40; ++round) {
    const std::string top = "t" + std::to_string(round);
    ASSERT_TRUE(done(create_key(*store_, top)));
    ASSERT_TRUE(done(create_key(*store_, top + ".middle")));
    ASSERT_TRUE(done(open_key(*other, top + ".middle")));
    const bool move = random() % 2 == 0;
    const int start = static_cast<int>(random() % 8);  // so that the two meet at another point each time
    std::atomic<int> count{0};
    Status removed;
    std::thread remover([&] {
      EXPECT_TRUE(eventually([&] { return count >= start; }));
      removed = move ? move_key(*store_, top, top + "-moved") : delete_key(*store_, top);
    });
    std::vector<std::string> made;
    Status status;
    for (int i = 0; status.ok(); ++i) {
      const std::string name = "k" + std::to_string(i);
      status = create_key(*other, top + ".middle." + name, "value");
      if (status.ok()) made.push_back(name);
      ++count;
    }
    remover.join();
    ASSERT_TRUE(done(removed));
    ASSERT_TRUE(status.is(PRTKV_NO_SUCH_KEY)) << status.text();
    if (!move) continue;
    for (const std::string& name : made) ASSERT_TRUE(done(open_key(*store_, top + "-moved.middle." + name)));
    ASSERT_TRUE(open_key(*store_, top + "-moved.middle.k" + std::to_string(made.size())).is(PRTKV_NO_SUCH_KEY));
  }
  EXPECT_TRUE(eventually([&] { return count_raw(keys().all_garbage()) == 0; }));
  totals_of(*store_);
}

TEST_F(EtcdStore, IdsAreNeverGivenTwiceToAnyone) {
  RequestWatch other_watch;
  const auto other = open_watched(&other_watch);
  std::mutex mutex;
  std::set<NodeId> ids;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, store = i % 2 == 0 ? store_ : other] {
      for (int n = 0; n < 400; ++n) {
        NodeId id = kNoNode;
        EXPECT_TRUE(done(store->write([&](Update& update) { return update.new_id(&id); })));
        const std::lock_guard lock(mutex);
        EXPECT_TRUE(ids.insert(id).second);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(ids.size(), 1600u);
  EXPECT_FALSE(ids.contains(kRootNode));
}

// ---- lost requests and answers

TEST_F(EtcdStore, EveryWriteIsMadeOnceHoweverManyAnswersAreLost) {
  ASSERT_TRUE(done(create_key(*store_, "counter", "0")));
  std::mt19937 random(4711);
  watch_.decide([&](const std::string&) {
    const auto dice = random() % 10;
    return dice < 3 ? Fate::kLoseAnswer : dice < 5 ? Fate::kLoseRequest : Fate::kPass;
  });
  for (int i = 0; i < 40; ++i) {
    ASSERT_TRUE(done(store_->write([&](Update& update) -> Status {
      Node node;
      if (Status status = follow(update, "counter", &node); !status.ok()) return status;
      Value value;
      if (Status status = update.value(node.id, &value); !status.ok()) return status;
      return update.set_value(node.id, 3, bytes_of(std::to_string(std::stoi(text_of(value)) + 1)));
    })));
    ASSERT_TRUE(done(create_key(*store_, "k" + std::to_string(i))));
    ASSERT_TRUE(done(delete_key(*store_, "k" + std::to_string(i))));
    // A blind write, which no comparison of what it writes would find out about.
    ASSERT_TRUE(done(store_->write([&](Update& update) { return update.set_value(kRootNode, 3, bytes_of("x")); })));
  }
  watch_.decide({});
  std::string text;
  ASSERT_TRUE(done(read_key(*store_, "counter", &text)));
  EXPECT_EQ(text, "40");
  EXPECT_EQ(totals_of(*store_).nodes, 2u);
}

TEST_F(EtcdStore, ABuildSurvivesLostRequestsAndAnswers) {
  std::mt19937 random(815);
  watch_.decide([&](const std::string&) {
    const auto dice = random() % 10;
    return dice < 2 ? Fate::kLoseAnswer : dice < 4 ? Fate::kLoseRequest : Fate::kPass;
  });
  ASSERT_TRUE(done(build_keys(*store_, "top", 700)));
  watch_.decide({});
  const Totals totals = totals_of(*store_);
  EXPECT_EQ(totals.nodes, 702u);
  EXPECT_EQ(totals.values, 700u);
  EXPECT_EQ(count_raw(keys().all_staging()), 0);
}

TEST_F(EtcdStore, AWriteThatNobodyAnswersSaysThatItMayHaveBeenMade) {
  ASSERT_TRUE(done(create_key(*store_, "a", "former")));
  EtcdOptions options = options_;
  options.timeout_ms = 700;
  RequestWatch losing;
  const auto unanswered = open_when_ready(options, losing.interceptors());
  ASSERT_TRUE(unanswered);
  ASSERT_TRUE(eventually([&] { return write_key(*unanswered, "a", "before").ok(); }));
  losing.decide([](const std::string&) { return Fate::kLoseAnswer; });
  EXPECT_TRUE(ends_in([&] { return write_key(*unanswered, "a", "later"); }, PRTKV_UNDECIDED,
                      {options_.endpoints[0], "whether the change was made"}));
  std::string text;
  EXPECT_TRUE(done(write_key(*store_, "a", "last")));
  EXPECT_TRUE(done(read_key(*store_, "a", &text)));
  EXPECT_EQ(text, "last");
}

// ---- compaction

TEST_F(EtcdStore, ACompactedStateHasATextOfItsOwn) {
  ASSERT_TRUE(done(create_key(*store_, "a", "value")));
  const Status status = store_->read_all([&](View& view) -> Status {
    Node node;
    if (Status found = follow(view, "a", &node); !found.ok()) return found;
    EXPECT_TRUE(done(write_key(*store_, "a", "later")));
    RangeResponse response;
    EXPECT_TRUE(raw().range(get_one(keys().meta()), &response, patience()).ok());
    cluster_->ctl({"compaction", std::to_string(response.header().revision())});
    Value value;
    return view.value(node.id, &value);
  });
  EXPECT_TRUE(status.is(PRTKV_BUSY)) << status.text();
  EXPECT_NE(status.text().find("compacted"), std::string::npos) << status.text();
}

TEST_F(EtcdStore, AReadThatMeetsACompactionRunsAgain) {
  ASSERT_TRUE(done(create_key(*store_, "a", "value")));
  store_ = open_watched(&watch_);
  int runs = 0;
  std::string text;
  ASSERT_TRUE(done(store_->read([&](View& view) -> Status {
    ++runs;
    Node node;
    if (Status status = follow(view, "a", &node); !status.ok()) return status;
    if (runs == 1) {
      EXPECT_TRUE(done(write_key(*store_, "a", "later")));
      RangeResponse response;
      EXPECT_TRUE(raw().range(get_one(keys().meta()), &response, patience()).ok());
      cluster_->ctl({"compaction", std::to_string(response.header().revision())});
    }
    Value value;
    if (Status status = view.value(node.id, &value); !status.ok()) return status;
    text = text_of(value);
    return {};
  })));
  EXPECT_EQ(runs, 2);
  EXPECT_EQ(text, "later");
}

// ---- damage

TEST_F(EtcdStore, ADamagedRecordIsNeverAnAnswer) {
  NodeId id = kNoNode;
  ASSERT_TRUE(done(create_key(*store_, "a", "value")));
  ASSERT_TRUE(done(create_key(*store_, "b", "value")));
  ASSERT_TRUE(done(open_key(*store_, "a", &id)));
  std::string value = get_raw(keys().value(id));
  value[10] = static_cast<char>(value[10] ^ 1);
  put_raw(keys().value(id), value);
  put_raw(keys().node({kRootNode, "b"}), get_raw(keys().node({kRootNode, "a"})));
  std::string text;
  Status status = read_key(*store_, "a", &text);
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED));
  EXPECT_TRUE(status.has_text());
  status = open_key(*store_, "b");
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED)) << status.text();
  std::string found;
  Totals totals;
  ASSERT_TRUE(done(store_->check(
      true,
      [&](const Finding& finding) {
        found += finding.kind == Finding::Kind::kDamagedNode    ? "node " + finding.name + "; "
                 : finding.kind == Finding::Kind::kDamagedValue ? "value; "
                                                                : "other " + finding.detail + "; ";
      },
      &totals)));
  // The value of the damaged node can no longer be reached.
  EXPECT_NE(found.find("node b; "), std::string::npos) << found;
  EXPECT_NE(found.find("value; "), std::string::npos) << found;
  EXPECT_EQ(count_raw(keys().all_values()), 1);

  // The operator gives the entry up.
  ASSERT_TRUE(done(store_->write([](Update& update) { return update.unlink(kRootNode, "b"); })));
  ASSERT_TRUE(done(write_key(*store_, "a", "value again")));
  ASSERT_TRUE(done(store_->check(
      true, [](const Finding&) {}, &totals)));
  EXPECT_EQ(totals_of(*store_).nodes, 2u);
  EXPECT_EQ(count_raw(keys().all_values()), 1);
}

TEST_F(EtcdStore, ACheckPutsACounterOfIdsRightThatFellBehind) {
  ASSERT_TRUE(done(create_key(*store_, "a")));
  put_raw(keys().meta(), as_text(encode_meta(Meta())));
  int findings = 0;
  Totals totals;
  ASSERT_TRUE(done(store_->check(
      true, [&](const Finding&) { ++findings; }, &totals)));
  EXPECT_EQ(findings, 1);
  EXPECT_EQ(totals_of(*store_).nodes, 2u);
}

TEST_F(EtcdStore, ADamagedCounterOfIdsHindersNothingButNewKeysUntilARepair) {
  ASSERT_TRUE(done(create_key(*store_, "a", "value")));
  std::string meta = get_raw(keys().meta());
  meta[5] ^= 1;
  put_raw(keys().meta(), meta);
  store_ = open_watched(&watch_);
  ASSERT_TRUE(store_);
  std::string text;
  EXPECT_TRUE(done(read_key(*store_, "a", &text)));
  EXPECT_TRUE(done(write_key(*store_, "a", "changed")));
  EXPECT_TRUE(create_key(*store_, "b").is(PRTKV_STORAGE_FAILED));
  Totals totals;
  EXPECT_TRUE(done(store_->check(
      true, [](const Finding&) {}, &totals)));
  EXPECT_TRUE(done(create_key(*store_, "b")));
  EXPECT_EQ(totals_of(*store_).nodes, 3u);
}

TEST_F(EtcdStore, ARegistryOfANewerFormatIsNotOpened) {
  std::string meta = get_raw(keys().meta());
  set_version(&meta, 99, kNoNode, "meta");
  put_raw(keys().meta(), meta);
  std::shared_ptr<Store> store;
  const Status status = open_etcd_store(options_, &store);
  EXPECT_TRUE(status.is(PRTKV_UNUSABLE));
  EXPECT_NE(status.text().find("99"), std::string::npos) << status.text();
}

TEST_F(EtcdStore, WithoutARegistryNoneIsMadeUnlessWanted) {
  EtcdOptions options = cluster_->registry();
  options.create = false;
  std::shared_ptr<Store> store;
  EXPECT_TRUE(open_etcd_store(options, &store).is(PRTKV_NO_SUCH_KEY));
  EXPECT_EQ(count_raw({options.prefix, options.prefix + "\xff"}), 0);
}

// ---- processes

TEST_F(EtcdStore, AForkedChildIsToldThatTheRegistryIsTheParents) {
  ASSERT_TRUE(done(create_key(*store_, "a")));
  const pid_t child = fork();
  if (child == 0) {
    const bool refused = open_key(*store_, "a").is(PRTKV_UNREACHABLE);
    std::shared_ptr<Store> store;
    const bool not_opened = open_etcd_store(options_, &store).is(PRTKV_UNREACHABLE);
    store_.reset();
    _exit(refused && not_opened ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(count_raw(keys().all_sessions()), 1) << "the child has ended its parent's session";
  EXPECT_TRUE(done(open_key(*store_, "a")));
}

TEST_F(EtcdStore, AClosedSessionLeavesNoMarksOfItsWriters) {
  ASSERT_TRUE(done(create_key(*store_, "a")));
  EXPECT_EQ(count_raw(keys().all_writers()), 2) << "the writer's, and that of the session's claims of ids";
  EXPECT_EQ(count_raw(keys().all_sessions()), 1);
  store_.reset();
  EXPECT_EQ(count_raw(keys().all_writers()), 0);
  EXPECT_EQ(count_raw(keys().all_sessions()), 0);
}

}  // namespace
}  // namespace tkv::store::etcd
