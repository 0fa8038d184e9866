// The client's operations as callers see them, on a store in memory that runs each function twice.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "registry/name.h"
#include "registry_fixture.h"

namespace tkv::registry {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Kind = KeyChange::Kind;

constexpr auto ignore_progress = [](std::uint64_t) {};
constexpr auto ignore_step = [](const CheckStep&) {};

sec_attr of_bob(std::int32_t user_mask = 0x3f, std::int32_t group_mask = 0, std::int32_t other_mask = 0) {
  return owned_by("bob", "users", user_mask, group_mask, other_mask);
}

// "bob:users 3f,34,3".
std::string shown(const sec_attr& security) {
  char masks[64];
  (void)std::snprintf(masks, sizeof masks, " %x,%x,%x", security.user_perm, security.group_perm, security.other_perm);
  return std::string(user_of(security)) + ":" + std::string(group_of(security)) + masks;
}

KeyRecord record(const std::string& name, const std::string& text = "", const sec_attr& security = open_to_all()) {
  KeyRecord key;
  key.name = name;
  key.security = security;
  if (!text.empty()) key.value = {PRTKV_TYPE_TEXT, text};
  return key;
}

// "+a", "~a.b", "-a.c".
std::vector<std::string> shown(const Difference& difference) {
  std::vector<std::string> lines;
  for (const KeyChange& change : difference.changes) {
    const char* sign = change.kind == Kind::kAdd ? "+" : change.kind == Kind::kRemove ? "-" : "~";
    lines.push_back(sign + change.name());
  }
  return lines;
}

class ClientTest : public ::testing::Test {
 protected:
  ClientTest() {
    ground_.make("a", open_to_all(), "one");
    ground_.make("a.b", open_to_all(), "two");
    ground_.make("a.b.c");
    ground_.store->run_functions_twice();
  }

  std::string security_of(const KeyRef& key) {
    sec_attr security{};
    const Status status = root_->read_security(key, &security);
    return status.ok() ? shown(security) : status.text();
  }

  Ground ground_;
  std::shared_ptr<Client> bob_ = ground_.as(person("bob", {"users"}));
  std::shared_ptr<Client> root_ = ground_.as(superuser());
};

// One key

TEST_F(ClientTest, FindGivesTheIdAndTellsAnotherKeyOfTheSameNameApart) {
  KeyId id = 77;
  EXPECT_EQ(bob_->find("a.x", &id).text(), "key 'a.x' does not exist");
  EXPECT_EQ(id, 77U);
  ASSERT_TRUE(bob_->find("a.b", &id).ok());
  KeyId again = 0;
  EXPECT_TRUE(bob_->find({"a.b", id}, &again).ok());
  EXPECT_EQ(again, id);
  EXPECT_EQ(bob_->find({"a.b", id + 100}, &again).code(), PRTKV_NO_SUCH_KEY);
}

TEST_F(ClientTest, StatTellsEverythingButTheBytes) {
  KeyInfo info;
  ASSERT_TRUE(bob_->stat("a.b", &info).ok());
  KeyId id = 0;
  ASSERT_TRUE(bob_->find("a.b", &id).ok());
  EXPECT_EQ(info.id, id);
  EXPECT_EQ(shown(info.security), "alice:staff 3f,3f,3f");
  EXPECT_EQ(info.rights, TKV_RIGHT_ALL);
  EXPECT_EQ(info.type, PRTKV_TYPE_TEXT);
  EXPECT_EQ(info.size, 3U);
  EXPECT_TRUE(info.has_subkeys);
  ASSERT_TRUE(bob_->stat("a.b.c", &info).ok());
  EXPECT_EQ(info.type, PRTKV_TYPE_NONE);
  EXPECT_EQ(info.size, 0U);
  EXPECT_FALSE(info.has_subkeys);
}

TEST_F(ClientTest, ReadValueGivesTypeAndBytes) {
  TypedValue value{9, "former"};
  ASSERT_TRUE(bob_->read_value("a", &value).ok());
  EXPECT_EQ(value, (TypedValue{PRTKV_TYPE_TEXT, "one"}));
  ASSERT_TRUE(bob_->read_value("a.b.c", &value).ok());
  EXPECT_EQ(value, TypedValue{});
}

TEST_F(ClientTest, ReadKnownGivesTheSizeAndOnlyBytesThatFit) {
  KnownKey known;
  std::array<std::byte, 4> buffer{};
  std::int32_t type = 9;
  std::size_t size = 0;
  ASSERT_TRUE(bob_->look_up("a", &known).ok());
  ASSERT_TRUE(bob_->read_known("a", &known, std::span(buffer).first(2), &type, &size).ok());
  EXPECT_EQ(size, 3U);
  EXPECT_EQ(type, 9);
  EXPECT_EQ(buffer, (std::array<std::byte, 4>{}));
  ASSERT_TRUE(bob_->read_known("a", &known, buffer, &type, &size).ok());
  EXPECT_EQ(size, 3U);
  EXPECT_EQ(type, PRTKV_TYPE_TEXT);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.data())), "one");
}

