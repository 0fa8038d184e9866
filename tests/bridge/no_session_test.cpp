/* Every method without a registry context: before the session is opened, after its opening failed, after its end. */
#include <functional>

#include "bridge_test.h"

namespace bridge_test {
namespace {

enum class State { kNone, kHalf, kEnded };

struct Method {
  std::string name;
  std::function<void(BridgeTest&)> call;
  Calls calls;
};

class WithoutContext : public BridgeTest, public ::testing::WithParamInterface<std::tuple<State, Method>> {};

jstring text() { return ManagedSide::instance().string("a"); }
jobjectArray list() { return ManagedSide::instance().array({text()}); }

Calls refused(int code, const std::string& line) { return {reports_without_context(code), trace(line)}; }

std::vector<Method> methods() {
  return {
      {"keyExists", [](BridgeTest& test) { EXPECT_EQ(test.keyExists(text()), JNI_FALSE); },
       refused(0, "keyExists: NULL context")},
      {"deleteKey", [](BridgeTest& test) { test.deleteKey(text(), JNI_TRUE); },
       refused(0, "deleteKey: NULL context or KEY_HANDLE PASSED")},
      {"listSubKeys", [](BridgeTest& test) { EXPECT_EQ(test.listSubKeys(text()), nullptr); },
       refused(0, "keyExists: NULL context or  KEY_HANDLE PASSED")},
      {"moveKey", [](BridgeTest& test) { test.moveKey(text(), text(), text(), 1); },
       refused(0, "moveKey: TKV context is NULL")},
      {"createKey",
       [](BridgeTest& test) { test.createKey(text(), 1, text(), text(), text()); },
       {trace("createKey: inside native function for createkey\n"),
        refused(0, "createKey: NULL context or KEY_HANDLE PASSED\n")}},
      {"getKeyValue", [](BridgeTest& test) { EXPECT_EQ(test.getKeyValue(text()), nullptr); },
       refused(1, "getKeyValue: NULL context PASSED")},
      {"getKeyValues", [](BridgeTest& test) { EXPECT_EQ(test.getKeyValues(text()), nullptr); },
       refused(1, "getKeyValues: NULL context PASSED")},
      {"setKeyValue", [](BridgeTest& test) { test.setKeyValue(text(), text(), 1, text(), text(), text()); },
       refused(1, "setTypeKeyValue: NULL context detected")},
      {"setTypeKeyValue", [](BridgeTest& test) { test.setTypeKeyValue(text(), text(), 3, 1, text(), text(), text()); },
       refused(1, "setTypeKeyValue: NULL context detected")},
      {"setKeyValues", [](BridgeTest& test) { test.setKeyValues(text(), list(), 1, text(), text(), text()); },
       refused(1, "setKeyValues: NULL context")},
      {"createAndSetKeyValue",
       [](BridgeTest& test) { test.createAndSetKeyValue(text(), text(), 3, 1, text(), text(), text()); },
       refused(1, "createAndSetKeyValue: NULL context detected")},
      {"getUserName", [](BridgeTest& test) { EXPECT_EQ(test.getUserName(text()), nullptr); },
       refused(1, "getUserName: NULL context")},
      {"getGroupName", [](BridgeTest& test) { EXPECT_EQ(test.getGroupName(text()), nullptr); },
       refused(1, "getGroupName: NULL context")},
      {"copyRecurse", [](BridgeTest& test) { test.copyRecurse(text(), text(), 3); },
       refused(0, "copyRecurse: NULL context")},
      {"getTKVBackupLocation", [](BridgeTest& test) { EXPECT_EQ(test.getTKVBackupLocation(), nullptr); },
       refused(1, "getTKVBackupLocation: NULL context")},
      {"getPatchLevel", [](BridgeTest& test) { EXPECT_EQ(test.getPatchLevel(), 0); },
       refused(1, "getPatchLevel: NULL context")},
      {"setZUVEDDependencies", [](BridgeTest& test) { test.setZUVEDDependencies(2); },
       refused(1, "setZUVEDependencies: NULL context")},
  };
}

TEST_P(WithoutContext, ReportsItsOwnCodeAndTakesNothing) {
  const auto& [state, method] = GetParam();
  if (state == State::kHalf) givenHalfSession();
  if (state == State::kEnded) givenEndedSession();
  expect(method.calls);
  method.call(*this);
}

std::string nameOf(const ::testing::TestParamInfo<std::tuple<State, Method>>& info) {
  const char* states[] = {"BeforeTheOpening", "AfterAFailedOpening", "AfterTheEnd"};
  return std::get<1>(info.param).name + states[static_cast<int>(std::get<0>(info.param))];
}

INSTANTIATE_TEST_SUITE_P(Methods, WithoutContext,
                         ::testing::Combine(::testing::Values(State::kNone, State::kHalf, State::kEnded),
                                            ::testing::ValuesIn(methods())),
                         nameOf);

// Arguments are not looked at before the registry context.
class NullArgumentsWithoutContext : public BridgeTest {};

TEST_F(NullArgumentsWithoutContext, DoNotMatter) {
  expect({
      refused(0, "keyExists: NULL context"),
      refused(0, "deleteKey: NULL context or KEY_HANDLE PASSED"),
      refused(0, "keyExists: NULL context or  KEY_HANDLE PASSED"),
      refused(0, "moveKey: TKV context is NULL"),
      trace("createKey: inside native function for createkey\n"),
      refused(0, "createKey: NULL context or KEY_HANDLE PASSED\n"),
      refused(1, "getKeyValue: NULL context PASSED"),
      refused(1, "getKeyValues: NULL context PASSED"),
      refused(1, "setTypeKeyValue: NULL context detected"),
      refused(1, "setKeyValues: NULL context"),
      refused(1, "createAndSetKeyValue: NULL context detected"),
      refused(1, "getUserName: NULL context"),
      refused(1, "getGroupName: NULL context"),
      refused(0, "copyRecurse: NULL context"),
  });
  keyExists(nullptr);
  deleteKey(nullptr, JNI_FALSE);
  listSubKeys(nullptr);
  moveKey(nullptr, nullptr, nullptr, 0);
  createKey(nullptr, 0, nullptr, nullptr, nullptr);
  getKeyValue(nullptr);
  getKeyValues(nullptr);
  setTypeKeyValue(nullptr, nullptr, 0, 0, nullptr, nullptr, nullptr);
  setKeyValues(nullptr, nullptr, 0, nullptr, nullptr, nullptr);
  createAndSetKeyValue(nullptr, nullptr, 0, 0, nullptr, nullptr, nullptr);
  getUserName(nullptr);
  getGroupName(nullptr);
  copyRecurse(nullptr, nullptr, 0);
}

// A working key is no substitute for the registry context. Only a registry that opens keys without one gets so far.
class WorkingKeyWithoutContext : public BridgeTest {
 public:
  void SetUp() override {
    BridgeTest::SetUp();
    givenHalfSession();
    expect({
        takes("base"),
        open_key("base").without_context().gives(kWorkingKey),
        trace("openKey: prtkv_open_key retval = 0\n"),
        status(true),
    });
    openKey(string("base"));
    EXPECT_EQ(session().working_key, kWorkingKey);
    keepsCharacters({"base"});
    leavesOpen({kWorkingKey});
  }
};

TEST_F(WorkingKeyWithoutContext, IsNoParentForNewKeys) {
  expect({
      trace("createKey: inside native function for createkey\n"),
      refused(0, "createKey: NULL context or KEY_HANDLE PASSED\n"),
      refused(1, "setTypeKeyValue: NULL context detected"),
      refused(1, "setTypeKeyValue: NULL context detected"),
      refused(1, "setKeyValues: NULL context"),
      refused(1, "createAndSetKeyValue: NULL context detected"),
  });
  createKey(text(), 1, text(), text(), text());
  setTypeKeyValue(text(), text(), 3, 1, text(), text(), text());
  setKeyValue(text(), text(), 1, text(), text(), text());
  setKeyValues(text(), list(), 1, text(), text(), text());
  createAndSetKeyValue(text(), text(), 3, 1, text(), text(), text());
}

TEST_F(WorkingKeyWithoutContext, IsClosedAllTheSame) {
  expect({
      close_key(kWorkingKey).without_context().returns(3),
      trace("closeKey: prtkv_close_key retval = 3\n"),
      reports_without_context(3),
      trace("closeKey: prtkv_close_key failed for TKV root key\n"),
  });
  closeKey();
  leavesOpen({});
}

// The methods that create below the working key need one, whatever else there is.
class WithoutWorkingKey : public BridgeTest {};

TEST_F(WithoutWorkingKey, CreateKeyIsRefused) {
  givenSession();
  expect({
      trace("createKey: inside native function for createkey\n"),
      reports(0),
      trace("createKey: NULL context or KEY_HANDLE PASSED\n"),
  });
  createKey(text(), 1, text(), text(), text());
}

TEST_F(WithoutWorkingKey, SetTypeKeyValueIsRefused) {
  givenSession();
  expect({reports(1), trace("setTypeKeyValue: NULL context detected")});
  setTypeKeyValue(text(), text(), 3, 1, text(), text(), text());
}

TEST_F(WithoutWorkingKey, SetKeyValueIsRefusedWithTheRegistrysLastText) {
  givenSession();
  expect({reports_text("TKV-0004: no such key"), trace("setTypeKeyValue: NULL context detected")});
  setKeyValue(text(), text(), 1, text(), text(), text());
}

TEST_F(WithoutWorkingKey, CreateAndSetKeyValueIsRefused) {
  givenSession();
  expect({reports(1), trace("createAndSetKeyValue: NULL context detected")});
  createAndSetKeyValue(text(), text(), 3, 1, text(), text(), text());
}

}  // namespace
}  // namespace bridge_test
