#include "registry_history_contract.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "registry/name.h"

namespace tkv::registry {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Kind = Change::Kind;

constexpr auto ignore_progress = [](std::uint64_t) {};

std::string shown(const Change& change) {
  constexpr const char* kNames[] = {"", "created", "value", "security", "moved", "deleted", "below"};
  return std::string(kNames[static_cast<std::size_t>(change.kind)]) + " " +
         (change.from.empty() ? "" : change.from + " > ") + change.name;
}

TypedValue text(const std::string& bytes) { return {PRTKV_TYPE_TEXT, bytes}; }

NewKeySecurity open_keys() {
  NewKeySecurity rules;
  rules.initial = open_to_all();
  return rules;
}

Operation put(const std::string& name, const std::string& bytes) {
  return {.kind = Operation::Kind::kPut, .name = name, .value = text(bytes)};
}

// Writes more keys, "k0" and so on, than the log lists one by one.
Batch many_puts_below(const std::string& name, const std::string& bytes = "1") {
  Batch batch{.new_keys = open_keys()};
  for (std::size_t i = 0; i <= kMaxListedChanges; ++i)
    batch.operations.push_back(put(name + ".k" + std::to_string(i), bytes));
  return batch;
}

}  // namespace

Status increment(Client& client, const std::string& name) {
  for (;;) {
    KeyInfo info;
    TypedValue value;
    CommitResult result;
    if (Status status = client.read_key(name, &info, &value); !status.ok()) return status;
    const Batch batch{.conditions = {{.kind = Condition::Kind::kRevision, .name = name, .revision = info.revision}},
                      .operations = {put(name, std::to_string(std::stoi(value.bytes) + 1))}};
    const Status status = client.commit(batch, &result);
    if (!status.is(PRTKV_CONFLICT)) return status;
  }
}

void History::make(const std::string& name, const std::string& bytes, const sec_attr& security) {
  KeyId id = kAnyKey;
  const TypedValue value = bytes.empty() ? TypedValue{} : text(bytes);
  ASSERT_EQ(root_->create("", name, security, value.type, value.span(), &id), Status());
}

void History::set(const std::string& name, const std::string& bytes) {
  ASSERT_EQ(root_->write_value(name, PRTKV_TYPE_TEXT, bytes_of(bytes)), Status());
}

void History::move(const std::string& name, const std::string& target) {
  KeyId id = kAnyKey;
  EXPECT_EQ(root_->move(name, "", target, false, &id), Status());
}

Revision History::make_many() {
  CommitResult result;
  make("a");
  make("a.b");
  EXPECT_EQ(commit(many_puts_below("a.b"), &result), Status());
  return result.revision;
}

Revision History::latest() {
  Revision revision = 0;
  EXPECT_EQ(root_->revision(&revision), Status());
  return revision;
}

std::string History::value(KeyReader& reader, const std::string& name) {
  TypedValue value;
  const Status status = reader.read_value(name, &value);
  return status.ok() ? value.bytes : "(" + std::to_string(status.code()) + ")";
}

std::string History::value_at(Client& client, Revision revision, const std::string& name) {
  std::unique_ptr<Snapshot> snapshot;
  const Status status = client.at(revision, &snapshot);
  return status.ok() ? value(*snapshot, name) : "(" + status.text() + ")";
}

std::vector<std::string> History::everything(KeyReader& reader) {
  std::vector<std::string> lines;
  WalkOptions options;
  options.values = true;
  EXPECT_EQ(reader.walk("", options,
                        [&](const WalkEntry& entry) {
                          lines.push_back(std::string(entry.name) + "=" + text_of({entry.type, entry.value}) + " [" +
                                          std::to_string(entry.security.other_perm) + "]");
                          return Status();
                        }),
            Status());
  return lines;
}

std::vector<std::string> History::log(Client& client, const ChangeQuery& query) {
  std::vector<std::string> lines;
  LogPosition position;
  EXPECT_EQ(client.changes_since(
                query,
                [&](const ChangeRecord& record) {
                  for (const Change& change : record.changes) lines.push_back(shown(change));
                  return Status();
                },
                &position),
            Status());
  return lines;
}

Batch History::undo(Revision revision, const UndoOptions& options) {
  Batch inverse;
  CommitResult result;
  EXPECT_EQ(root_->undo(revision, options, &inverse, &result), Status());
  return inverse;
}

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(History);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(PurgeableHistory);

// The log