TEST_F(ClientTest, CreateMakesAKeyWithItsValueAndSecurity) {
  KeyId id = 0;
  ASSERT_TRUE(bob_->create("a", "new", of_bob(), 3, bytes_of("text"), &id).ok());
  KeyId found = 0;
  ASSERT_TRUE(bob_->find("a.new", &found).ok());
  EXPECT_EQ(found, id);
  EXPECT_EQ(security_of("a.new"), "bob:users 3f,0,0");
  EXPECT_EQ(ground_.value("a.new"), "text");
  EXPECT_EQ(bob_->create("a", "new", of_bob(), 3, bytes_of("text"), &id).text(), "key 'a.new' exists");
}

TEST_F(ClientTest, WritesReplaceValueAndSecurity) {
  ASSERT_TRUE(bob_->write_value("a", 5, bytes_of("other")).ok());
  ASSERT_TRUE(bob_->write_security("a", of_bob(1, 2, 4)).ok());
  EXPECT_THAT(ground_.everything(), ElementsAre("a=5:other", "a.b=3:two", "a.b.c"));
  EXPECT_EQ(security_of("a"), "bob:users 1,2,4");
}

TEST_F(ClientTest, PutCreatesAndWritesSeveralKeysAllOrNothing) {
  PutOptions options;
  options.security.initial = of_bob();
  const NamedValue both[] = {{"a", {3, "new"}}, {"x", {3, "text"}}};
  ASSERT_TRUE(bob_->put(both, options).ok());
  EXPECT_THAT(ground_.everything(), ElementsAre("a=3:new", "a.b=3:two", "a.b.c", "x=3:text"));
  EXPECT_EQ(security_of("x"), "bob:users 3f,0,0");
  const NamedValue second_fails[] = {{"a", {3, "newer"}}, {"no.parent", {3, "text"}}};
  EXPECT_EQ(bob_->put(second_fails, options).code(), PRTKV_NO_SUCH_KEY);
  EXPECT_EQ(ground_.value("a"), "new");
}

TEST_F(ClientTest, PutOfNoValueCreatesAKeyAndLeavesOneThatExists) {
  const NamedValue values[] = {{"a", {}}, {"x", {}}};
  PutOptions options;
  options.security.initial = of_bob();
  ASSERT_TRUE(bob_->put(values, options).ok());
  EXPECT_THAT(ground_.everything(), ElementsAre("a=3:one", "a.b=3:two", "a.b.c", "x"));
}

