/* setKeyValues. */
#include "bridge_test.h"
#include "security_calls.h"

namespace bridge_test {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::Values;

constexpr uint64_t kKey = 7;

using List = std::vector<std::string>;

std::string stored_form(const List& values) {
  std::string bytes;
  for (const auto& value : values) bytes += value + std::string(1, '\0');
  return values.empty() ? bytes : bytes + std::string(1, '\0');
}

Calls element_taken(int index, const std::string& value) {
  return {
      takes_element(index),
      takes(value),
      trace("setKeyValues: input key_value[" + std::to_string(index) + "] = [" + value +
            "],  length = " + std::to_string(value.size()) + "\n"),
      releases(value),
  };
}

Calls list_entered(const std::string& name, size_t count) {
  return {
      takes(name),
      array_length(),
      trace("setKeyValues: input number of values = " + std::to_string(count) + "\n"),
      trace("setKeyValues: value_list = []\n"),
      trace("setKeyValues: tmp = []\n"),
  };
}

Calls started(const std::string& name, const List& values) {
  Calls calls = list_entered(name, values.size());
  for (size_t i = 0; i < values.size(); ++i) calls.add(element_taken(static_cast<int>(i), values[i]));
  return calls.add({
      trace("setKeyValues: prtkv_set_values(5, " + std::to_string(stored_form(values).size()) + ")\n"),
      trace("setKeyValues: prtkv_create_n_set_key(" + name + ", 0)\n"),
      trace("setKeyValues: key_name = " + name + "\n"),
  });
}

Calls opened(const std::string& name) {
  return {open_key(name).gives(kKey), trace("setTypeKeyValues: prtkv_open_key retval= 0\n")};
}

Calls open_failed(const std::string& name, int rc = 4) {
  return {open_key(name).returns(rc), trace("setTypeKeyValues: prtkv_open_key retval= " + std::to_string(rc) + "\n")};
}

const List kList = {"a", "bc"};

std::string kListBytes() { return stored_form(kList); }

class SetKeyValues : public BridgeTest {
 public:
  void SetUp() override {
    BridgeTest::SetUp();
    givenWorkingKey();
  }

