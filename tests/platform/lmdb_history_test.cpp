// What the embedded store alone promises about its history: limits, space, former formats, other processes.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "lmdb_files.h"
#include "store/lmdb/directory.h"
#include "store/lmdb/file.h"
#include "store/lmdb/lmdb_store.h"
#include "store/record.h"
#include "temporary_directory.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace tkv::store {
namespace {

constexpr std::size_t kMiB = std::size_t{1} << 20;
constexpr std::int64_t kDay = std::int64_t{24} * 60 * 60 * 1'000'000;

void for_each_record(MDB_txn* txn, MDB_dbi database,
                     const std::function<void(const KeyParts&, const MDB_val& key, const MDB_val& data)>& visit) {
  MDB_cursor* cursor = nullptr;
  MDB_val key{};
  MDB_val data{};
  ASSERT_EQ(mdb_cursor_open(txn, database, &cursor), 0);
  while (mdb_cursor_get(cursor, &key, &data, MDB_NEXT) == 0) {
    KeyParts parts;
    EXPECT_TRUE(read_key({static_cast<const std::byte*>(key.mv_data), key.mv_size}, &parts));
    visit(parts, key, data);
  }
  mdb_cursor_close(cursor);
}

class LmdbHistory : public ::testing::Test {
 protected:
  LmdbHistory() { options_.directory = directory_ / "registry"; }

  std::shared_ptr<Store> open() { return open_or_fail(options_); }

  static Revision latest(Store& store) {
    StoreStatus status;
    EXPECT_TRUE(store.status(&status).ok());
    return status.revision;
  }

  static StoreStatus status_of(Store& store) {
    StoreStatus status;
    EXPECT_TRUE(store.status(&status).ok());
    return status;
  }

  static std::string text_at(Store& store, Revision revision, NodeId id = kRootNode) {
    std::string text;
    const Status status = store.read_at(revision, [&](View& view) -> Status {
      Value value;
      if (Status read = view.value(id, &value); !read.ok()) return read;
      text.assign(reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size());
      return {};
    });
    return status.ok() ? text : "(" + std::to_string(status.code()) + ")";
  }

  static std::size_t records_of_log(const std::string& directory) {
    std::size_t count = 0;
    with_plain_lmdb(directory, [&](MDB_txn* txn, MDB_dbi database) {
      for_each_record(txn, database, [&](const KeyParts& parts, const MDB_val&, const MDB_val&) {
        if (parts.kind == KeyParts::Kind::kChange) ++count;
      });
    });
    return count;
  }

