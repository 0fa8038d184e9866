/* getUserName and getGroupName: twins that differ in the field they read and in their texts. */
#include <functional>

#include "bridge_test.h"

namespace bridge_test {
namespace {

constexpr uint64_t kKey = 7;

struct Query {
  std::string method;
  std::string in_open_and_close; /* the method's name as those two traces write it */
  std::string field;
  std::function<jstring(BridgeTest&, jstring)> call;
  std::function<sec_attr(const std::string&)> record; /* a record with that name in the queried field */
};

class OwnerQuery : public BridgeTest, public ::testing::WithParamInterface<Query> {
 public:
  void SetUp() override {
    BridgeTest::SetUp();
    givenSession();
  }

  Calls opened(const std::string& name) { return {takes(name), open_key(name).gives(kKey), open_trace(0)}; }
  Call open_trace(int rc) {
    return trace(GetParam().in_open_and_close + ": prtkv_open_key retval = " + std::to_string(rc) + "\n");
  }
  Call close_trace(int rc) {
    return trace(GetParam().in_open_and_close + ": prtkv_close_key retval = " + std::to_string(rc) + "\n");
  }
  Call security_trace(int rc) {
    return trace(GetParam().method + ": prtkv_get_key_security retval = " + std::to_string(rc) + "\n");
  }
  Call name_trace(const std::string& name) {
    return trace(GetParam().method + ": " + GetParam().field + " = [" + name + "]\n");
  }
  Calls ended(int rc = 0) { return {close_key(kKey).returns(rc), close_trace(rc), releases("k"), status(true)}; }

  jstring ask(jstring key_name) { return GetParam().call(*this, key_name); }
  sec_attr with_name(const std::string& name) { return GetParam().record(name); }
};

TEST_P(OwnerQuery, GivesTheName) {
  expect({
      opened("k"),
      get_security(kKey).record(with_name("b%sb")),
      security_trace(0),
      name_trace("b%sb"),
      new_string("b%sb"),
      close_key(kKey),
      close_trace(0),
      releases("k"),
      status(true),
  });
  EXPECT_EQ(textOf(ask(string("k"))), "b%sb");
}

TEST_P(OwnerQuery, GivesANameOfOneCharacter) {
  expect({
      opened("k"),
      get_security(kKey).record(with_name("n")),
      security_trace(0),
      name_trace("n"),
      new_string("n"),
      ended(),
  });
  EXPECT_EQ(textOf(ask(string("k"))), "n");
}

TEST_P(OwnerQuery, GivesANameThatFillsItsFieldAndNoMore) {
  const std::string name(64, 'n');
  expect({
      opened("k"),
      get_security(kKey).record(with_name(name)),
      security_trace(0),
      name_trace(name),
      new_string(name),
      ended(),
  });
  EXPECT_EQ(textOf(ask(string("k"))), name);
}

TEST_P(OwnerQuery, GivesNullWithStatusTrueForAKeyWithoutThatName) {
  expect({opened("k"), get_security(kKey).record(with_name("")), security_trace(0), ended()});
  EXPECT_EQ(ask(string("k")), nullptr);
}

TEST_P(OwnerQuery, GivesNullWithStatusTrueWhenTheRegistryWritesNothing) {
  expect({opened("k"), get_security(kKey), security_trace(0), ended()});
  EXPECT_EQ(ask(string("k")), nullptr);
}

TEST_P(OwnerQuery, SucceedsAlsoWhenTheCloseFails) {
  expect({
      opened("k"),
      get_security(kKey).record(with_name("bob")),
      security_trace(0),
      name_trace("bob"),
      new_string("bob"),
      ended(15),
  });
  EXPECT_EQ(textOf(ask(string("k"))), "bob");
}

TEST_P(OwnerQuery, ReportsAFailedOpen) {
  expect({
      takes("%s"),
      open_key("%s").returns(4),
      open_trace(4),
      reports(4),
      trace(GetParam().method + ": prtkv_open_key faild for the key [%s] \n"),
      releases("%s"),
  });
  EXPECT_EQ(ask(string("%s")), nullptr);
}

TEST_P(OwnerQuery, ReportsTheRegistrysTextOfAFailedOpen) {
  expect({
      takes("k"),
      open_key("k").returns(15),
      open_trace(15),
      reports_text("TKV-0015: unreachable"),
      trace(GetParam().method + ": prtkv_open_key faild for the key [k] \n"),
      releases("k"),
  });
  EXPECT_EQ(ask(string("k")), nullptr);
}

TEST_P(OwnerQuery, ReportsSecurityThatCannotBeReadAndClosesTheKey) {
  expect({
      takes("%s"),
      open_key("%s").gives(kKey),
      open_trace(0),
      get_security(kKey).returns(2).record(with_name("bob")),
      security_trace(2),
      reports(2),
      trace(GetParam().method + ": prtkv_get_key_security failed for the key [%s]\n"),
      close_key(kKey).returns(3),
      releases("%s"),
  });
  EXPECT_EQ(ask(string("%s")), nullptr);
}

TEST_P(OwnerQuery, FailsWithoutTheNamesCharacters) {
  expect({takes("k"), reports(1), trace(GetParam().method + ": KEY PASSED is NULL")});
  EXPECT_EQ(ask(unobtainable("k")), nullptr);
}

TEST_P(OwnerQuery, FailsForANullName) {
  expect({reports(1), trace(GetParam().method + ": KEY PASSED is NULL")});
  EXPECT_EQ(ask(nullptr), nullptr);
}

TEST_P(OwnerQuery, LeavesTheWorkingKeyAlone) {
  expect({takes("base"), open_key("base").gives(kWorkingKey), trace("openKey: prtkv_open_key retval = 0\n"),
          status(true)});
  openKey(string("base"));
  expect({opened("k"), get_security(kKey).record(with_name("")), security_trace(0), ended()});
  EXPECT_EQ(ask(string("k")), nullptr);
  EXPECT_EQ(session().working_key, kWorkingKey);
  keepsCharacters({"base"});
  leavesOpen({kWorkingKey});
}

// In the queried field stands the name, in the other one a name that must not be given.
INSTANTIATE_TEST_SUITE_P(
    Both, OwnerQuery,
    ::testing::Values(Query{"getUserName", "getUseName", "username",
                            [](BridgeTest& test, jstring key_name) { return test.getUserName(key_name); },
                            [](const std::string& name) { return owned(1, 2, 3, name, "other"); }},
                      Query{"getGroupName", "getGroupName", "groupname",
                            [](BridgeTest& test, jstring key_name) { return test.getGroupName(key_name); },
                            [](const std::string& name) { return owned(1, 2, 3, "other", name); }}),
    [](const auto& each) { return each.param.method; });

}  // namespace
}  // namespace bridge_test
