/* setTypeKeyValue and setKeyValue. */
#include "bridge_test.h"
#include "security_calls.h"

namespace bridge_test {
namespace {

using ::testing::Values;

constexpr uint64_t kKey = 7;

class SetTypeKeyValue : public BridgeTest {
 public:
  void SetUp() override {
    BridgeTest::SetUp();
    givenWorkingKey();
  }
};

Calls started(const std::string& name, const std::string& value, int type, size_t size) {
  return {
      takes(name),
      takes(value),
      trace("setTypeKeyValue: ([" + name + "], 0)\n"),
      trace("setTypeKeyValue: (" + std::to_string(type) + ", " + value + ", " + std::to_string(size) + ")\n"),
      trace("setTypeKeyValue: key_name = " + name + "\n"),
  };
}

Calls open_failed(const std::string& name, int rc = 4) {
  return {open_key(name).returns(rc), trace("setTypeKeyValue: prtkv_open_key retval= " + std::to_string(rc) + "\n")};
}

Calls opened(const std::string& name) {
  return {open_key(name).gives(kKey), trace("setTypeKeyValue: prtkv_open_key retval= 0\n")};
}

Calls names_released(const std::string& name = "k", const std::string& value = "v") {
  return {releases(name), releases(value)};
}

std::string ended(const std::string& text) { return text + std::string(1, '\0'); }

Calls started() { return started("k", "v", 3, 2); }

// A data type argument, the value's text, and what the registry gets.
struct Typed {
  int type;
  std::string text;
  int stored_type;
  std::string stored;
};

class SetTypeKeyValueWithType : public SetTypeKeyValue, public ::testing::WithParamInterface<Typed> {};

TEST_P(SetTypeKeyValueWithType, ReplacesTheValueOfAnExistingKey) {
  const auto& [type, text, stored_type, stored] = GetParam();
  expect({
      takes("a.b"),
      takes(text),
      trace("setTypeKeyValue: ([a.b], 0)\n"),
      trace("setTypeKeyValue: (" + std::to_string(stored_type) + ", " + text + ", " + std::to_string(stored.size()) +
            ")\n"),
      trace("setTypeKeyValue: key_name = a.b\n"),
      open_key("a.b").gives(kKey),
      trace("setTypeKeyValue: prtkv_open_key retval= 0\n"),
      set_value(kKey, stored_type, stored),
      close_key(kKey),
      releases("a.b"),
      releases(text),
      status(true),
  });
  setTypeKeyValue(string("a.b"), string(text), type, 3, string("p"), nullptr, nullptr);
}

TEST_P(SetTypeKeyValueWithType, CreatesAMissingKey) {
  const auto& [type, text, stored_type, stored] = GetParam();
  expect({
      started("k", text, stored_type, stored.size()),
      open_failed("k"),
      resolves_type3("p"),
      create_n_set_key("k", stored_type, type3_record(), stored).gives(kKey).word(1),
      close_key(kKey),
      names_released("k", text),
      status(true),
  });
  setTypeKeyValue(string("k"), string(text), type, 3, string("p"), nullptr, nullptr);
}

std::string padded(const std::string& text, size_t size) { return text + std::string(size - text.size(), '\0'); }

INSTANTIATE_TEST_SUITE_P(Types, SetTypeKeyValueWithType,
                         Values(Typed{1, "abcd", 1, "abcd"}, Typed{1, "abcdefgh", 1, "abcd"},
                                Typed{1, "ab", 1, padded("ab", 4)}, Typed{1, "abc", 1, padded("abc", 4)},
                                Typed{1, "", 1, padded("", 4)}, Typed{2, "abcdefgh", 2, "abcdefgh"},
                                Typed{2, "abcdefghij", 2, "abcdefgh"}, Typed{2, "abcdefg", 2, padded("abcdefg", 8)},
                                Typed{2, "", 2, padded("", 8)}, Typed{3, "abc", 3, ended("abc")},
                                Typed{3, "", 3, ended("")}, Typed{3, "%s%n", 3, ended("%s%n")},
                                Typed{3, std::string(5000, 'v'), 3, ended(std::string(5000, 'v'))},
                                Typed{3, "\xed\xa0\xbd\xed\xb8\x80", 3, ended("\xed\xa0\xbd\xed\xb8\x80")},
                                Typed{5, "abc", 5, ""}, Typed{7, "abc", 3, ""}, Typed{0, "abc", 3, ""},
                                Typed{4, "abc", 3, ""}, Typed{-1, "abc", 3, ""}, Typed{6, "", 3, ""}));

TEST_F(SetTypeKeyValue, DoesNotLookAtTheSecurityArgumentsForAnExistingKey) {
  expect({
      started(),
      opened("k"),
      set_value(kKey, 3, ended("v")),
      close_key(kKey),
      names_released(),
      status(true),
  });
  setTypeKeyValue(string("k"), string("v"), 3, 99, unobtainable("p"), unobtainable("u"), unobtainable("g"));
}

TEST_F(SetTypeKeyValue, ReportsAFailedWriteAndClosesTheKey) {
  expect({
      started(),
      opened("k"),
      set_value(kKey, 3, ended("v")).returns(2),
      reports(2),
      trace("setKeyValue: prtkv_set_value retval = 2\n"),
      close_key(kKey).returns(3),
      names_released(),
  });
  setTypeKeyValue(string("k"), string("v"), 3, 3, string("p"), nullptr, nullptr);
}

TEST_F(SetTypeKeyValue, ReportsTheRegistrysTextOfAFailedWrite) {
  expect({
      started(),
      opened("k"),
      set_value(kKey, 3, ended("v")).returns(11),
      reports_text("TKV-0011: storage full"),
      trace("setKeyValue: prtkv_set_value retval = 11\n"),
      close_key(kKey),
      names_released(),
  });
  setTypeKeyValue(string("k"), string("v"), 3, 3, string("p"), nullptr, nullptr);
}

TEST_F(SetTypeKeyValue, ReportsAFailedCloseWithoutATrace) {
  expect({
      started(),
      opened("k"),
      set_value(kKey, 3, ended("v")),
      close_key(kKey).returns(15),
      names_released(),
      reports(15),
  });
  setTypeKeyValue(string("k"), string("v"), 3, 3, string("p"), nullptr, nullptr);
}

class SetTypeKeyValueWithResult : public SetTypeKeyValue, public ::testing::WithParamInterface<int> {};

TEST_P(SetTypeKeyValueWithResult, CreatesAKeyThatCannotBeOpenedForAnyReason) {
  expect({
      started(),
      open_failed("k", GetParam()),
      resolves_type3("p"),
      create_n_set_key("k", 3, type3_record(), ended("v")).gives(kKey),
      close_key(kKey),
      names_released(),
      status(true),
  });
  setTypeKeyValue(string("k"), string("v"), 3, 3, string("p"), nullptr, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Results, SetTypeKeyValueWithResult, Values(2, 3, 4, 5, 7, 15, -1));

TEST_F(SetTypeKeyValue, CreatesWithTheSessionsOwnerFirstWhenTheGroupIsAnother) {
  const sec_attr record = type1_record("bob", "wheel");
  expect({
      started(),
      open_failed("k"),
      resolves_type1("bob", "wheel"),
      create_n_set_key("k", 3, owned(0x3f, 0x34, 0x3, "ada", "staff"), ended("v")).gives(kKey),
      set_security(kKey, record),
      trace("setTypeKeyValue: prtkv_set_key_security for key [k], rc=0\n"),
      close_key(kKey),
      names_released(),
      status(true),
  });
  setTypeKeyValue(string("k"), string("v"), 3, 1, nullptr, string("bob"), string("wheel"));
}

TEST_F(SetTypeKeyValue, CreatesInOneStepForAnotherUserOfTheSameGroup) {
  expect({
      started(),
      open_failed("k"),
      resolves_type1("bob", "staff"),
      create_n_set_key("k", 3, type1_record("bob", "staff"), ended("v")).gives(kKey),
      close_key(kKey),
      names_released(),
      status(true),
  });
  setTypeKeyValue(string("k"), string("v"), 3, 1, nullptr, string("bob"), string("staff"));
}

TEST_F(SetTypeKeyValue, ReportsAFailedCreation) {
  expect({
      started("%s", "v", 3, 2),
      open_failed("%s"),
      resolves_type3("p"),
      create_n_set_key("%s", 3, type3_record(), ended("v")).returns(2),
      reports(2),
      trace("setTypeKeyValue: Failure in creating the key [%s] \n"),
      names_released("%s"),
  });
  setTypeKeyValue(string("%s"), string("v"), 3, 3, string("p"), nullptr, nullptr);
}

TEST_F(SetTypeKeyValue, DoesNotApplyTheSecurityOfAKeyThatWasNotCreated) {
  expect({
      started(),
      open_failed("k"),
      resolves_type1("bob", "wheel"),
      create_n_set_key("k", 3, first_step(type1_record("bob", "wheel")), ended("v")).returns(55),
      reports_text("TKV-0055: key exists"),
      trace("setTypeKeyValue: Failure in creating the key [k] \n"),
      names_released(),
  });
  setTypeKeyValue(string("k"), string("v"), 3, 1, nullptr, string("bob"), string("wheel"));
}

TEST_F(SetTypeKeyValue, LeavesTheKeyInPlaceWhenItsSecurityCannotBeApplied) {
  const sec_attr record = type1_record("bob", "wheel");
  expect({
      started(),
      open_failed("k"),
      resolves_type1("bob", "wheel"),
      create_n_set_key("k", 3, first_step(record), ended("v")).gives(kKey),
      set_security(kKey, record).returns(2),
      trace("setTypeKeyValue: prtkv_set_key_security for key [k], rc=2\n"),
      reports(2),
      close_key(kKey).returns(3),
      names_released(),
  });
  setTypeKeyValue(string("k"), string("v"), 3, 1, nullptr, string("bob"), string("wheel"));
}

TEST_F(SetTypeKeyValue, ReportsAFailedCloseOfTheCreatedKey) {
  expect({
      started(),
      open_failed("k"),
      resolves_type3("p"),
      create_n_set_key("k", 3, type3_record(), ended("v")).gives(kKey),
      close_key(kKey).returns(7),
      names_released(),
      reports_text("TKV-0007: storage failed"),
  });
  setTypeKeyValue(string("k"), string("v"), 3, 3, string("p"), nullptr, nullptr);
}

TEST_F(SetTypeKeyValue, ReportsAFailedResolutionASecondTime) {
  expect({
      started(),
      open_failed("k"),
      type1_without_user(),
      reports(0),
      trace("failed to fill sec attr retval=4"),
      names_released(),
  });
  setTypeKeyValue(string("k"), string("v"), 3, 1, nullptr, nullptr, nullptr);
}

TEST_F(SetTypeKeyValue, ReportsAnUnknownSecurityType) {
  expect({
      started(),
      open_failed("k"),
      fill_trace(7),
      reports_text("TKV-0004: no such key"),
      trace("failed to fill sec attr retval=6"),
      names_released(),
  });
  setTypeKeyValue(string("k"), string("v"), 3, 7, string("p"), nullptr, nullptr);
}

// A resolution of 0 ends with status true, although its failure was reported.
TEST_F(SetTypeKeyValue, EndsWithStatusTrueWhenANameCannotBeConverted) {
  expect({
      started(),
      open_failed("k"),
      type5_with_unconvertible_user("bob"),
      reports(0),
      trace("failed to fill sec attr retval=0"),
      names_released(),
      status(true),
  });
  setTypeKeyValue(string("k"), string("v"), 3, 5, nullptr, string("bob"), nullptr);
}

// Handles that failed calls leave behind are held, and so are closed.

TEST_F(SetTypeKeyValue, ClosesAHandleThatTheFailedOpenLeftWhenTheResolutionFails) {
  expect({
      started(),
      open_key("k").returns(4).gives(kKey),
      trace("setTypeKeyValue: prtkv_open_key retval= 4\n"),
      fill_trace(7),
      reports(0),
      trace("failed to fill sec attr retval=6"),
      close_key(kKey),
      names_released(),
  });
  setTypeKeyValue(string("k"), string("v"), 3, 7, nullptr, nullptr, nullptr);
}

TEST_F(SetTypeKeyValue, ReportsTheFailedCloseOfAHandleThatTheFailedOpenLeft) {
  expect({
      started(),
      open_key("k").returns(4).gives(kKey),
      trace("setTypeKeyValue: prtkv_open_key retval= 4\n"),
      type5_with_unconvertible_user("bob"),
      reports(0),
      trace("failed to fill sec attr retval=0"),
      close_key(kKey).returns(3),
      names_released(),
      reports(3),
  });
  setTypeKeyValue(string("k"), string("v"), 3, 5, nullptr, string("bob"), nullptr);
}

TEST_F(SetTypeKeyValue, ClosesAHandleThatTheFailedCreationLeft) {
  expect({
      started(),
      open_failed("k"),
      resolves_type3("p"),
      create_n_set_key("k", 3, type3_record(), ended("v")).returns(11).gives(kKey),
      reports(11),
      trace("setTypeKeyValue: Failure in creating the key [k] \n"),
      close_key(kKey),
      names_released(),
  });
  setTypeKeyValue(string("k"), string("v"), 3, 3, string("p"), nullptr, nullptr);
}

TEST_F(SetTypeKeyValue, ClosesNothingWhenTheRegistryGaveNoHandle) {
  expect({
      started(),
      open_failed("k"),
      resolves_type3("p"),
      create_n_set_key("k", 3, type3_record(), ended("v")),
      names_released(),
      status(true),
  });
  setTypeKeyValue(string("k"), string("v"), 3, 3, string("p"), nullptr, nullptr);
}

// Names and values that cannot be used.

TEST_F(SetTypeKeyValue, FailsWithoutTheNamesCharacters) {
  expect({takes("k"), reports(1), trace("setTypeKeyValue: NULL KEY NAME PASSED")});
  setTypeKeyValue(unobtainable("k"), string("v"), 3, 3, string("p"), nullptr, nullptr);
}

TEST_F(SetTypeKeyValue, FailsForANullName) {
  expect({reports(1), trace("setTypeKeyValue: NULL KEY NAME PASSED")});
  setTypeKeyValue(nullptr, string("v"), 3, 3, string("p"), nullptr, nullptr);
}

// A data type and the size that goes with a null value.
struct NullValue {
  int type;
  int stored_type;
  int size;
};

class SetTypeKeyValueWithNullValue : public SetTypeKeyValue, public ::testing::WithParamInterface<NullValue> {
 public:
  Calls traced() {
    const auto& [type, stored_type, size] = GetParam();
    return {
        trace("setTypeKeyValue: ([k], 0)\n"),
        Call("prsrvut_trace", {"\"setTypeKeyValue: (" + std::to_string(stored_type) + ", " + kAny + ", " +
                               std::to_string(size) + ")\\n\""}),
        trace("setTypeKeyValue: key_name = k\n"),
    };
  }
};

TEST_P(SetTypeKeyValueWithNullValue, LeavesTheRefusalToTheRegistry) {
  const auto& [type, stored_type, size] = GetParam();
  expect({
      takes("k"),
      traced(),
      opened("k"),
      set_value(kKey, stored_type, "").with_argument(3, "null, " + std::to_string(size)).returns(13),
      reports(13),
      trace("setKeyValue: prtkv_set_value retval = 13\n"),
      close_key(kKey),
      releases("k"),
  });
  setTypeKeyValue(string("k"), nullptr, type, 3, string("p"), nullptr, nullptr);
}

TEST_P(SetTypeKeyValueWithNullValue, LeavesTheRefusalToTheRegistryWhenTheKeyIsToBeCreated) {
  const auto& [type, stored_type, size] = GetParam();
  expect({
      takes("k"),
      takes("v"),
      traced(),
      open_failed("k"),
      resolves_type3("p"),
      create_n_set_key("k", stored_type, type3_record(), "")
          .with_argument(7, "null, " + std::to_string(size))
          .returns(13),
      reports(13),
      trace("setTypeKeyValue: Failure in creating the key [k] \n"),
      releases("k"),
  });
  setTypeKeyValue(string("k"), unobtainable("v"), type, 3, string("p"), nullptr, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Types, SetTypeKeyValueWithNullValue,
                         Values(NullValue{1, 1, 4}, NullValue{2, 2, 8}, NullValue{3, 3, 1}, NullValue{5, 5, 0},
                                NullValue{7, 3, 0}));

class SetKeyValue : public SetTypeKeyValue {};

TEST_F(SetKeyValue, StoresAText) {
  expect({
      started("a.b", "xyz", 3, 4),
      open_key("a.b").gives(kKey),
      trace("setTypeKeyValue: prtkv_open_key retval= 0\n"),
      set_value(kKey, 3, ended("xyz")),
      close_key(kKey),
      names_released("a.b", "xyz"),
      status(true),
  });
  setKeyValue(string("a.b"), string("xyz"), 3, string("p"), nullptr, nullptr);
}

TEST_F(SetKeyValue, PassesTheSecurityArgumentsOn) {
  const sec_attr record = owned(0x3f, 0x3f, 0x3, "bob", "wheel");
  expect({
      started(),
      open_failed("k"),
      fill_trace(4),
      takes("p"),
      user_given(4, "bob"),
      group_given(4, "wheel"),
      releases("p"),
      create_n_set_key("k", 3, first_step(record), ended("v")).gives(kKey),
      set_security(kKey, record),
      trace("setTypeKeyValue: prtkv_set_key_security for key [k], rc=0\n"),
      close_key(kKey),
      names_released(),
      status(true),
  });
  setKeyValue(string("k"), string("v"), 4, string("p"), string("bob"), string("wheel"));
}

TEST_F(SetKeyValue, FailsForANullName) {
  expect({reports(1), trace("setTypeKeyValue: NULL KEY NAME PASSED")});
  setKeyValue(nullptr, string("v"), 3, string("p"), nullptr, nullptr);
}

TEST_F(SetKeyValue, LeavesTheRefusalOfANullValueToTheRegistry) {
  expect({
      takes("k"),
      trace("setTypeKeyValue: ([k], 0)\n"),
      Call("prsrvut_trace", {"\"setTypeKeyValue: (3, " + kAny + ", 1)\\n\""}),
      trace("setTypeKeyValue: key_name = k\n"),
      opened("k"),
      set_value(kKey, 3, "").with_argument(3, "null, 1").returns(13),
      reports(13),
      trace("setKeyValue: prtkv_set_value retval = 13\n"),
      close_key(kKey),
      releases("k"),
  });
  setKeyValue(string("k"), nullptr, 3, string("p"), nullptr, nullptr);
}

// A session without a primary group equals a record without one.
class SessionWithoutGroup : public BridgeTest {};

TEST_F(SessionWithoutGroup, CreatesARecordWithoutGroupInOneStep) {
  givenWorkingKey({.group = ""});
  expect({
      started(),
      open_failed("k"),
      resolves_type1("bob"),
      create_n_set_key("k", 3, type1_record("bob"), ended("v")).gives(kKey),
      close_key(kKey),
      names_released(),
      status(true),
  });
  setTypeKeyValue(string("k"), string("v"), 3, 1, nullptr, string("bob"), nullptr);
}

}  // namespace
}  // namespace bridge_test