  TemporaryDirectory directory_{TemporaryDirectory::Where::kInMemory};
  LmdbOptions options_;
};

TEST_F(LmdbHistory, TheHistoryOutlastsTheProcess) {
  for (const char* text : {"one", "two", "three"}) ASSERT_TRUE(set_text(*open(), kRootNode, text).ok());
  const auto store = open();
  EXPECT_EQ(latest(*store), 3u);
  EXPECT_EQ(text_at(*store, 0), "");
  EXPECT_EQ(text_at(*store, 1), "one");
  EXPECT_EQ(text_at(*store, 2), "two");
  EXPECT_EQ(text_at(*store, 3), "three");
  expect_sound(*store);
}

TEST_F(LmdbHistory, TheLogKeepsTheConfiguredNumberOfChanges) {
  options_.retention.changes = 10;
  {
    const auto store = open();
    for (int i = 1; i <= 500; ++i) ASSERT_TRUE(set_text(*store, kRootNode, std::to_string(i)).ok());
    EXPECT_EQ(status_of(*store).log_after, 490u);
    EXPECT_EQ(text_at(*store, 490), "490");
    EXPECT_EQ(text_at(*store, 489), "(8)");
    expect_sound(*store);
  }
  EXPECT_LE(records_of_log(options_.directory), 10u + 16u) << "what is dropped is removed a little later";
}

TEST_F(LmdbHistory, TheHistoryKeepsToItsSize) {
  options_.retention.bytes = kMiB;
  const auto store = open();
  for (int i = 0; i < 300; ++i) ASSERT_TRUE(set_text(*store, kRootNode, std::string(20'000, 'v')).ok());
  EXPECT_LT(status_of(*store).history_bytes, 2 * kMiB);
  EXPECT_GT(status_of(*store).oldest_state, 0u);
  EXPECT_LT(status_of(*store).bytes, 8 * kMiB);
  expect_sound(*store);
}

TEST_F(LmdbHistory, ChangesBeyondTheConfiguredAgeAreDropped) {
  const auto store = open();
  for (int day = 1; day <= 200; ++day) {
    ASSERT_TRUE(store
                    ->write([&](Update& update) -> Status {
                      update.describe({.time = day * kDay});
                      const std::string text = std::to_string(day);
                      return update.set_value(kRootNode, 3, std::as_bytes(std::span(text)));
                    })
                    .ok());
  }
  EXPECT_GE(status_of(*store).log_after, 200u - 90 - 16 - 1);
  EXPECT_LE(status_of(*store).log_after, 200u - 90);
}

TEST_F(LmdbHistory, WithoutHistoryRevisionsAreCountedAllTheSame) {
  options_.retention.off = true;
  {
    const auto store = open();
    for (int i = 1; i <= 3; ++i) ASSERT_TRUE(set_text(*store, kRootNode, std::to_string(i)).ok());
    EXPECT_EQ(latest(*store), 3u);
    EXPECT_EQ(text_at(*store, 3), "3");
    EXPECT_EQ(text_at(*store, 2), "(8)");
    LogPosition position;
    EXPECT_TRUE(store
                    ->changes(
                        {.only_complete = true}, [](const ChangeRecord&) { return Status(PRTKV_UNKNOWN); }, &position)
                    .ok());
    EXPECT_FALSE(position.complete);
    EXPECT_EQ(position.revision, 3u);
  }
  EXPECT_EQ(records_of_log(options_.directory), 0u);
}

TEST_F(LmdbHistory, AHistoryThatIsSwitchedOffDisappearsAndComesBackAnew) {
  {
    const auto store = open();
    for (int i = 0; i < 100; ++i) ASSERT_TRUE(set_text(*store, kRootNode, std::to_string(i)).ok());
  }
  options_.retention.off = true;
  {
    const auto store = open();
    for (int i = 0; i < 100; ++i) ASSERT_TRUE(set_text(*store, kRootNode, std::to_string(i)).ok());
    EXPECT_EQ(status_of(*store).history_bytes, 0u);
  }
  EXPECT_EQ(records_of_log(options_.directory), 0u);
  options_.retention.off = false;
  const auto store = open();
  ASSERT_TRUE(set_text(*store, kRootNode, "new").ok());
  EXPECT_EQ(text_at(*store, 200), "99");
  EXPECT_EQ(text_at(*store, 199), "(8)");
  for (int i = 0; i < 100; ++i) ASSERT_TRUE(set_text(*store, kRootNode, std::to_string(i)).ok());
  EXPECT_EQ(status_of(*store).log_after, 200u);
  expect_sound(*store);
}

TEST_F(LmdbHistory, AChangeOfManyPartsIsReadBackWhole) {
  const auto store = open();
  const std::string former(kMiB, 'f');
  ASSERT_TRUE(set_text(*store, kRootNode, former).ok());
  ASSERT_TRUE(set_text(*store, kRootNode, "short").ok());
  EXPECT_EQ(text_at(*store, 1), former);
  expect_sound(*store);
}

TEST_F(LmdbHistory, AllPartsOfAChangeAreRemovedWithItEvenIfOneIsDamaged) {
  options_.retention.changes = 10;
  const std::string filling(kMiB / 8 + 50, 'p');  // so that the last part is a short one
  const std::string text = "the first part" + filling + "a later part" + filling + "the last part";
  for (const std::string_view damaged : {"", "the first part", "a later part", "the last part"}) {
    for (const std::string& each : {text, std::string("short")}) ASSERT_TRUE(set_text(*open(), kRootNode, each).ok());
    if (!damaged.empty()) replace_in_file(data_file(options_.directory), damaged, std::string(damaged.size(), '?'));
    const auto store = open();
    EXPECT_GT(status_of(*store).history_bytes, text.size());
    std::size_t findings = 0;
    Totals totals;
    const auto count = [&](const Finding&) { ++findings; };
    ASSERT_TRUE(store->check(false, count, &totals).ok());
    EXPECT_EQ(findings, damaged.empty() ? 0u : 1u);
    // What is dropped is removed in each sixteenth revision.
    for (int i = 0; i < 62; ++i) ASSERT_TRUE(set_text(*store, kRootNode, std::to_string(i)).ok());
    EXPECT_LT(status_of(*store).history_bytes, 10'000u) << damaged;
    expect_sound(*store);
    EXPECT_EQ(records_of_log(options_.directory), 10u) << damaged;
  }
}

TEST_F(LmdbHistory, AChangeThatIsTooLargeIsLoggedWithoutItsPast) {
  options_.retention.bytes = 100'000;
  const auto store = open();
  ASSERT_TRUE(set_text(*store, kRootNode, std::string(200'000, 'f')).ok());
  ASSERT_TRUE(set_text(*store, kRootNode, "short").ok());
  ASSERT_TRUE(set_text(*store, kRootNode, "shorter").ok());
  EXPECT_EQ(text_at(*store, 1), "(8)");
  EXPECT_EQ(text_at(*store, 2), "short");
  std::vector<bool> hides;
  LogPosition position;
  ASSERT_TRUE(
      store
          ->changes(
              {}, [&](const ChangeRecord& record) { return hides.push_back(record.hides_past), Status(); }, &position)
          .ok());
  EXPECT_EQ(hides, (std::vector{false, true, false}));
}

TEST_F(LmdbHistory, ARegistryThatMayNotGrowGivesUpItsPastFirst) {
  options_.map_size = 4 * kMiB;
  const auto store = open();
  for (int i = 0; i < 200; ++i) ASSERT_TRUE(set_text(*store, kRootNode, std::string(kMiB / 2, 'v')).ok()) << i;
  expect_sound(*store);
}

TEST_F(LmdbHistory, ADamagedChangeIsFoundAndRepairForgetsTheLogUpToIt) {
  {
    const auto store = open();
    for (const char* text : {"one", "of all texts this one", "three", "four"}) {
      ASSERT_TRUE(set_text(*store, kRootNode, text).ok());
    }
  }
  ASSERT_GE(replace_in_file(data_file(options_.directory), "of all texts this one", "of all texts that one"), 1);
  const auto store = open();
  std::vector<Finding> findings;
  Totals totals;
  const auto collect = [&](const Finding& finding) { findings.push_back(finding); };
  ASSERT_TRUE(store->check(false, collect, &totals).ok());
  ASSERT_EQ(findings.size(), 1u);
  EXPECT_EQ(findings[0].kind, Finding::Kind::kDamagedChange);
  EXPECT_EQ(findings[0].id, 3u);
  EXPECT_EQ(text_at(*store, 3), "three");
  EXPECT_EQ(text_at(*store, 2), "(7)");
  findings.clear();
  ASSERT_TRUE(store->check(true, collect, &totals).ok());
  expect_sound(*store);
  EXPECT_EQ(text_at(*store, 3), "three");
  EXPECT_EQ(text_at(*store, 2), "(8)");
}

// Nobody could tell any longer what is left of the log, and it holds former values.
TEST_F(LmdbHistory, ARepairOfTheRegistrysRecordOfItselfRemovesTheLog) {
  {
    const auto store = open();
    for (const char* text : {"one", "two", "three"}) ASSERT_TRUE(set_text(*store, kRootNode, text).ok());
  }
  with_plain_lmdb(options_.directory, [](MDB_txn* txn, MDB_dbi database) {
    MDB_val key = val_of("M");
    MDB_val data = val_of("damaged");
    ASSERT_EQ(mdb_put(txn, database, &key, &data, 0), 0);
  });
  {
    Totals totals;
    ASSERT_TRUE(open()
                    ->check(
                        true, [](const Finding&) {}, &totals)
                    .ok());
  }
  EXPECT_EQ(records_of_log(options_.directory), 1u) << "the repair itself";
  EXPECT_EQ(
      in_child([&] {
        alarm(240);  // a purge that looks for all revisions never ends
        const auto store = open();
        std::uint64_t removed = 0;
        const auto choose = [](View&, std::vector<NodeId>* nodes) { return nodes->assign(1, kRootNode), Status(); };
        if (!set_text(*store, kRootNode, "four").ok()) return 1;
        if (!store->purge(choose, {.changes = {{.kind = Change::Kind::kPurged}}}, &removed).ok() || removed != 1) {
          return 2;
        }
        return text_of(*store) == "four" ? 0 : 3;
      }),
      0);
  expect_sound(*open());
}

// Format 1

template <typename Record>
void seal_as_version_1(Record* record, std::uint64_t id, std::string_view name) {
  const std::size_t covered = record->size() - 8;
  const std::uint64_t seed = XXH3_64bits_withSeed(name.data(), name.size(), id);
  const std::uint64_t sum = XXH3_64bits_withSeed(record->data(), covered, seed);
  for (std::size_t i = 0; i < 8; ++i) (*record)[covered + i] = static_cast<char>(sum >> (8 * i));
}

// A record of this format without its revision, as format 1 had it.
std::string as_version_1(MDB_val record, std::size_t revision_at, std::size_t left_out, std::uint64_t id,
                         std::string_view name) {
  std::string made(static_cast<const char*>(record.mv_data), record.mv_size);
  made[0] = 1;
  made.erase(revision_at, left_out);
  seal_as_version_1(&made, id, name);
  return made;
}

// Rewrites a registry without history as a release that knew only format 1 had written it.
void turn_back_to_format_1(const std::string& directory) {
  with_plain_lmdb(directory, [](MDB_txn* txn, MDB_dbi database) {
    std::vector<std::pair<std::string, std::string>> records;
    for_each_record(txn, database, [&](const KeyParts& parts, const MDB_val& key, const MDB_val& data) {
      const std::string own_key(static_cast<const char*>(key.mv_data), key.mv_size);
      switch (parts.kind) {
        case KeyParts::Kind::kNode:
          records.emplace_back(own_key, as_version_1(data, 12, 8, parts.id, parts.name));
          break;
        case KeyParts::Kind::kValue:
          records.emplace_back(own_key, as_version_1(data, 8, 8, parts.id, ""));
          break;
        case KeyParts::Kind::kMeta:
          records.emplace_back(own_key, as_version_1(data, 20, 40, 0, "meta"));
          break;
        case KeyParts::Kind::kChange:
          FAIL() << "format 1 has no log";
      }
    });
    for (const auto& [name, record] : records) {
      MDB_val wanted = val_of(name);
      MDB_val bytes = val_of(record);
      ASSERT_EQ(mdb_put(txn, database, &wanted, &bytes, 0), 0);
    }
  });
}

class Format1 : public LmdbHistory {
 protected:
  Format1() {
    options_.retention.off = true;
    {
      const auto store = open();
      EXPECT_TRUE(add_node(*store, kRootNode, "a", &id_).ok());
      EXPECT_TRUE(set_text(*store, id_, "text").ok());
    }
    turn_back_to_format_1(options_.directory);
    options_.retention.off = false;
  }

  char version_of_registry() {
    char version = 0;
    with_plain_lmdb(options_.directory, [&](MDB_txn* txn, MDB_dbi database) {
      MDB_val key = val_of("M");
      MDB_val data{};
      ASSERT_EQ(mdb_get(txn, database, &key, &data), 0);
      version = *static_cast<const char*>(data.mv_data);
    });
    return version;
  }

  NodeId id_ = kNoNode;
};

TEST_F(Format1, IsReadAsItIs) {
  const std::string before = read_file(data_file(options_.directory));
  {
    const auto store = open();
    EXPECT_EQ(text_of(*store, id_), "text");
    EXPECT_EQ(latest(*store), 0u);
    EXPECT_EQ(text_at(*store, 0, id_), "text");
    EXPECT_EQ(expect_sound(*store).nodes, 2u);
    Node node;
    ASSERT_TRUE(store->read([&](View& view) { return view.find(kRootNode, "a", &node); }).ok());
    EXPECT_EQ(node.revision, 0u);
  }
  EXPECT_EQ(read_file(data_file(options_.directory)), before);
}

TEST_F(Format1, IsConvertedByTheFirstWriteWhichCanBeReadBack) {
  EXPECT_EQ(version_of_registry(), 1);
  {
    const auto store = open();
    ASSERT_TRUE(set_text(*store, id_, "changed").ok());
    EXPECT_EQ(latest(*store), 1u);
    EXPECT_EQ(text_at(*store, 0, id_), "text");
    EXPECT_EQ(text_at(*store, 1, id_), "changed");
    NodeId other = kNoNode;
    ASSERT_TRUE(add_node(*store, id_, "b", &other).ok());
    EXPECT_GT(other, id_);
    expect_sound(*store);
  }
  EXPECT_EQ(version_of_registry(), 2);
}

TEST_F(Format1, IsNotConvertedByAWriteThatFails) {
  EXPECT_TRUE(open()
                  ->write([&](Update& update) -> Status {
                    if (Status status = update.set_value(id_, 0, {}); !status.ok()) return status;
                    return PRTKV_CONFLICT;
                  })
                  .is(PRTKV_CONFLICT));
  EXPECT_EQ(version_of_registry(), 1);
  EXPECT_EQ(text_of(*open(), id_), "text");
}

// Processes

TEST_F(LmdbHistory, WatchersOfOtherProcessesSeeEveryChangeOnceAndInOrderWhileWritersAreKilled) {
  { const auto store = open(); }
  const auto write_forever = [this] {
    const auto store = open();
    for (int i = 0;; ++i) {
      if (!set_text(*store, kRootNode, std::to_string(i)).ok()) return 1;
    }
  };
  // Ends when it has seen the change `goal`, with success if every change came once, in order.
  const auto watch = [this](Revision goal) {
    const auto store = open();
    Revision seen = 0;
    while (seen < goal) {
      LogPosition position;
      Revision last = seen;
      bool in_order = true;
      const Status status = store->changes(
          {.after = seen, .only_complete = true},
          [&](const ChangeRecord& record) {
            in_order = in_order && record.revision == ++last;
            return Status();
          },
          &position);
      if (!status.ok() || !in_order || !position.complete || position.revision != last) return 1;
      seen = last;
      if (seen >= goal) break;  // by then, all writers may have ended
      Revision now = 0;
      if (!store->wait(seen, std::chrono::seconds(20), {}, &now).ok() || now <= seen) return 2;
    }
    return 0;
  };
  constexpr Revision kGoal = 400;
  std::vector<pid_t> watchers;
  for (int i = 0; i < 2; ++i) {
    watchers.push_back(fork());
    if (watchers.back() == 0) _exit(watch(kGoal));
  }
  Revision reached = 0;
  while (reached < kGoal + 100) {
    const pid_t writer = fork();
    if (writer == 0) _exit(write_forever());
    const auto store = open();
    EXPECT_TRUE(store->wait(reached + 50, std::chrono::seconds(20), {}, &reached).ok());
    kill(writer, SIGKILL);
    int status = 0;
    waitpid(writer, &status, 0);
    reached = latest(*store);
  }
  for (const pid_t watcher : watchers) {
    int status = 0;
    ASSERT_EQ(waitpid(watcher, &status, 0), watcher);
    EXPECT_EQ(status, 0);
  }
  expect_sound(*open());
}

}  // namespace
}  // namespace tkv::store