  static jobjectArray list(const List& values) {
    std::vector<jstring> elements;
    for (const auto& value : values) elements.push_back(string(value));
    return managed().array(elements);
  }
};

// Written out without the shorthands.
TEST_F(SetKeyValues, ReplacesTheValueOfAnExistingKey) {
  expect({
      takes("k.l"),
      array_length(),
      trace("setKeyValues: input number of values = 2\n"),
      trace("setKeyValues: value_list = []\n"),
      trace("setKeyValues: tmp = []\n"),
      takes_element(0),
      takes("ab"),
      trace("setKeyValues: input key_value[0] = [ab],  length = 2\n"),
      releases("ab"),
      takes_element(1),
      takes("c"),
      trace("setKeyValues: input key_value[1] = [c],  length = 1\n"),
      releases("c"),
      trace("setKeyValues: prtkv_set_values(5, 6)\n"),
      trace("setKeyValues: prtkv_create_n_set_key(k.l, 0)\n"),
      trace("setKeyValues: key_name = k.l\n"),
      open_key("k.l").gives(kKey),
      trace("setTypeKeyValues: prtkv_open_key retval= 0\n"),
      set_value(kKey, 5, std::string("ab\0c\0\0", 6)),
      close_key(kKey),
      releases("k.l"),
      status(true),
  });
  setKeyValues(string("k.l"), list({"ab", "c"}), 3, string("p"), nullptr, nullptr);
}

class SetKeyValuesWithList : public SetKeyValues, public ::testing::WithParamInterface<List> {};

TEST_P(SetKeyValuesWithList, WritesTheJoinedList) {
  expect({
      started("k", GetParam()),
      opened("k"),
      set_value(kKey, 5, stored_form(GetParam())),
      close_key(kKey),
      releases("k"),
      status(true),
  });
  setKeyValues(string("k"), list(GetParam()), 3, string("p"), nullptr, nullptr);
}

TEST_P(SetKeyValuesWithList, CreatesAMissingKeyWithTheJoinedList) {
  expect({
      started("k", GetParam()),
      open_failed("k"),
      resolves_type3("p"),
      create_n_set_key("k", 5, type3_record(), stored_form(GetParam())).gives(kKey).word(1),
      close_key(kKey),
      releases("k"),
      status(true),
  });
  setKeyValues(string("k"), list(GetParam()), 3, string("p"), nullptr, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Lists, SetKeyValuesWithList,
                         Values(List{}, List{"a"}, List{"ab", "c"}, List{"a", "", "b"}, List{""}, List{"", ""},
                                List{"%s", "%n"}, List{"\xc3\xa9", "\xed\xa0\xbd\xed\xb8\x80"},
                                List{std::string(8190, 'x')}, List{std::string(4095, 'x'), std::string(4094, 'y')},
                                List(4095, "z"), List(8191, "")));

TEST_F(SetKeyValues, DoesNotLookAtTheSecurityArgumentsForAnExistingKey) {
  expect({
      started("k", kList),
      opened("k"),
      set_value(kKey, 5, kListBytes()),
      close_key(kKey),
      releases("k"),
      status(true),
  });
  setKeyValues(string("k"), list(kList), 99, unobtainable("p"), unobtainable("u"), unobtainable("g"));
}

TEST_F(SetKeyValues, ReportsAFailedWriteAndClosesTheKey) {
  expect({
      started("k", kList),
      opened("k"),
      set_value(kKey, 5, kListBytes()).returns(2),
      reports(2),
      trace("setKeyValue: prtkv_set_value retval = 2\n"),
      close_key(kKey).returns(3),
      releases("k"),
  });
  setKeyValues(string("k"), list(kList), 3, string("p"), nullptr, nullptr);
}

TEST_F(SetKeyValues, ReportsAFailedCloseWithoutATrace) {
  expect({
      started("k", kList),
      opened("k"),
      set_value(kKey, 5, kListBytes()),
      close_key(kKey).returns(15),
      releases("k"),
      reports_text("TKV-0015: unreachable"),
  });
  setKeyValues(string("k"), list(kList), 3, string("p"), nullptr, nullptr);
}

class SetKeyValuesWithResult : public SetKeyValues, public ::testing::WithParamInterface<int> {};

TEST_P(SetKeyValuesWithResult, CreatesAKeyThatCannotBeOpenedForAnyReason) {
  expect({
      started("k", kList),
      open_failed("k", GetParam()),
      resolves_type3("p"),
      create_n_set_key("k", 5, type3_record(), kListBytes()).gives(kKey),
      close_key(kKey),
      releases("k"),
      status(true),
  });
  setKeyValues(string("k"), list(kList), 3, string("p"), nullptr, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Results, SetKeyValuesWithResult, Values(2, 3, 4, 5, 7, 15, -1));

TEST_F(SetKeyValues, CreatesWithTheSessionsOwnerFirstWhenTheGroupIsAnother) {
  const sec_attr record = type1_record("bob", "wheel");
  expect({
      started("k", kList),
      open_failed("k"),
      resolves_type1("bob", "wheel"),
      create_n_set_key("k", 5, owned(0x3f, 0x34, 0x3, "ada", "staff"), kListBytes()).gives(kKey),
      set_security(kKey, record),
      trace("setKeyValues: prtkv_set_key_security for key [k], rc=0\n"),
      close_key(kKey),
      releases("k"),
      status(true),
  });
  setKeyValues(string("k"), list(kList), 1, nullptr, string("bob"), string("wheel"));
}

TEST_F(SetKeyValues, CreatesInOneStepForAnotherUserOfTheSameGroup) {
  expect({
      started("k", kList),
      open_failed("k"),
      resolves_type1("bob", "staff"),
      create_n_set_key("k", 5, type1_record("bob", "staff"), kListBytes()).gives(kKey),
      close_key(kKey),
      releases("k"),
      status(true),
  });
  setKeyValues(string("k"), list(kList), 1, nullptr, string("bob"), string("staff"));
}

TEST_F(SetKeyValues, ReportsAFailedCreation) {
  expect({
      started("%s", kList),
      open_failed("%s"),
      resolves_type3("p"),
      create_n_set_key("%s", 5, type3_record(), kListBytes()).returns(2),
      reports(2),
      trace("setKeyValues: prtkv_create_n_set_key failed in creating the key [%s], retval=2\n"),
      releases("%s"),
  });
  setKeyValues(string("%s"), list(kList), 3, string("p"), nullptr, nullptr);
}

TEST_F(SetKeyValues, DoesNotApplyTheSecurityOfAKeyThatWasNotCreated) {
  expect({
      started("k", kList),
      open_failed("k"),
      resolves_type1("bob", "wheel"),
      create_n_set_key("k", 5, first_step(type1_record("bob", "wheel")), kListBytes()).returns(55),
      reports_text("TKV-0055: key exists"),
      trace("setKeyValues: prtkv_create_n_set_key failed in creating the key [k], retval=55\n"),
      releases("k"),
  });
  setKeyValues(string("k"), list(kList), 1, nullptr, string("bob"), string("wheel"));
}

TEST_F(SetKeyValues, LeavesTheKeyInPlaceWhenItsSecurityCannotBeApplied) {
  const sec_attr record = type1_record("bob", "wheel");
  expect({
      started("k", kList),
      open_failed("k"),
      resolves_type1("bob", "wheel"),
      create_n_set_key("k", 5, first_step(record), kListBytes()).gives(kKey),
      set_security(kKey, record).returns(2),
      trace("setKeyValues: prtkv_set_key_security for key [k], rc=2\n"),
      reports(2),
      close_key(kKey).returns(3),
      releases("k"),
  });
  setKeyValues(string("k"), list(kList), 1, nullptr, string("bob"), string("wheel"));
}

TEST_F(SetKeyValues, ReportsAFailedCloseOfTheCreatedKey) {
  expect({
      started("k", kList),
      open_failed("k"),
      resolves_type3("p"),
      create_n_set_key("k", 5, type3_record(), kListBytes()).gives(kKey),
      close_key(kKey).returns(7),
      releases("k"),
      reports(7),
  });
  setKeyValues(string("k"), list(kList), 3, string("p"), nullptr, nullptr);
}

TEST_F(SetKeyValues, ReportsAFailedResolutionASecondTime) {
  expect({
      started("k", kList),
      open_failed("k"),
      type1_without_user(),
      reports(0),
      trace("failed to fill sec attr retval=4"),
      releases("k"),
  });
  setKeyValues(string("k"), list(kList), 1, nullptr, nullptr, nullptr);
}

TEST_F(SetKeyValues, ReportsAnUnknownSecurityType) {
  expect({
      started("k", kList),
      open_failed("k"),
      fill_trace(-4),
      reports(0),
      trace("failed to fill sec attr retval=6"),
      releases("k"),
  });
  setKeyValues(string("k"), list(kList), -4, string("p"), nullptr, nullptr);
}

// A resolution of 0 ends with status true, although its failure was reported.
TEST_F(SetKeyValues, EndsWithStatusTrueWhenANameCannotBeConverted) {
  expect({
      started("k", kList),
      open_failed("k"),
      type5_with_unconvertible_user("bob"),
      reports(0),
      trace("failed to fill sec attr retval=0"),
      releases("k"),
      status(true),
  });
  setKeyValues(string("k"), list(kList), 5, nullptr, string("bob"), nullptr);
}

TEST_F(SetKeyValues, ClosesAHandleThatTheFailedOpenLeftWhenTheResolutionFails) {
  expect({
      started("k", kList),
      open_key("k").returns(4).gives(kKey),
      trace("setTypeKeyValues: prtkv_open_key retval= 4\n"),
      fill_trace(7),
      reports(0),
      trace("failed to fill sec attr retval=6"),
      close_key(kKey),
      releases("k"),
  });
  setKeyValues(string("k"), list(kList), 7, nullptr, nullptr, nullptr);
}

TEST_F(SetKeyValues, ReportsTheFailedCloseOfAHandleThatTheFailedOpenLeft) {
  expect({
      started("k", kList),
      open_key("k").returns(4).gives(kKey),
      trace("setTypeKeyValues: prtkv_open_key retval= 4\n"),
      type5_with_unconvertible_user("bob"),
      reports(0),
      trace("failed to fill sec attr retval=0"),
      close_key(kKey).returns(3),
      releases("k"),
      reports(3),
  });
  setKeyValues(string("k"), list(kList), 5, nullptr, string("bob"), nullptr);
}

TEST_F(SetKeyValues, ClosesAHandleThatTheFailedCreationLeft) {
  expect({
      started("k", kList),
      open_failed("k"),
      resolves_type3("p"),
      create_n_set_key("k", 5, type3_record(), kListBytes()).returns(11).gives(kKey),
      reports(11),
      trace("setKeyValues: prtkv_create_n_set_key failed in creating the key [k], retval=11\n"),
      close_key(kKey),
      releases("k"),
  });
  setKeyValues(string("k"), list(kList), 3, string("p"), nullptr, nullptr);
}

// The working key is not required beforehand: the registry judges a null parent.
class SetKeyValuesWithoutWorkingKey : public SetKeyValues {
 public:
  void SetUp() override {
    BridgeTest::SetUp();
    givenSession();
  }
};

TEST_F(SetKeyValuesWithoutWorkingKey, WritesAnExistingKey) {
  expect({
      started("k", kList),
      opened("k"),
      set_value(kKey, 5, kListBytes()),
      close_key(kKey),
      releases("k"),
      status(true),
  });
  setKeyValues(string("k"), list(kList), 3, string("p"), nullptr, nullptr);
}

TEST_F(SetKeyValuesWithoutWorkingKey, HandsANullParentToTheRegistry) {
  expect({
      started("k", kList),
      open_failed("k"),
      resolves_type3("p"),
      create_n_set_key("k", 5, type3_record(), kListBytes(), 0).returns(3),
      reports(3),
      trace("setKeyValues: prtkv_create_n_set_key failed in creating the key [k], retval=3\n"),
      releases("k"),
  });
  setKeyValues(string("k"), list(kList), 3, string("p"), nullptr, nullptr);
}

// Arguments that cannot be used.

TEST_F(SetKeyValues, FailsWithoutTheNamesCharacters) {
  expect({takes("k"), reports(1), trace("setKeyValues: NULL key name passed")});
  setKeyValues(unobtainable("k"), list(kList), 3, string("p"), nullptr, nullptr);
}

TEST_F(SetKeyValues, FailsForANullName) {
  expect({reports(1), trace("setKeyValues: NULL key name passed")});
  setKeyValues(nullptr, list(kList), 3, string("p"), nullptr, nullptr);
}

class RefusedList : public SetKeyValues {
 public:
  // The list is refused with this text, nothing is asked of the registry, and everything taken is given back.
  void expectRefusal(const Calls& start, const std::string& text) {
    expect(start);
    expectLinesStartAsExpected();
    const auto& lines = recording().lines();
    std::vector<std::string> others;
    for (const auto& line : lines) {
      if (line.find("prsrvut_trace") == std::string::npos && line.find("ReleaseStringUTFChars") == std::string::npos) {
        others.push_back(line);
      }
    }
    std::vector<std::string> report;
    const Calls calls = reports_error(text);
    for (const auto& call : calls.all()) report.push_back(call.line());
    ASSERT_GE(others.size(), report.size());
    EXPECT_THAT(std::vector<std::string>(others.end() - static_cast<std::ptrdiff_t>(report.size()), others.end()),
                ::testing::ElementsAreArray(report));
    EXPECT_THAT(lines, Not(Contains(HasSubstr("prtkv_open_key("))));
    EXPECT_THAT(lines, Not(Contains(HasSubstr("prtkv_set_value("))));
    EXPECT_THAT(lines, Not(Contains(HasSubstr("prtkv_create"))));
    EXPECT_THAT(lines, Not(Contains(HasSubstr("setTKVErrCode"))));
    // An element is given back before the report, the name after it.
    report.push_back(releases("k").line());
    ASSERT_GE(lines.size(), report.size());
    EXPECT_THAT(std::vector<std::string>(lines.end() - static_cast<std::ptrdiff_t>(report.size()), lines.end()),
                ::testing::ElementsAreArray(report));
  }
};

TEST_F(RefusedList, IsNull) {
  setKeyValues(string("k"), nullptr, 3, string("p"), nullptr, nullptr);
  expectRefusal({takes("k")}, "TKV_VALUE_LIST_INVALID");
  EXPECT_THAT(recording().lines(), Not(Contains(HasSubstr("GetArrayLength"))));
}

TEST_F(RefusedList, HasANullElement) {
  setKeyValues(string("k"), managed().array({string("a"), nullptr, string("b")}), 3, string("p"), nullptr, nullptr);
  expectRefusal({takes("k"), array_length()}, "TKV_VALUE_LIST_INVALID");
}

TEST_F(RefusedList, HasOnlyANullElement) {
  setKeyValues(string("k"), managed().array({nullptr}), 3, string("p"), nullptr, nullptr);
  expectRefusal({takes("k"), array_length()}, "TKV_VALUE_LIST_INVALID");
}

TEST_F(RefusedList, HasAnElementWithoutCharacters) {
  setKeyValues(string("k"), managed().array({string("a"), unobtainable("b")}), 3, string("p"), nullptr, nullptr);
  expectRefusal({takes("k"), array_length()}, "TKV_VALUE_LIST_INVALID");
}

class OverLongList : public RefusedList, public ::testing::WithParamInterface<List> {};

TEST_P(OverLongList, IsRefused) {
  setKeyValues(string("k"), list(GetParam()), 3, string("p"), nullptr, nullptr);
  expectRefusal({takes("k"), array_length()}, "TKV_VALUE_LIST_TOO_LONG");
}

INSTANTIATE_TEST_SUITE_P(Lists, OverLongList,
                         Values(List{std::string(8191, 'x')}, List{std::string(8192, 'x')},
                                List{std::string(100000, 'x')}, List{std::string(4095, 'x'), std::string(4095, 'y')},
                                List{std::string(8190, 'x'), ""}, List(4096, "z"), List(8192, ""),
                                List{"a", std::string(20000, 'x'), "b"}));

}  // namespace
}  // namespace bridge_test
