// The tree of keys: what each operation does, needs and returns, and what remains when the store fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "registry/known_keys.h"
#include "registry/lost_names.h"
#include "registry/tree.h"
#include "registry_fixture.h"

namespace tkv::registry {
namespace {

using store::Call;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Change = std::function<Status(Writer&)>;

class Tree : public ::testing::Test {
 protected:
  Status write(const Identity& identity, const Change& change) { return ground_.tree(identity).write(change); }
  Status write(const Change& change) { return write(superuser(), change); }

  Ground ground_;
  store::NodeId id_ = store::kNoNode;
};

std::string deep_name(std::size_t levels) {
  std::string name = "l";
  for (std::size_t level = 1; level < levels; ++level) name += ".l";
  return name;
}

TEST_F(Tree, CreateMakesAKeyWithItsSecurityAndWithoutAValue) {
  const sec_attr security = owned_by("bob", "users", 0x3f, 0x34, 0x3);
  ASSERT_TRUE(write([&](Writer& tree) { return tree.create("", "a", security, 0, {}, &id_); }).ok());
  KeyInfo stat;
  ASSERT_TRUE(ground_.tree(superuser()).read([&](Reader& tree) { return tree.stat("a", &stat); }).ok());
  EXPECT_EQ(stat.id, id_);
  EXPECT_EQ(stat.type, 0);
  EXPECT_EQ(stat.size, 0U);
  EXPECT_FALSE(stat.has_subkeys);
  EXPECT_EQ(user_of(stat.security), "bob");
  EXPECT_EQ(stat.security.group_perm, 0x34);
}

TEST_F(Tree, CreateTakesANameOfSeveralLevels) {
  ground_.make("a");
  ground_.make("a.b");
  ASSERT_TRUE(write([&](Writer& tree) { return tree.create("a", "b.c", open_to_all(), 0, {}, &id_); }).ok());
  EXPECT_TRUE(ground_.has("a.b.c"));
  const Status status = write([&](Writer& tree) { return tree.create("a", "x.y", open_to_all(), 0, {}, &id_); });
  EXPECT_EQ(status.code(), PRTKV_NO_SUCH_KEY);
  EXPECT_EQ(status.text(), "key 'a.x' does not exist");
}

TEST_F(Tree, CreateRefusesWhatCannotBe) {
  ground_.make("a");
  const auto create = [&](const char* parent, const std::string& name, const sec_attr& security) {
    return write([&](Writer& tree) { return tree.create(parent, name, security, 0, {}, &id_); });
  };
  EXPECT_EQ(create("", "a", open_to_all()).code(), PRTKV_KEY_EXISTS);
  EXPECT_EQ(create("", "a", open_to_all()).text(), "key 'a' exists");
  EXPECT_EQ(create("b", "c", open_to_all()).code(), PRTKV_NO_SUCH_KEY);
  EXPECT_EQ(create("", "", open_to_all()).code(), PRTKV_INVALID_NAME);
  EXPECT_EQ(create("", "b..c", open_to_all()).code(), PRTKV_INVALID_NAME);
  EXPECT_EQ(create("a", deep_name(64), open_to_all()).code(), PRTKV_INVALID_NAME);
  EXPECT_EQ(create("", "b", owned_by("", "", 0x40, 0, 0)).code(), PRTKV_INVALID_ARGUMENT);
  const std::vector<std::byte> large(kMaxValueSize + 1);
  const Status status = write([&](Writer& tree) { return tree.create("", "b", open_to_all(), 3, large, &id_); });
  EXPECT_EQ(status.code(), PRTKV_VALUE_TOO_LARGE);
  EXPECT_THAT(ground_.everything(), ElementsAre("a"));
}

TEST_F(Tree, ARefNamesAKeyAndNotItsSuccessorOfTheSameName) {
  const store::NodeId first = ground_.make("a");
  ASSERT_TRUE(write([](Writer& tree) { return tree.remove("a", false); }).ok());
  const store::NodeId second = ground_.make("a");
  Place place;
  const auto resolve = [&](store::NodeId id) {
    return ground_.tree(superuser()).read([&](Reader& tree) { return tree.resolve({"a", id}, &place); });
  };
  EXPECT_EQ(resolve(first).code(), PRTKV_NO_SUCH_KEY);
  EXPECT_TRUE(resolve(second).ok());
  EXPECT_EQ(place.node.id, second);
}

TEST_F(Tree, WalkVisitsEachKeyBeforeItsSubkeysInByteOrder) {
  for (const char* name : {"b", "a", "a.z", "a.b", "a.b.c", "a\x01"}) ground_.make(name);
  EXPECT_THAT(ground_.everything(), ElementsAre("a", "a.b", "a.b.c", "a.z", "a\x01", "b"));
  std::vector<std::string> seen;
  ASSERT_TRUE(ground_.tree(superuser())
                  .read([&](Reader& tree) {
                    return tree.walk("a", {}, [&](const WalkEntry& entry) {
                      seen.push_back(std::string(entry.level) + "@" + std::to_string(entry.depth));
                      return Status();
                    });
                  })
                  .ok());
  EXPECT_THAT(seen, ElementsAre("a@0", "b@1", "c@2", "z@1"));
}

TEST_F(Tree, WalkFailsAtOrPassesOverWhatMayNotBeListed) {
  ground_.make("a", owned_by("alice", "", 0x3f, 0, 0x01));
  ground_.make("a.b");
  ground_.make("leaf", owned_by("alice", "", 0x3f, 0, 0x01));
  std::vector<std::string> seen;
  const auto walk = [&](WalkOptions::Denied denied) {
    WalkOptions options;
    options.denied = denied;
    seen.clear();
    return ground_.tree(person("bob")).read([&](Reader& tree) {
      return tree.walk("", options, [&](const WalkEntry& entry) {
        seen.push_back(std::string(entry.name) + (entry.subkeys_hidden ? " hidden" : ""));
        return Status();
      });
    });
  };
  const Status status = walk(WalkOptions::Denied::kFail);
  EXPECT_EQ(status.code(), PRTKV_ACCESS_DENIED);
  EXPECT_EQ(status.text(), "key 'a': access denied, listing its subkeys needs the right 0x02");
  EXPECT_TRUE(walk(WalkOptions::Denied::kSkip).ok());
  EXPECT_THAT(seen, ElementsAre("", "a hidden", "leaf"));
}

TEST_F(Tree, WalkGoesNoFurtherDownThanItsDepth) {
  for (const char* name : {"a", "a.b", "a.b.c", "a.d", "e"}) ground_.make(name);
  const auto walk = [&](std::size_t depth) {
    std::vector<std::string> seen;
    WalkOptions options;
    options.depth = depth;
    const Status status = ground_.tree(superuser()).read([&](Reader& tree) {
      return tree.walk("", options, [&](const WalkEntry& entry) {
        seen.emplace_back(entry.name);
        return Status();
      });
    });
    EXPECT_TRUE(status.ok());
    return seen;
  };
  EXPECT_THAT(walk(2), ElementsAre("", "a", "a.b", "a.d", "e"));
  EXPECT_THAT(walk(1), ElementsAre("", "a", "e"));
  EXPECT_THAT(walk(0), ElementsAre(""));
}

TEST_F(Tree, WalkComesToTheDeepestKeyThatThereCanBe) {
  std::string name = "a";
  for (std::size_t level = 1; level < kMaxLevels; ++level) {
    ASSERT_NE(ground_.make(name), store::kNoNode) << name;
    name += ".a";
  }
  ASSERT_NE(ground_.make(name), store::kNoNode) << name;
  EXPECT_EQ(ground_.everything().back(), name);
}

TEST_F(Tree, KeysThatHangBelowThemselvesEndAWalkAsDamaged) {
  const store::NodeId a = ground_.make("a");
  ASSERT_TRUE(ground_.store->write([&](store::Update& update) {
                             return update.insert(a, "b", {a, open_to_all()});
                           })
                  .ok());
  const Status status = ground_.tree(superuser()).read([&](Reader& tree) {
    return tree.walk("", {}, [](const WalkEntry&) { return Status(); });
  });
  EXPECT_EQ(status.code(), PRTKV_STORAGE_FAILED);
  EXPECT_TRUE(status.text().ends_with("is damaged: it hangs below itself")) << status.text();
  EXPECT_EQ(write([](Writer& tree) { return tree.copy("a", "c", copying(true, false)); }).code(), PRTKV_INVALID_NAME);
}

TEST_F(Tree, AWriterReportsHowManyKeysItHasProcessed) {
  for (const char* name : {"a", "a.b", "a.b.c", "d"}) ground_.make(name);
  std::vector<std::uint64_t> seen;
  const auto collect = [&](std::uint64_t keys) { seen.push_back(keys); };
  const auto follow = [&](FunctionRef<Status(Writer&)> change) {
    seen.clear();
    return ground_.tree(person("alice")).write([&](Writer& tree) {
      tree.report_to(collect);
      return change(tree);
    });
  };
  store::NodeId id = store::kNoNode;
  EXPECT_TRUE(follow([&](Writer& tree) { return tree.copy("a", "e", copying(true, false)); }).ok());
  EXPECT_THAT(seen, ElementsAre(1, 2, 3));
  const auto same = [](sec_attr*) { return Status(); };
  EXPECT_TRUE(follow([&](Writer& tree) { return tree.change_security("a", true, same); }).ok());
  EXPECT_THAT(seen, ElementsAre(1, 2, 3));
  EXPECT_TRUE(follow([&](Writer& tree) -> Status {
                if (Status set = tree.write_value("a", 3, bytes_of("v")); !set.ok()) return set;
                if (Status set = tree.write_security("d", open_to_all()); !set.ok()) return set;
                return tree.create("", "f", open_to_all(), 0, {}, &id);
              }).ok());
  EXPECT_THAT(seen, ElementsAre(1, 2, 3));
  EXPECT_TRUE(follow([](Writer& tree) { return tree.remove("e", true); }).ok());
  EXPECT_THAT(seen, ElementsAre(1, 2));
}

TEST_F(Tree, RemoveTakesTheWholeSubtreeOrRefuses) {
  for (const char* name : {"a", "a.b", "a.b.c", "d"}) ground_.make(name, open_to_all(), "v");
  const Status status = write([](Writer& tree) { return tree.remove("a", false); });
  EXPECT_EQ(status.code(), PRTKV_HAS_SUBKEYS);
  EXPECT_EQ(status.text(), "key 'a' has subkeys");
  ASSERT_TRUE(write([](Writer& tree) { return tree.remove("a", true); }).ok());
  EXPECT_THAT(ground_.everything(), ElementsAre("d=3:v"));
  EXPECT_EQ(write([](Writer& tree) { return tree.remove("", true); }).code(), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(write([](Writer& tree) { return tree.remove("a", true); }).code(), PRTKV_NO_SUCH_KEY);
}

TEST_F(Tree, RemoveNeedsTheDeleteRightOnEveryKeyAndDoesAllOrNothing) {
  ground_.make("a");
  ground_.make("a.b");
  ground_.make("a.b.kept", owned_by("alice", "", 0x3f, 0, 0x1f));
  const Status status = write(person("bob"), [](Writer& tree) { return tree.remove("a", true); });
  EXPECT_EQ(status.code(), PRTKV_ACCESS_DENIED);
  EXPECT_EQ(status.text(), "key 'a.b.kept': access denied, deleting it needs the right 0x20");
  EXPECT_THAT(ground_.everything(), ElementsAre("a", "a.b", "a.b.kept"));
  EXPECT_TRUE(write(person("alice"), [](Writer& tree) { return tree.remove("a", true); }).ok());
  EXPECT_THAT(ground_.everything(), IsEmpty());
}

TEST_F(Tree, RemoveSeesWhatTheSameUpdateHasMade) {
  ground_.make("a");
  const Status status = write(person("bob"), [&](Writer& tree) {
    Status made = tree.create("a", "mine", owned_by("alice", "", 0x3f, 0, 0), 0, {}, &id_);
    return made.ok() ? tree.remove("a", true) : made;
  });
  EXPECT_EQ(status.code(), PRTKV_ACCESS_DENIED) << "the new key grants bob nothing";
  EXPECT_THAT(ground_.everything(), ElementsAre("a"));
}

TEST_F(Tree, MoveTakesTheSubtreeAlongUnderTheSameIds) {
  const store::NodeId a = ground_.make("a", open_to_all(), "1");
  ground_.make("a.b", open_to_all(), "2");
  ground_.make("c");
  ground_.make("c.d");
  ASSERT_TRUE(write([&](Writer& tree) { return tree.move("a", "c", "d.e", false, &id_); }).ok());
  EXPECT_EQ(id_, a);
  EXPECT_THAT(ground_.everything(), ElementsAre("c", "c.d", "c.d.e=3:1", "c.d.e.b=3:2"));
}

TEST_F(Tree, MoveRefusesAnExistingTargetUnlessItReplaces) {
  ground_.make("a", open_to_all(), "1");
  ground_.make("b", open_to_all(), "2");
  ground_.make("b.c", open_to_all(), "3");
  const auto move = [&](bool replace) {
    return write([&](Writer& tree) { return tree.move("a", "", "b", replace, &id_); });
  };
  EXPECT_EQ(move(false).text(), "key 'b' exists");
  EXPECT_THAT(ground_.everything(), ElementsAre("a=3:1", "b=3:2", "b.c=3:3"));
  EXPECT_TRUE(move(true).ok());
  EXPECT_THAT(ground_.everything(), ElementsAre("b=3:1"));
}

TEST_F(Tree, MoveIntoItselfIsRefused) {
  for (const char* name : {"a", "a.b", "ab"}) ground_.make(name);
  const auto move = [&](const char* parent, const char* name, bool replace) {
    return write([&](Writer& tree) { return tree.move("a", parent, name, replace, &id_); }).code();
  };
  EXPECT_EQ(move("a", "c", false), PRTKV_MOVE_INTO_ITSELF);
  EXPECT_EQ(move("a.b", "c", true), PRTKV_MOVE_INTO_ITSELF);
  EXPECT_EQ(move("", "a", false), PRTKV_MOVE_INTO_ITSELF);
  EXPECT_EQ(move("", "a", true), PRTKV_MOVE_INTO_ITSELF);
  EXPECT_EQ(move("", "a.b", true), PRTKV_MOVE_INTO_ITSELF);
  EXPECT_EQ(move("ab", "a", false), PRTKV_DONE) << "a name that only begins alike is another";
}

TEST_F(Tree, MoveNeverReplacesAnAncestor) {
  ground_.make("a", open_to_all(), "old");
  ground_.make("a.other");
  ground_.make("a.b", open_to_all(), "new");
  ground_.make("a.b.c", open_to_all(), "below");
  const auto move = [&](const char* source, const char* parent, const char* name, bool replace) {
    return write([&](Writer& tree) { return tree.move(source, parent, name, replace, &id_); });
  };
  EXPECT_EQ(move("a.b", "", "a", true).code(), PRTKV_MOVE_INTO_ITSELF);
  EXPECT_EQ(move("a.b", "", "a", true).text(), "key 'a.b' cannot replace key 'a', which it lies below");
  EXPECT_EQ(move("a.b.c", "", "a", true).code(), PRTKV_MOVE_INTO_ITSELF);
  EXPECT_EQ(move("a.b.c", "a", "b", true).code(), PRTKV_MOVE_INTO_ITSELF);
  EXPECT_EQ(move("a.b", "", "a", false).code(), PRTKV_KEY_EXISTS);
  EXPECT_THAT(ground_.everything(), ElementsAre("a=3:old", "a.b=3:new", "a.b.c=3:below", "a.other"));
}

TEST_F(Tree, MoveOfTheRootIsRefused) {
  ground_.make("a");
  EXPECT_EQ(write([&](Writer& tree) { return tree.move("", "a", "r", false, &id_); }).code(), PRTKV_INVALID_ARGUMENT);
}

TEST_F(Tree, MoveLeavesNoKeyWithANameBeyondTheLimits) {
  ground_.make("a");
  ground_.make("a.b");
  std::string deep;
  for (int level = 0; level < 62; ++level) {
    deep += level == 0 ? "l" : ".l";
    ground_.make(deep);
  }
  const Status status = write([&](Writer& tree) { return tree.move("a", deep, "m", false, &id_); });
  EXPECT_EQ(status.code(), PRTKV_DONE) << "64 levels fit";
  ASSERT_TRUE(ground_.has(deep + ".m.b"));
  ground_.make(deep + ".m2");
  EXPECT_EQ(write([&](Writer& tree) { return tree.move(deep + ".m", deep, "m2.x", false, &id_); }).code(),
            PRTKV_INVALID_NAME);
  EXPECT_TRUE(ground_.has(deep + ".m.b"));

  std::string wide;
  for (const char letter : {'p', 'q', 'r'}) {
    wide += (wide.empty() ? "" : ".") + std::string(264, letter);
    ground_.make(wide);
  }
  ground_.make("s");
  ground_.make("s." + std::string(264, 's'));
  const Status too_long = write([&](Writer& tree) { return tree.move("s", wide, "s", false, &id_); });
  EXPECT_EQ(too_long.code(), PRTKV_INVALID_NAME);
  EXPECT_THAT(too_long.text(), HasSubstr("longer or deeper"));
  EXPECT_TRUE(ground_.has("s"));
}

TEST_F(Tree, CopyMakesKeysOfTheirOwn) {
  const sec_attr security = owned_by("bob", "users", 0x3f, 0x01, 0x03);
  const store::NodeId a = ground_.make("a", security, "1");
  ground_.make("a.b", open_to_all(), "2");
  ground_.make("a.b.c");
  ASSERT_TRUE(write([&](Writer& tree) { return tree.copy("a", "z", copying(true, false)); }).ok());
  ASSERT_TRUE(ground_.as(superuser())->find("z", &id_).ok());
  EXPECT_NE(id_, a);
  EXPECT_THAT(ground_.everything(), ElementsAre("a=3:1", "a.b=3:2", "a.b.c", "z=3:1", "z.b=3:2", "z.b.c"));
  sec_attr copied{};
  ASSERT_TRUE(ground_.tree(superuser()).read([&](Reader& tree) { return tree.security("z", &copied); }).ok());
  EXPECT_EQ(user_of(copied), "bob");
  EXPECT_EQ(copied.group_perm, 0x01);
  ASSERT_TRUE(write([&](Writer& tree) { return tree.copy("a", "y", copying(false, false)); }).ok());
  EXPECT_TRUE(ground_.has("y"));
  EXPECT_FALSE(ground_.has("y.b"));
}

TEST_F(Tree, CopyNeedsToReadAndListEveryKey) {
  ground_.make("a");
  ground_.make("a.b", owned_by("alice", "", 0x3f, 0, 0x02), "secret");
  const auto copy = [&] {
    return write(person("bob"), [&](Writer& tree) { return tree.copy("a", "z", copying(true, false)); });
  };
  EXPECT_EQ(copy().text(), "key 'a.b': access denied, copying it needs the right 0x01");
  ASSERT_TRUE(write([](Writer& tree) { return tree.write_security("a.b", owned_by("", "", 0, 0, 0x01)); }).ok());
  EXPECT_TRUE(copy().ok()) << "there is nothing to list below a.b";
  ground_.make("a.b.c");
  ASSERT_TRUE(write([](Writer& tree) { return tree.remove("z", true); }).ok());
  EXPECT_EQ(copy().text(), "key 'a.b': access denied, listing its subkeys needs the right 0x02");
  EXPECT_FALSE(ground_.has("z"));
}

TEST_F(Tree, CopyRefusesItselfAndItsOwnAncestorsPlace) {
  ground_.make("a", open_to_all(), "old");
  ground_.make("a.b", open_to_all(), "new");
  ground_.make("a.b.c", open_to_all(), "below");
  const auto copy = [&](const char* from, const char* to, bool replace) {
    return write([&](Writer& tree) { return tree.copy(from, to, copying(true, replace)); });
  };
  EXPECT_EQ(copy("a", "a.b.x", false).code(), PRTKV_MOVE_INTO_ITSELF);
  EXPECT_EQ(copy("a", "a", true).code(), PRTKV_MOVE_INTO_ITSELF);
  EXPECT_EQ(copy("", "a.x", false).code(), PRTKV_MOVE_INTO_ITSELF);
  EXPECT_EQ(copy("a.b", "a", false).code(), PRTKV_KEY_EXISTS);
  EXPECT_EQ(copy("a.b", "a", true).code(), PRTKV_MOVE_INTO_ITSELF);
  EXPECT_EQ(copy("a.b.c", "a", true).text(), "key 'a.b.c' cannot replace key 'a', which it lies below");
  EXPECT_THAT(ground_.everything(), ElementsAre("a=3:old", "a.b=3:new", "a.b.c=3:below"));
}

TEST_F(Tree, CopyKeepsWithinTheLimits) {
  std::string deep;
  for (int level = 0; level < 63; ++level) {
    deep += level == 0 ? "l" : ".l";
    ground_.make(deep);
  }
  ground_.make("a");
  ground_.make("a.b");
  EXPECT_EQ(write([&](Writer& tree) { return tree.copy("a", deep + ".c", copying(true, false)); }).code(),
            PRTKV_INVALID_NAME);
  EXPECT_FALSE(ground_.has(deep + ".c"));
  EXPECT_EQ(write([&](Writer& tree) { return tree.copy("a", deep + ".c", copying(false, false)); }).code(), PRTKV_DONE);
}

TEST_F(Tree, CopyOfWhatTheSameUpdateHasMadeSeesIt) {
  const Status status = write([&](Writer& tree) {
    store::NodeId made = store::kNoNode;
    if (Status created = tree.create("", "a", open_to_all(), 3, bytes_of("v"), &made); !created.ok()) return created;
    if (Status created = tree.create("a", "b", open_to_all(), 3, bytes_of("w"), &made); !created.ok()) return created;
    return tree.copy("a", "z", copying(true, false));
  });
  ASSERT_EQ(status.code(), PRTKV_DONE);
  EXPECT_THAT(ground_.everything(), ElementsAre("a=3:v", "a.b=3:w", "z=3:v", "z.b=3:w"));
}

TEST_F(Tree, SecurityBelowChangesEveryKeyOrNone) {
  ground_.make("a");
  ground_.make("a.b");
  ground_.make("a.c", owned_by("alice", "", 0x3f, 0, 0x07));
  ground_.make("d");
  const auto give = [&](const Identity& identity) {
    return write(identity, [&](Writer& tree) {
      return tree.change_security("a", true, [](sec_attr* security) {
        security->other_perm = 0x01;
        return Status();
      });
    });
  };
  EXPECT_EQ(give(person("bob")).text(), "key 'a.c': access denied, changing its security needs the right 0x08");
  sec_attr security{};
  const auto mask = [&](const char* name) {
    const Status read = ground_.tree(superuser()).read([&](Reader& tree) { return tree.security(name, &security); });
    return read.ok() ? security.other_perm : -1;
  };
  EXPECT_EQ(mask("a"), 0x3f);
  EXPECT_TRUE(give(person("alice")).ok());
  EXPECT_EQ(mask("a"), 0x01);
  EXPECT_EQ(mask("a.b"), 0x01);
  EXPECT_EQ(mask("a.c"), 0x01);
  EXPECT_EQ(mask("d"), 0x3f);
}

TEST_F(Tree, AttachMakesAStagedTreeVisibleAtOnce) {
  ground_.make("a", open_to_all(), "old");
  ground_.make("a.gone");
  const auto build = [&](bool replace) {
    return write([&](Writer& tree) {
      store::NodeId top = store::kNoNode;
      store::NodeId below = store::kNoNode;
      if (Status status = tree.stage(3, bytes_of("top"), &top); !status.ok()) return status;
      if (Status status = tree.stage_below(top, "b", open_to_all(), 3, bytes_of("below"), &below); !status.ok()) {
        return status;
      }
      return tree.attach(top, open_to_all(), "", "a", replace);
    });
  };
  EXPECT_EQ(build(false).code(), PRTKV_KEY_EXISTS);
  EXPECT_THAT(ground_.everything(), ElementsAre("a=3:old", "a.gone"));
  EXPECT_EQ(build(true).code(), PRTKV_DONE);
  EXPECT_THAT(ground_.everything(), ElementsAre("a=3:top", "a.b=3:below"));
}

TEST_F(Tree, StageBelowTakesOneLevelOnly) {
  const auto stage = [&](const char* level) {
    return write([&](Writer& tree) {
             store::NodeId top = store::kNoNode;
             Status status = tree.stage(0, {}, &top);
             return status.ok() ? tree.stage_below(top, level, open_to_all(), 0, {}, &id_) : status;
           })
        .code();
  };
  EXPECT_EQ(stage("b"), PRTKV_DONE);
  EXPECT_EQ(stage("b.c"), PRTKV_INVALID_NAME);
  EXPECT_EQ(stage(""), PRTKV_INVALID_NAME);
}

// Which right an operation needs, on which key. Each row is tried with all rights but that one on that key, and with
// that one alone there and nothing elsewhere.
struct RightCase {
  const char* claim;
  Rights right;
  const char* on;
  std::function<Status(const BareTree&)> operation;
};

template <typename Operation>
std::function<Status(const BareTree&)> reading(Operation operation) {
  return [operation](const BareTree& tree) { return tree.read(operation); };
}

template <typename Operation>
std::function<Status(const BareTree&)> writing(Operation operation) {
  return [operation](const BareTree& tree) { return tree.write(operation); };
}

store::NodeId ignored_id;
sec_attr ignored_security;
store::Value ignored_value;
KeyInfo ignored_stat;

std::vector<RightCase> right_cases() {
  return {
      {"value", 0x01, "a", reading([](Reader& tree) { return tree.value("a", &ignored_value); })},
      {"security", 0x01, "a", reading([](Reader& tree) { return tree.security("a", &ignored_security); })},
      {"stat", 0x01, "a", reading([](Reader& tree) { return tree.stat("a", &ignored_stat); })},
      {"list", 0x02, "a",
       reading([](Reader& tree) { return tree.list("a", false, [](const Subkey&) { return Status(); }); })},
      {"set value", 0x04, "a", writing([](Writer& tree) { return tree.write_value("a", 3, bytes_of("x")); })},
      {"set security", 0x08, "a", writing([](Writer& tree) { return tree.write_security("a", sec_attr{}); })},
      {"create", 0x10, "a",
       writing([](Writer& tree) { return tree.create("a", "n", sec_attr{}, 0, {}, &ignored_id); })},
      {"remove", 0x20, "a.leaf", writing([](Writer& tree) { return tree.remove("a.leaf", false); })},
  };
}

TEST(TreeRights, EachOperationNeedsItsRightAndNoOther) {
  for (const RightCase& row : right_cases()) {
    SCOPED_TRACE(row.claim);
    for (const bool granted : {true, false}) {
      Ground ground;
      const Rights on = granted ? row.right : 0x3f & ~row.right;
      for (const char* name : {"a", "a.leaf"}) {
        ground.make(name, owned_by("", "", 0, 0, row.on == std::string(name) ? on : 0));
      }
      const Status status = row.operation(ground.tree(person("bob")));
      EXPECT_EQ(status.code(), granted ? PRTKV_DONE : PRTKV_ACCESS_DENIED);
      if (granted) continue;
      EXPECT_THAT(status.text(), HasSubstr("key '" + std::string(row.on) + "': access denied"));
    }
  }
}

TEST(TreeRights, MoveNeedsDeleteOnTheKeyCreateOnTheParentAndDeleteOnWhatItReplaces) {
  struct Row {
    Rights source, parent, target, below;
    prtkv_result code;
  };
  const Row rows[] = {{0x20, 0x10, 0x20, 0x20, PRTKV_DONE},
                      {0x1f, 0x3f, 0x3f, 0x3f, PRTKV_ACCESS_DENIED},
                      {0x3f, 0x2f, 0x3f, 0x3f, PRTKV_ACCESS_DENIED},
                      {0x3f, 0x3f, 0x1f, 0x3f, PRTKV_ACCESS_DENIED},
                      {0x3f, 0x3f, 0x3f, 0x1f, PRTKV_ACCESS_DENIED}};
  for (const Row& row : rows) {
    Ground ground;
    ground.make("source", owned_by("", "", 0, 0, row.source));
    ground.make("source.below", owned_by("", "", 0, 0, 0));
    ground.make("parent", owned_by("", "", 0, 0, row.parent));
    ground.make("parent.target", owned_by("", "", 0, 0, row.target));
    ground.make("parent.target.below", owned_by("", "", 0, 0, row.below));
    store::NodeId id = store::kNoNode;
    const Status status = ground.tree(person("bob")).write([&](Writer& tree) {
      return tree.move("source", "parent", "target", true, &id);
    });
    EXPECT_EQ(status.code(), row.code) << status.text();
    EXPECT_EQ(ground.has("source"), row.code != PRTKV_DONE);
    EXPECT_EQ(ground.has("parent.target.below"), true);
  }
}

TEST(TreeRights, SecurityRightCoversOwnerAndGroup) {
  Ground ground;
  ground.make("a", owned_by("bob", "users", 0x08, 0, 0));
  const Status status = ground.tree(person("bob")).write([](Writer& tree) {
    return tree.write_security("a", owned_by("carol", "wheel", 0x3f, 0x01, 0));
  });
  EXPECT_EQ(status.code(), PRTKV_DONE);
  sec_attr security{};
  ASSERT_TRUE(ground.tree(superuser()).read([&](Reader& tree) { return tree.security("a", &security); }).ok());
  EXPECT_EQ(user_of(security), "carol");
  EXPECT_EQ(group_of(security), "wheel");
}

// Whatever call of the store fails, the operation fails with its code, names a key, and changes nothing.
TEST(TreeFaults, EveryFailingCallOfTheStoreIsReportedAndLeavesEverythingAsItWas) {
  const auto prepare = [](Ground& ground) {
    ground.make("a", open_to_all(), "1");
    ground.make("a.b", open_to_all(), "2");
    ground.make("a.b.c", open_to_all(), "3");
    ground.make("d", open_to_all(), "4");
    ground.make("d.e", open_to_all(), "5");
  };
  store::NodeId id = store::kNoNode;
  const std::vector<std::pair<const char*, Change>> changes = {
      {"create", [&](Writer& tree) { return tree.create("a.b", "n", open_to_all(), 3, bytes_of("x"), &id); }},
      {"set value", [&](Writer& tree) { return tree.write_value("a.b", 3, bytes_of("x")); }},
      {"set security", [&](Writer& tree) { return tree.write_security("a.b", open_to_all()); }},
      {"security below",
       [&](Writer& tree) { return tree.change_security("a", true, [](sec_attr*) { return Status(); }); }},
      {"remove", [&](Writer& tree) { return tree.remove("a", true); }},
      {"remove a leaf", [&](Writer& tree) { return tree.remove("a.b.c", false); }},
      {"move", [&](Writer& tree) { return tree.move("a", "", "longer", false, &id); }},
      {"move and replace", [&](Writer& tree) { return tree.move("a", "", "d", true, &id); }},
      {"copy", [&](Writer& tree) { return tree.copy("a", "z", copying(true, false)); }},
      {"copy and replace", [&](Writer& tree) { return tree.copy("a", "d", copying(true, true)); }}};
  for (const auto& [claim, change] : changes) {
    SCOPED_TRACE(claim);
    for (std::size_t nth = 1; nth < 200; ++nth) {
      Ground ground;
      prepare(ground);
      const std::vector<std::string> before = ground.everything();
      ground.store->fail_any(nth, {PRTKV_STORAGE_FAILED, "the disk is gone"});
      const Status status = ground.tree(person("bob")).write(change);
      ground.store->reset();
      if (status.ok()) {
        EXPECT_GT(nth, 3U) << "at least beginning, a lookup and the commit can fail";
        break;
      }
      EXPECT_EQ(status.code(), PRTKV_STORAGE_FAILED) << "at call " << nth;
      EXPECT_THAT(status.text(), HasSubstr("the disk is gone"));
      EXPECT_EQ(ground.everything(), before) << "at call " << nth;
    }
  }
}

TEST(TreeFaults, FailureOfTheStoreNamesTheKey) {
  Ground ground;
  ground.make("a", open_to_all(), "v");
  ground.store->fail(Call::kValue, 1, {PRTKV_STORAGE_FAILED, "checksum does not match"});
  store::Value value;
  const Status status = ground.tree(superuser()).read([&](Reader& tree) { return tree.value("a", &value); });
  EXPECT_EQ(status.code(), PRTKV_STORAGE_FAILED);
  EXPECT_EQ(status.text(), "key 'a': checksum does not match");
}

TEST(TreeFaults, OperationsSetTheirResultsAnewWhenTheStoreRunsThemTwice) {
  Ground ground;
  ground.make("a");
  ground.make("a.b", open_to_all(), "v");
  ground.store->run_functions_twice();
  store::NodeId id = store::kNoNode;
  EXPECT_EQ(
      ground.tree(superuser()).write([&](Writer& tree) { return tree.copy("a", "z", copying(true, false)); }).code(),
      PRTKV_DONE);
  EXPECT_EQ(ground.tree(superuser()).write([&](Writer& tree) { return tree.move("a", "z", "a", false, &id); }).code(),
            PRTKV_DONE);
  ground.store->reset();
  EXPECT_THAT(ground.everything(), ElementsAre("z", "z.a", "z.a.b=3:v", "z.b=3:v"));
}

TEST(Cache, AnswersWhileTheStructureIsUnchangedAndForgetsAfterAMove) {
  Ground ground;
  ground.make("a");
  ground.make("a.b");
  ground.make("a.b.c", open_to_all(), "first");
  const BareTree registry = ground.tree(superuser());
  DirectoryCache cache;
  const auto read = [&] {
    std::string text;
    const Status status = registry.read(
        [&](Reader& tree) {
          store::Value value;
          Status found = tree.value("a.b.c", &value);
          text = text_of(value);
          return found;
        },
        &cache);
    return status.ok() ? text : status.text();
  };
  EXPECT_EQ(read(), "first");
  ground.store->reset();
  EXPECT_EQ(read(), "first");
  EXPECT_EQ(ground.store->calls(), 3U) << "the read, one lookup and the value";
  store::NodeId id = store::kNoNode;
  ASSERT_TRUE(registry.write([&](Writer& tree) { return tree.move("a.b", "", "moved", false, &id); }).ok());
  EXPECT_EQ(read(), "key 'a.b.c' does not exist");
  ground.make("a.b");
  ground.make("a.b.c", open_to_all(), "second");
  EXPECT_EQ(read(), "second");
}

TEST(RecentNames, KeepsTheNamesInUseAndAtMostTwiceTheLeastNumber) {
  constexpr std::size_t kLeast = 100;
  RecentNames<int> names(kLeast);
  const auto find = [&](const std::string& name) { return names.find(name, RecentNames<int>::hash(name)); };
  for (int number = 0; number < 1000; ++number) {
    const std::string name = "n" + std::to_string(number);
    ASSERT_EQ(find(name), nullptr);
    names.add(name, RecentNames<int>::hash(name), number);
    ASSERT_NE(find("n0"), nullptr) << "used all the time, and lost after " << number << " names";
    EXPECT_EQ(*find("n0"), 0);
    ASSERT_NE(find(name), nullptr);
    EXPECT_EQ(*find(name), number);
  }
  std::size_t kept = 0;
  for (int number = 0; number < 1000; ++number) kept += find("n" + std::to_string(number)) != nullptr ? 1 : 0;
  EXPECT_GE(kept, kLeast);
  EXPECT_LE(kept, 2 * kLeast);
  names.clear();
  EXPECT_EQ(find("n0"), nullptr);
}

TEST(RecentNames, FindsNamesInWhateverOrderTheyAreLookedUp) {
  constexpr int kNames = 300;
  RecentNames<int> names(100'000);
  const auto expect_found = [&](int number) {
    const std::string name = "n" + std::to_string(number);
    const int* const found = names.find(name, RecentNames<int>::hash(name));
    if (number >= kNames) {
      EXPECT_EQ(found, nullptr) << name;
    } else {
      ASSERT_NE(found, nullptr) << name;
      EXPECT_EQ(*found, number);
    }
  };
  for (int number = 0; number < kNames; ++number) {
    const std::string name = "n" + std::to_string(number);
    names.add(name, RecentNames<int>::hash(name), number);
  }
  for (int round = 0; round < 2; ++round)
    for (int number = 0; number <= kNames; ++number) expect_found(number);
  for (int number = kNames; number >= 0; --number) expect_found(number);
  for (int number = 0; number < kNames; ++number) {
    expect_found(number * 7 % kNames);
    expect_found(number);
    expect_found(kNames + number);
    expect_found(number);
  }
}

TEST(RecentNames, KeepsNamesOfEveryLength) {
  constexpr std::size_t kLongest = 1023;
  RecentNames<int> names(kLongest + 1);
  const auto find = [&](const std::string& name) { return names.find(name, RecentNames<int>::hash(name)); };
  for (std::size_t length = 0; length <= kLongest; ++length) {
    const std::string name(length, 'n');
    names.add(name, RecentNames<int>::hash(name), static_cast<int>(length));
  }
  for (std::size_t length = 0; length <= kLongest; ++length) {
    std::string name(length, 'n');
    ASSERT_NE(find(name), nullptr) << length;
    EXPECT_EQ(*find(name), static_cast<int>(length));
    if (length == 0) continue;
    name.back() = 'o';
    EXPECT_EQ(find(name), nullptr) << "differs in the last of " << length << " characters";
  }
}

TEST(RecentNames, LosesNoneAndMixesUpNoneHoweverFullItsTableIs) {
  constexpr std::size_t kNames = 210;  // the table grows several times, each time when it is as full as it gets
  constexpr std::size_t kOnes = ~std::size_t{0};
  using Hash = std::size_t (*)(std::size_t number);
  const Hash hashes[] = {
      [](std::size_t number) { return RecentNames<std::size_t>::hash(std::to_string(number)); },
      [](std::size_t /*number*/) { return kOnes; },
      [](std::size_t number) { return kOnes << 32 | number; },
      [](std::size_t number) { return number << 32 | kOnes >> 32; },
  };
  bool is_old = false;
  for (const Hash hash : hashes) {
    RecentNames<std::size_t> names(kNames);
    const auto peek = [&](std::size_t number) { return names.peek(std::to_string(number), hash(number), &is_old); };
    for (std::size_t count = 0; count < kNames; ++count) {
      ASSERT_EQ(peek(count), nullptr);
      names.add(std::to_string(count), hash(count), count);
      for (std::size_t number = 0; number <= count; ++number) {
        ASSERT_NE(peek(number), nullptr) << number << " of " << count + 1;
        ASSERT_EQ(*peek(number), number) << "of " << count + 1;
      }
    }
  }
}

TEST(RecentNames, FindsEachOfManyNames) {
  constexpr std::size_t kLeast = 131'072;
  constexpr std::size_t kNames = kLeast + 10'000;
  RecentNames<std::size_t> names(kLeast);
  const auto name_of = [](std::size_t number) { return "n" + std::to_string(number); };
  bool is_old = false;
  const auto peek = [&](std::size_t number) {
    const std::string name = name_of(number);
    return names.peek(name, RecentNames<std::size_t>::hash(name), &is_old);
  };
  for (std::size_t number = 0; number < kNames; ++number) {
    const std::string name = name_of(number);
    names.add(name, RecentNames<std::size_t>::hash(name), number);
  }
  for (std::size_t number = 0; number < kNames; ++number) {
    const std::size_t* const found = peek(number);
    ASSERT_NE(found, nullptr) << number;
    ASSERT_EQ(*found, number);
    ASSERT_EQ(is_old, number < kLeast) << number;
  }
  for (std::size_t number = kNames; number < 2 * kNames; ++number) ASSERT_EQ(peek(number), nullptr) << number;
}

TEST(RecentNames, TellsNamesWithTheSameHashApart) {
  constexpr std::size_t kHash = 7;
  RecentNames<int> names(10);
  names.add("a", kHash, 1);
  names.add("b", kHash, 2);
  ASSERT_NE(names.find("a", kHash), nullptr);
  ASSERT_NE(names.find("b", kHash), nullptr);
  EXPECT_EQ(*names.find("a", kHash), 1);
  EXPECT_EQ(*names.find("b", kHash), 2);
  EXPECT_EQ(names.find("c", kHash), nullptr);
  EXPECT_EQ(*names.find("a", kHash), 1);
}

// Looks a key up in this state as a session does, and finds that its id is 7. Returns what was known of it before.
std::optional<KnownKey> look_up(KnownKeys& keys, std::string_view name, std::uint64_t state) {
  const std::size_t hash = KnownKeys::hash(name);
  const KnownKey* const found = keys.find(name, hash);
  const std::optional<KnownKey> before = found == nullptr ? std::nullopt : std::optional(*found);
  KnownKey known = before ? *before : keys.begin(hash);
  known.id = 7;
  known.state = state;
  keys.note(name, hash, known);
  return before;
}

TEST(KnownKeys, TakesAKeyInWhenItIsLookedUpForTheSecondTime) {
  KnownKeys keys;
  EXPECT_FALSE(keys.begin(KnownKeys::hash("c")).is_kept);
  EXPECT_TRUE(keys.begin(KnownKeys::hash("c")).is_kept);
  EXPECT_FALSE(look_up(keys, "a", 1));
  EXPECT_FALSE(look_up(keys, "a", 2));
  const std::optional<KnownKey> known = look_up(keys, "a", 3);
  ASSERT_TRUE(known);
  EXPECT_EQ(known->id, 7U);
  EXPECT_EQ(known->state, 2U);
  EXPECT_EQ(look_up(keys, "a", 4)->state, 3U);
}

TEST(KnownKeys, TakesNothingInAsLongAsStatesHaveNoNumbers) {
  KnownKeys keys;
  for (int times = 0; times < 3; ++times) {
    EXPECT_FALSE(look_up(keys, "a", 0));
    EXPECT_FALSE(keys.begin(KnownKeys::hash("b")).is_kept) << "nor are names remembered that were seen";
  }
  EXPECT_FALSE(look_up(keys, "a", 1));
  EXPECT_FALSE(look_up(keys, "a", 2));
  EXPECT_TRUE(look_up(keys, "a", 3));
}

// A program that reads all of its keys by turns knows them all before long.
TEST(KnownKeys, TakesInMostOfManyKeysThatAreReadByTurns) {
  constexpr std::size_t kMany = 100'000;
  KnownKeys keys;
  std::size_t found = 0;
  for (int pass = 0; pass < 3; ++pass) {
    found = 0;
    for (std::size_t number = 0; number < kMany; ++number) {
      found += look_up(keys, "group.key" + std::to_string(number), 1) ? 1 : 0;
    }
  }
  EXPECT_GT(found, kMany * 3 / 4);
}

TEST(LostNames, AreForgottenTogetherExceptForThosePrepared) {
  LostNames lost;
  lost.prepare("a");
  lost.prepare("b");
  const std::uint64_t before = lost.now();
  lost.add("a");
  EXPECT_TRUE(lost.holds("a.below", before));
  EXPECT_FALSE(lost.holds("a.below", lost.now()));
  EXPECT_FALSE(lost.holds("b", before));
  lost.clear();
  EXPECT_EQ(lost.size(), 1U) << "the deletion of b is under way";
  EXPECT_FALSE(lost.holds("a", before));
  lost.add("b");
  EXPECT_TRUE(lost.holds("b", before));
  lost.clear();
  EXPECT_EQ(lost.size(), 0U);
  lost.prepare("c");
  lost.give_up("c");
  EXPECT_FALSE(lost.holds("c", before));
  lost.clear();
  EXPECT_EQ(lost.size(), 0U);
}

TEST(Cache, KnowsNothingOfAStoreThatCannotTell) {
  DirectoryCache cache;
  cache.find(0, "a");
  cache.keep(0, "a", {7, 70});
  EXPECT_EQ(cache.find(0, "a").id, store::kNoNode);
  cache.find(5, "a");
  cache.keep(5, "a", {7, 70});
  EXPECT_EQ(cache.find(5, "a").id, 7U);
  EXPECT_EQ(cache.find(5, "a").route, 70U);
  EXPECT_EQ(cache.find(6, "a").id, store::kNoNode);
  EXPECT_EQ(cache.find(5, "a").id, store::kNoNode) << "the former structure is forgotten";
}

}  // namespace
}  // namespace tkv::registry
