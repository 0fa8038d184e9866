#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fake_kv.h"
#include "store/etcd/change_log.h"
#include "store/etcd/registry_mark.h"

namespace tkv::store::etcd {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLong{30'000};

struct Log {
  std::vector<std::string> notes;
  LogPosition position;
};

class EtcdChangeLog : public testing::Test {
 protected:
  // A registry with its mark and the first record of its log, as sessions create it.
  void SetUp() override {
    TxnRequest request;
    tkv::store::etcd::put(request.add_success(), keys_.mark(), RegistryMark::make().print());
    tkv::store::etcd::put(request.add_success(), keys_.log(), ChangeLog::encode({.note = "created"}));
    TxnResponse response;
    ASSERT_TRUE(kv_.txn(request, &response, Deadline(kLong)).ok());
    created_ = revision();
  }

  Revision change(const std::string& note) {
    kv_.put(keys_.log(), ChangeLog::encode({.note = note}));
    return revision();
  }
  Revision delete_without_space() {
    const std::string node = keys_.node({kRootNode, "a"});
    kv_.put(node, "");
    TxnRequest request;
    erase(request.add_success(), node);
    erase(request.add_success(), keys_.log());
    TxnResponse response;
    EXPECT_TRUE(kv_.txn(request, &response, Deadline(kLong)).ok());
    return revision();
  }
  Revision revision() const { return static_cast<Revision>(kv_.revision()); }

  Revision last() {
    Revision revision = 0;
    EXPECT_TRUE(log_.revision(0, &revision).ok());
    return revision;
  }

  Log read(const LogRange& range) {
    Log log;
    const auto visit = [&](const ChangeRecord& record) {
      log.notes.push_back(record.note);
      return Status();
    };
    const Status status = log_.visit(range, visit, &log.position);
    EXPECT_TRUE(status.ok()) << status.text();
    return log;
  }

  Status state_of(Revision revision) {
    std::int64_t at = 0;
    return log_.find_state(revision, &at);
  }

  Revision wait(Revision after, milliseconds timeout) {
    Revision revision = 0;
    EXPECT_TRUE(log_.wait(after, timeout, {}, &revision).ok());
    return revision;
  }