TEST_P(History, EachOperationIsLoggedByNames) {
  const Revision begin = latest();
  KeyId id = kAnyKey;
  CopyOptions recursive;
  recursive.recursive = true;
  make("a");
  make("a.b", "1");
  set("a.b", "2");
  ASSERT_EQ(root_->write_security("a.b", open_to_all()), Status());
  ASSERT_EQ(root_->copy("a", "c", recursive, ignore_progress), Status());
  ASSERT_EQ(root_->move("c", "a", "d", false, &id), Status());
  ASSERT_EQ(root_->remove("a.d", true, ignore_progress), Status());
  EXPECT_THAT(log(begin), ElementsAre("created a", "created a.b", "value a.b", "security a.b", "created c",
                                      "created c.b", "moved c > a.d", "deleted a.d"));
}

TEST_P(History, WhatIsReplacedIsLoggedAsDeletedFirst) {
  KeyId id = kAnyKey;
  CopyOptions replacing;
  replacing.replace = true;
  make("a");
  make("b");
  make("c");
  const Revision begin = latest();
  ASSERT_EQ(root_->move("a", "", "b", true, &id), Status());
  ASSERT_EQ(root_->copy("b", "c", replacing, ignore_progress), Status());
  EXPECT_THAT(log(begin), ElementsAre("deleted b", "moved a > b", "deleted c", "created c"));
}

TEST_P(History, ARecordTellsWhoWasItAndWhy) {
  make("a");
  const auto before = std::chrono::system_clock::now().time_since_epoch();
  ASSERT_EQ(bob_->with_note("because")->write_value("a", PRTKV_TYPE_TEXT, bytes_of("1")), Status());
  std::vector<ChangeRecord> records;
  LogPosition position;
  ASSERT_EQ(root_->changes_since(
                {.range = {.newest_first = true}},
                [&](const ChangeRecord& record) {
                  records.push_back(record);
                  return Status();
                },
                &position),
            Status());
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].author, "bob");
  EXPECT_EQ(records[0].note, "because");
  EXPECT_EQ(records[0].process, static_cast<std::uint32_t>(getpid()));
  EXPECT_EQ(records[0].program, program_invocation_short_name);
  EXPECT_GE(records[0].time, std::chrono::duration_cast<std::chrono::microseconds>(before).count());
  EXPECT_EQ(records[1].note, "");
  KeyInfo info;
  ASSERT_EQ(root_->stat("a", &info), Status());
  EXPECT_EQ(info.revision, records[0].revision);
  EXPECT_EQ(info.changed_by, "bob");
  EXPECT_EQ(info.changed_at, records[0].time);
}

TEST_P(History, ALongNoteIsCutOffBetweenCharacters) {
  std::string note(kMaxNoteSize - 1, 'n');
  make("a");
  ASSERT_EQ(root_->with_note(note + "\xc3\xbc")->write_value("a", PRTKV_TYPE_TEXT, bytes_of("1")), Status());
  LogPosition position;
  std::string found;
  ASSERT_EQ(root_->changes_since(
                {}, [&](const ChangeRecord& record) { return found = record.note, Status(); }, &position),
            Status());
  EXPECT_EQ(found, note);
}

TEST_P(History, AChangeOfManyKeysIsLoggedByWhatTheyHaveInCommon) {
  const Revision many = make_many();
  EXPECT_THAT(log(many - 1), ElementsAre("below a.b"));
}

TEST_P(History, AChangeOfManyKeysIsUndone) {
  undo(make_many());
  EXPECT_THAT(everything(*root_), ElementsAre("= [63]", "a= [63]", "a.b= [63]"));
}

TEST_P(History, AChangeOfManyKeysIsNotUndoneIfOneOfThemWasChangedSince) {
  Batch inverse;
  CommitResult result;
  const Revision many = make_many();
  set("a.b.k500", "2");
  EXPECT_TRUE(root_->undo(many, {}, &inverse, &result).is(PRTKV_CONFLICT));
  EXPECT_EQ(value(*root_, "a.b.k500"), "2");
  EXPECT_EQ(value(*root_, "a.b.k1000"), "1");
}

// What was changed while it had another name was changed all the same.
TEST_P(History, AChangeOfManyKeysIsNotUndoneIfOneOfThemWasChangedUnderAnotherName) {
  Batch inverse;
  CommitResult result;
  const Revision many = make_many();
  move("a", "c");
  set("c.b.k500", "2");
  move("c", "a");
  EXPECT_TRUE(root_->undo(many, {}, &inverse, &result).is(PRTKV_CONFLICT));
  EXPECT_EQ(value(*root_, "a.b.k500"), "2");
  EXPECT_EQ(value(*root_, "a.b.k1000"), "1");
}