TEST_F(ClientTest, PutCanDemandThatKeysAreNewOrExist) {
  PutOptions options;
  options.security.initial = of_bob();
  const NamedValue existing[] = {{"a", {3, "new"}}};
  const NamedValue fresh[] = {{"x", {3, "new"}}};
  const NamedValue root[] = {{"", {}}};
  options.key = PutOptions::Key::kMustBeNew;
  EXPECT_EQ(bob_->put(existing, options).text(), "key 'a' exists");
  EXPECT_EQ(bob_->put(root, options).text(), "the root key exists");
  EXPECT_TRUE(bob_->put(fresh, options).ok());
  options.key = PutOptions::Key::kMustExist;
  EXPECT_TRUE(bob_->put(existing, options).ok());
  const NamedValue missing[] = {{"y", {3, "new"}}};
  EXPECT_EQ(bob_->put(missing, options).text(), "key 'y' does not exist");
}

TEST_F(ClientTest, PutCreatesParentsWithTheSameSecurityAndWithoutValues) {
  PutOptions options;
  options.create_parents = true;
  options.security.initial = of_bob(0x3f, 0x3, 0x1);
  const NamedValue values[] = {{"x.y.z", {3, "text"}}};
  ASSERT_TRUE(bob_->put(values, options).ok());
  EXPECT_THAT(ground_.everything(), ElementsAre("a=3:one", "a.b=3:two", "a.b.c", "x", "x.y", "x.y.z=3:text"));
  for (const char* name : {"x", "x.y", "x.y.z"}) EXPECT_EQ(security_of(name), "bob:users 3f,3,1") << name;
}

TEST_F(ClientTest, PutInheritsMasksAndGroupAndChangesThem) {
  ground_.make("p", owned_by("carol", "staff", 0x3f, 0x11, 0x3f));
  PutOptions options;
  options.create_parents = true;
  options.security.initial = of_bob(0x1, 0x1, 0x1);
  options.security.inherit = true;
  const NamedValue values[] = {{"p.q.r", {}}};
  ASSERT_TRUE(bob_->put(values, options).ok());
  EXPECT_EQ(security_of("p.q.r"), "bob:staff 3f,11,3") << "others never inherit all rights";
  options.security.change.group = "wheel";
  options.security.change.group_mask = {0x10, 0x2};
  const NamedValue more[] = {{"p.s", {}}};
  ASSERT_TRUE(bob_->put(more, options).ok());
  EXPECT_EQ(security_of("p.s"), "bob:wheel 3f,3,3");
}

TEST_F(ClientTest, PutThatInheritsNeedsToReadTheParent) {
  ground_.make("p", owned_by("carol", "", 0, 0, TKV_RIGHT_CREATE));
  PutOptions options;
  options.security.initial = of_bob();
  options.security.inherit = true;
  const NamedValue values[] = {{"p.q", {}}};
  EXPECT_EQ(bob_->put(values, options).text(), "key 'p': access denied, reading its security needs the right 0x01");
  EXPECT_FALSE(ground_.has("p.q"));
}

// Subtrees

TEST_F(ClientTest, ListGivesSubkeysInByteOrderUntilTheVisitorFails) {
  for (const char* name : {"z", "Z", "m"}) ground_.make(name);
  std::vector<std::string> levels;
  const auto collect = [&](const Subkey& subkey) {
    KeyId id = 0;
    EXPECT_TRUE(root_->find(std::string(subkey.level), &id).ok());
    EXPECT_EQ(subkey.info.id, id);
    levels.emplace_back(subkey.level);
    return levels.size() < 3 ? Status() : Status(PRTKV_UNKNOWN, "enough");
  };
  EXPECT_EQ(bob_->list("", false, collect).text(), "enough");
  EXPECT_THAT(levels, ElementsAre("Z", "a", "m"));
}

