// The promises of store.h about revisions, the log and the past.
#include <chrono>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "store_contract.h"

namespace tkv::store {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLong{30'000};

testing::AssertionResult done(const Status& status) {
  if (status.ok()) return testing::AssertionSuccess();
  return testing::AssertionFailure() << status.code() << " " << status.text();
}

std::span<const std::byte> bytes_of(std::string_view text) { return std::as_bytes(std::span(text)); }

std::string text_of(const Value& value) {
  return {reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size()};
}

// Every node below `parent` as "name(value)", with what is below it: "a(1)[b(2)]".
Status describe(View& view, NodeId parent, std::string* text) {
  std::vector<std::pair<std::string, NodeId>> children;
  Status status = view.children(parent, [&](std::string_view name, const Node& node) {
    children.emplace_back(name, node.id);
    return Status();
  });
  for (const auto& [name, id] : children) {
    Value value;
    if (!status.ok()) return status;
    if (status = view.value(id, &value); !status.ok()) return status;
    *text += name + (value.type == 0 ? "" : "(" + text_of(value) + ")");
    bool has_children = false;
    if (status = view.has_children(id, &has_children); !status.ok() || !has_children) {
      *text += " ";
      continue;
    }
    *text += "[";
    status = describe(view, id, text);
    *text += "] ";
  }
  return status;
}

}  // namespace

Revision StoreHistoryContract::write(FunctionRef<Status(Update&)> function) {
  Revision revision = 0;
  EXPECT_TRUE(done(store_->write(function, &revision)));
  return revision;
}

Revision StoreHistoryContract::set(NodeId id, std::string_view text) {
  return write([&](Update& update) { return update.set_value(id, 3, bytes_of(text)); });
}

std::string StoreHistoryContract::now() {
  std::string text;
  EXPECT_TRUE(done(store_->read_all([&](View& view) {
    text.clear();
    return describe(view, kRootNode, &text);
  })));
  return text;
}

std::string StoreHistoryContract::at(Revision revision) {
  std::string text;
  const Status status = store_->read_at(revision, [&](View& view) {
    text.clear();
    return describe(view, kRootNode, &text);
  });
  EXPECT_TRUE(done(status)) << "revision " << revision;
  return text;
}

Revision StoreHistoryContract::latest() {
  Revision revision = 0;
  EXPECT_TRUE(done(store_->read([&](View& view) { return view.revision(&revision); })));
  return revision;
}

std::vector<ChangeRecord> StoreHistoryContract::log(const LogRange& range, LogPosition* position) {
  std::vector<ChangeRecord> records;
  EXPECT_TRUE(done(store_->changes(
      range,
      [&](const ChangeRecord& record) {
        records.push_back(record);
        return Status();
      },
      position)));
  return records;
}

std::vector<Revision> StoreHistoryContract::revisions(const LogRange& range) {
  LogPosition position;
  std::vector<Revision> found;
  for (const ChangeRecord& record : log(range, &position)) found.push_back(record.revision);
  return found;
}

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(StoreHistoryContract);

TEST_P(StoreHistoryContract, EveryChangeHasALargerRevision) {
  const Revision first = latest();
  const NodeId a = add(kRootNode, "a");
  const Revision second = latest();
  EXPECT_GT(second, first);
  const Revision third = set(a, "1");
  EXPECT_GT(third, second);
  EXPECT_EQ(latest(), third);
}

TEST_P(StoreHistoryContract, AWriteThatChangesNothingHasTheRevisionThatItSaw) {
  add(kRootNode, "a");
  const Revision before = latest();
  EXPECT_EQ(write([](Update&) { return Status(); }), before);
  EXPECT_EQ(latest(), before);
  LogPosition position;
  EXPECT_TRUE(log({.after = before}, &position).empty());
}

TEST_P(StoreHistoryContract, AFailedWriteLeavesNoTraceInTheLog) {
  const NodeId a = add(kRootNode, "a");
  const Revision before = latest();
  EXPECT_TRUE(store_
                  ->write([&](Update& update) -> Status {
                    EXPECT_TRUE(done(update.set_value(a, 3, bytes_of("x"))));
                    return PRTKV_CONFLICT;
                  })
                  .is(PRTKV_CONFLICT));
  EXPECT_EQ(latest(), before);
}

TEST_P(StoreHistoryContract, RecordsCarryTheRevisionOfTheirLastChange) {
  const NodeId a = add(kRootNode, "a");
  const Revision created = latest();
  const Revision written = set(a, "1");
  const Revision secured =
      write([&](Update& update) { return update.set_security(kRootNode, "a", distinct_security(5)); });
  const Revision removed = write([&](Update& update) { return update.set_value(a, 0, {}); });
  const auto revisions_at = [&](Revision revision) {
    std::pair<Revision, Revision> found;
    EXPECT_TRUE(done(store_->read_at(revision, [&](View& view) -> Status {
      Node node;
      Value value;
      if (Status status = view.find(kRootNode, "a", &node); !status.ok()) return status;
      if (Status status = view.value(a, &value); !status.ok()) return status;
      found = {node.revision, value.revision};
      return {};
    })));
    return found;
  };
  EXPECT_EQ(revisions_at(created), std::pair(created, Revision{0}));
  EXPECT_EQ(revisions_at(written), std::pair(created, written));
  EXPECT_EQ(revisions_at(secured), std::pair(secured, written));
  EXPECT_EQ(revisions_at(removed), std::pair(secured, removed));
  EXPECT_EQ(totals().values, 0u);
}

// Changes of more keys than any store writes in one step.
class LargeChange {
 public:
  static constexpr std::size_t kKeys = 130;