TEST_P(History, AChangeOfManyKeysIsNotUndoneIfAllOfThemWereChangedUnderAnotherName) {
  Batch inverse;
  CommitResult result;
  const Revision many = make_many();
  move("a", "c");
  ASSERT_EQ(commit(many_puts_below("c.b", "2"), &result), Status());
  move("c", "a");
  EXPECT_TRUE(root_->undo(many, {}, &inverse, &result).is(PRTKV_CONFLICT));
  EXPECT_EQ(value(*root_, "a.b.k0"), "2");
}

TEST_P(History, AChangeOfManyKeysIsUndoneAfterTheyWereMovedAwayAndBack) {
  const Revision many = make_many();
  move("a", "c");
  make("a");
  set("a", "another key");
  move("a", "d");
  move("c", "a");
  undo(many);
  EXPECT_THAT(everything(*root_), ElementsAre("= [63]", "a= [63]", "a.b= [63]", "d=another key [63]"));
}

TEST_P(History, TheLogOfAKeyHasWhatConcernsIt) {
  KeyId id = kAnyKey;
  make("a");
  make("a.b");
  make("a.b.c");
  make("z");
  set("z", "1");
  set("a", "1");
  set("a.b.c", "2");
  ASSERT_EQ(root_->move("a", "", "y", false, &id), Status());
  const auto of = [&](const std::string& name, std::size_t depth) {
    return log(*root_, {.range = {}, .name = name, .depth = depth});
  };
  EXPECT_THAT(of("a.b", 0), ElementsAre("created a.b", "moved a > y"));
  EXPECT_THAT(of("a.b", 1), ElementsAre("created a.b", "created a.b.c", "value a.b.c", "moved a > y"));
  EXPECT_THAT(of("z", 9), ElementsAre("created z", "value z"));
}

TEST_P(History, EventsAreFilteredByRights) {
  make("open");
  make("closed", "", owned_by("alice", "staff", 0x3f, 0, 0));
  make("closed.secret", "", open_to_all());
  make("open.unreadable", "", owned_by("alice", "staff", 0x3f, 0, 0));
  set("closed.secret", "1");
  set("open.unreadable", "1");
  ASSERT_EQ(root_->remove("closed", true, ignore_progress), Status());
  EXPECT_THAT(log(*bob_, {}), ElementsAre("created open", "created closed", "created open.unreadable",
                                          "value closed.secret", "deleted closed"));
}

// Of a key that was moved since, today's right is that on the key, not on what has its former name now.
TEST_P(History, EventsOfMovedKeysAreFilteredByTheRightsOnTheKeysThemselves) {
  const sec_attr closed = owned_by("alice", "staff", 0x3f, 0, 0);
  KeyId id = kAnyKey;
  make("hidden");
  make("shown");
  const Revision begin = latest();
  set("hidden", "1");
  set("shown", "1");
  ASSERT_EQ(root_->write_security("hidden", closed), Status());
  ASSERT_EQ(root_->move("hidden", "", "h", false, &id), Status());
  ASSERT_EQ(root_->move("shown", "", "s", false, &id), Status());
  ASSERT_EQ(root_->move("s", "", "t", false, &id), Status());
  make("shown", "", closed);
  ASSERT_EQ(root_->write_value("shown", PRTKV_TYPE_TEXT, bytes_of("2")), Status());
  std::vector<std::string> expected = {"value shown", "moved hidden > h", "moved shown > s", "moved s > t",
                                       "created shown"};
  EXPECT_EQ(log(*bob_, {.range = {.after = begin}}), expected);
  std::reverse(expected.begin(), expected.end());
  EXPECT_EQ(log(*bob_, {.range = {.after = begin, .newest_first = true}}), expected);
}

TEST_P(History, EventsBelowAMovedKeyAreFilteredByTheRightsOnIt) {
  KeyId id = kAnyKey;
  make("p");
  make("q");
  const Revision begin = latest();
  make("p.a");
  make("q.a");
  ASSERT_EQ(root_->write_security("p", owned_by("alice", "staff", 0x3f, 0, 0)), Status());
  ASSERT_EQ(root_->move("p", "", "r", false, &id), Status());
  ASSERT_EQ(root_->move("q", "", "p", false, &id), Status());
  EXPECT_THAT(log(*bob_, {.range = {.after = begin}, .name = "p"}), ElementsAre("moved p > r", "moved q > p"));
  EXPECT_THAT(log(*bob_, {.range = {.after = begin}, .name = "q"}), ElementsAre("created q.a", "moved q > p"));
}

