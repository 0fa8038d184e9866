// What the embedded store knows to be unchanged since an earlier state, compared with what there is.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "lmdb_files.h"
#include "page_builder.h"
#include "store/lmdb/layout.h"
#include "store/lmdb/unchanged_pages.h"
#include "temporary_directory.h"

namespace tkv::store {
namespace {

// What a view has found out about a node.
struct Found {
  NodeId parent = kNoNode;
  std::string name;
  Node node;
  ValuePlace place;
  std::uint64_t state = 0;
  std::uint64_t structure = 0;
};

bool is_same(const Found& left, const Found& right) {
  return left.node.id == right.node.id && left.structure == right.structure &&
         std::memcmp(&left.node.security, &right.node.security, sizeof left.node.security) == 0 &&
         left.place.offset == right.place.offset && left.place.record_size == right.place.record_size &&
         left.place.value_size == right.place.value_size;
}

class LmdbUnchanged : public ::testing::TestWithParam<unsigned> {
 protected:
  static constexpr std::size_t kGroups = 30;
  static constexpr std::size_t kNodesInGroup = 50;

  // Long names, which make a tree of few entries deep.
  static std::string name_of(std::size_t number) { return std::string(120, 'n') + std::to_string(number); }

  std::shared_ptr<Store> open() {
    LmdbOptions options;
    options.directory = directory_ / "registry";
    return open_or_fail(options);
  }

  // Creates the groups in one transaction, and their nodes with values in another.
  void fill(Store& store) {
    ASSERT_TRUE(store
                    .write([&](Update& update) -> Status {
                      for (std::size_t group = 0; group < kGroups; ++group) {
                        NodeId id = kNoNode;
                        if (Status status = add(update, kRootNode, name_of(group), &id); !status.ok()) return status;
                        groups_.push_back(id);
                      }
                      return {};
                    })
                    .ok());
    ASSERT_TRUE(store
                    .write([&](Update& update) -> Status {
                      for (const NodeId group : groups_) {
                        for (std::size_t number = 0; number < kNodesInGroup; ++number) {
                          NodeId id = kNoNode;
                          if (Status status = add(update, group, name_of(number), &id); !status.ok()) return status;
                        }
                      }
                      return {};
                    })
                    .ok());
  }

  static Status add(Update& update, NodeId parent, const std::string& name, NodeId* id) {
    static constexpr std::byte kValue[100] = {};
    Node node;
    if (Status status = update.new_id(&node.id); !status.ok()) return status;
    if (Status status = update.insert(parent, name, node); !status.ok()) return status;
    *id = node.id;
    return update.set_value(node.id, 3, kValue);
  }

  // Nothing if there is no such node.
  static std::optional<Found> look_up(Store& store, NodeId parent, const std::string& name,
                                      bool is_prepared_for_changes = false) {
    Found found;
    const Status status = store.read([&](View& view) -> Status {
      found = {parent, name, {}, {}, view.state(), view.structure()};
      if (Status looked = view.find(parent, name, &found.node); !looked.ok()) return looked;
      found.place = view.place_of_value(found.node.id);
      found.place.node_page = found.node.page;
      if (is_prepared_for_changes) view.prepare_for_changes(&found.place);
      return {};
    });
    EXPECT_TRUE(status.ok() || status.is(PRTKV_NO_SUCH_KEY)) << status.text();
    return status.ok() ? std::optional(std::move(found)) : std::nullopt;
  }

  // The value that a view finds.
  static std::string value_in_view(Store& store, NodeId id) {
    std::string bytes;
    const Status status = store.read([&](View& view) {
      Value value;
      const Status read = view.value(id, &value);
      if (read.ok()) bytes.assign(reinterpret_cast<const char*>(value.bytes.data()), value.bytes.size());
      return read;
    });
    EXPECT_TRUE(status.ok()) << status.text();
    return bytes;
  }

  TemporaryDirectory directory_{TemporaryDirectory::Where::kInMemory};
  std::vector<NodeId> groups_;
};

// A few commits, each with a few random changes of nodes in the groups. Most of them are of one group.
class RandomCommits {
 public:
  RandomCommits(unsigned seed, const std::vector<NodeId>& groups) : random_(seed), groups_(groups) {}