TEST_F(ClientTest, ListWithInfosHidesWhatMayNotBeRead) {
  ground_.make("hidden", owned_by("carol", "wheel", 0x3f, 0, TKV_RIGHT_LIST), "secret");
  ground_.make("hidden.below");
  std::vector<KeyInfo> infos;
  ASSERT_TRUE(bob_->list("", true,
                         [&](const Subkey& subkey) {
                           infos.push_back(subkey.info);
                           return Status();
                         })
                  .ok());
  ASSERT_EQ(infos.size(), 2U);
  EXPECT_EQ(infos[0].size, 3U);
  EXPECT_EQ(infos[0].type, 3);
  EXPECT_TRUE(infos[0].has_subkeys);
  EXPECT_EQ(shown(infos[0].security), "alice:staff 3f,3f,3f");
  EXPECT_NE(infos[1].id, kAnyKey);
  EXPECT_EQ(infos[1].rights, TKV_RIGHT_LIST);
  EXPECT_EQ(infos[1].size, 0U);
  EXPECT_EQ(infos[1].type, 0);
  EXPECT_FALSE(infos[1].has_subkeys);
  EXPECT_EQ(shown(infos[1].security), ": 0,0,0");
}

// Each entry of a walk as "name@depth", with "=value", "!" if its subkeys are hidden, "?" if it may not be read.
std::vector<std::string> walked(Client& client, const KeyRef& key, const WalkOptions& options, Status* status) {
  std::vector<std::string> lines;
  *status = client.walk(key, options, [&](const WalkEntry& entry) {
    std::string line = std::string(entry.name) + "@" + std::to_string(entry.depth);
    if (entry.type != 0) line.append("=").append(reinterpret_cast<const char*>(entry.value.data()), entry.value.size());
    if (entry.subkeys_hidden) line += "!";
    if ((entry.rights & TKV_RIGHT_READ) == 0) line += "?";
    EXPECT_EQ(entry.level, last_level(entry.name));
    EXPECT_EQ(user_of(entry.security).empty(), (entry.rights & TKV_RIGHT_READ) == 0);
    lines.push_back(line);
    return Status();
  });
  return lines;
}

TEST_F(ClientTest, WalkVisitsKeysBeforeTheirSubkeys) {
  Status status;
  ground_.make("ab");
  EXPECT_THAT(walked(*bob_, "", {}, &status), ElementsAre("@0", "a@1", "a.b@2", "a.b.c@3", "ab@1"));
  EXPECT_TRUE(status.ok());
  EXPECT_THAT(walked(*bob_, "a.b", {}, &status), ElementsAre("a.b@0", "a.b.c@1"));
}

TEST_F(ClientTest, WalkGivesValuesAndStopsAtADepth) {
  Status status;
  WalkOptions options;
  options.values = true;
  options.depth = 1;
  EXPECT_THAT(walked(*bob_, "a", options, &status), ElementsAre("a@0=one", "a.b@1=two"));
  options.depth = 0;
  EXPECT_THAT(walked(*bob_, "a", options, &status), ElementsAre("a@0=one"));
}

TEST_F(ClientTest, WalkFailsAtWhatIsDeniedOrPassesOverIt) {
  ground_.make("h", owned_by("carol", "", 0, 0, TKV_RIGHT_LIST), "secret");
  ground_.make("h.readable", open_to_all(), "value");
  ground_.make("l", owned_by("carol", "", 0, 0, TKV_RIGHT_READ), "value");
  ground_.make("l.below");
  Status status;
  WalkOptions options;
  EXPECT_THAT(walked(*bob_, "h", options, &status), ElementsAre("h@0?", "h.readable@1"));
  EXPECT_TRUE(status.ok()) << "without values a walk needs no right to read";
  EXPECT_THAT(walked(*bob_, "l", options, &status), IsEmpty());
  EXPECT_EQ(status.text(), "key 'l': access denied, listing its subkeys needs the right 0x02");
  options.values = true;
  EXPECT_THAT(walked(*bob_, "h", options, &status), IsEmpty());
  EXPECT_EQ(status.text(), "key 'h': access denied, reading its value needs the right 0x01");
  options.denied = WalkOptions::Denied::kSkip;
  EXPECT_THAT(walked(*bob_, "h", options, &status), ElementsAre("h@0?", "h.readable@1=value"));
  EXPECT_THAT(walked(*bob_, "l", options, &status), ElementsAre("l@0=value!"));
  EXPECT_TRUE(status.ok());
  options.depth = 0;
  EXPECT_THAT(walked(*bob_, "l", options, &status), ElementsAre("l@0=value")) << "nothing below was asked for";
}