TEST_P(PurgeableHistory, AWatcherIsToldOnceThatItHasFallenBehind) {
  store::Retention few;
  few.changes = 3;
  store_ = std::make_shared<store::MemoryStore>(open_to_all(), few);
  root_ = as(superuser());
  make("a");
  for (int i = 0; i < 9; ++i) set("a", std::to_string(i));
  LogPosition position;
  int visits = 0;
  const auto count = [&](const ChangeRecord&) { return ++visits, Status(); };
  ASSERT_EQ(root_->changes_since({.range = {.after = 1, .only_complete = true}}, count, &position), Status());
  EXPECT_FALSE(position.complete);
  EXPECT_EQ(visits, 0);
  EXPECT_EQ(position.revision, latest());
  set("a", "more");
  ASSERT_EQ(root_->changes_since({.range = {.after = position.revision, .only_complete = true}}, count, &position),
            Status());
  EXPECT_TRUE(position.complete);
  EXPECT_EQ(visits, 1);
}

// The past

TEST_P(History, ASnapshotStaysAsItWas) {
  make("a", "1");
  std::unique_ptr<Snapshot> snapshot;
  ASSERT_EQ(root_->snapshot(&snapshot), Status());
  set("a", "2");
  make("b");
  EXPECT_EQ(value(*snapshot, "a"), "1");
  EXPECT_EQ(value(*snapshot, "b"), "(4)");
  EXPECT_EQ(value(*root_, "a"), "2");
}

TEST_P(History, ThePastNeedsTheRightOfThenAndOfToday) {
  make("a", "secret", owned_by("alice", "staff", 0x3f, 0, 0));
  const Revision closed = latest();
  ASSERT_EQ(root_->write_security("a", open_to_all()), Status());
  const Revision open = latest();
  EXPECT_EQ(value_at(*bob_, closed, "a"), "(2)");
  EXPECT_EQ(value_at(*bob_, open, "a"), "secret");
  ASSERT_EQ(root_->write_security("a", owned_by("alice", "staff", 0x3f, 0, 0)), Status());
  EXPECT_EQ(value_at(*bob_, open, "a"), "(2)");
  KeyId id = kAnyKey;
  ASSERT_EQ(root_->move("a", "", "b", false, &id), Status());
  EXPECT_EQ(value_at(*bob_, open, "a"), "(2)") << "the key still exists, elsewhere";
  ASSERT_EQ(root_->remove("b", false, ignore_progress), Status());
  EXPECT_EQ(value_at(*bob_, open, "a"), "secret");
}

TEST_P(History, AStateIsFoundByItsTime) {
  std::map<Revision, std::int64_t> times;
  make("a");
  set("a", "1");
  LogPosition position;
  ASSERT_EQ(
      root_->changes_since(
          {}, [&](const ChangeRecord& record) { return times[record.revision] = record.time, Status(); }, &position),
      Status());
  Revision found = 99;
  for (const auto& [revision, time] : times) {
    ASSERT_EQ(root_->revision_at(time, &found), Status());
    EXPECT_GE(found, revision);
    EXPECT_LE(times[found], time);
  }
  ASSERT_EQ(root_->revision_at(0, &found), Status());
  EXPECT_LT(found, times.begin()->first);
  std::unique_ptr<Snapshot> snapshot;
  ASSERT_EQ(root_->at(found, &snapshot), Status());
  EXPECT_THAT(everything(*snapshot), ElementsAre("= [63]")) << "the registry as it was created";
}

TEST_P(PurgeableHistory, FormerValuesOfAKeyCanBeRemoved) {
  KeyId id = kAnyKey;
  make("a", "secret");
  const Revision secret = latest();
  ASSERT_EQ(root_->move("a", "", "b", false, &id), Status());
  set("b", "harmless");
  make("a", "other secret");
  const Revision other = latest();
  set("a", "harmless");
  std::uint64_t removed = 0;
  ASSERT_EQ(root_->purge_history("a", &removed), Status());
  EXPECT_EQ(removed, 2U);
  EXPECT_EQ(value_at(*root_, secret, "a"), "");
  EXPECT_EQ(value_at(*root_, other, "a"), "");
  EXPECT_EQ(value(*root_, "a"), "harmless");
  ASSERT_EQ(root_->write_security("a", owned_by("alice", "staff", 0x3f, 0, 0)), Status());
  EXPECT_EQ(bob_->purge_history("a", &removed).code(), PRTKV_ACCESS_DENIED);
  LogPosition position;
  std::vector<std::string> purged;
  const auto visit = [&](const ChangeRecord& record) {
    for (const Change& change : record.changes) {
      if (change.kind == Change::Kind::kPurged) purged.push_back(change.name);
    }
    return Status();
  };
  ASSERT_EQ(root_->changes_since({}, visit, &position), Status());
  EXPECT_EQ(purged, (std::vector<std::string>{"a"}));
}