  std::size_t below(std::size_t limit) { return random_() % limit; }
  NodeId group() { return groups_[below(4) == 0 ? below(groups_.size()) : 1]; }

  void make(Store& store, std::size_t commits, std::size_t names, const std::function<std::string(std::size_t)>& name) {
    for (std::size_t commit = 0; commit < commits; ++commit) {
      const Status status = store.write([&](Update& update) -> Status {
        Status changed;
        for (std::size_t change = 1 + below(3); change > 0 && changed.ok(); --change) {
          changed = change_one(update, group(), name(below(names)), name(below(2 * names)));
          if (changed.is(PRTKV_NO_SUCH_KEY) || changed.is(PRTKV_KEY_EXISTS)) changed = {};
        }
        return changed;
      });
      ASSERT_TRUE(status.ok()) << status.text();
    }
  }

 private:
  Status change_one(Update& update, NodeId parent, const std::string& name, const std::string& other) {
    static constexpr std::size_t kSizes[] = {0, 1, 100, 100, 100, 1000, 5000};
    Node node;
    if (Status status = update.find(parent, name, &node); !status.ok()) return status;
    switch (below(12)) {
      case 0: {
        Node fresh;
        if (Status status = update.new_id(&fresh.id); !status.ok()) return status;
        return update.insert(parent, other, fresh);
      }
      case 1: {
        sec_attr security{};
        security.other_perm = static_cast<std::int32_t>(below(64));
        return update.set_security(parent, name, security);
      }
      case 2: {  // rare: it makes all nodes be looked up again
        if (below(8) != 0) return {};
        if (Status status = update.unlink(parent, name); !status.ok()) return status;
        return update.discard(node.id);
      }
      case 3: {
        Node taken;
        if (below(8) != 0 || update.find(parent, other, &taken).ok()) return {};
        if (Status status = update.unlink(parent, name); !status.ok()) return status;
        return update.insert(parent, other, node);
      }
      default: {
        const std::string value(kSizes[below(std::size(kSizes))], 'v');
        return update.set_value(node.id, 3, std::as_bytes(std::span(value)));
      }
    }
  }

