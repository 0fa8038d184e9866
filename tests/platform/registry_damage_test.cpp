// What can still be done with damaged keys: each can be deleted and replaced, and so can the keys above it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "registry_fixture.h"

namespace tkv::registry {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;

constexpr auto ignore_progress = [](std::uint64_t) {};
constexpr auto ignore_step = [](const CheckStep&) {};

KeyRecord record(const std::string& name, const std::string& text = "") {
  KeyRecord key;
  key.name = name;
  key.security = open_to_all();
  if (!text.empty()) key.value = {PRTKV_TYPE_TEXT, text};
  return key;
}

NamedValue text_value(const std::string& name, const std::string& text) {
  return {name, TypedValue{PRTKV_TYPE_TEXT, text}};
}

// Keys "a", "a.b", "a.b.c" and "a.d", of which tests damage some.
class DamagedKeys : public ::testing::Test {
 protected:
  DamagedKeys() {
    a_ = ground_.make("a", open_to_all(), "one");
    ground_.make("a.b", open_to_all(), "two");
    ground_.make("a.b.c", open_to_all(), "three");
    d_ = ground_.make("a.d", open_to_all(), "four");
    ground_.store->run_functions_twice();
  }

  // "a=3:one" and so on; a damaged key or value has a "!" after its name.
  std::vector<std::string> left() {
    std::vector<std::string> lines;
    WalkOptions options;
    options.values = true;
    options.damaged = WalkOptions::Damaged::kVisit;
    const Status status = root_->walk("", options, [&](const WalkEntry& entry) {
      std::string line(entry.name);
      if (entry.damaged != WalkEntry::Part::kNone) line += "!";
      if (entry.type != 0) line += "=" + text_of({entry.type, entry.value});
      if (!entry.name.empty()) lines.push_back(line);
      return Status();
    });
    if (!status.ok()) lines.push_back(status.text());
    return lines;
  }

  Status put(const std::shared_ptr<Client>& client, const std::string& name, PutOptions::Key key) {
    const NamedValue value = text_value(name, "anew");
    PutOptions options;
    options.key = key;
    options.security.initial = open_to_all();
    return client->put({&value, 1}, options);
  }

  // What the wanted tree is made of, in every test that restores: the keys as they were made.
  Subtree saved() const {
    return {"a", {record("a", "one"), record("a.b", "two"), record("a.b.c", "three"), record("a.d", "four")}};
  }

  Status restore(MergeMode mode = MergeMode::kReplace) {
    ApplyOptions options;
    options.mode = mode;
    Difference difference;
    return root_->apply(saved(), options, ignore_progress, &difference);
  }

  std::size_t damages_after_repair() {
    CheckResult result;
    EXPECT_EQ(root_->check(true, ignore_step, &result).code(), PRTKV_DONE);
    return result.damages.size();
  }