TEST_P(PurgeableHistory, WhoTakesTheNameOfADeletedKeyCannotRemoveItsPast) {
  std::uint64_t removed = 0;
  make("a", "evidence");
  const Revision evidence = latest();
  ASSERT_EQ(root_->remove("a", false, ignore_progress), Status());
  make("a", "bob's own");
  ASSERT_EQ(root_->write_security("a", owned_by("bob", "users", 0x3f, 0, 0)), Status());
  ASSERT_EQ(root_->write_security("", owned_by("root", "root", 0x3f, 0, TKV_RIGHT_READ | TKV_RIGHT_LIST)), Status());
  EXPECT_EQ(bob_->purge_history("a", &removed).code(), PRTKV_ACCESS_DENIED);
  EXPECT_EQ(value_at(*root_, evidence, "a"), "evidence");
}

TEST_P(PurgeableHistory, APurgeCannotBeUndone) {
  std::uint64_t removed = 0;
  Batch inverse;
  CommitResult result;
  make("a", "secret");
  set("a", "harmless");
  ASSERT_EQ(root_->purge_history("a", &removed), Status());
  EXPECT_EQ(root_->undo(latest(), {}, &inverse, &result).code(), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(value(*root_, "a"), "harmless");
}

// Batches

TEST_P(History, ABatchIsOneChange) {
  make("a", "1");
  make("b", "2");
  make("c", "3");
  Batch batch{.new_keys = open_keys()};
  batch.operations = {put("a", "new"),
                      {.kind = Operation::Kind::kCreate, .name = "n.m", .value = text("4"), .create_parents = true},
                      {.kind = Operation::Kind::kRemove, .name = "b"},
                      {.kind = Operation::Kind::kMove, .name = "c", .target = "n.c"},
                      {.kind = Operation::Kind::kCopy, .name = "n", .target = "o", .recursive = true},
                      {.kind = Operation::Kind::kSecurity,
                       .name = "n",
                       .security = owned_by("bob", "users", 0x3f, 0, 3),
                       .recursive = true}};
  CommitResult result;
  const Revision begin = latest();
  ASSERT_EQ(commit(batch, &result), Status());
  EXPECT_EQ(result.revision, latest());
  EXPECT_THAT(everything(*root_), ElementsAre("= [63]", "a=new [63]", "n= [3]", "n.c=3 [3]", "n.m=4 [3]", "o= [63]",
                                              "o.c=3 [63]", "o.m=4 [63]"));
  EXPECT_EQ(log(begin).size(), 11U);
}

TEST_P(History, ABatchWhoseConditionDoesNotHoldChangesNothing) {
  make("a", "1");
  KeyInfo info;
  ASSERT_EQ(root_->stat("a", &info), Status());
  const Condition holds{.kind = Condition::Kind::kRevision, .name = "a", .revision = info.revision, .id = info.id};
  const std::vector<Condition> cases = {
      {.kind = Condition::Kind::kAbsent, .name = "a"},
      {.kind = Condition::Kind::kExists, .name = "b"},
      {.kind = Condition::Kind::kExists, .name = "a", .id = info.id + 1000},
      {.kind = Condition::Kind::kValue, .name = "a", .value = text("2")},
      {.kind = Condition::Kind::kValue, .name = "a", .value = {PRTKV_TYPE_WORD32, "1"}},
      {.kind = Condition::Kind::kValue, .name = "b", .value = {}},
      {.kind = Condition::Kind::kRevision, .name = "a", .revision = info.revision - 1},
      {.kind = Condition::Kind::kRevision, .name = "b", .revision = info.revision}};
  for (const Condition& failing : cases) {
    CommitResult result;
    const Revision before = latest();
    const Status status = commit({.conditions = {holds, failing, holds}, .operations = {put("a", "2")}}, &result);
    EXPECT_EQ(status.code(), PRTKV_CONFLICT) << status.text();
    EXPECT_THAT(status.text(), HasSubstr("key '" + failing.name + "'"));
    EXPECT_EQ(result.failed_condition, 1U);
    EXPECT_EQ(result.failed_operation, std::nullopt);
    EXPECT_EQ(latest(), before);
  }
  EXPECT_EQ(value(*root_, "a"), "1");
}

TEST_P(History, ABatchWhoseConditionsHoldIsMade) {
  make("a", "1");
  make("empty");
  KeyInfo info;
  CommitResult result;
  ASSERT_EQ(root_->stat("a", &info), Status());
  const Batch batch{.conditions = {{.kind = Condition::Kind::kAbsent, .name = "b"},
                                   {.kind = Condition::Kind::kExists, .name = "a", .id = info.id},
                                   {.kind = Condition::Kind::kValue, .name = "a", .value = text("1")},
                                   {.kind = Condition::Kind::kValue, .name = "empty"},
                                   {.kind = Condition::Kind::kRevision, .name = "a", .revision = info.revision}},
                    .operations = {put("a", "2")}};
  EXPECT_EQ(commit(batch, &result), Status());
  EXPECT_EQ(value(*root_, "a"), "2");
  EXPECT_EQ(commit(batch, &result).code(), PRTKV_CONFLICT);
  EXPECT_EQ(result.failed_condition, 2U);
}

TEST_P(History, AFailingOperationOfABatchIsNamed) {
  make("a");
  CommitResult result;
  const Revision before = latest();
  EXPECT_EQ(commit({.operations = {put("a", "1"), {.kind = Operation::Kind::kRemove, .name = "x"}}}, &result).code(),
            PRTKV_NO_SUCH_KEY);
  EXPECT_EQ(result.failed_operation, 1U);
  EXPECT_EQ(latest(), before);
  EXPECT_EQ(value(*root_, "a"), "");
}

TEST_P(History, AConditionOnAValueNeedsTheRightToReadIt) {
  make("a", "secret", owned_by("alice", "staff", 0x3f, 0, 0));
  CommitResult result;
  EXPECT_EQ(
      bob_->commit({.conditions = {{.kind = Condition::Kind::kValue, .name = "a", .value = text("secret")}}}, &result)
          .code(),
      PRTKV_ACCESS_DENIED);
  EXPECT_EQ(result.failed_condition, 0U);
}

TEST_P(History, ARemovedValueIsAChangeForAConditionToo) {
  make("a");
  KeyInfo info;
  CommitResult result;
  ASSERT_EQ(root_->stat("a", &info), Status());
  set("a", "1");
  ASSERT_EQ(root_->write_value("a", 0, {}), Status());
  EXPECT_EQ(
      commit({.conditions = {{.kind = Condition::Kind::kRevision, .name = "a", .revision = info.revision}}}, &result)
          .code(),
      PRTKV_CONFLICT);
}

TEST_P(History, NoIncrementOfManyThreadsIsLost) {
  make("a", "0");
  constexpr int kThreads = 4;
  constexpr int kRounds = 50;
  std::vector<std::jthread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([this] {
      const std::shared_ptr<Client> client = as(person("bob"));
      for (int round = 0; round < kRounds; ++round) EXPECT_EQ(increment(*client, "a"), Status());
    });
  }
  threads.clear();
  EXPECT_EQ(value(*root_, "a"), std::to_string(kThreads * kRounds));
}