  std::mt19937 random_;
  const std::vector<NodeId>& groups_;
};

TEST_P(LmdbUnchanged, WhatIsSaidToBeUnchangedIsWhatAViewFinds) {
  const auto store = open();
  fill(*store);
  RandomCommits commits(GetParam(), groups_);
  std::vector<Found> known;
  const auto learn = [&](NodeId group, const std::string& name) {
    if (std::optional<Found> found = look_up(*store, group, name)) known.push_back(std::move(*found));
  };
  for (const NodeId group : groups_)
    for (std::size_t number = 0; number < kNodesInGroup; number += 2) learn(group, name_of(number));
  std::size_t renewed = 0;
  std::size_t recognized = 0;  // although the store was not asked about all states in between
  for (int round = 0; round < 800; ++round) {
    const std::size_t most = commits.below(6) == 0 ? 6 : 1;
    const std::uint64_t asked = store->latest_state();
    commits.make(*store, commits.below(most + 1), kNodesInGroup, name_of);
    for (int sample = 0; sample < 40; ++sample) {
      Found& former = known[commits.below(known.size())];
      const std::uint64_t until = store->unchanged_until(former.state, former.node.id, &former.place);
      std::optional<Found> found = look_up(*store, former.parent, former.name);
      if (until != 0) {
        ASSERT_TRUE(found);
        ASSERT_EQ(until, found->state);
        ASSERT_TRUE(is_same(former, *found)) << "round " << round << ", state " << former.state << " until " << until;
        renewed += until != former.state ? 1 : 0;
        recognized += former.state <= asked && asked + 1 < until ? 1 : 0;
        if (commits.below(2) == 0) former.state = until;
      }
      if (!found) {
        found = look_up(*store, groups_[commits.below(kGroups)], name_of(0));
        if (!found) continue;
      }
      if (until == 0 || commits.below(8) == 0) former = std::move(*found);
    }
  }
  EXPECT_GT(renewed, 1000u);
  EXPECT_GT(recognized, 200u);
}

TEST_P(LmdbUnchanged, WhatIsCopiedFromItsPlaceIsWhatAViewFinds) {
  constexpr std::size_t kCapacities[] = {0, 99, 100, 6000};
  const auto store = open();
  fill(*store);
  RandomCommits commits(GetParam(), groups_);
  std::vector<Found> known;
  for (const NodeId group : groups_) known.push_back(*look_up(*store, group, name_of(commits.below(kNodesInGroup))));
  std::vector<std::byte> buffer;
  std::size_t copied = 0;
  std::size_t sized = 0;
  for (int round = 0; round < 800; ++round) {
    commits.make(*store, commits.below(3), kNodesInGroup, name_of);
    for (Found& former : known) {
      if (commits.below(4) == 0) continue;
      buffer.assign(kCapacities[commits.below(std::size(kCapacities))], std::byte{1});
      std::int32_t type = -1;
      std::size_t size = 0;
      const std::uint64_t before = former.state;
      const bool done = store->copy_unchanged_value(&former.state, former.node.id, &former.place, buffer, &type, &size);
      ASSERT_GE(former.state, before);
      if (!done) {
        ASSERT_EQ(std::count(buffer.begin(), buffer.end(), std::byte{1}), std::ssize(buffer));
      } else {
        const std::string found = value_in_view(*store, former.node.id);
        ASSERT_EQ(former.state, store->latest_state());
        ASSERT_EQ(size, found.size());
        const bool fits = size <= buffer.size();
        ASSERT_EQ(type != -1, fits);
        ASSERT_TRUE(!fits || std::memcmp(buffer.data(), found.data(), size) == 0);
        ++(fits ? copied : sized);
      }
      const std::optional<Found> present = look_up(*store, former.parent, former.name);
      ASSERT_TRUE(!present || former.state != present->state || is_same(former, *present)) << "round " << round;
      if (present && !done && commits.below(2) == 0) former = *present;
    }
  }
  EXPECT_GT(copied, 1000u);
  EXPECT_GT(sized, 1000u);
}

INSTANTIATE_TEST_SUITE_P(Seeds, LmdbUnchanged, ::testing::Range(1u, 5u));

// A key whose node is to stay unchanged, and one in another group that is written to.
class LmdbSubtrees : public LmdbUnchanged {
 protected:
  void SetUp() override {
    fill(*store_);
    known_ = look_up(*store_, groups_[kGroups / 2], name_of(0));
    written_ = look_up(*store_, groups_.back(), name_of(kNodesInGroup - 1), true);
    ASSERT_TRUE(known_ && written_);
    ASSERT_EQ(unchanged_until(*known_), known_->state);
  }

  Status write() { return set_text(*store_, written_->node.id, "text"); }
  std::uint64_t unchanged_until(Found& found) {
    return store_->unchanged_until(found.state, found.node.id, &found.place);
  }

