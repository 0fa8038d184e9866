/* createKey. */
#include "bridge_test.h"
#include "security_calls.h"

namespace bridge_test {
namespace {

class CreateKey : public BridgeTest {
 public:
  void SetUp() override {
    BridgeTest::SetUp();
    givenWorkingKey();
  }
};

constexpr uint64_t kNew = 7;

Calls started(const std::string& name) {
  return {
      trace("createKey: inside native function for createkey\n"),
      takes(name),
      trace("createKey: prtkv_create_key([" + name + "], 0)\n"),
  };
}

TEST_F(CreateKey, CreatesInOneStepWhenTheGroupIsTheSessions) {
  expect({
      trace("createKey: inside native function for createkey\n"),
      takes("new"),
      trace("createKey: prtkv_create_key([new], 0)\n"),
      resolves_type3("any.parent"),
      create_key("new", type3_record()).gives(kNew).word(1),
      trace("createKey: prtkv_create_key retval = 0\n"),
      close_key(kNew),
      trace("createKey: prtkv_close_key retval = 0\n"),
      status(true),
      releases("new"),
  });
  createKey(string("new"), 3, string("any.parent"), nullptr, nullptr);
}

TEST_F(CreateKey, CreatesWithTheSessionsOwnerFirstWhenTheGroupIsAnother) {
  const sec_attr record = type1_record("bob", "wheel");
  expect({
      started("new"),
      resolves_type1("bob", "wheel"),
      create_key("new", owned(0x3f, 0x34, 0x3, "ada", "staff")).gives(kNew),
      trace("createKey: prtkv_create_key retval = 0\n"),
      set_security(kNew, record),
      trace("createKey: prtkv_set_key_security for key [new], rc=0\n"),
      close_key(kNew),
      trace("createKey: prtkv_close_key retval = 0\n"),
      status(true),
      releases("new"),
  });
  createKey(string("new"), 1, nullptr, string("bob"), string("wheel"));
}

TEST_F(CreateKey, CreatesInOneStepForAnotherUserOfTheSameGroup) {
  expect({
      started("new"),
      resolves_type1("bob", "staff"),
      create_key("new", type1_record("bob", "staff")).gives(kNew),
      trace("createKey: prtkv_create_key retval = 0\n"),
      close_key(kNew),
      trace("createKey: prtkv_close_key retval = 0\n"),
      status(true),
      releases("new"),
  });
  createKey(string("new"), 1, nullptr, string("bob"), string("staff"));
}

TEST_F(CreateKey, AppliesEmptyNamesInASecondStep) {
  expect({
      started("new"),
      fill_trace(5),
      no_group_given(),
      create_key("new", owned(0x3f, 0x3f, 0x3f, "ada", "staff")).gives(kNew),
      trace("createKey: prtkv_create_key retval = 0\n"),
      set_security(kNew, owned(0x3f, 0x3f, 0x3f, "", "")),
      trace("createKey: prtkv_set_key_security for key [new], rc=0\n"),
      close_key(kNew),
      trace("createKey: prtkv_close_key retval = 0\n"),
      status(true),
      releases("new"),
  });
  createKey(string("new"), 5, nullptr, nullptr, nullptr);
}

class CreateKeyWithoutSessionGroup : public BridgeTest {
 public:
  void SetUp() override {
    BridgeTest::SetUp();
    givenWorkingKey({.group = ""});
  }
};

TEST_F(CreateKeyWithoutSessionGroup, CreatesAKeyWithoutGroupInOneStep) {
  expect({
      started("new"),
      fill_trace(5),
      no_group_given(),
      create_key("new", owned(0x3f, 0x3f, 0x3f, "", "")).gives(kNew),
      trace("createKey: prtkv_create_key retval = 0\n"),
      close_key(kNew),
      trace("createKey: prtkv_close_key retval = 0\n"),
      status(true),
      releases("new"),
  });
  createKey(string("new"), 5, nullptr, nullptr, nullptr);
}

TEST_F(CreateKeyWithoutSessionGroup, CreatesWithoutGroupFirstWhenOneIsWanted) {
  expect({
      started("new"),
      resolves_type1("bob", "wheel"),
      create_key("new", owned(0x3f, 0x34, 0x3, "ada", "")).gives(kNew),
      trace("createKey: prtkv_create_key retval = 0\n"),
      set_security(kNew, type1_record("bob", "wheel")),
      trace("createKey: prtkv_set_key_security for key [new], rc=0\n"),
      close_key(kNew),
      trace("createKey: prtkv_close_key retval = 0\n"),
      status(true),
      releases("new"),
  });
  createKey(string("new"), 1, nullptr, string("bob"), string("wheel"));
}

TEST_F(CreateKey, UsesTheKeyThatWasClosedAsTheWorkingKey) {
  expect({close_key(kWorkingKey), trace("closeKey: prtkv_close_key retval = 0\n"), status(true)});
  closeKey();
  expect({
      started("new"),
      resolves_type3("p"),
      create_key("new", type3_record()).returns(3),
      trace("createKey: prtkv_create_key retval = 3\n"),
      reports(3),
      trace("createKey: prtkv_create_key failed for key [new]\n"),
      releases("new"),
  });
  createKey(string("new"), 3, string("p"), nullptr, nullptr);
}

TEST_F(CreateKey, FailsWithoutCharacters) {
  expect({
      trace("createKey: inside native function for createkey\n"),
      takes("new"),
      reports(0),
      trace("createKey: NULL or 0 length KEY NAME passed\n"),
  });
  createKey(unobtainable("new"), 3, string("p"), nullptr, nullptr);
}

TEST_F(CreateKey, FailsForANullName) {
  expect({
      trace("createKey: inside native function for createkey\n"),
      reports(0),
      trace("createKey: NULL or 0 length KEY NAME passed\n"),
  });
  createKey(nullptr, 3, string("p"), nullptr, nullptr);
}

TEST_F(CreateKey, FailsForAnEmptyNameAndKeepsItsCharacters) {
  expect({
      trace("createKey: inside native function for createkey\n"),
      takes(""),
      reports(0),
      trace("createKey: NULL or 0 length KEY NAME passed\n"),
  });
  createKey(string(""), 3, string("p"), nullptr, nullptr);
  keepsCharacters({""});
}

TEST_F(CreateKey, ReportsAFailedResolutionASecondTimeAndKeepsTheName) {
  expect({
      started("new"),
      type1_without_user(),
      reports(0),
      trace("failed to fill sec attr retval=4"),
  });
  createKey(string("new"), 1, nullptr, nullptr, nullptr);
  keepsCharacters({"new"});
}

TEST_F(CreateKey, ReportsAnUnknownSecurityTypeAndKeepsTheName) {
  expect({
      started("new"),
      fill_trace(7),
      reports(0),
      trace("failed to fill sec attr retval=6"),
  });
  createKey(string("new"), 7, string("p"), string("bob"), string("wheel"));
  keepsCharacters({"new"});
}

TEST_F(CreateKey, ReportsTheRegistrysLastTextForAnUnknownSecurityType) {
  expect({
      started("new"),
      fill_trace(0),
      reports_text("TKV-0004: no such key"),
      trace("failed to fill sec attr retval=6"),
  });
  createKey(string("new"), 0, string("p"), nullptr, nullptr);
  keepsCharacters({"new"});
}

TEST_F(CreateKey, ReportsANameThatCannotBeConvertedAndKeepsTheKeysName) {
  expect({
      started("new"),
      type5_with_unconvertible_user("bob"),
      reports(0),
      trace("failed to fill sec attr retval=0"),
  });
  createKey(string("new"), 5, nullptr, string("bob"), nullptr);
  keepsCharacters({"new"});
}

TEST_F(CreateKey, ReportsAFailedCreationAndReleasesTheName) {
  expect({
      started("%s.x"),
      resolves_type3("p"),
      create_key("%s.x", type3_record()).returns(55),
      trace("createKey: prtkv_create_key retval = 55\n"),
      reports(55),
      trace("createKey: prtkv_create_key failed for key [%s.x]\n"),
      releases("%s.x"),
  });
  createKey(string("%s.x"), 3, string("p"), nullptr, nullptr);
}

TEST_F(CreateKey, DoesNotApplyTheSecurityOfAKeyThatWasNotCreated) {
  expect({
      started("new"),
      resolves_type1("bob", "wheel"),
      create_key("new", first_step(type1_record("bob", "wheel"))).returns(2),
      trace("createKey: prtkv_create_key retval = 2\n"),
      reports_text("TKV-0002: access denied"),
      trace("createKey: prtkv_create_key failed for key [new]\n"),
      releases("new"),
  });
  createKey(string("new"), 1, nullptr, string("bob"), string("wheel"));
}

TEST_F(CreateKey, LeavesTheKeyInPlaceWhenItsSecurityCannotBeApplied) {
  const sec_attr record = type1_record("bob", "wheel");
  expect({
      started("new"),
      resolves_type1("bob", "wheel"),
      create_key("new", first_step(record)).gives(kNew),
      trace("createKey: prtkv_create_key retval = 0\n"),
      set_security(kNew, record).returns(2),
      trace("createKey: prtkv_set_key_security for key [new], rc=2\n"),
      reports(2),
      trace("createKey: prtkv_set_key_security failed for key [new]\n"),
      close_key(kNew).returns(3),
      releases("new"),
  });
  createKey(string("new"), 1, nullptr, string("bob"), string("wheel"));
}

TEST_F(CreateKey, ReportsAFailedCloseAndKeepsTheName) {
  expect({
      started("new"),
      resolves_type3("p"),
      create_key("new", type3_record()).gives(kNew),
      trace("createKey: prtkv_create_key retval = 0\n"),
      close_key(kNew).returns(15),
      trace("createKey: prtkv_close_key retval = 15\n"),
      reports(15),
      trace("createKey: prtkv_close_key failed \n"),
  });
  createKey(string("new"), 3, string("p"), nullptr, nullptr);
  keepsCharacters({"new"});
}

TEST_F(CreateKey, ReportsAFailedCloseAfterTheSecondStepAndKeepsTheName) {
  const sec_attr record = type1_record("bob", "wheel");
  expect({
      started("new"),
      resolves_type1("bob", "wheel"),
      create_key("new", first_step(record)).gives(kNew),
      trace("createKey: prtkv_create_key retval = 0\n"),
      set_security(kNew, record),
      trace("createKey: prtkv_set_key_security for key [new], rc=0\n"),
      close_key(kNew).returns(7),
      trace("createKey: prtkv_close_key retval = 7\n"),
      reports(7),
      trace("createKey: prtkv_close_key failed \n"),
  });
  createKey(string("new"), 1, nullptr, string("bob"), string("wheel"));
  keepsCharacters({"new"});
}

TEST_F(CreateKey, LeavesTheWorkingKeyAlone) {
  expect({
      started("new"),
      resolves_type3("p"),
      create_key("new", type3_record()).gives(kNew),
      trace("createKey: prtkv_create_key retval = 0\n"),
      close_key(kNew),
      trace("createKey: prtkv_close_key retval = 0\n"),
      status(true),
      releases("new"),
  });
  createKey(string("new"), 3, string("p"), nullptr, nullptr);
  EXPECT_EQ(session().working_key, kWorkingKey);
}

}  // namespace
}  // namespace bridge_test