TEST_F(ClientTest, CompareFindsWhatHasToChange) {
  const Subtree wanted{"a", {record("a", "one"), record("a.b", "changed"), record("a.d")}};
  Difference difference;
  ASSERT_TRUE(bob_->compare(wanted, MergeMode::kReplace, {}, ignore_progress, &difference).ok());
  EXPECT_THAT(shown(difference), ElementsAre("~a.b", "-a.b.c", "+a.d"));
  EXPECT_EQ(difference.keys, 3U);
  EXPECT_EQ(difference.count(Kind::kAdd), 1U);
  ASSERT_TRUE(bob_->compare(wanted, MergeMode::kMerge, {}, ignore_progress, &difference).ok());
  EXPECT_THAT(shown(difference), ElementsAre("~a.b", "+a.d"));
  EXPECT_EQ(difference.keys, 4U);
  EXPECT_EQ(difference.changes[0].before.value.bytes, "two");
  EXPECT_EQ(difference.changes[0].after.value.bytes, "changed");
  const Status status = bob_->compare(wanted, MergeMode::kAdd, {}, ignore_progress, &difference);
  EXPECT_EQ(status.code(), PRTKV_KEY_EXISTS);
  EXPECT_EQ(status.text(), "key 'a.b' exists and differs");
  EXPECT_THAT(shown(difference), ElementsAre("~a.b", "+a.d"));
}

TEST_F(ClientTest, CompareNamesThreeOfTheKeysThatDiffer) {
  Subtree wanted{"", {record("", "new")}};
  for (const char* name : {"a", "k", "l", "m"}) {
    ground_.make(name);
    wanted.keys.push_back(record(name, "new"));
  }
  Difference difference;
  EXPECT_EQ(bob_->compare(wanted, MergeMode::kAdd, {}, ignore_progress, &difference).text(),
            "the root key, key 'a', key 'k' and 2 more exist and differ");
}

TEST_F(ClientTest, CompareWithATopThatDoesNotExistAddsEverything) {
  const Subtree wanted{"x.y", {record("x.y"), record("x.y.z")}};
  Difference difference;
  ASSERT_TRUE(bob_->compare(wanted, MergeMode::kAdd, {}, ignore_progress, &difference).ok());
  EXPECT_THAT(shown(difference), ElementsAre("+x.y", "+x.y.z"));
}

TEST_F(ClientTest, ApplyMakesTheDifferenceAndCountsIt) {
  const Subtree wanted{"a", {record("a", "one"), record("a.b", "changed"), record("a.d"), record("a.d.e", "deep")}};
  Difference difference;
  ApplyOptions options;
  options.mode = MergeMode::kReplace;
  std::uint64_t keys = 0;
  ASSERT_TRUE(bob_->apply(
                      wanted, options, [&](std::uint64_t count) { keys = count; }, &difference)
                  .ok());
  EXPECT_THAT(shown(difference), ElementsAre("~a.b", "-a.b.c", "+a.d", "+a.d.e"));
  EXPECT_THAT(ground_.everything(), ElementsAre("a=3:one", "a.b=3:changed", "a.d", "a.d.e=3:deep"));
  EXPECT_EQ(keys, 3U);
}

TEST_F(ClientTest, ApplyChangesNothingBeyondTheExpectedNumbers) {
  const Subtree wanted{"a", {record("a", "new")}};
  Difference difference;
  ApplyOptions options;
  options.mode = MergeMode::kReplace;
  options.max_removed = 1;
  EXPECT_EQ(bob_->apply(wanted, options, ignore_progress, &difference).code(), PRTKV_KEY_EXISTS);
  options.max_removed = 2;
  options.max_changed = 0;
  EXPECT_EQ(bob_->apply(wanted, options, ignore_progress, &difference).code(), PRTKV_KEY_EXISTS);
  EXPECT_THAT(difference.changes, IsEmpty());
  EXPECT_THAT(ground_.everything(), ElementsAre("a=3:one", "a.b=3:two", "a.b.c"));
  options.max_changed = 1;
  EXPECT_TRUE(bob_->apply(wanted, options, ignore_progress, &difference).ok());
  EXPECT_THAT(ground_.everything(), ElementsAre("a=3:new"));
}