  // Of a node, of its place in the list of its parent's children, and of its value.
  struct Revisions {
    Revision node = 0;
    Revision listed = 0;
    Revision value = 0;

    bool operator==(const Revisions&) const = default;
  };

  static std::string name(std::size_t key) { return "k" + std::to_string(key); }

  NodeId id(std::size_t key) const { return ids_[key]; }
  NodeId top() const { return top_; }

  Status create(Update& update) {
    if (Status status = update.new_id(&top_); !status.ok()) return status;
    for (std::size_t key = 0; key < kKeys; ++key) {
      if (Status status = update.new_id(&ids_[key]); !status.ok()) return status;
      if (Status status = update.insert(top_, name(key), {.id = ids_[key]}); !status.ok()) return status;
      if (Status status = update.set_value(ids_[key], 3, bytes_of("new")); !status.ok()) return status;
    }
    return update.insert(kRootNode, "top", {.id = top_});
  }

  Status rewrite(Update& update) const {
    Node top;
    if (Status status = update.find(kRootNode, "top", &top); !status.ok()) return status;
    for (std::size_t key = 0; key < kKeys; ++key) {
      Status status = update.set_security(top_, name(key), distinct_security(static_cast<int>(key)));
      if (status.ok()) status = update.set_value(ids_[key], 3, bytes_of("rewritten"));
      if (!status.ok()) return status;
    }
    return {};
  }

  Status read(View& view, std::vector<Revisions>* found) const {
    found->assign(kKeys, {});
    Node top;
    if (Status status = view.find(kRootNode, "top", &top); !status.ok()) return status;
    for (std::size_t key = 0; key < kKeys; ++key) {
      Node node;
      Value value;
      if (Status status = view.find(top_, name(key), &node); !status.ok()) return status;
      if (Status status = view.value(node.id, &value); !status.ok()) return status;
      (*found)[key].node = node.revision;
      (*found)[key].value = value.revision;
    }
    return view.children(top_, [&](std::string_view name, const Node& node) {
      (*found)[std::stoul(std::string(name.substr(1)))].listed = node.revision;
      return Status();
    });
  }

  void expect(Store& store, const std::vector<Revisions>& wanted) const {
    std::vector<Revisions> found;
    EXPECT_TRUE(done(store.read([&](View& view) { return read(view, &found); })));
    EXPECT_TRUE(found == wanted) << "read";
    EXPECT_TRUE(done(store.read_all([&](View& view) { return read(view, &found); })));
    EXPECT_TRUE(found == wanted) << "read_all";
    EXPECT_TRUE(done(store.write([&](Update& update) { return read(update, &found); })));
    EXPECT_TRUE(found == wanted) << "write";
  }