  Ground ground_;
  std::shared_ptr<Client> root_ = ground_.as(superuser());
  std::shared_ptr<Client> bob_ = ground_.as(person("bob"));
  store::NodeId a_ = store::kNoNode;
  store::NodeId d_ = store::kNoNode;
};

TEST_F(DamagedKeys, AreRemovedAloneAndWhatWasBelowByARepair) {
  ground_.memory->damage_node(a_, "b");
  EXPECT_THAT(left(), ElementsAre("a=one", "a.b!", "a.d=four"));
  EXPECT_TRUE(root_->remove("a.b", false, ignore_progress).ok());
  EXPECT_THAT(left(), ElementsAre("a=one", "a.d=four"));
  EXPECT_EQ(damages_after_repair(), 0U);
}

TEST_F(DamagedKeys, AreLoggedAsDeletedWhenTheyAreRemoved) {
  ground_.memory->damage_node(a_, "b");
  Revision before = 0;
  ASSERT_TRUE(root_->revision(&before).ok());
  ASSERT_TRUE(root_->remove("a.b", false, ignore_progress).ok());
  std::vector<Change> changes;
  LogPosition position;
  const auto keep = [&](const ChangeRecord& logged) {
    changes.insert(changes.end(), logged.changes.begin(), logged.changes.end());
    return Status();
  };
  ASSERT_TRUE(root_->changes_since({.range = {.after = before}}, keep, &position).ok());
  EXPECT_THAT(changes, ElementsAre(Change{Change::Kind::kDeleted, "a.b", "", kAnyKey}));
}

TEST_F(DamagedKeys, AreRemovedWithTheKeyAboveThem) {
  ground_.memory->damage_node(a_, "b");
  ground_.memory->damage_value(d_);
  EXPECT_EQ(bob_->remove("a", true, ignore_progress).code(), PRTKV_DONE);
  EXPECT_THAT(left(), ElementsAre());
  EXPECT_EQ(damages_after_repair(), 0U);
}

TEST_F(DamagedKeys, AreRemovedByWhoMayDeleteTheKeyAboveThem) {
  ground_.memory->damage_node(a_, "b");
  const auto may = [&](std::int32_t mask) {
    EXPECT_TRUE(root_->write_security("a", owned_by("bob", "", mask, 0, 0)).ok());
  };
  may(TKV_RIGHT_ALL & ~TKV_RIGHT_DELETE);
  const Status refused = bob_->remove("a.b", true, ignore_progress);
  EXPECT_EQ(refused.code(), PRTKV_ACCESS_DENIED);
  EXPECT_EQ(refused.text(), "key 'a': access denied, deleting a damaged key below it needs the right 0x20");
  EXPECT_EQ(put(bob_, "a.b", PutOptions::Key::kAny).code(), PRTKV_ACCESS_DENIED);
  may(TKV_RIGHT_DELETE);
  EXPECT_EQ(bob_->remove("a.b", true, ignore_progress).code(), PRTKV_DONE);
}

TEST_F(DamagedKeys, AreCreatedAnewByAWriteThatTakesAnyKey) {
  ground_.memory->damage_node(a_, "b");
  EXPECT_EQ(put(root_, "a.b", PutOptions::Key::kMustBeNew).code(), PRTKV_STORAGE_FAILED);
  EXPECT_EQ(put(root_, "a.b", PutOptions::Key::kMustExist).code(), PRTKV_STORAGE_FAILED);
  EXPECT_THAT(left(), ElementsAre("a=one", "a.b!", "a.d=four"));
  EXPECT_EQ(put(root_, "a.b", PutOptions::Key::kAny).code(), PRTKV_DONE);
  EXPECT_THAT(left(), ElementsAre("a=one", "a.b=anew", "a.d=four"));
  EXPECT_EQ(damages_after_repair(), 0U);
}

TEST_F(DamagedKeys, TakeAValueInPlaceOfADamagedOne) {
  ground_.memory->damage_value(d_);
  EXPECT_EQ(root_->write_value("a.d", PRTKV_TYPE_TEXT, bytes_of("anew")).code(), PRTKV_DONE);
  ground_.memory->damage_value(a_);
  EXPECT_EQ(put(root_, "a", PutOptions::Key::kMustExist).code(), PRTKV_DONE);
  EXPECT_THAT(left(), ElementsAre("a=anew", "a.b=two", "a.b.c=three", "a.d=anew"));
}

TEST_F(DamagedKeys, AreRestoredWithEverythingBelowThem) {
  ground_.memory->damage_node(a_, "b");
  ground_.memory->damage_value(a_);
  Difference difference;
  ASSERT_TRUE(root_->compare(saved(), MergeMode::kReplace, {}, ignore_progress, &difference).ok());
  std::vector<std::string> lines;
  for (const KeyChange& change : difference.changes) {
    lines.push_back(std::to_string(static_cast<int>(change.kind)) + change.name() + (change.before.damaged ? "!" : ""));
  }
  EXPECT_THAT(lines, ElementsAre("1a", "2a.b!", "0a.b", "0a.b.c"));
  EXPECT_EQ(restore().code(), PRTKV_DONE);
  EXPECT_THAT(left(), ElementsAre("a=one", "a.b=two", "a.b.c=three", "a.d=four"));
  EXPECT_EQ(damages_after_repair(), 0U);
}

TEST_F(DamagedKeys, AreRestoredWhenTheyAreTheTop) {
  ground_.memory->damage_node(store::kRootNode, "a");
  EXPECT_EQ(restore().code(), PRTKV_DONE);
  EXPECT_THAT(left(), ElementsAre("a=one", "a.b=two", "a.b.c=three", "a.d=four"));
  EXPECT_EQ(damages_after_repair(), 0U);
}

TEST_F(DamagedKeys, AreRemovedByARestoreThatLacksThem) {
  ground_.make("a.e");
  ground_.memory->damage_node(a_, "e");
  EXPECT_EQ(restore().code(), PRTKV_DONE);
  EXPECT_THAT(left(), ElementsAre("a=one", "a.b=two", "a.b.c=three", "a.d=four"));
}

TEST_F(DamagedKeys, AreReportedByChangesThatKeepWhatIsThere) {
  ground_.memory->damage_node(a_, "b");
  EXPECT_EQ(restore(MergeMode::kMerge).code(), PRTKV_STORAGE_FAILED);
  EXPECT_EQ(restore(MergeMode::kAdd).code(), PRTKV_STORAGE_FAILED);
  EXPECT_THAT(left(), ElementsAre("a=one", "a.b!", "a.d=four"));
}

TEST_F(DamagedKeys, BelowADamagedKeyFail) {
  ground_.memory->damage_node(a_, "b");
  EXPECT_EQ(put(root_, "a.b.c", PutOptions::Key::kAny).code(), PRTKV_STORAGE_FAILED);
  EXPECT_EQ(root_->remove("a.b.c", true, ignore_progress).code(), PRTKV_STORAGE_FAILED);
  EXPECT_THAT(left(), ElementsAre("a=one", "a.b!", "a.d=four"));
}

TEST_F(DamagedKeys, AnIdIsNotTakenForADamagedKey) {
  ground_.memory->damage_node(a_, "b");
  EXPECT_EQ(root_->remove(KeyRef("a.b", 17), true, ignore_progress).code(), PRTKV_STORAGE_FAILED);
}

TEST_F(DamagedKeys, ADamagedRootIsReplacedByARepairAndRestoredThen) {
  Subtree all = saved();
  all.top = "";
  all.keys.insert(all.keys.begin(), record(""));
  const auto restore_all = [&] {
    ApplyOptions options;
    options.mode = MergeMode::kReplace;
    Difference difference;
    return root_->apply(all, options, ignore_progress, &difference);
  };
  ground_.memory->damage_node(store::kNoNode, "");
  EXPECT_EQ(restore_all().code(), PRTKV_STORAGE_FAILED);
  EXPECT_EQ(damages_after_repair(), 0U);
  EXPECT_EQ(bob_->write_value("", PRTKV_TYPE_TEXT, bytes_of("x")).code(), PRTKV_ACCESS_DENIED);
  EXPECT_EQ(restore_all().code(), PRTKV_DONE);
  EXPECT_EQ(bob_->write_value("", PRTKV_TYPE_TEXT, bytes_of("x")).code(), PRTKV_DONE);
}

// A disk that fails once must not cost a key that is sound.
TEST_F(DamagedKeys, AFailureThatPassesNeverRemovesASoundKey) {
  const std::vector<std::string> sound = left();
  const std::vector<std::function<Status()>> operations{
      [&] { return put(root_, "a.b", PutOptions::Key::kAny); },
      [&] { return root_->remove("a.b", false, ignore_progress); },
      [&] { return restore(); },
  };
  for (std::size_t each = 0; each < operations.size(); ++each) {
    for (std::size_t nth = 1; nth <= 40; ++nth) {
      SCOPED_TRACE(std::to_string(each) + ", call " + std::to_string(nth));
      ground_.store->reset();
      ground_.store->fail_any(nth, {PRTKV_STORAGE_FAILED, "it passes"});
      const Status status = operations[each]();
      ground_.store->reset();
      if (each == 0 && status.ok()) {
        EXPECT_EQ(ground_.value("a.b"), "anew");
        ASSERT_EQ(root_->write_value("a.b", PRTKV_TYPE_TEXT, bytes_of("two")).code(), PRTKV_DONE);
      }
      EXPECT_THAT(left(), ElementsAreArray(sound));
    }
  }
}

TEST_F(DamagedKeys, AWalkShowsItsOwnTopAsDamaged) {
  ground_.memory->damage_node(a_, "b");
  WalkOptions options;
  EXPECT_EQ(root_->walk("a.b", options, [](const WalkEntry&) { return Status(); }).code(), PRTKV_STORAGE_FAILED);
  options.damaged = WalkOptions::Damaged::kVisit;
  std::string seen;
  const auto visit = [&](const WalkEntry& entry) {
    seen += std::string(entry.name) + " " + entry.damage->text();
    EXPECT_EQ(entry.damaged, WalkEntry::Part::kRecord);
    return Status();
  };
  EXPECT_EQ(root_->walk("a.b", options, visit).code(), PRTKV_DONE);
  EXPECT_THAT(seen, HasSubstr("a.b key 'a.b': the record of 'b' is damaged"));
}

}  // namespace
}  // namespace tkv::registry