// Undo

TEST_P(History, UndoMakesEachKindOfChangeUndone) {
  KeyId id = kAnyKey;
  CopyOptions recursive;
  recursive.recursive = true;
  make("a", "1");
  make("a.b", "2");
  make("c", "3");
  const std::vector<std::function<Status()>> changes = {
      [&] { return root_->write_value("a", PRTKV_TYPE_TEXT, bytes_of("x")); },
      [&] { return root_->write_value("a", 0, {}); },
      [&] { return root_->write_security("a.b", owned_by("bob", "users", 1, 2, 4)); },
      [&] { return root_->create("", "n", open_to_all(), 3, bytes_of("n"), &id); },
      [&] { return root_->remove("a", true, ignore_progress); },
      [&] { return root_->move("a", "c", "m", false, &id); },
      [&] { return root_->move("a", "", "c", true, &id); },
      [&] { return root_->copy("a", "d", recursive, ignore_progress); },
      [&] {
        CommitResult result;
        return commit({.operations = {{.kind = Operation::Kind::kMove, .name = "a", .target = "z"},
                                      put("z.b", "other"),
                                      {.kind = Operation::Kind::kMove, .name = "z.b", .target = "y"},
                                      {.kind = Operation::Kind::kRemove, .name = "c"}}},
                      &result);
      }};
  const std::vector<std::string> before = everything(*root_);
  for (std::size_t i = 0; i < changes.size(); ++i) {
    ASSERT_EQ(changes[i](), Status()) << i;
    EXPECT_NE(everything(*root_), before) << i;
    undo(latest());
    ASSERT_EQ(everything(*root_), before) << i;
  }
}