  const std::shared_ptr<Store> store_ = open();
  std::optional<Found> known_;
  std::optional<Found> written_;
};

TEST_F(LmdbSubtrees, ANodeIsKnownToBeUnchangedWhileOthersAreWritten) {
  for (std::uint64_t commit = 1; commit <= 20; ++commit) {
    ASSERT_TRUE(write().ok());
    EXPECT_EQ(unchanged_until(*known_), known_->state + commit);
  }
}

TEST_F(LmdbSubtrees, TheValueOfANodeThatIsUnchangedIsFoundInItsNewPlace) {
  for (std::uint64_t commit = 1; commit <= 20; ++commit) {
    const ValuePlace before = written_->place;
    ASSERT_TRUE(write().ok());
    EXPECT_EQ(unchanged_until(*written_), written_->state + commit);
    EXPECT_NE(written_->place.offset, before.offset);
    EXPECT_EQ(written_->place.node_page, before.node_page);
    const std::optional<Found> found = look_up(*store_, written_->parent, written_->name);
    ASSERT_TRUE(found);
    EXPECT_TRUE(is_same(*written_, *found));
  }
}

TEST_F(LmdbSubtrees, ANodeWhosePageWasReplacedIsLookedUpAgain) {
  sec_attr security{};
  security.other_perm = 7;
  const auto change = [&](Update& update) { return update.set_security(written_->parent, written_->name, security); };
  ASSERT_TRUE(store_->write(change).ok());
  EXPECT_EQ(unchanged_until(*written_), 0u);
}

TEST_F(LmdbSubtrees, AValueIsCopiedWhileOthersAreWritten) {
  std::array<std::byte, 200> buffer{};
  const auto copies = [&](Found& found) {
    std::int32_t type = 0;
    std::size_t size = 0;
    const bool copied = store_->copy_unchanged_value(&found.state, found.node.id, &found.place, buffer, &type, &size);
    EXPECT_EQ(type, copied ? 3 : 0);
    EXPECT_EQ(size, copied ? 100u : 0u);
    return copied;
  };
  for (int commit = 0; commit < 20; ++commit) {
    ASSERT_TRUE(write().ok());
    EXPECT_TRUE(copies(*known_));
    EXPECT_EQ(known_->state, store_->latest_state());
    EXPECT_TRUE(copies(*known_)) << "in the same state";
    EXPECT_FALSE(copies(*written_));
    EXPECT_NE(written_->state, store_->latest_state());
  }
}

TEST_F(LmdbSubtrees, ALargeValueIsFoundUnchangedWithoutBeingCopied) {
  std::vector<std::byte> buffer(10'000, std::byte{1});
  ASSERT_TRUE(set_text(*store_, known_->node.id, std::string(buffer.size(), 'v')).ok());
  known_ = look_up(*store_, known_->parent, known_->name, true);
  ASSERT_TRUE(known_);
  ASSERT_TRUE(write().ok());
  std::int32_t type = 0;
  std::size_t size = 0;
  EXPECT_FALSE(store_->copy_unchanged_value(&known_->state, known_->node.id, &known_->place, buffer, &type, &size));
  EXPECT_EQ(known_->state, store_->latest_state());
  EXPECT_EQ(buffer, std::vector<std::byte>(buffer.size(), std::byte{1}));
}

TEST_F(LmdbSubtrees, ANodeThatWasPreparedForChangesIsRecognizedAfterStatesThatNobodyLookedAt) {
  ASSERT_TRUE(write().ok());
  std::optional<Found> prepared = look_up(*store_, known_->parent, known_->name, true);
  ASSERT_TRUE(prepared);
  for (int commit = 0; commit < 5; ++commit) ASSERT_TRUE(write().ok());
  EXPECT_EQ(unchanged_until(*prepared), prepared->state + 5);
  EXPECT_EQ(unchanged_until(*known_), 0u);
}

// Only after a change has been seen is another one expected.
TEST_F(LmdbSubtrees, PreparingForChangesMakesNoFingerprintWhileNothingChanges) {
  std::optional<Found> prepared = look_up(*store_, known_->parent, known_->name, true);
  ASSERT_TRUE(prepared);
  EXPECT_EQ(prepared->place.fingerprint, 0u);
  ASSERT_TRUE(write().ok());
  prepared = look_up(*store_, known_->parent, known_->name, true);
  ASSERT_TRUE(prepared);
  EXPECT_NE(prepared->place.fingerprint, 0u);
}

// As while a commit is being made durable, or after a writer died there.
TEST_F(LmdbSubtrees, ANodeIsSaidToBeUnchangedUntilAStateThatAViewShows) {
  std::optional<Found> prepared = look_up(*store_, known_->parent, known_->name, true);
  ASSERT_TRUE(prepared);
  const std::uint64_t next = prepared->state + 1;
  const std::size_t offset = next % kMetaPages * PageBuilder::kSize + offsetof(MetaPage, transaction);
  std::fstream file(directory_ / "registry/data.mdb", std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(static_cast<std::streamoff>(offset));
  file.write(reinterpret_cast<const char*>(&next), sizeof next).flush();
  ASSERT_EQ(store_->latest_state(), next);
  EXPECT_EQ(unchanged_until(*prepared), prepared->state);
  EXPECT_EQ(unchanged_until(*known_), prepared->state);
}

TEST_F(LmdbSubtrees, ANodeThatWasPreparedForChangesIsNotRecognizedOnceItsPageHasChanged) {
  ASSERT_TRUE(write().ok());
  std::optional<Found> prepared = look_up(*store_, known_->parent, known_->name, true);
  ASSERT_TRUE(prepared);
  ASSERT_TRUE(set_text(*store_, prepared->node.id, "text").ok());
  for (int commit = 0; commit < 5; ++commit) ASSERT_TRUE(write().ok());
  EXPECT_EQ(unchanged_until(*prepared), 0u);
}

// Unless a page was looked at before, nothing tells it from another one with its number.
TEST_F(LmdbSubtrees, NothingIsKnownToBeUnchangedWhenPagesMayHaveBeenUsedAgain) {
  for (int commit = 0; commit < 2; ++commit) ASSERT_TRUE(write().ok());
  EXPECT_EQ(unchanged_until(*known_), 0u);
}

TEST_F(LmdbSubtrees, ANodeIsRecognizedAfterStatesThatNobodyLookedAt) {
  ASSERT_TRUE(write().ok());
  ASSERT_EQ(unchanged_until(*known_), known_->state + 1);
  for (std::uint64_t missed : {2, 3, 20}) {
    for (std::uint64_t commit = 0; commit < missed; ++commit) ASSERT_TRUE(write().ok());
    const std::uint64_t until = unchanged_until(*known_);
    EXPECT_EQ(until, store_->latest_state());
    EXPECT_GT(until, known_->state + missed);
  }
}

// The page that was replaced keeps its contents while it is free.
TEST_F(LmdbSubtrees, ANodeOfAPageThatIsNoLongerInTheTreeIsNotRecognized) {
  std::optional<Found> neighbour = look_up(*store_, groups_[kGroups / 2], name_of(1));
  ASSERT_TRUE(neighbour);
  ASSERT_EQ(neighbour->place.value_page, known_->place.value_page);
  ASSERT_TRUE(write().ok());
  ASSERT_NE(unchanged_until(*known_), 0u);
  ASSERT_TRUE(set_text(*store_, neighbour->node.id, "text").ok());
  ASSERT_TRUE(write().ok());
  EXPECT_EQ(unchanged_until(*known_), 0u);
}

TEST_F(LmdbSubtrees, ANodeOfAPageWithOtherContentsIsNotRecognized) {
  ASSERT_TRUE(write().ok());
  ASSERT_NE(unchanged_until(*known_), 0u);
  known_->place.fingerprint ^= 1;
  for (int commit = 0; commit < 2; ++commit) ASSERT_TRUE(write().ok());
  EXPECT_EQ(unchanged_until(*known_), 0u);
}

TEST_F(LmdbSubtrees, NoNodeIsKnownToBeUnchangedOnceOneWasRemoved) {
  ASSERT_TRUE(store_->write([&](Update& update) { return update.unlink(groups_.back(), name_of(0)); }).ok());
  EXPECT_EQ(unchanged_until(*known_), 0u);
}

TEST(UnchangedPages, APageWhoseRangeChangesAboveItsBranchPageIsReplaced) {
  constexpr std::size_t kPages = 16;
  std::string file(kPages * PageBuilder::kSize, '\0');
  const auto put = [&](std::uint64_t number, const char* second_key, std::uint64_t first, std::uint64_t second) {
    const std::string page = PageBuilder(number, kBranchPage).branch("", first).branch(second_key, second).bytes();
    file.replace(number * page.size(), page.size(), page);
  };
  const auto state_of = [&](std::uint64_t transaction, std::uint64_t root) {
    FileState state;
    state.map = {reinterpret_cast<const std::byte*>(file.data()), file.size(), PageBuilder::kSize, ""};
    state.transaction = transaction;
    state.page_count = kPages;
    state.use_map();
    state.records.page = root;
    state.records.depth = 3;
    return state;
  };
  put(2, "m", 3, 4);
  put(3, "c", 10, 11);
  put(4, "t", 12, 13);
  put(5, "p", 6, 7);  // instead of "m"
  put(6, "c", 10, 11);
  put(7, "t", 12, 13);
  UnchangedPages pages;
  pages.follow(state_of(1, 2), 1);
  pages.follow(state_of(2, 5), 1);
  const auto has_kept = [&](std::uint32_t page) { return pages.has_kept(1, {1, 1, 1, page, page, 1}); };
  EXPECT_TRUE(has_kept(10));
  EXPECT_FALSE(has_kept(11));
  EXPECT_FALSE(has_kept(12));
  EXPECT_TRUE(has_kept(13));
}

}  // namespace
}  // namespace tkv::store
