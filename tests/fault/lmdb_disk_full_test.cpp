// A full disk yields PRTKV_STORAGE_FULL, whichever error LMDB returns, and harms nothing.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "file_system.h"
#include "lmdb_files.h"

namespace tkv::store {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMiB = 1024 * 1024;

class LmdbDiskFull : public ::testing::TestWithParam<SmallFileSystem::Kind> {
 protected:
  void SetUp() override {
    if (!disk_.obstacle().empty()) GTEST_SKIP() << disk_.obstacle();
    options_.directory = disk_ / "registry";
  }

  SmallFileSystem disk_{GetParam(), 16 * kMiB};
  LmdbOptions options_;
};

TEST_P(LmdbDiskFull, IsReportedAndTheRegistryWorksAgainOnceThereIsRoom) {
  const auto store = open_or_fail(options_);
  std::vector<std::pair<NodeId, std::string>> kept;
  Status status;
  for (int i = 0; i < 200; ++i) {
    NodeId id = kNoNode;
    const std::string text(200'000, static_cast<char>('a' + i % 26));
    status = add_node(*store, kRootNode, std::to_string(i), &id);
    if (status.ok()) status = set_text(*store, id, text);
    if (!status.ok()) break;
    kept.emplace_back(id, text);
  }
  ASSERT_TRUE(status.is(PRTKV_STORAGE_FULL)) << status.code() << " " << status.text();
  EXPECT_NE(status.text().find(options_.directory), std::string::npos) << status.text();
  ASSERT_GT(kept.size(), 20u);
  for (int again = 0; again < 3; ++again)
    EXPECT_TRUE(set_text(*store, kept[0].first, std::string(kMiB, 'z')).is(PRTKV_STORAGE_FULL));
  for (const auto& [id, text] : kept) EXPECT_EQ(text_of(*store, id), text);
  expect_sound(*store);

  // There is no room for the past of what is deleted.
  Revision full = 0;
  ASSERT_TRUE(store->read([&](View& view) { return view.revision(&full); }).ok());
  for (std::size_t i = 0; i < 3; ++i) ASSERT_TRUE(set_text(*store, kept[i].first, "").ok());
  StoreStatus after;
  ASSERT_TRUE(store->status(&after).ok());
  EXPECT_GT(after.oldest_state, full);
  EXPECT_LT(after.log_after, full) << "the log remains";
  ASSERT_TRUE(set_text(*store, kept[0].first, std::string(200'000, 'y')).ok());
  EXPECT_EQ(text_of(*store, kept[0].first), std::string(200'000, 'y'));
  expect_sound(*store);
}

TEST_P(LmdbDiskFull, IsReportedWhereverInAWriteTheDiskFillsUp) {
  const auto store = open_or_fail(options_);
  ASSERT_TRUE(set_text(*store, kRootNode, "former").ok());
  int refused = 0;
  for (std::size_t left = 0; left < 600'000; left += 40'000) {
    disk_.fill(left);
    const Status status = set_text(*store, kRootNode, std::string(500'000, 'x'));
    EXPECT_TRUE(status.ok() || status.is(PRTKV_STORAGE_FULL)) << left << ": " << status.code() << " " << status.text();
    if (!status.ok()) {
      ++refused;
      EXPECT_EQ(text_of(*store, kRootNode), "former");
    } else {
      disk_.fill(std::nullopt);
      ASSERT_TRUE(set_text(*store, kRootNode, "former").ok());
    }
    disk_.fill(std::nullopt);
  }
  EXPECT_GT(refused, 0);
  ASSERT_TRUE(set_text(*store, kRootNode, std::string(kMiB, 'y')).ok());
  expect_sound(*store);
}

TEST_P(LmdbDiskFull, AFailedCreationLeavesNothingBehindAndSucceedsLater) {
  disk_.fill(0);
  std::shared_ptr<Store> store;
  const Status status = open_lmdb_store(options_, &store);
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FULL)) << status.code() << " " << status.text();
  if (fs::exists(options_.directory)) {
    EXPECT_TRUE(fs::is_empty(options_.directory));
  }
  disk_.fill(std::nullopt);
  EXPECT_TRUE(set_text(*open_or_fail(options_), kRootNode, "x").ok());
}

INSTANTIATE_TEST_SUITE_P(Disks, LmdbDiskFull,
                         ::testing::Values(SmallFileSystem::Kind::kTmpfs, SmallFileSystem::Kind::kExt4),
                         [](const auto& disk) { return disk.index == 0 ? "Tmpfs" : "Ext4"; });

}  // namespace
}  // namespace tkv::store
