/* createAndSetKeyValue. */
#include "bridge_test.h"
#include "security_calls.h"

namespace bridge_test {
namespace {

using ::testing::Values;

constexpr uint64_t kNew = 7;

class CreateAndSetKeyValue : public BridgeTest {
 public:
  void SetUp() override {
    BridgeTest::SetUp();
    givenWorkingKey();
  }
};

std::string ended(const std::string& text) { return text + std::string(1, '\0'); }

Calls started(const std::string& name = "k", const std::string& value = "v", int type = 3, size_t size = 2) {
  return {
      takes(name),
      takes(value),
      trace("createAndSetKeyValue: ([" + name + "], " + value + ")\n"),
      trace("createAndSetKeyValue: (" + std::to_string(type) + ", " + std::to_string(size) + ")\n"),
  };
}

Call same_group() { return trace("prsr_group_name same as sec_attr.group_name\n"); }

Call created(int rc) {
  return trace("createAndSetKeyValue: prtkv_create_n_set_key_ext, rc=" + std::to_string(rc) + "\n");
}

Call secured(int rc, const std::string& name = "k") {
  return trace("createAndSetKeyValue: prtkv_set_key_security_ext for key [" + name + "], rc=" + std::to_string(rc) +
               "\n");
}

Call cleanup(int rc) { return trace("createAndSetKeyValue: cleanup, rc=" + std::to_string(rc) + "\n"); }

Calls names_released(const std::string& name = "k", const std::string& value = "v") {
  return {releases(name), releases(value)};
}

struct Typed {
  int type;
  std::string text;
  int stored_type;
  std::string stored;
};

class CreateAndSetKeyValueWithType : public CreateAndSetKeyValue, public ::testing::WithParamInterface<Typed> {};

TEST_P(CreateAndSetKeyValueWithType, CreatesTheKeyInOneCall) {
  const auto& [type, text, stored_type, stored] = GetParam();
  expect({
      takes("new.k"),
      takes(text),
      trace("createAndSetKeyValue: ([new.k], " + text + ")\n"),
      trace("createAndSetKeyValue: (" + std::to_string(stored_type) + ", " + std::to_string(stored.size()) + ")\n"),
      resolves_type3("p"),
      trace("prsr_group_name same as sec_attr.group_name\n"),
      create_n_set_key_ext("new.k", type3_record(), stored_type, stored).gives(kNew).word(1),
      trace("createAndSetKeyValue: prtkv_create_n_set_key_ext, rc=0\n"),
      trace("createAndSetKeyValue: cleanup, rc=0\n"),
      close_key(kNew),
      releases("new.k"),
      releases(text),
      status(true),
  });
  createAndSetKeyValue(string("new.k"), string(text), type, 3, string("p"), nullptr, nullptr);
}

std::string padded(const std::string& text, size_t size) { return text + std::string(size - text.size(), '\0'); }

INSTANTIATE_TEST_SUITE_P(
    Types, CreateAndSetKeyValueWithType,
    Values(Typed{1, "abcd", 1, "abcd"}, Typed{1, "abcdef", 1, "abcd"}, Typed{1, "a", 1, padded("a", 4)},
           Typed{2, "abcdefgh", 2, "abcdefgh"}, Typed{2, "abcdefghi", 2, "abcdefgh"},
           Typed{2, "abc", 2, padded("abc", 8)}, Typed{3, "abc", 3, ended("abc")}, Typed{3, "", 3, ended("")},
           Typed{3, "%s%n", 3, ended("%s%n")}, Typed{3, std::string(5000, 'v'), 3, ended(std::string(5000, 'v'))},
           Typed{5, "abc", 5, ""}, Typed{7, "abc", 3, ""}, Typed{0, "abc", 3, ""}, Typed{-2, "abc", 3, ""}));

// The second step of another group goes to the working key, not to the key that was just created.
TEST_F(CreateAndSetKeyValue, AppliesAnotherGroupsRecordToTheWorkingKey) {
  const sec_attr record = type1_record("bob", "wheel");
  expect({
      started(),
      resolves_type1("bob", "wheel"),
      create_n_set_key_ext("k", owned(0x3f, 0x34, 0x3, "ada", "staff"), 3, ended("v")).gives(kNew),
      created(0),
      set_security_ext(kWorkingKey, record),
      secured(0),
      cleanup(0),
      close_key(kNew),
      names_released(),
      status(true),
  });
  createAndSetKeyValue(string("k"), string("v"), 3, 1, nullptr, string("bob"), string("wheel"));
}

TEST_F(CreateAndSetKeyValue, CreatesInOneStepForAnotherUserOfTheSameGroup) {
  expect({
      started(),
      resolves_type1("bob", "staff"),
      same_group(),
      create_n_set_key_ext("k", type1_record("bob", "staff"), 3, ended("v")).gives(kNew),
      created(0),
      cleanup(0),
      close_key(kNew),
      names_released(),
      status(true),
  });
  createAndSetKeyValue(string("k"), string("v"), 3, 1, nullptr, string("bob"), string("staff"));
}

TEST_F(CreateAndSetKeyValue, SaysThatAnExistingKeyExists) {
  expect({
      started(),
      resolves_type3("p"),
      same_group(),
      create_n_set_key_ext("k", type3_record(), 3, ended("v")).returns(55),
      created(55),
      cleanup(55),
      names_released(),
      new_string("TKV_KEY_ALREADY_EXISTS"),
      result_string("TKV_KEY_ALREADY_EXISTS"),
      deletes_reference("TKV_KEY_ALREADY_EXISTS"),
      status(false),
  });
  createAndSetKeyValue(string("k"), string("v"), 3, 3, string("p"), nullptr, nullptr);
}

TEST_F(CreateAndSetKeyValue, SaysThatAnExistingKeyExistsAlsoForAnotherGroup) {
  expect({
      started(),
      resolves_type1("bob", "wheel"),
      create_n_set_key_ext("k", first_step(type1_record("bob", "wheel")), 3, ended("v")).returns(55),
      created(55),
      cleanup(55),
      names_released(),
      reports_error("TKV_KEY_ALREADY_EXISTS"),
  });
  createAndSetKeyValue(string("k"), string("v"), 3, 1, nullptr, string("bob"), string("wheel"));
}

TEST_F(CreateAndSetKeyValue, ClosesTheHandleOfAnExistingKey) {
  expect({
      started(),
      resolves_type3("p"),
      same_group(),
      create_n_set_key_ext("k", type3_record(), 3, ended("v")).returns(55).gives(kNew),
      created(55),
      cleanup(55),
      close_key(kNew).returns(3),
      names_released(),
      reports_error("TKV_KEY_ALREADY_EXISTS"),
  });
  createAndSetKeyValue(string("k"), string("v"), 3, 3, string("p"), nullptr, nullptr);
}

class CreateAndSetKeyValueWithResult : public CreateAndSetKeyValue, public ::testing::WithParamInterface<int> {};

TEST_P(CreateAndSetKeyValueWithResult, ReportsAFailedCreation) {
  expect({
      started(),
      resolves_type3("p"),
      same_group(),
      create_n_set_key_ext("k", type3_record(), 3, ended("v")).returns(GetParam()),
      created(GetParam()),
      reports(GetParam()),
      cleanup(GetParam()),
      names_released(),
  });
  createAndSetKeyValue(string("k"), string("v"), 3, 3, string("p"), nullptr, nullptr);
}

TEST_P(CreateAndSetKeyValueWithResult, ReportsAFailedCreationForAnotherGroup) {
  expect({
      started(),
      resolves_type1("bob", "wheel"),
      create_n_set_key_ext("k", first_step(type1_record("bob", "wheel")), 3, ended("v")).returns(GetParam()),
      created(GetParam()),
      reports(GetParam()),
      cleanup(GetParam()),
      names_released(),
  });
  createAndSetKeyValue(string("k"), string("v"), 3, 1, nullptr, string("bob"), string("wheel"));
}

TEST_P(CreateAndSetKeyValueWithResult, ReportsSecurityThatCannotBeAppliedAndLeavesTheKey) {
  const sec_attr record = type1_record("bob", "wheel");
  expect({
      started("%s"),
      resolves_type1("bob", "wheel"),
      create_n_set_key_ext("%s", first_step(record), 3, ended("v")).gives(kNew),
      created(0),
      set_security_ext(kWorkingKey, record).returns(GetParam()),
      secured(GetParam(), "%s"),
      reports(GetParam()),
      cleanup(GetParam()),
      close_key(kNew).returns(3),
      names_released("%s"),
  });
  createAndSetKeyValue(string("%s"), string("v"), 3, 1, nullptr, string("bob"), string("wheel"));
}

INSTANTIATE_TEST_SUITE_P(Results, CreateAndSetKeyValueWithResult, Values(2, 4, 11, 54, 56, -1));

TEST_F(CreateAndSetKeyValue, ReportsTheRegistrysTextOfAFailedCreation) {
  expect({
      started(),
      resolves_type3("p"),
      same_group(),
      create_n_set_key_ext("k", type3_record(), 3, ended("v")).returns(2).gives(kNew),
      created(2),
      reports_text("TKV-0002: access denied"),
      cleanup(2),
      close_key(kNew),
      names_released(),
  });
  createAndSetKeyValue(string("k"), string("v"), 3, 3, string("p"), nullptr, nullptr);
}

// The last result decides: the security call's 55 is reported like any other and then told as an existing key.
TEST_F(CreateAndSetKeyValue, SaysThatTheKeyExistsWhenItsSecurityGivesThatResult) {
  const sec_attr record = type1_record("bob", "wheel");
  expect({
      started(),
      resolves_type1("bob", "wheel"),
      create_n_set_key_ext("k", first_step(record), 3, ended("v")).gives(kNew),
      created(0),
      set_security_ext(kWorkingKey, record).returns(55),
      secured(55),
      reports(55),
      cleanup(55),
      close_key(kNew),
      names_released(),
      reports_error("TKV_KEY_ALREADY_EXISTS"),
  });
  createAndSetKeyValue(string("k"), string("v"), 3, 1, nullptr, string("bob"), string("wheel"));
}

TEST_F(CreateAndSetKeyValue, ReportsAFailedResolutionWithCodeOne) {
  expect({
      started(),
      type1_without_user(),
      reports(1),
      trace("Failed to fill sec attr retval=4"),
      cleanup(-1),
      names_released(),
  });
  createAndSetKeyValue(string("k"), string("v"), 3, 1, nullptr, nullptr, nullptr);
}

TEST_F(CreateAndSetKeyValue, ReportsANameThatCannotBeConvertedAndLeavesTheStatusFalse) {
  expect({
      started(),
      type5_with_unconvertible_user("bob"),
      reports(1),
      trace("Failed to fill sec attr retval=0"),
      cleanup(-1),
      names_released(),
  });
  createAndSetKeyValue(string("k"), string("v"), 3, 5, nullptr, string("bob"), nullptr);
}

TEST_F(CreateAndSetKeyValue, ReportsAnUnknownSecurityType) {
  expect({
      started(),
      fill_trace(7),
      reports_text("TKV-0004: no such key"),
      trace("Failed to fill sec attr retval=6"),
      cleanup(-1),
      names_released(),
  });
  createAndSetKeyValue(string("k"), string("v"), 3, 7, string("p"), nullptr, nullptr);
}

TEST_F(CreateAndSetKeyValue, ReportsAFailedClose) {
  expect({
      started(),
      resolves_type3("p"),
      same_group(),
      create_n_set_key_ext("k", type3_record(), 3, ended("v")).gives(kNew),
      created(0),
      cleanup(0),
      close_key(kNew).returns(15),
      names_released(),
      reports(15),
  });
  createAndSetKeyValue(string("k"), string("v"), 3, 3, string("p"), nullptr, nullptr);
}

// 55 of the close is its own result, not the last one of the creation.
TEST_F(CreateAndSetKeyValue, ReportsAFailedCloseWithTheResultOfAnExistingKeyLikeAnyOther) {
  expect({
      started(),
      resolves_type3("p"),
      same_group(),
      create_n_set_key_ext("k", type3_record(), 3, ended("v")).gives(kNew),
      created(0),
      cleanup(0),
      close_key(kNew).returns(55),
      names_released(),
      reports(55),
  });
  createAndSetKeyValue(string("k"), string("v"), 3, 3, string("p"), nullptr, nullptr);
}

TEST_F(CreateAndSetKeyValue, ClosesNothingWhenTheRegistryGaveNoHandle) {
  expect({
      started(),
      resolves_type3("p"),
      same_group(),
      create_n_set_key_ext("k", type3_record(), 3, ended("v")),
      created(0),
      cleanup(0),
      names_released(),
      status(true),
  });
  createAndSetKeyValue(string("k"), string("v"), 3, 3, string("p"), nullptr, nullptr);
}

TEST_F(CreateAndSetKeyValue, LeavesTheWorkingKeyAlone) {
  expect({
      started(),
      resolves_type3("p"),
      same_group(),
      create_n_set_key_ext("k", type3_record(), 3, ended("v")).gives(kNew),
      created(0),
      cleanup(0),
      close_key(kNew),
      names_released(),
      status(true),
  });
  createAndSetKeyValue(string("k"), string("v"), 3, 3, string("p"), nullptr, nullptr);
  EXPECT_EQ(session().working_key, kWorkingKey);
}

TEST_F(CreateAndSetKeyValue, FailsWithoutTheNamesCharacters) {
  expect({takes("k"), reports(1), trace("createAndSetKeyValue: NULL key name passed")});
  createAndSetKeyValue(unobtainable("k"), string("v"), 3, 3, string("p"), nullptr, nullptr);
}

TEST_F(CreateAndSetKeyValue, FailsForANullName) {
  expect({reports(1), trace("createAndSetKeyValue: NULL key name passed")});
  createAndSetKeyValue(nullptr, string("v"), 3, 3, string("p"), nullptr, nullptr);
}

struct NullValue {
  int type;
  int stored_type;
  int size;
};

class CreateAndSetKeyValueWithNullValue : public CreateAndSetKeyValue, public ::testing::WithParamInterface<NullValue> {
 public:
  Calls refused() {
    const auto& [type, stored_type, size] = GetParam();
    return {
        Call("prsrvut_trace", {"\"createAndSetKeyValue: ([k], " + kAny + ")\\n\""}),
        trace("createAndSetKeyValue: (" + std::to_string(stored_type) + ", " + std::to_string(size) + ")\n"),
        resolves_type3("p"),
        same_group(),
        create_n_set_key_ext("k", type3_record(), stored_type, "")
            .with_argument(8, "null, " + std::to_string(size))
            .returns(13),
        created(13),
        reports(13),
        cleanup(13),
        releases("k"),
    };
  }
};

TEST_P(CreateAndSetKeyValueWithNullValue, LeavesTheRefusalToTheRegistry) {
  expect({takes("k"), refused()});
  createAndSetKeyValue(string("k"), nullptr, GetParam().type, 3, string("p"), nullptr, nullptr);
}

TEST_P(CreateAndSetKeyValueWithNullValue, LeavesTheRefusalToTheRegistryWithoutCharactersToo) {
  expect({takes("k"), takes("v"), refused()});
  createAndSetKeyValue(string("k"), unobtainable("v"), GetParam().type, 3, string("p"), nullptr, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Types, CreateAndSetKeyValueWithNullValue,
                         Values(NullValue{1, 1, 4}, NullValue{2, 2, 8}, NullValue{3, 3, 1}, NullValue{5, 5, 0},
                                NullValue{7, 3, 0}));

}  // namespace
}  // namespace bridge_test