TEST_P(History, UndoRefusesWhatWasChangedAgainUnlessForced) {
  make("a", "1");
  make("b", "1");
  set("a", "2");
  const Revision undone = latest();
  set("b", "3");
  UndoOptions options;
  Batch inverse;
  CommitResult result;
  options.dry_run = true;
  EXPECT_EQ(root_->undo(undone, options, &inverse, &result), Status()) << "b is another key";
  ASSERT_EQ(inverse.operations.size(), 1U);
  EXPECT_EQ(inverse.operations[0].name, "a");
  EXPECT_EQ(inverse.operations[0].value, text("1"));
  EXPECT_EQ(value(*root_, "a"), "2");
  set("a", "4");
  const Status refused = root_->undo(undone, {}, &inverse, &result);
  EXPECT_EQ(refused.code(), PRTKV_CONFLICT);
  EXPECT_THAT(refused.text(), HasSubstr("key 'a'"));
  EXPECT_EQ(root_->undo(undone, options, &inverse, &result).code(), PRTKV_CONFLICT);
  EXPECT_EQ(value(*root_, "a"), "4");
  undo(undone, {.force = true});
  EXPECT_EQ(value(*root_, "a"), "1");
}

TEST_P(History, UndoOfACreationSparesWhatOthersHavePutBelow) {
  make("a");
  const Revision created = latest();
  make("a.b");
  Batch inverse;
  CommitResult result;
  EXPECT_EQ(root_->undo(created, {}, &inverse, &result).code(), PRTKV_CONFLICT);
  EXPECT_EQ(root_->undo(created, {.dry_run = true}, &inverse, &result).code(), PRTKV_CONFLICT);
  EXPECT_EQ(root_->undo(created, {.force = true, .dry_run = true}, &inverse, &result), Status());
  undo(created, {.force = true});
  EXPECT_THAT(everything(*root_), ElementsAre("= [63]"));
}

// Whoever forces an undo is shown first what it would do to the present.
TEST_P(History, AForcedUndoIsMadeAsItWasShownOrNotAtAll) {
  const auto grant_nothing = [this] {
    Batch batch{.operations = {{.kind = Operation::Kind::kSecurity, .name = "a.b.c"}}};
    batch.operations[0].security.emplace(open_to_all());
    batch.operations[0].security->other_perm = 0;
    CommitResult result;
    EXPECT_EQ(commit(batch, &result), Status());
  };
  const auto remove = [this](const std::string& name) {
    EXPECT_EQ(root_->remove(name, true, ignore_progress), Status());
  };
  const std::vector<std::function<void()>> others = {
      [this] { set("a.b", "changed"); },
      [this] { set("a.b.c", "changed"); },
      [this] { make("a.new"); },
      [this] { make("a.b.c.new"); },
      [this] { move("elsewhere", "a.b.moved"); },
      [remove] { remove("a.b.c"); },
      [this, remove] {
        remove("a.b.c");
        make("a.b.c", "1");
      },
      [this, remove] {
        remove("a");
        make("a", "1");
      },
      grant_nothing,
  };
  CommitResult result;
  Batch inverse;
  for (std::size_t i = 0; i < others.size(); ++i) {
    make("elsewhere");
    make("a", "1");
    const Revision created = latest();
    make("a.b", "1");
    make("a.b.c", "1");
    ASSERT_EQ(root_->undo(created, {.force = true, .dry_run = true}, &inverse, &result), Status()) << i;
    others[i]();
    const std::vector<std::string> changed = everything(*root_);
    EXPECT_EQ(commit(inverse, &result).code(), PRTKV_CONFLICT) << i;
    EXPECT_EQ(everything(*root_), changed) << i;
    ASSERT_EQ(root_->undo(created, {.force = true, .dry_run = true}, &inverse, &result), Status()) << i;
    EXPECT_EQ(commit(inverse, &result), Status()) << i;
    EXPECT_EQ(value(*root_, "a"), "(4)") << i;
    const Status removed = root_->remove("elsewhere", true, ignore_progress);
    EXPECT_TRUE(removed.ok() || removed.is(PRTKV_NO_SUCH_KEY)) << "moved away";
  }
}