TEST_F(ClientTest, ApplyGivesNewKeysWhatTheirRecordsLeaveOut) {
  KeyRecord key = record("x.y", "text", owned_by("carol", "wheel", 1, 1, 1));
  key.has_owner = key.has_mode = false;
  Difference difference;
  ApplyOptions options;
  options.create_parents = true;
  options.security.initial = of_bob(0x3f, 0x3f, 0x3);
  ASSERT_TRUE(bob_->apply({"x.y", {key}}, options, ignore_progress, &difference).ok());
  EXPECT_EQ(security_of("x"), "bob:users 3f,3f,3");
  EXPECT_EQ(security_of("x.y"), "bob:wheel 3f,3f,3");
}

TEST_F(ClientTest, ApplyLeavesExistingKeysWhatTheirRecordsLeaveOut) {
  KeyRecord key = record("a", "ignored", of_bob());
  key.has_value = key.has_group = key.has_mode = false;
  Difference difference;
  ApplyOptions options;
  options.mode = MergeMode::kMerge;
  ASSERT_TRUE(bob_->apply({"a", {key}}, options, ignore_progress, &difference).ok());
  EXPECT_EQ(ground_.value("a"), "one");
  EXPECT_EQ(security_of("a"), "bob:staff 3f,3f,3f");
}

TEST_F(ClientTest, ApplyLetsNewKeysInheritFromTheKeyAboveThemAsItWillBe) {
  ground_.make("p", owned_by("carol", "staff", 0x3f, 0x7, 0x1));
  std::vector<KeyRecord> keys = {record("p.q"), record("p.q.given", "", owned_by("dave", "wheel", 0x3f, 0x1, 0)),
                                 record("p.q.given.below"), record("p.q.next")};
  for (const std::size_t at : {0, 2, 3}) keys[at].has_owner = keys[at].has_group = keys[at].has_mode = false;
  Difference difference;
  ApplyOptions options;
  options.security.initial = of_bob();
  options.security.inherit = true;
  ASSERT_TRUE(root_->apply({"p.q", keys}, options, ignore_progress, &difference).ok());
  EXPECT_EQ(security_of("p.q"), "bob:staff 3f,7,1");
  EXPECT_EQ(security_of("p.q.given.below"), "bob:wheel 3f,1,0");
  EXPECT_EQ(security_of("p.q.next"), "bob:staff 3f,7,1");
}

TEST_F(ClientTest, ChangeSecurityOfOneKeyOrOfAllBelowIt) {
  SecurityChange change;
  change.owner = "bob";
  change.other_mask = {0x3f, 0x1};
  std::uint64_t keys = 0;
  const auto count = [&](std::uint64_t now) { keys = now; };
  ASSERT_TRUE(bob_->change_security("a.b", change, false, count).ok());
  EXPECT_EQ(keys, 1U);
  EXPECT_EQ(security_of("a.b"), "bob:staff 3f,3f,1");
  EXPECT_EQ(security_of("a.b.c"), "alice:staff 3f,3f,3f");
  change.group_mask = {0x10, 0};
  ASSERT_TRUE(bob_->change_security("a", change, true, count).ok());
  EXPECT_EQ(keys, 3U);
  for (const char* name : {"a", "a.b", "a.b.c"}) EXPECT_EQ(security_of(name), "bob:staff 3f,2f,1") << name;
}