  void expect_at(Store& store, Revision at, const std::vector<Revisions>& wanted) const {
    std::vector<Revisions> found;
    EXPECT_TRUE(done(store.read_at(at, [&](View& view) { return read(view, &found); })));
    EXPECT_TRUE(found == wanted) << "at revision " << at;
  }

 private:
  std::vector<NodeId> ids_ = std::vector<NodeId>(kKeys);
  NodeId top_ = kNoNode;
};

TEST_P(StoreHistoryContract, KeysOfALargeChangeReportTheRevisionOfThatChange) {
  LargeChange large;
  const Revision created = write([&](Update& update) { return large.create(update); });
  const std::vector<LargeChange::Revisions> fresh(LargeChange::kKeys, {created, created, created});
  large.expect(*store_, fresh);
  const Revision changed = write([&](Update& update) { return large.rewrite(update); });
  std::vector<LargeChange::Revisions> latest(LargeChange::kKeys, {changed, changed, changed});
  large.expect(*store_, latest);
  latest[7].value = set(large.id(7), "small");
  latest[8].listed = latest[8].node = write(
      [&](Update& update) { return update.set_security(large.top(), LargeChange::name(8), distinct_security(1)); });
  large.expect(*store_, latest);
  large.expect(*factory_->open_again(), latest);
  large.expect_at(*store_, created, fresh);
  large.expect_at(*store_, changed,
                  std::vector<LargeChange::Revisions>(LargeChange::kKeys, {changed, changed, changed}));
  EXPECT_TRUE(done(store_->read([&](View& view) {
    ChangeRecord record;
    return view.change(changed, &record);
  }))) << "the log has it";
}

TEST_P(StoreHistoryContract, EveryRetainedStateReadsAsItWas) {
  std::map<Revision, std::string> states{{latest(), now()}};
  const auto keep = [&] { states[latest()] = now(); };
  const NodeId a = add(kRootNode, "a");
  keep();
  const NodeId b = add(a, "b");
  keep();
  set(b, "one");
  keep();
  set(b, "two");
  keep();
  add(kRootNode, "c");
  keep();
  write([&](Update& update) -> Status {
    Node node;
    if (Status status = update.find(a, "b", &node); !status.ok()) return status;
    if (Status status = update.unlink(a, "b"); !status.ok()) return status;
    return update.insert(kRootNode, "z", node);
  });
  keep();
  write([&](Update& update) -> Status {
    if (Status status = update.unlink(kRootNode, "z"); !status.ok()) return status;
    return update.discard(b);
  });
  keep();
  add(kRootNode, "z");
  keep();
  for (const auto& [revision, state] : states) EXPECT_EQ(at(revision), state) << "revision " << revision;
}

TEST_P(StoreHistoryContract, ARevisionThatDoesNotExistYetIsRefused) {
  add(kRootNode, "a");
  const Status status = store_->read_at(latest() + 1000, [](View&) { return Status(); });
  EXPECT_TRUE(status.is(PRTKV_INVALID_ARGUMENT)) << status.text();
  EXPECT_TRUE(status.has_text());
}

TEST_P(StoreHistoryContract, TheLogTellsWhoDidWhat) {
  ChangeDescription description{.time = 1'600'000'000'000'000,
                                .author = "ada",
                                .host = "node1",
                                .program = "tkv",
                                .process = 4711,
                                .note = "for the \xc3\xbc-test",
                                .changes = {{Change::Kind::kCreated, "a", "", 2},
                                            {Change::Kind::kMoved, "b.c", "a", 2},
                                            {Change::Kind::kChangedAtOrBelow, "", "", 0}}};
  const Revision before = latest();
  const Revision revision = write([&](Update& update) -> Status {
    Node node;
    update.describe(description);
    if (Status status = update.new_id(&node.id); !status.ok()) return status;
    return update.insert(kRootNode, "a", node);
  });
  LogPosition position;
  const auto records = log({.after = before}, &position);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(static_cast<const ChangeDescription&>(records[0]), description);
  EXPECT_EQ(records[0].revision, revision);
  EXPECT_FALSE(records[0].hides_past);
  EXPECT_EQ(position.revision, revision);
  EXPECT_TRUE(position.complete);
  ChangeRecord single;
  EXPECT_TRUE(done(store_->read([&](View& view) { return view.change(revision, &single); })));
  EXPECT_EQ(single, records[0]);
}

TEST_P(StoreHistoryContract, TheLogIsReadInBothDirectionsAndInPieces) {
  const NodeId a = add(kRootNode, "a");
  std::vector<Revision> made;
  for (int i = 0; i < 10; ++i) made.push_back(set(a, std::to_string(i)));
  const Revision before = made.front() - 1;
  EXPECT_EQ(revisions({.after = before}), made);
  EXPECT_EQ(revisions({.after = made[2], .up_to = made[5]}), std::vector(made.begin() + 3, made.begin() + 6));
  EXPECT_EQ(revisions({.after = before, .newest_first = true}), std::vector(made.rbegin(), made.rend()));
  EXPECT_TRUE(revisions({.after = made.back()}).empty());
}

TEST_P(StoreHistoryContract, AVisitThatFailsEndsTheLog) {
  const NodeId a = add(kRootNode, "a");
  for (int i = 0; i < 3; ++i) set(a, std::to_string(i));
  int visits = 0;
  LogPosition position;
  EXPECT_TRUE(store_
                  ->changes(
                      {}, [&](const ChangeRecord&) { return ++visits, Status(PRTKV_BUSY); }, &position)
                  .is(PRTKV_BUSY));
  EXPECT_EQ(visits, 1);
}

TEST_P(StoreHistoryContract, AWaitEndsWithAChangeOfAnotherStore) {
  const NodeId a = add(kRootNode, "a");
  const Revision before = latest();
  const std::shared_ptr<Store> other = factory_->open_again();
  std::thread writer(
      [&] { EXPECT_TRUE(done(other->write([&](Update& update) { return update.set_value(a, 3, bytes_of("1")); }))); });
  Revision revision = 0;
  EXPECT_TRUE(done(store_->wait(before, kLong, {}, &revision)));
  writer.join();
  EXPECT_GT(revision, before);
}

TEST_P(StoreHistoryContract, AWaitForWhatIsThereEndsAtOnce) {
  const Revision before = latest();
  add(kRootNode, "a");
  Revision revision = 0;
  EXPECT_TRUE(done(store_->wait(before, kLong, {}, &revision)));
  EXPECT_EQ(revision, latest());
}

TEST_P(StoreHistoryContract, AWaitEndsWithItsTime) {
  Revision revision = 99;
  EXPECT_TRUE(done(store_->wait(latest(), milliseconds(20), {}, &revision)));
  EXPECT_EQ(revision, latest());
}

TEST_P(StoreHistoryContract, AWaitEndsWhenItIsStopped) {
  const Revision before = latest();
  std::stop_source stop;
  std::jthread stopper([&] { stop.request_stop(); });
  Revision revision = 99;
  EXPECT_TRUE(done(store_->wait(before, kLong, stop.get_token(), &revision)));
  EXPECT_EQ(revision, before);
}

TEST_P(StoreHistoryContract, AWaitLeavesTheStoreToOthers) {
  const Revision before = latest();
  std::stop_source stop;
  std::jthread waiter([&] {
    Revision revision = 0;
    EXPECT_TRUE(done(store_->wait(before + 1'000'000, kLong, stop.get_token(), &revision)));
  });
  const NodeId a = add(kRootNode, "a");
  set(a, "1");
  EXPECT_EQ(value_of(a), "1");
  stop.request_stop();
}

// A distributed store has its own way of forgetting.
void expect_way_to_compact(const Status& refusal) {
  EXPECT_NE(refusal.text().find("etcdctl compact"), std::string::npos) << refusal.text();
}

TEST_P(StoreHistoryContract, APurgeRemovesFormerValuesAndNothingElse) {
  const NodeId a = add(kRootNode, "a");
  const NodeId b = add(kRootNode, "b");
  const Revision secret = set(a, "secret");
  const Revision other = set(b, "other");
  set(a, "another secret");
  const Revision last = set(a, "fine");
  set(b, "now");
  std::uint64_t removed = 0;
  const auto choose = [a](View& view, std::vector<NodeId>* nodes) {
    Value value;
    EXPECT_TRUE(done(view.value(a, &value)));
    EXPECT_EQ(text_of(value), "fine");
    *nodes = {a};
    return Status();
  };
  const std::shared_ptr<Store> another = factory_->open_again();
  ASSERT_TRUE(done(another->read_at(secret, [](View&) { return Status(); }))) << "which it keeps for the next time";
  const ChangeDescription description{.author = "ada", .note = "purged", .changes = {{.kind = Change::Kind::kPurged}}};
  const Status status = store_->purge(choose, description, &removed);
  if (status.is(PRTKV_INVALID_ARGUMENT)) return expect_way_to_compact(status);
  ASSERT_TRUE(done(status));
  EXPECT_EQ(removed, 2u);
  EXPECT_EQ(at(secret), "a b ");
  EXPECT_EQ(at(other), "a b(other) ");
  EXPECT_EQ(at(last), "a(fine) b(other) ");
  EXPECT_EQ(now(), "a(fine) b(now) ");
  EXPECT_EQ(at(latest()), now());
  EXPECT_TRUE(done(another->read_at(secret, [a](View& view) {
    Value value;
    EXPECT_TRUE(done(view.value(a, &value)));
    EXPECT_EQ(text_of(value), "") << "nobody has it any longer";
    return Status();
  })));
  LogPosition position;
  EXPECT_EQ(log({.after = latest() - 1}, &position).at(0), (ChangeRecord{description, latest(), false}));
}

TEST_P(StoreHistoryContract, APurgeThatIsRefusedRemovesNothing) {
  const NodeId a = add(kRootNode, "a");
  const Revision former = set(a, "former");
  const Revision last = set(a, "last");
  std::uint64_t removed = 0;
  const auto refuse = [](View&, std::vector<NodeId>*) { return Status(PRTKV_ACCESS_DENIED); };
  const Status status = store_->purge(refuse, {}, &removed);
  if (status.is(PRTKV_INVALID_ARGUMENT)) return expect_way_to_compact(status);
  EXPECT_TRUE(status.is(PRTKV_ACCESS_DENIED));
  EXPECT_EQ(at(former), "a(former) ");
  EXPECT_EQ(latest(), last);
}

// Random changes of a small tree; every state is compared with what the present was then.
TEST_P(StoreHistoryContract, RandomChangesLeaveEveryStateReadable) {
  std::minstd_rand random(4711);
  std::map<Revision, std::string> states{{latest(), now()}};
  const auto pick = [&](unsigned count) { return static_cast<unsigned>(random()) % count; };
  const auto name = [&] { return std::string(1, static_cast<char>('a' + pick(4))); };
  for (int step = 0; step < 200; ++step) {
    const Status status = store_->write([&](Update& update) -> Status {
      NodeId parent = kRootNode;
      for (unsigned depth = pick(3); depth > 0; --depth) {
        Node below;
        if (update.find(parent, name(), &below).ok()) parent = below.id;
      }
      Node node;
      const std::string level = name();
      const bool exists = update.find(parent, level, &node).ok();
      if (!exists) {
        if (Status made = update.new_id(&node.id); !made.ok()) return made;
        return update.insert(parent, level, node);
      }
      switch (pick(4)) {
        case 0:
          if (Status unlinked = update.unlink(parent, level); !unlinked.ok()) return unlinked;
          return update.discard(node.id);
        case 1: {
          Node taken;
          const std::string target = name();
          if (parent == kRootNode || update.find(kRootNode, target, &taken).ok()) return {};
          if (Status unlinked = update.unlink(parent, level); !unlinked.ok()) return unlinked;
          return update.insert(kRootNode, target, node);
        }
        case 2:
          return update.set_value(node.id, 0, {});
        default:
          return update.set_value(node.id, 3, bytes_of(std::string(1 + pick(3000), name()[0])));
      }
    });
    ASSERT_TRUE(done(status));
    states[latest()] = now();
  }
  for (const auto& [revision, state] : states) ASSERT_EQ(at(revision), state) << "revision " << revision;
  totals();
}

}  // namespace tkv::store