TEST_P(History, AForcedUndoOfAValueIsMadeAsItWasShownOrNotAtAll) {
  make("a", "1");
  set("a", "2");
  const Revision undone = latest();
  set("a", "3");
  CommitResult result;
  Batch inverse;
  ASSERT_EQ(root_->undo(undone, {.force = true, .dry_run = true}, &inverse, &result), Status());
  set("a", "4");
  EXPECT_EQ(commit(inverse, &result).code(), PRTKV_CONFLICT);
  EXPECT_EQ(value(*root_, "a"), "4");
  ASSERT_EQ(root_->undo(undone, {.force = true, .dry_run = true}, &inverse, &result), Status());
  EXPECT_EQ(commit(inverse, &result), Status());
  EXPECT_EQ(value(*root_, "a"), "1");
}

TEST_P(History, AnUndoCanBeUndone) {
  make("a", "1");
  set("a", "2");
  undo(latest());
  undo(latest());
  EXPECT_EQ(value(*root_, "a"), "2");
}

TEST_P(History, AChangeThatIsNotThereCannotBeUndone) {
  Batch inverse;
  CommitResult result;
  EXPECT_EQ(root_->undo(0, {}, &inverse, &result).code(), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(root_->undo(99, {}, &inverse, &result).code(), PRTKV_INVALID_ARGUMENT);
}

// Random changes: each retained state is read again, and each change undone right after it was made.
TEST_P(History, RandomChangesAreRetainedAndUndone) {
  std::minstd_rand random(42);
  const auto pick = [&](unsigned count) { return static_cast<unsigned>(random()) % count; };
  const auto name = [&] {
    std::string made(1, static_cast<char>('a' + pick(3)));
    for (unsigned depth = pick(3); depth > 0; --depth) made += "." + std::string(1, static_cast<char>('a' + pick(3)));
    return made;
  };
  const auto operation = [&]() -> Operation {
    switch (pick(6)) {
      case 0:
        return {.kind = Operation::Kind::kRemove, .name = name(), .recursive = true};
      case 1:
        return {.kind = Operation::Kind::kMove, .name = name(), .target = name(), .replace = pick(2) == 0};
      case 2:
        return {.kind = Operation::Kind::kCopy,
                .name = name(),
                .target = name(),
                .recursive = pick(2) == 0,
                .replace = pick(2) == 0};
      case 3:
        return {.kind = Operation::Kind::kSecurity,
                .name = name(),
                .security = owned_by("bob", "users", 0x3f, 0, static_cast<std::int32_t>(pick(64))),
                .recursive = pick(2) == 0};
      case 4:
        return {.kind = Operation::Kind::kPut, .name = name(), .value = {}, .create_parents = true};
      default:
        return {.kind = Operation::Kind::kPut,
                .name = name(),
                .value = text(std::to_string(pick(1000))),
                .create_parents = true};
    }
  };
  std::map<Revision, std::vector<std::string>> states{{latest(), everything(*root_)}};
  for (int step = 0; step < 150; ++step) {
    Batch batch{.new_keys = open_keys()};
    for (unsigned count = 1 + pick(3); count > 0; --count) batch.operations.push_back(operation());
    CommitResult result;
    const std::vector<std::string> before = everything(*root_);
    const Revision revision = latest();
    if (!commit(batch, &result).ok() || result.revision == revision) continue;
    states[result.revision] = everything(*root_);
    if (pick(3) != 0) continue;
    undo(result.revision);
    states[latest()] = everything(*root_);
    ASSERT_EQ(everything(*root_), before) << "step " << step;
  }
  EXPECT_GT(states.size(), 50U);
  for (const auto& [revision, state] : states) {
    std::unique_ptr<Snapshot> snapshot;
    ASSERT_EQ(root_->at(revision, &snapshot), Status());
    ASSERT_EQ(everything(*snapshot), state) << "revision " << revision;
  }
}

TEST_P(History, AWaitIsEndedByAnyChange) {
  make("a");
  const Revision before = latest();
  std::jthread writer([&] { set("a", "1"); });
  Revision revision = 0;
  EXPECT_EQ(bob_->wait(before, milliseconds(30'000), {}, &revision), Status());
  EXPECT_GT(revision, before);
}

}  // namespace tkv::registry