TEST_F(ClientTest, ChangeSecurityFailsAsAWhole) {
  ground_.make("a.b.d", owned_by("carol", "", 0x3f, 0, 0x37));
  SecurityChange change;
  change.owner_mask = {0x3f, 0};
  EXPECT_EQ(bob_->change_security("a", change, true, ignore_progress).text(),
            "key 'a.b.d': access denied, changing its security needs the right 0x08");
  EXPECT_EQ(security_of("a"), "alice:staff 3f,3f,3f");
  change.owner_mask = {0, 0x40};
  EXPECT_EQ(bob_->change_security("a", change, false, ignore_progress).code(), PRTKV_INVALID_ARGUMENT);
  change = {};
  change.group = std::string(65, 'g');
  EXPECT_EQ(bob_->change_security("a", change, false, ignore_progress).code(), PRTKV_INVALID_ARGUMENT);
}

TEST_F(ClientTest, RemoveDeletesASubtreeOnlyRecursively) {
  EXPECT_EQ(bob_->remove("a", false, ignore_progress).text(), "key 'a' has subkeys");
  EXPECT_TRUE(bob_->remove("a.b", true, ignore_progress).ok());
  EXPECT_THAT(ground_.everything(), ElementsAre("a=3:one"));
  EXPECT_TRUE(bob_->remove("a", false, ignore_progress).ok());
  EXPECT_EQ(bob_->remove("", true, ignore_progress).code(), PRTKV_INVALID_ARGUMENT);
}

TEST_F(ClientTest, MoveKeepsTheId) {
  KeyId before = 0;
  KeyId moved = 0;
  ASSERT_TRUE(bob_->find("a.b", &before).ok());
  EXPECT_TRUE(bob_->move("a.b", "", "z", false, &moved).ok());
  EXPECT_EQ(moved, before);
  EXPECT_THAT(ground_.everything(), ElementsAre("a=3:one", "z=3:two", "z.c"));
}

TEST_F(ClientTest, CopyMakesNewKeysOfTheSameOrTheOwnSecurity) {
  ground_.make("s", owned_by("carol", "staff", 0x3f, 0x1, 0x23), "value");
  ground_.make("s.t", owned_by("dave", "staff", 0x3f, 0x1, 0x23));
  CopyOptions options;
  EXPECT_TRUE(bob_->copy("s", "one", options, ignore_progress).ok());
  options.recursive = true;
  EXPECT_TRUE(bob_->copy("s", "all", options, ignore_progress).ok());
  options.own = true;
  std::uint64_t keys = 0;
  EXPECT_TRUE(bob_->copy("s", "own", options, [&](std::uint64_t count) { keys = count; }).ok());
  EXPECT_EQ(keys, 2U);
  EXPECT_THAT(ground_.everything(), ElementsAre("a=3:one", "a.b=3:two", "a.b.c", "all=3:value", "all.t", "one=3:value",
                                                "own=3:value", "own.t", "s=3:value", "s.t"));
  EXPECT_EQ(security_of("all"), "carol:staff 3f,1,23");
  EXPECT_EQ(security_of("all.t"), "dave:staff 3f,1,23");
  EXPECT_EQ(security_of("own"), "bob:users 3f,1,23");
  EXPECT_EQ(security_of("own.t"), "bob:users 3f,1,23");
  EXPECT_EQ(bob_->copy("s", "all", options, ignore_progress).code(), PRTKV_KEY_EXISTS);
  options.replace = true;
  EXPECT_TRUE(bob_->copy("s", "all", options, ignore_progress).ok());
  EXPECT_EQ(security_of("all.t"), "bob:users 3f,1,23");
}

// The registry as a whole

TEST_F(ClientTest, CheckCountsASoundRegistry) {
  CheckResult result;
  std::string steps;
  ASSERT_TRUE(bob_->check(
                      false, [&](const CheckStep& step) { steps = step.reading; }, &result)
                  .ok());
  EXPECT_EQ(steps, "records");
  EXPECT_EQ(result.keys, 4U);
  EXPECT_EQ(result.values, 2U);
  EXPECT_EQ(result.value_bytes, 6U);
  EXPECT_EQ(result.repaired, 0U);
  EXPECT_THAT(result.damages, IsEmpty());
}

