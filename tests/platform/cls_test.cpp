// Cluster services: membership comes from the configuration, the patch level from the registry.
#include "cls.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "registry_fixture.h"
#include "temporary_directory.h"

namespace tkv::registry {
namespace {

class Membership : public ::testing::Test {
 protected:
  void SetUp() override { setenv("TKV_CONF", file_.c_str(), 1); }
  void TearDown() override { unsetenv("TKV_CONF"); }

  int32_t ask(const std::string& configuration) {
    std::ofstream(file_) << configuration;
    return clsugetconf(0, 0, &word_);
  }

  TemporaryDirectory directory_;
  std::string file_ = directory_ / "tkv.conf";
  int32_t word_ = 77;
};

TEST_F(Membership, FollowsTheLocationUnlessItIsSet) {
  const std::pair<const char*, int32_t> rows[] = {
      {"", CLS_CONFIGURATION_SINGLE},
      {"[registry]\nlocation=/srv\n", CLS_CONFIGURATION_SINGLE},
      {"[registry]\nlocation=etcd://a:1\n", CLS_CONFIGURATION_CLUSTER},
      {"[cluster]\nconfigured=yes\n", CLS_CONFIGURATION_CLUSTER},
      {"[registry]\nlocation=etcd://a:1\n[cluster]\nconfigured=no\n", CLS_CONFIGURATION_SINGLE}};
  for (const auto& [text, word] : rows) {
    EXPECT_EQ(ask(text), PRTKV_DONE) << text;
    EXPECT_EQ(word_, word) << text;
  }
}

TEST_F(Membership, FailureLeavesTheWordUnchanged) {
  EXPECT_EQ(ask("[cluster]\nconfigured=perhaps\n"), PRTKV_INVALID_CONFIGURATION);
  std::remove(file_.c_str());
  EXPECT_EQ(clsugetconf(0, 0, &word_), PRTKV_CONFIGURATION_UNREADABLE);
  EXPECT_EQ(clsugetconf(0, 1, &word_), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(clsugetconf(0, 0, nullptr), PRTKV_NULL_ARGUMENT);
  EXPECT_EQ(word_, 77);
}

struct PatchCase {
  std::int32_t type;
  std::string value;
  int32_t level;  // -1: no patch level
};

class PatchLevel : public ::testing::TestWithParam<PatchCase> {};

TEST_P(PatchLevel, IsTheKeysValueAsANumber) {
  Ground ground;
  for (const char* name : {"SYSTEM", "SYSTEM.version", "SYSTEM.version.patch"}) ground.make(name);
  const Context ctx(ground.as(superuser()));
  ASSERT_EQ(prtkv_set_value(ctx, ctx.open("SYSTEM.version.patch"), GetParam().type, GetParam().value.data(),
                            static_cast<std::uint32_t>(GetParam().value.size())),
            PRTKV_DONE);
  int32_t level = 77;
  if (GetParam().level >= 0) {
    EXPECT_EQ(clsvswpatch(ctx, 0, &level, 0), PRTKV_DONE);
    EXPECT_EQ(level, GetParam().level);
    EXPECT_EQ(ctx.last_error(), "");
  } else {
    EXPECT_EQ(clsvswpatch(ctx, 0, &level, 0), PRTKV_INVALID_ARGUMENT);
    EXPECT_EQ(level, 77);
    EXPECT_EQ(ctx.last_error(), "TKV-0008: key 'SYSTEM.version.patch' holds no patch level");
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, PatchLevel,
    ::testing::Values(PatchCase{3, std::string("42\0", 3), 42}, PatchCase{3, "42", 42},
                      PatchCase{3, std::string(" 42 \n\0", 6), 42}, PatchCase{3, std::string("0\0", 2), 0},
                      PatchCase{3, "2147483647", 2147483647}, PatchCase{3, "2147483648", -1}, PatchCase{3, "-1", -1},
                      PatchCase{3, "", -1}, PatchCase{3, "12a", -1}, PatchCase{3, "99999999999999999999", -1},
                      PatchCase{1, std::string("\x07\x01\0\0", 4), 263}, PatchCase{1, "\xff\xff\xff\xff", -1},
                      PatchCase{1, "abc", -1}, PatchCase{2, std::string("\x07\0\x01\0\0\0\0\0", 8), 65543},
                      PatchCase{2, std::string("\0\0\0\x80\0\0\0\0", 8), -1},
                      PatchCase{2, std::string("\x07\0\0\0", 4), -1}, PatchCase{5, std::string("7\0\0", 3), -1},
                      PatchCase{0, "7", -1}, PatchCase{0, "", 0}));

TEST(PatchLevelKey, AbsentMeansLevel0EvenWithoutItsParents) {
  Ground ground;
  const Context ctx(ground.as(person("bob")));
  for (const char* name : {"SYSTEM", "SYSTEM.version", "SYSTEM.version.patch"}) {
    int32_t level = 77;
    EXPECT_EQ(clsvswpatch(ctx, 0, &level, 0), PRTKV_DONE);
    EXPECT_EQ(level, 0);
    EXPECT_EQ(ctx.last_error(), "");
    ground.make(name);
  }
}

TEST(PatchLevelKey, FailuresLeaveATextOfTheContext) {
  Ground ground;
  for (const char* name : {"SYSTEM", "SYSTEM.version"}) ground.make(name);
  ground.make("SYSTEM.version.patch", owned_by("alice", "", 0x3f, 0, 0), "3");
  const Context ctx(ground.as(person("bob")));
  int32_t level = 77;
  EXPECT_EQ(clsvswpatch(ctx, 0, &level, 0), PRTKV_ACCESS_DENIED);
  EXPECT_EQ(ctx.last_error(),
            "TKV-0002: key 'SYSTEM.version.patch': access denied, reading its value needs the right 0x01");
  ground.store->fail(store::Call::kRead, 1, {PRTKV_UNREACHABLE, "no route"});
  EXPECT_EQ(clsvswpatch(ctx, 0, &level, 0), PRTKV_UNREACHABLE);
  EXPECT_EQ(ctx.last_error(), "TKV-0015: no route");
  EXPECT_EQ(clsvswpatch(ctx, 1, &level, 0), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(clsvswpatch(ctx, 0, &level, 1), PRTKV_INVALID_ARGUMENT);
  EXPECT_EQ(clsvswpatch(ctx, 0, nullptr, 0), PRTKV_NULL_ARGUMENT);
  EXPECT_EQ(ctx.last_error(), "TKV-0013: null argument: patch_level");
  EXPECT_EQ(clsvswpatch(0, 0, &level, 0), PRTKV_INVALID_HANDLE);
  EXPECT_EQ(level, 77);
}

}  // namespace
}  // namespace tkv::registry
