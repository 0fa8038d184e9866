// After any damage to records, a check, a repair and a restore of what was lost make the registry sound again.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "lmdb_files.h"
#include "store/lmdb/file.h"
#include "temporary_directory.h"

namespace tkv::store {
namespace {

// A tree outside the registry, as a backup holds it.
struct SavedNode {
  std::string value;
  std::map<std::string, SavedNode> children;
};

SavedNode some_tree(std::mt19937& random, int depth) {
  SavedNode node;
  if (random() % 3 != 0) node.value.assign(1 + random() % 300, static_cast<char>('a' + random() % 26));
  for (int i = 0; depth > 0 && i < 6; ++i)
    node.children.emplace("key" + std::to_string(i), some_tree(random, depth - 1));
  return node;
}

Status write_value(Update& update, NodeId id, const std::string& text) {
  return update.set_value(id, text.empty() ? 0 : 3, std::as_bytes(std::span(text)));
}

// Restores everything below a node to what was saved. Damaged keys are replaced.
Status restore_below(Update& update, NodeId parent, const SavedNode& saved) {
  if (Status status = write_value(update, parent, saved.value); !status.ok()) return status;
  for (const auto& [name, child] : saved.children) {
    Node node;
    Status found = update.find(parent, name, &node);
    if (found.is(PRTKV_STORAGE_FAILED)) found = update.unlink(parent, name).ok() ? PRTKV_NO_SUCH_KEY : found;
    if (found.is(PRTKV_NO_SUCH_KEY)) {
      if (found = update.new_id(&node.id); !found.ok()) return found;
      found = update.insert(parent, name, node);
    }
    if (!found.ok()) return found;
    if (Status status = restore_below(update, node.id, child); !status.ok()) return status;
  }
  return {};
}

void expect_tree(View& view, NodeId id, const SavedNode& saved) {
  Value value;
  ASSERT_TRUE(view.value(id, &value).ok());
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size()), saved.value);
  std::map<std::string, NodeId> found;
  ASSERT_TRUE(view.children(id,
                            [&](std::string_view name, const Node& node) -> Status {
                              found.emplace(name, node.id);
                              return {};
                            })
                  .ok());
  ASSERT_EQ(found.size(), saved.children.size());
  for (const auto& [name, child] : saved.children) {
    ASSERT_EQ(found.count(name), 1u) << name;
    expect_tree(view, found[name], child);
  }
}

// Changes a byte in each of `count` records, some of them several times.
void damage_records(const std::string& directory, std::mt19937& random, int count) {
  with_plain_lmdb(directory, [&](MDB_txn* txn, MDB_dbi database) {
    std::vector<std::string> keys;
    MDB_cursor* cursor = nullptr;
    ASSERT_EQ(mdb_cursor_open(txn, database, &cursor), 0);
    MDB_val key{};
    MDB_val data{};
    while (mdb_cursor_get(cursor, &key, &data, MDB_NEXT) == 0)
      keys.emplace_back(static_cast<const char*>(key.mv_data), key.mv_size);
    mdb_cursor_close(cursor);
    for (int i = 0; i < count; ++i) {
      const std::string& chosen = keys[random() % keys.size()];
      key = val_of(chosen);
      ASSERT_EQ(mdb_get(txn, database, &key, &data), 0);
      std::string record(static_cast<const char*>(data.mv_data), data.mv_size);
      // The first byte is the version of the format: with another one, the record would be a newer release's.
      record[1 + random() % (record.size() - 1)] ^= static_cast<char>(1 + random() % 255);
      data = val_of(record);
      ASSERT_EQ(mdb_put(txn, database, &key, &data, 0), 0);
    }
  });
}

class LmdbRepair : public ::testing::Test {
 protected:
  LmdbRepair() { options_.directory = temporary_ / "registry"; }

  void restore() {
    const Status status =
        open_or_fail(options_)->write([&](Update& update) { return restore_below(update, kRootNode, saved_); });
    ASSERT_TRUE(status.ok()) << status.text();
  }

  void repair() {
    Totals totals;
    const Status status = open_or_fail(options_)->check(
        true, [](const Finding&) {}, &totals);
    ASSERT_TRUE(status.ok()) << status.text();
  }

  void expect_restored() {
    const auto store = open_or_fail(options_);
    expect_sound(*store);
    ASSERT_TRUE(store
                    ->read([&](View& view) -> Status {
                      expect_tree(view, kRootNode, saved_);
                      return {};
                    })
                    .ok());
  }

  TemporaryDirectory temporary_{TemporaryDirectory::Where::kInMemory};
  LmdbOptions options_;
  std::mt19937 random_{1};
  SavedNode saved_ = some_tree(random_, 3);
};

TEST_F(LmdbRepair, OneDamagedRecordAfterTheOther) {
  for (int round = 0; round < 200 && !HasFailure(); ++round) {
    SCOPED_TRACE(round);
    if (round == 0) restore();
    damage_records(options_.directory, random_, 1);
    repair();
    restore();
    expect_restored();
  }
}

TEST_F(LmdbRepair, ManyDamagedRecordsAtOnce) {
  restore();
  for (int round = 0; round < 10 && !HasFailure(); ++round) {
    SCOPED_TRACE(round);
    damage_records(options_.directory, random_, 200);
    repair();
    restore();
    expect_restored();
  }
}

TEST_F(LmdbRepair, RestoringComesFirst) {
  restore();
  for (int round = 0; round < 20 && !HasFailure(); ++round) {
    SCOPED_TRACE(round);
    damage_records(options_.directory, random_, 10);
    Totals totals;
    const auto restored =
        open_or_fail(options_)->write([&](Update& update) { return restore_below(update, kRootNode, saved_); });
    repair();  // what the damaged keys left behind, or the counter of ids that the restoring lacked
    if (!restored.ok()) restore();
    expect_restored();
  }
}

}  // namespace
}  // namespace tkv::store