// Writes a node whose parent does not exist, a value without a node, and a second node with the id of "a.b".
void damage(const Ground& ground) {
  const Status status = ground.store->write([](store::Update& update) -> Status {
    store::Node a;
    store::Node b;
    if (Status found = update.find(store::kRootNode, "a", &a); !found.ok()) return found;
    if (Status found = update.find(a.id, "b", &b); !found.ok()) return found;
    if (Status made = update.insert(1000, "lost", {1001, open_to_all()}); !made.ok()) return made;
    if (Status made = update.set_value(2000, 3, bytes_of("stray")); !made.ok()) return made;
    return update.insert(a.id, "twin", {b.id, open_to_all()});
  });
  ASSERT_TRUE(status.ok());
}

TEST_F(ClientTest, CheckNamesWhatIsDamagedAndRepairsWhatItCan) {
  ground_.store->reset();
  damage(ground_);
  CheckResult result;
  ASSERT_TRUE(root_->check(false, ignore_step, &result).ok());
  ASSERT_EQ(result.damages.size(), 4U);
  std::vector<std::string> lines;
  for (const Damage& each : result.damages) {
    lines.push_back(std::to_string(static_cast<int>(each.kind)) + " " + each.name.value_or("(none)") + " " +
                    each.level);
  }
  EXPECT_THAT(lines, ::testing::UnorderedElementsAre("2 (none) lost", "3 (none) ", "4 a.b b", "4 a.twin twin"));
  ASSERT_TRUE(root_->check(true, ignore_step, &result).ok());
  EXPECT_EQ(result.repaired, 2U);
  ASSERT_EQ(result.damages.size(), 2U);
  EXPECT_EQ(result.damages[0].kind, Damage::Kind::kDuplicateId);
  std::vector<std::string> told;
  LogPosition position;
  const auto tell = [&](const ChangeRecord& record) {
    told.push_back(record.author + ": " + record.note);
    return Status();
  };
  ASSERT_TRUE(root_->changes_since({.range = {.newest_first = true}}, tell, &position).ok());
  ASSERT_FALSE(told.empty());
  EXPECT_EQ(told[0], root_->identity().user + ": repair");
}

TEST_F(ClientTest, CheckNeedsRightsOnTheRoot) {
  Ground ground;
  ASSERT_TRUE(ground.as(superuser())->write_security("", owned_by("carol", "", 0x3f, 0, TKV_RIGHT_READ)).ok());
  CheckResult result;
  EXPECT_THAT(ground.as(person("bob"))->check(false, ignore_step, &result).text(),
              HasSubstr("the root key: access denied, checking the registry"));
  ASSERT_TRUE(ground.as(superuser())->write_security("", owned_by("carol", "", 0x3f, 0, 0x3)).ok());
  EXPECT_TRUE(ground.as(person("bob"))->check(false, ignore_step, &result).ok());
  EXPECT_EQ(ground.as(person("bob"))->check(true, ignore_step, &result).code(), PRTKV_ACCESS_DENIED);
  EXPECT_TRUE(ground.as(person("carol"))->check(true, ignore_step, &result).ok());
}

TEST_F(ClientTest, CheckByTheSuperuserGoesOnWithoutTheRoot) {
  ground_.store->reset();
  ground_.store->fail(store::Call::kFind, 1, {PRTKV_STORAGE_FAILED, "damaged"});
  CheckResult result;
  EXPECT_TRUE(root_->check(false, ignore_step, &result).ok());
  ground_.store->fail(store::Call::kFind, 1, {PRTKV_STORAGE_FAILED, "damaged"});
  EXPECT_EQ(bob_->check(false, ignore_step, &result).code(), PRTKV_STORAGE_FAILED);
}

}  // namespace
}  // namespace tkv::registry
