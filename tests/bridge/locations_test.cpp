/* getTKVLocations, checkTKVStorageType and getTKVBackupLocation. */
#include "bridge_test.h"

namespace bridge_test {
namespace {

using ::testing::ElementsAre;
using ::testing::Values;

using Texts = std::vector<std::string>;

constexpr size_t kSlot = 4097;

std::string slots(const Texts& locations) {
  std::string bytes(5 * kSlot, '\0');
  for (size_t i = 0; i < locations.size(); ++i) bytes.replace(i * kSlot, locations[i].size(), locations[i]);
  return bytes;
}

class GetTKVLocations : public BridgeTest {};

Call get_configuration() {
  return {"prtkv_get_conf",
          {program(kProgram), "word 0", "word 0", "null", "locations", "own buffer", "1024", "0x20004"}};
}

Calls prepared(bool debug) {
  return {
      program_manager(),
      allocates(20485, "locations"),
      program_manager(),
      is_debug_on(debug),
      when(debug, trace("JNI: isCluster() Successfully initialized meta context")),
  };
}

Calls answered(int rc, bool debug) {
  return {is_debug_on(debug), when(debug, trace("JNI: prtkv_get_conf() retValue = " + std::to_string(rc)))};
}

// The array of the locations, given as it comes out.
Calls listed(const Texts& locations) {
  Calls calls = {
      trace("\nNumber of TKV Locations = " + std::to_string(locations.size()) + "\n"),
      find_string_class(),
      new_string_array(static_cast<int>(locations.size())),
  };
  for (size_t i = 0; i < locations.size(); ++i) {
    calls.add({
        trace("TKV location " + std::to_string(i) + " = " + locations[i] + "\n"),
        new_string(locations[i]),
        stores_element(static_cast<int>(i), locations[i]),
        deletes_reference(locations[i]),
    });
  }
  return calls;
}

Calls succeeded(const Texts& given, const Texts& listed_locations) {
  return {
      prepared(false),          get_configuration().says(slots(given)).word(1).second_word(0),
      answered(0, false),       status(true),
      is_debug_on(false),       boolean_result(true),
      listed(listed_locations),
  };
}

// Written out without the shorthands.
TEST_F(GetTKVLocations, GivesTheLocationsOfASharedRegistry) {
  expect({
      Call("lpminit", {"null"}).gives(kProgram),
      Call("prou_allocm", {"pm 20", "20485"}).named("locations"),
      Call("lpminit", {"null"}).gives(kProgram),
      is_debug_on(true),
      trace("JNI: isCluster() Successfully initialized meta context"),
      Call("prtkv_get_conf", {"pm 20", "word 0", "word 0", "null", "locations", "own buffer", "1024", "0x20004"})
          .says(slots({"etcd://a:1", "etcd://b:2"}))
          .word(1),
      is_debug_on(true),
      trace("JNI: prtkv_get_conf() retValue = 0"),
      status(true),
      is_debug_on(true),
      trace("The TKV file is configured  & local_only=false\n"),
      boolean_result(true),
      trace("\nNumber of TKV Locations = 2\n"),
      find_string_class(),
      new_string_array(2),
      trace("TKV location 0 = etcd://a:1\n"),
      new_string("etcd://a:1"),
      stores_element(0, "etcd://a:1"),
      deletes_reference("etcd://a:1"),
      trace("TKV location 1 = etcd://b:2\n"),
      new_string("etcd://b:2"),
      stores_element(1, "etcd://b:2"),
      deletes_reference("etcd://b:2"),
  });
  EXPECT_THAT(textsOf(getTKVLocations()), ElementsAre("etcd://a:1", "etcd://b:2"));
  abandons({"locations"});
}

// The two words of the configuration, the line that is traced, and the answer.
struct State {
  int configured;
  int local_only;
  std::string line;
  bool shared;
};

class GetTKVLocationsWithState : public BridgeTest, public ::testing::WithParamInterface<std::tuple<State, bool>> {};

TEST_P(GetTKVLocationsWithState, SaysWhetherTheRegistryIsShared) {
  const auto& [state, debug] = GetParam();
  expect({
      prepared(debug),
      get_configuration().says(slots({"/var/lib/tkv"})).word(state.configured).second_word(state.local_only),
      answered(0, debug),
      status(true),
      is_debug_on(debug),
      when(debug, trace(state.line)),
      boolean_result(state.shared),
      listed({"/var/lib/tkv"}),
  });
  EXPECT_THAT(textsOf(getTKVLocations()), ElementsAre("/var/lib/tkv"));
  abandons({"locations"});
}

const char kNotConfigured[] = "The TKV file is not configured \n";
const char kLocalOnly[] = "The TKV file is configured & local_only=true\n";
const char kShared[] = "The TKV file is configured  & local_only=false\n";

INSTANTIATE_TEST_SUITE_P(States, GetTKVLocationsWithState,
                         ::testing::Combine(Values(State{0, 0, kNotConfigured, false},
                                                   State{0, 1, kNotConfigured, false}, State{1, 1, kLocalOnly, false},
                                                   State{1, -1, kLocalOnly, false}, State{2, 2, kLocalOnly, false},
                                                   State{1, 0, kShared, true}, State{-1, 0, kShared, true}),
                                            ::testing::Bool()));

TEST_F(GetTKVLocations, GivesAnEmptyArrayWithoutLocations) {
  expect({
      prepared(false),
      get_configuration(),
      answered(0, false),
      status(true),
      is_debug_on(false),
      boolean_result(false),
      listed({}),
  });
  EXPECT_THAT(textsOf(getTKVLocations()), ElementsAre());
  abandons({"locations"});
}

TEST_F(GetTKVLocations, GivesFiveLongestLocationsWhole) {
  Texts locations;
  for (const char letter : {'a', 'b', 'c', 'd', 'e'}) locations.emplace_back(4096, letter);
  expect(succeeded(locations, locations));
  EXPECT_EQ(textsOf(getTKVLocations()), locations);
  abandons({"locations"});
}

TEST_F(GetTKVLocations, EndsALocationThatFillsItsSlot) {
  const Texts given(5, std::string(4097, 'x'));
  expect(succeeded(given, Texts(5, std::string(4096, 'x'))));
  getTKVLocations();
  abandons({"locations"});
}

TEST_F(GetTKVLocations, PassesLocationsWithPercentSignsOn) {
  expect(succeeded({"/%s/%n"}, {"/%s/%n"}));
  EXPECT_THAT(textsOf(getTKVLocations()), ElementsAre("/%s/%n"));
  abandons({"locations"});
}

// The slots, and the locations that are listed: as many as are filled, taken from the front.
struct Gap {
  Texts given;
  Texts listed;
};

class GetTKVLocationsWithGap : public BridgeTest, public ::testing::WithParamInterface<Gap> {};

TEST_P(GetTKVLocationsWithGap, CountsTheFilledSlotsAndTakesTheFirstOnes) {
  expect(succeeded(GetParam().given, GetParam().listed));
  EXPECT_EQ(textsOf(getTKVLocations()), GetParam().listed);
  abandons({"locations"});
}

INSTANTIATE_TEST_SUITE_P(Slots, GetTKVLocationsWithGap,
                         Values(Gap{{"", "b"}, {""}}, Gap{{"a", "", "c"}, {"a", ""}}, Gap{{"", "", "", "", "e"}, {""}},
                                Gap{{"a", "b", "c", "", "e"}, {"a", "b", "c", ""}},
                                Gap{{"", "b", "", "d", ""}, {"", "b"}}));

TEST_F(GetTKVLocations, GivesNullWithoutMemory) {
  expect({
      program_manager(),
      allocates(20485, "locations").gives_null(),
      trace("\nMemory allocation failure\n"),
  });
  EXPECT_EQ(getTKVLocations(), nullptr);
}

struct Failure {
  int rc;
  std::string line;
};

class GetTKVLocationsWithFailure : public BridgeTest, public ::testing::WithParamInterface<Failure> {};

TEST_P(GetTKVLocationsWithFailure, SendsOnlyTheRegistrysText) {
  expect({
      prepared(false),
      get_configuration().returns(GetParam().rc).says("TKV-0041: line 3 %s").word(1),
      answered(GetParam().rc, false),
      is_debug_on(false),
      new_string("TKV-0041: line 3 %s"),
      result_string("TKV-0041: line 3 %s"),
      deletes_reference("TKV-0041: line 3 %s"),
      is_debug_on(false),
  });
  EXPECT_EQ(getTKVLocations(), nullptr);
  abandons({"locations"});
}

TEST_P(GetTKVLocationsWithFailure, TracesTheResultsOwnLineWithTracingOn) {
  const std::string rc = std::to_string(GetParam().rc);
  expect({
      prepared(true),
      get_configuration().returns(GetParam().rc).says("text %s"),
      answered(GetParam().rc, true),
      is_debug_on(true),
      trace("JNI: prtkv_get_config failed with error code = " + rc + "\n"),
      trace("JNI: error = text %s\n"),
      sends_text("text %s"),
      is_debug_on(true),
      trace(GetParam().line),
  });
  EXPECT_EQ(getTKVLocations(), nullptr);
  abandons({"locations"});
}

INSTANTIATE_TEST_SUITE_P(Results, GetTKVLocationsWithFailure,
                         Values(Failure{8, "getConf: prtkv_get_conf failed, invalid parameters\n"},
                                Failure{12, "getConf: prtkv_get_conf failed to allocate memory\n"},
                                Failure{13, "getConf: prtkv_get_conf failed, null parameter\n"},
                                Failure{14, "getConf: prtkv_get_conf failed: unknown error\n"},
                                Failure{41, "getConf: prtkv_get_conf failed: invalid configuration\n"},
                                Failure{42, "getConf: prtkv_get_conf failed to access registry config\n"},
                                Failure{1, "getConf: prtkv_get_conf failed: unknown return code\n"},
                                Failure{7, "getConf: prtkv_get_conf failed: unknown return code\n"},
                                Failure{43, "getConf: prtkv_get_conf failed: unknown return code\n"},
                                Failure{-8, "getConf: prtkv_get_conf failed: unknown return code\n"}));

TEST_F(GetTKVLocations, SendsAnEmptyTextWhenTheRegistryGaveNone) {
  expect({
      prepared(false),
      get_configuration().returns(42),
      answered(42, false),
      is_debug_on(false),
      sends_text(""),
      is_debug_on(false),
  });
  EXPECT_EQ(getTKVLocations(), nullptr);
  abandons({"locations"});
}

TEST_F(GetTKVLocations, StoresNothingWhenTheArrayCannotBeMade) {
  expect(succeeded({"a"}, {}).before("prsrvut_trace"));
  expect({
      trace("\nNumber of TKV Locations = 1\n"),
      find_string_class(),
      new_string_array(1).gives_null(),
  });
  EXPECT_EQ(getTKVLocations(), nullptr);
  expectLinesStartAsExpected();
  EXPECT_THAT(recording().lines(), ::testing::Not(::testing::Contains(::testing::HasSubstr("SetObjectArrayElement"))));
  abandons({"locations"});
}

TEST_F(GetTKVLocations, DoesNotDependOnTheSession) {
  givenHalfSession();
  expect(succeeded({"a"}, {"a"}));
  getTKVLocations();
  verify();
  givenEndedSession();
  expect(succeeded({"a"}, {"a"}));
  getTKVLocations();
  abandons({"locations", "locations"});
}

// checkTKVStorageType

class CheckTKVStorageType : public BridgeTest {};

Call check_storage(const std::string& path) {
  return {"prtkv_check_storage", {program(kProgram), quote(path), "own buffer", "1024", "0x20000"}};
}

// The path's characters stay taken, whatever the answer.

TEST_F(CheckTKVStorageType, IsZeroForAPathThatPasses) {
  expect({
      program_manager(),
      takes("/var/lib/%s"),
      check_storage("/var/lib/%s"),
      trace("checkTKVStorageType: Path(/var/lib/%s)\n"),
      status(true),
  });
  EXPECT_EQ(checkTKVStorageType(string("/var/lib/%s")), 0);
  keepsCharacters({"/var/lib/%s"});
}

TEST_F(CheckTKVStorageType, IsTwoWithATextForADistributedRegistry) {
  expect({
      program_manager(),
      takes("etcd://a:1"),
      check_storage("etcd://a:1").returns(37).says("TKV-0037: distributed"),
      trace("checkTKVStorageType: Path(etcd://a:1)\n"),
      trace("TKV-0037: distributed"),
      new_string("TKV-0037: distributed"),
      result_string("TKV-0037: distributed"),
      deletes_reference("TKV-0037: distributed"),
      status(true),
  });
  EXPECT_EQ(checkTKVStorageType(string("etcd://a:1")), 2);
  keepsCharacters({"etcd://a:1"});
}

class CheckTKVStorageTypeWithResult : public BridgeTest, public ::testing::WithParamInterface<int> {};

TEST_P(CheckTKVStorageTypeWithResult, IsOneWithATextForAnyOtherPath) {
  expect({
      program_manager(),
      takes("rel"),
      check_storage("rel").returns(GetParam()).says("not absolute"),
      trace("checkTKVStorageType: Path(rel)\n"),
      trace("not absolute"),
      sends_text("not absolute"),
      status(false),
  });
  EXPECT_EQ(checkTKVStorageType(string("rel")), 1);
  keepsCharacters({"rel"});
}

INSTANTIATE_TEST_SUITE_P(Results, CheckTKVStorageTypeWithResult, Values(1, 7, 8, 36, 38, -37));

// The registry's text is the trace's format, so that two percent signs of it are traced as one, and sent as two.
TEST_F(CheckTKVStorageType, TracesTheTextAsAFormat) {
  expect({
      program_manager(),
      takes("/x"),
      check_storage("/x").returns(11).says("100%% full"),
      trace("checkTKVStorageType: Path(/x)\n"),
      trace("100% full"),
      sends_text("100%% full"),
      status(false),
  });
  EXPECT_EQ(checkTKVStorageType(string("/x")), 1);
  keepsCharacters({"/x"});
}

TEST_F(CheckTKVStorageType, SendsAnEmptyTextWhenTheRegistryGaveNone) {
  expect({
      program_manager(),
      takes("/x"),
      check_storage("/x").returns(7),
      trace("checkTKVStorageType: Path(/x)\n"),
      trace(""),
      sends_text(""),
      status(false),
  });
  EXPECT_EQ(checkTKVStorageType(string("/x")), 1);
  keepsCharacters({"/x"});
}

Calls refused_path() {
  return {
      check_storage("").with_argument(1, "null").returns(13).says("null argument"),
      Call("prsrvut_trace", {"\"checkTKVStorageType: Path(" + kAny + ")\\n\""}),
      trace("null argument"),
      sends_text("null argument"),
      status(false),
  };
}

TEST_F(CheckTKVStorageType, AsksTheRegistryWithoutAPathWhenItsCharactersCannotBeHad) {
  expect({program_manager(), takes("/x"), refused_path()});
  EXPECT_EQ(checkTKVStorageType(unobtainable("/x")), 1);
}

TEST_F(CheckTKVStorageType, AsksTheRegistryWithoutAPathForANullPath) {
  expect({program_manager(), refused_path()});
  EXPECT_EQ(checkTKVStorageType(nullptr), 1);
}

TEST_F(CheckTKVStorageType, DoesNotDependOnTheSession) {
  givenEndedSession();
  expect({
      program_manager(),
      takes("/x"),
      check_storage("/x"),
      trace("checkTKVStorageType: Path(/x)\n"),
      status(true),
  });
  EXPECT_EQ(checkTKVStorageType(string("/x")), 0);
  keepsCharacters({"/x"});
}

// getTKVBackupLocation

class GetTKVBackupLocation : public BridgeTest {
 public:
  void SetUp() override {
    BridgeTest::SetUp();
    givenSession();
  }
};

Call get_backup_location() { return {"prtkv_get_backup_loc", {context(kRegistry), "own buffer", "word", "0x20000"}}; }

Call backup_trace(int rc) {
  return trace("getTKVBackupLocation: prtkv_get_backup_loc retval = " + std::to_string(rc) + "\n");
}

class GetTKVBackupLocationWithText : public GetTKVBackupLocation, public ::testing::WithParamInterface<std::string> {};

TEST_P(GetTKVBackupLocationWithText, GivesTheLocation) {
  expect({
      get_backup_location().says(GetParam()).size(1 << 20),
      trace("getTKVBackupLocation: prtkv_get_backup_loc retval = 0\n"),
      new_string(GetParam()),
      status(true),
  });
  EXPECT_EQ(textOf(getTKVBackupLocation()), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Texts, GetTKVBackupLocationWithText, Values("/backup", "", "/%s", std::string(4095, 'b')));

TEST_F(GetTKVBackupLocation, SendsTheRegistrysLastTextAndNoCode) {
  expect({
      get_backup_location().returns(42),
      backup_trace(42),
      last_error().says("TKV-0042: %s").word(42),
      new_string("TKV-0042: %s"),
      result_string("TKV-0042: %s"),
      deletes_reference("TKV-0042: %s"),
      status(false),
  });
  EXPECT_EQ(getTKVBackupLocation(), nullptr);
}

TEST_F(GetTKVBackupLocation, SendsTheTextWhateverTheLastErrorsResult) {
  expect({
      get_backup_location().returns(42),
      backup_trace(42),
      last_error().returns(14).says("left over"),
      sends_text("left over"),
      status(false),
  });
  EXPECT_EQ(getTKVBackupLocation(), nullptr);
}

TEST_F(GetTKVBackupLocation, SendsAnEmptyTextWhenTheRegistryHasNone) {
  expect({
      get_backup_location().returns(-1).says("/not/an/answer"),
      backup_trace(-1),
      last_error().returns(14),
      sends_text(""),
      status(false),
  });
  EXPECT_EQ(getTKVBackupLocation(), nullptr);
}

}  // namespace
}  // namespace bridge_test