  const std::string lost_ = "a deletion that etcd had no space to describe";
  FakeKv kv_;
  const Keys keys_{"/tkv/"};
  ChangeLog log_{kv_, keys_};
  Revision created_ = 0;
};

using Notes = std::vector<std::string>;

TEST_F(EtcdChangeLog, ReachesBackToTheCreationOfTheRegistry) {
  kv_.put("/elsewhere", "something");
  const Revision changed = change("one");
  const Log log = read({});
  EXPECT_EQ(log.notes, (Notes{"created", "one"}));
  EXPECT_TRUE(log.position.complete);
  EXPECT_EQ(log.position.revision, changed);
}

TEST_F(EtcdChangeLog, ARegistryThatIsYoungerThanWhatIsKeptHasItsWholeLog) {
  FakeKv kv;
  kv.put("/elsewhere", "something");
  kv.put("/elsewhere", "something else");
  kv.compact();
  kv_.restore(kv.state());
  kv_.compact();
  SetUp();
  EXPECT_TRUE(read({}).position.complete);
  EXPECT_TRUE(read({.newest_first = true}).position.complete);
}

TEST_F(EtcdChangeLog, WhatHasBeenCompactedIsMissing) {
  const Revision one = change("one");
  const Revision two = change("two");
  const Revision three = change("three");
  kv_.compact();
  EXPECT_FALSE(read({}).position.complete);
  EXPECT_FALSE(read({.after = one}).position.complete);
  EXPECT_TRUE(read({.after = two}).position.complete);
  EXPECT_EQ(read({.after = one}).notes, Notes{"three"});
  const Log log = read({.after = one, .only_complete = true});
  EXPECT_TRUE(log.notes.empty());
  EXPECT_EQ(log.position.revision, three);
}

TEST_F(EtcdChangeLog, ADeletionWithoutSpaceIsToldAsMissing) {
  const Revision one = change("one");
  const Revision lost = delete_without_space();
  EXPECT_EQ(last(), lost);
  EXPECT_EQ(wait(one, kLong), lost);
  Log log = read({.after = one});
  EXPECT_EQ(log.notes, Notes{lost_});
  EXPECT_FALSE(log.position.complete);
  EXPECT_EQ(log.position.revision, lost);
  log = read({.after = one, .only_complete = true});
  EXPECT_TRUE(log.notes.empty());
  EXPECT_EQ(log.position.revision, lost);

  // Once: whoever goes on from there waits for the next change.
  log = read({.after = lost});
  EXPECT_TRUE(log.notes.empty());
  EXPECT_TRUE(log.position.complete);
  EXPECT_EQ(wait(lost, milliseconds(10)), lost);
}

// Only the first deletion has a key to remove.
TEST_F(EtcdChangeLog, WhatWasDeletedAfterItIsToldWithTheNextChange) {
  const Revision lost = delete_without_space();
  delete_without_space();
  const Revision next = change("next");
  EXPECT_EQ(wait(lost, kLong), next);
  Log log = read({.after = lost});
  EXPECT_EQ(log.notes, Notes{"next"});
  EXPECT_FALSE(log.position.complete);
  EXPECT_EQ(log.position.revision, next);

  change("after that");
  log = read({.after = next});
  EXPECT_EQ(log.notes, Notes{"after that"});
  EXPECT_TRUE(log.position.complete);
}

TEST_F(EtcdChangeLog, WhatIsOnOneSideOfTheGapIsComplete) {
  const Revision one = change("one");
  const Revision two = change("two");
  delete_without_space();
  const Revision three = change("three");
  const Revision four = change("four");
  EXPECT_TRUE(read({.up_to = two}).position.complete);
  EXPECT_TRUE(read({.after = three}).position.complete);
  EXPECT_EQ(read({.after = created_, .up_to = two}).notes, (Notes{"one", "two"}));
  EXPECT_EQ(read({.after = one}).notes, (Notes{"two", lost_, "three", "four"}));
  EXPECT_EQ(read({.after = one, .newest_first = true}).notes, (Notes{"four", "three", lost_, "two"}));
  EXPECT_FALSE(read({.after = one}).position.complete);
  EXPECT_EQ(read({.after = three}).position.revision, four);
}

TEST_F(EtcdChangeLog, FindsTheRecordOfADeletionWithoutSpace) {
  const Revision one = change("one");
  const Revision lost = delete_without_space();
  const Revision later = delete_without_space();
  const Revision two = change("two");
  ChangeRecord record;
  ASSERT_TRUE(log_.find(lost, &record).ok());
  EXPECT_EQ(record.revision, lost);
  EXPECT_EQ(record.note, lost_);
  EXPECT_EQ(record.changes, (std::vector<Change>{{.kind = Change::Kind::kChangedAtOrBelow}}));
  EXPECT_TRUE(log_.find(later, &record).is(PRTKV_NO_SUCH_KEY)) << "there was no key to remove";
  ASSERT_TRUE(log_.find(one, &record).ok());
  EXPECT_EQ(record.note, "one");
  ASSERT_TRUE(log_.find(two, &record).ok());
  EXPECT_EQ(record.note, "two");
  for (const Revision revision : {one, lost, two}) EXPECT_TRUE(state_of(revision).ok()) << state_of(revision).text();
}

TEST_F(EtcdChangeLog, NewestFirstItReadsManyChangesWithOneRequest) {
  Notes expected;
  for (int i = 0; i < 300; ++i) change(std::to_string(i));
  for (int i = 300; i-- > 0;) expected.push_back(std::to_string(i));
  expected.push_back("created");
  const int before = kv_.requests();
  EXPECT_EQ(read({.newest_first = true}).notes, expected);
  EXPECT_LE(kv_.requests() - before, 12);
}

// As `log -n 5` does.
TEST_F(EtcdChangeLog, NewestFirstAVisitThatEndsEarlyReadsOnePage) {
  for (int i = 0; i < 300; ++i) change(std::to_string(i));
  const int before = kv_.requests();
  int visited = 0;
  LogPosition position;
  const auto visit = [&](const ChangeRecord&) { return ++visited < 5 ? Status() : Status(PRTKV_BUSY); };
  EXPECT_TRUE(log_.visit({.newest_first = true}, visit, &position).is(PRTKV_BUSY));
  EXPECT_EQ(visited, 5);
  EXPECT_LE(kv_.requests() - before, 6);
}

TEST_F(EtcdChangeLog, NewestFirstItFindsEachChangeAmongThoseOfOtherKeys) {
  Notes expected;
  for (int i = 0; i < 200; ++i) {
    const int others = i % 7 == 0 ? i : i % 40;  // between two changes: from none to 199
    for (int j = 0; j < others; ++j) kv_.put("/elsewhere", "something");
    change(std::to_string(i));
    expected.insert(expected.begin(), std::to_string(i));
    if (i == 150) {
      delete_without_space();
      expected.insert(expected.begin(), lost_);
    }
  }
  expected.push_back("created");
  const int before = kv_.requests();
  EXPECT_EQ(read({.newest_first = true}).notes, expected);
  EXPECT_LE(kv_.requests() - before, 120);
  const Log part = read({.after = created_, .up_to = last() - 1, .newest_first = true});
  EXPECT_EQ(part.notes, Notes(expected.begin() + 1, expected.end() - 1));
}

TEST_F(EtcdChangeLog, NewestFirstADamagedRecordDoesNotHideThoseAfterIt) {
  change("one");
  kv_.put(keys_.log(), "damaged");
  const std::string damaged = "revision " + std::to_string(revision());
  change("two");
  change("three");
  Notes notes;
  LogPosition position;
  const auto visit = [&](const ChangeRecord& record) {
    notes.push_back(record.note);
    return Status();
  };
  const Status status = log_.visit({.newest_first = true}, visit, &position);
  EXPECT_TRUE(status.is(PRTKV_STORAGE_FAILED));
  EXPECT_NE(status.text().find(damaged), std::string::npos) << status.text();
  EXPECT_EQ(notes, (Notes{"three", "two"}));
}

// The state that the log begins with does not tell when the key was removed.
TEST_F(EtcdChangeLog, NewestFirstItShowsNoChangeWhereWhatIsKeptBegins) {
  change("one");
  delete_without_space();
  kv_.put("/elsewhere", "something");
  kv_.compact();
  kv_.put("/elsewhere", "something else");
  change("two");
  const Log forward = read({});
  EXPECT_EQ(forward.notes, Notes{"two"});
  EXPECT_FALSE(forward.position.complete);
  const Log backward = read({.newest_first = true});
  EXPECT_EQ(backward.notes, Notes{"two"});
  EXPECT_FALSE(backward.position.complete);
}

TEST_F(EtcdChangeLog, ARemovalRightAfterWhatWasReadIsShown) {
  const Revision lost = delete_without_space();
  for (const bool newest_first : {false, true}) {
    EXPECT_EQ(read({.after = lost - 1, .newest_first = newest_first}).notes, Notes{lost_}) << newest_first;
  }
  change("next");
  EXPECT_EQ(read({.after = lost - 1}).notes, (Notes{lost_, "next"}));
  EXPECT_EQ(read({.after = lost - 1, .newest_first = true}).notes, (Notes{"next", lost_}));
}

TEST(EtcdVersionPoints, ReachNoFurtherThanWhatIsToBeRead) {
  KeyValue only;
  only.set_create_revision(1);
  only.set_mod_revision(1'000'000);
  only.set_version(5);
  VersionPoints points;
  for (int request = 0; request < 200; ++request) points.learn({only}, 300'000);
  EXPECT_LE(points.distance(points.count() - 1), 300'000);
  EXPECT_GT(points.distance(points.count() - 1), 100'000);
}

TEST_F(EtcdChangeLog, NewestFirstLargeRecordsFitIntoOneAnswer) {
  Notes expected;
  std::size_t largest = 0;
  kv_.before_txn = [&](const TxnRequest& request) -> Reply {
    const auto reads = static_cast<std::size_t>(request.success_size());
    if (reads > 12) return {Verdict::kAnswerTooLarge, Status(PRTKV_UNUSABLE, "larger than max"), false};
    largest = std::max(largest, reads);
    return {};
  };
  for (int i = 0; i < 100; ++i) {
    change(std::to_string(i));
    expected.insert(expected.begin(), std::to_string(i));
  }
  expected.push_back("created");
  EXPECT_EQ(read({.newest_first = true}).notes, expected);
  EXPECT_EQ(largest, 12u);
}

TEST_F(EtcdChangeLog, NewestFirstWhatIsCompactedMeanwhileIsNotRead) {
  for (int i = 0; i < 100; ++i) change(std::to_string(i));
  bool compacted = false;
  Notes notes;
  LogPosition position;
  const auto visit = [&](const ChangeRecord& record) {
    notes.push_back(record.note);
    if (!std::exchange(compacted, true)) kv_.compact();
    return Status();
  };
  EXPECT_TRUE(log_.visit({.newest_first = true}, visit, &position).ok());
  ASSERT_GE(notes.size(), 1u);
  EXPECT_LE(notes.size(), 12u);
  for (std::size_t i = 0; i < notes.size(); ++i) EXPECT_EQ(notes[i], std::to_string(99 - i));
}

// A session that was not there asks the former states of the key.
TEST_F(EtcdChangeLog, AnotherSessionFindsTheSameRevision) {
  for (int i = 0; i < 100; ++i) change(std::to_string(i));
  const Revision lost = delete_without_space();
  for (int i = 0; i < 100; ++i) kv_.put("/elsewhere", std::to_string(i));
  ChangeLog other(kv_, keys_);
  Revision found = 0;
  ASSERT_TRUE(other.revision(0, &found).ok());
  EXPECT_EQ(found, lost);
}

TEST_F(EtcdChangeLog, ARemovalThatHasBeenCompactedIsToldToThoseWhoHaveNotSeenIt) {
  const Revision one = change("one");
  const Revision lost = delete_without_space();
  kv_.put("/elsewhere", "something");
  kv_.compact();
  ChangeLog other(kv_, keys_);
  Revision found = 0;
  EXPECT_TRUE(other.wait(one, kLong, {}, &found).ok());
  EXPECT_GE(found, lost);
  LogPosition position;
  const auto fail = [](const ChangeRecord&) { return Status(PRTKV_BUSY); };
  EXPECT_TRUE(other.visit({.after = one}, fail, &position).ok());
  EXPECT_FALSE(position.complete);
  EXPECT_EQ(position.revision, found);
  EXPECT_TRUE(other.visit({.after = one, .newest_first = true}, fail, &position).ok());
  EXPECT_FALSE(position.complete);
  const Revision next = change("next");
  EXPECT_TRUE(other.wait(found, kLong, {}, &found).ok());
  EXPECT_EQ(found, next);
}

TEST_F(EtcdChangeLog, AWaitSeesTheRemoval) {
  const Revision one = change("one");
  std::jthread deletion([this] { delete_without_space(); });
  const Revision found = wait(one, kLong);
  deletion.join();
  EXPECT_EQ(found, revision());
}

TEST_F(EtcdChangeLog, AWaitSeesASecondRemovalAfterTheOneThatItKnows) {
  delete_without_space();
  EXPECT_EQ(last(), revision());
  const Revision next = change("next");
  const Revision lost = delete_without_space();
  EXPECT_EQ(wait(next, kLong), lost);
}

TEST_F(EtcdChangeLog, AStateFromBeforeTheRegistryIsNotRetained) {
  const Revision two = change("two");
  EXPECT_TRUE(state_of(created_).ok());
  for (const Revision revision : {Revision{0}, created_ - 1, two + 1}) {
    EXPECT_TRUE(state_of(revision).is(PRTKV_INVALID_ARGUMENT)) << revision;
  }
  kv_.compact();
  EXPECT_TRUE(state_of(created_).is(PRTKV_INVALID_ARGUMENT));
}

TEST_F(EtcdChangeLog, AStateThatStillHoldsIsReadWhereTheClusterBegins) {
  const Revision one = change("one");
  const Revision two = change("two");
  kv_.put("/elsewhere", "something");
  kv_.compact();
  std::int64_t at = 0;
  ASSERT_TRUE(log_.find_state(two, &at).ok());
  EXPECT_EQ(at, kv_.revision());
  EXPECT_TRUE(state_of(one).is(PRTKV_INVALID_ARGUMENT));
}

TEST_F(EtcdChangeLog, TellsWhatCanBeRead) {
  const auto reach = [&] {
    ChangeLog::Reach found;
    EXPECT_TRUE(log_.reach(&found).ok());
    return std::array{found.revision, found.oldest_state, found.log_after};
  };
  EXPECT_EQ(reach(), (std::array{created_, created_, created_}));
  const Revision one = change("one");
  const Revision two = change("two");
  EXPECT_EQ(reach(), (std::array{two, created_, created_}));
  kv_.compact();
  EXPECT_EQ(reach(), (std::array{two, two, two}));
  const Revision three = change("three");
  EXPECT_EQ(reach(), (std::array{three, two, two}));
  kv_.put("/elsewhere", "something");
  kv_.compact();
  EXPECT_EQ(reach(), (std::array{three, three, three}));
  const Revision lost = delete_without_space();
  EXPECT_EQ(reach(), (std::array{lost, three, lost}));
  const Revision four = change("four");
  EXPECT_EQ(reach(), (std::array{four, three, four - 1}));
  EXPECT_TRUE(read({.after = four - 1}).position.complete);
  EXPECT_LT(one, two);
}

TEST_F(EtcdChangeLog, ARegistryWithoutALogHasNoRevision) {
  FakeKv kv;
  kv.put(keys_.mark(), RegistryMark::make().print());
  ChangeLog log(kv, keys_);
  Revision found = 1;
  EXPECT_TRUE(log.revision(0, &found).ok());
  EXPECT_EQ(found, 0u);
}

}  // namespace
}  // namespace tkv::store::etcd
