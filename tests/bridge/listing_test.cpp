/* listSubKeys. */
#include "bridge_test.h"

namespace bridge_test {
namespace {

using ::testing::ElementsAre;

class ListSubKeys : public BridgeTest {
 public:
  void SetUp() override {
    BridgeTest::SetUp();
    givenSession();
  }
};

// The first enumeration writes into the name buffer as it stands.
Call first_subkey(uint64_t listed) { return enum_subkey(listed, -1).with_argument(2, "own buffer" + kAny); }
Call next_subkey(uint64_t listed, int unread = -1) { return enum_subkey(listed, unread); }

Calls opened(const std::string& name) {
  return {
      takes(name),
      trace("listSubKeys: key_name=[" + name + "]\n"),
      open_key(name).gives(7),
      trace("listSubKeys: open key retval = 0\n"),
      trace("listSubKeys: setting num_remaining_subkey to -1\n"),
  };
}

Calls enumerated(int rc, int remaining) {
  return {
      trace("listSubKeys: prtkv_enum_subkey retval = " + std::to_string(rc) + "\n"),
      trace("listSubKeys: num of remaining subkeys is " + std::to_string(remaining) + "\n"),
  };
}

Calls stored(int index, const std::string& name) {
  return {new_string(name), stores_element(index, name), deletes_reference(name)};
}

Calls another(int index, const std::string& name) {
  return {
      next_subkey(7, -1).says(name),
      trace("listSubKeys: subkey[" + std::to_string(index) + "] = [" + name + "]\n"),
      stored(index, name),
      trace("listSubKeys: after setobjectarrayelement\n"),
  };
}

Calls ended(const std::string& name) { return {close_key(7), releases(name), status(true)}; }

TEST_F(ListSubKeys, GivesTheOnlySubkeyAfterOneEnumeration) {
  expect({
      takes("a"),
      trace("listSubKeys: key_name=[a]\n"),
      open_key("a").gives(7),
      trace("listSubKeys: open key retval = 0\n"),
      trace("listSubKeys: setting num_remaining_subkey to -1\n"),
      first_subkey(7).says("one").word(0),
      trace("listSubKeys: prtkv_enum_subkey retval = 0\n"),
      trace("listSubKeys: num of remaining subkeys is 0\n"),
      find_string_class(),
      new_string_array(1),
      new_string("one"),
      stores_element(0, "one"),
      deletes_reference("one"),
      close_key(7),
      releases("a"),
      status(true),
  });
  EXPECT_THAT(textsOf(listSubKeys(string("a"))), ElementsAre("one"));
}

TEST_F(ListSubKeys, GivesTheSubkeysInTheRegistrysOrder) {
  expect({
      opened("a"),
      first_subkey(7).says("z").word(2),
      enumerated(0, 2),
      find_string_class(),
      new_string_array(3),
      stored(0, "z"),
      next_subkey(7).says("%s"),
      trace("listSubKeys: subkey[1] = [%s]\n"),
      new_string("%s"),
      stores_element(1, "%s"),
      deletes_reference("%s"),
      trace("listSubKeys: after setobjectarrayelement\n"),
      another(2, "b"),
      ended("a"),
  });
  EXPECT_THAT(textsOf(listSubKeys(string("a"))), ElementsAre("z", "%s", "b"));
}

// The length is the first answer's: what later answers say about the rest is not read.
TEST_F(ListSubKeys, TakesTheLengthFromTheFirstAnswerOnly) {
  expect({
      opened("a"),
      first_subkey(7).says("x").word(2),
      enumerated(0, 2),
      find_string_class(),
      new_string_array(3),
      stored(0, "x"),
      next_subkey(7).says("y").word(50),
      trace("listSubKeys: subkey[1] = [y]\n"),
      stored(1, "y"),
      trace("listSubKeys: after setobjectarrayelement\n"),
      next_subkey(7, 50).says("z").word(49),
      trace("listSubKeys: subkey[2] = [z]\n"),
      stored(2, "z"),
      trace("listSubKeys: after setobjectarrayelement\n"),
      ended("a"),
  });
  EXPECT_THAT(textsOf(listSubKeys(string("a"))), ElementsAre("x", "y", "z"));
}

TEST_F(ListSubKeys, GivesTheLongestNamesWhole) {
  const std::string longest(264, 'n');
  expect({
      opened("a"),
      first_subkey(7).says(longest).word(1),
      enumerated(0, 1),
      find_string_class(),
      new_string_array(2),
      stored(0, longest),
      another(1, "n"),
      ended("a"),
  });
  EXPECT_THAT(textsOf(listSubKeys(string("a"))), ElementsAre(longest, "n"));
}

TEST_F(ListSubKeys, IgnoresTheResultOfTheClose) {
  expect({
      opened("a"),
      first_subkey(7).says("one").word(0),
      enumerated(0, 0),
      find_string_class(),
      new_string_array(1),
      stored(0, "one"),
      close_key(7).returns(3),
      releases("a"),
      status(true),
  });
  EXPECT_THAT(textsOf(listSubKeys(string("a"))), ElementsAre("one"));
}

TEST_F(ListSubKeys, GivesNullWithStatusTrueForAKeyWithoutSubkeys) {
  expect({
      opened("a"),
      first_subkey(7).returns(16),
      enumerated(16, -1),
      status(true),
      close_key(7),
      releases("a"),
  });
  EXPECT_EQ(listSubKeys(string("a")), nullptr);
}

TEST_F(ListSubKeys, GivesNullWithStatusTrueForAMissingKey) {
  expect({
      takes("a"),
      trace("listSubKeys: key_name=[a]\n"),
      open_key("a").returns(4),
      trace("listSubKeys: open key retval = 4\n"),
      trace("listSubKeys: key [a] does not exist\n"),
      status(true),
      releases("a"),
  });
  EXPECT_EQ(listSubKeys(string("a")), nullptr);
}

TEST_F(ListSubKeys, ReportsAFailedOpen) {
  expect({
      takes("%s"),
      trace("listSubKeys: key_name=[%s]\n"),
      open_key("%s").returns(15),
      trace("listSubKeys: open key retval = 15\n"),
      reports(15),
      trace("listSubKeys: Failure in opening the  handle to the  key [%s]\n"),
      releases("%s"),
  });
  EXPECT_EQ(listSubKeys(string("%s")), nullptr);
}

TEST_F(ListSubKeys, ReportsAFailedFirstEnumeration) {
  expect({
      opened("a"),
      first_subkey(7).returns(2).word(5),
      enumerated(2, 5),
      reports_text("TKV-0002: access denied"),
      trace("listSubKeys: Failure in opening the handle  to the key [a]\n"),
      close_key(7),
      releases("a"),
  });
  EXPECT_EQ(listSubKeys(string("a")), nullptr);
}

class ListSubKeysWithResult : public ListSubKeys, public ::testing::WithParamInterface<int> {};

TEST_P(ListSubKeysWithResult, ReportsAFailedLaterEnumerationAndDropsTheArray) {
  expect({
      opened("a"),
      first_subkey(7).says("one").word(2),
      enumerated(0, 2),
      find_string_class(),
      new_string_array(3),
      stored(0, "one"),
      another(1, "two"),
      next_subkey(7).returns(GetParam()),
      reports(GetParam()),
      trace("listSubKeys: Failure in enum..tkv ret code = " + std::to_string(GetParam())),
      close_key(7),
      releases("a"),
  });
  EXPECT_EQ(listSubKeys(string("a")), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Results, ListSubKeysWithResult, ::testing::Values(16, 4, 9, 15, -1));

TEST_F(ListSubKeys, SetsTheStatusAloneWhenTheNamesCharactersCannotBeHad) {
  expect({takes("a"), trace("listSubKeys: NULL key name passed"), status(false)});
  EXPECT_EQ(listSubKeys(unobtainable("a")), nullptr);
}

TEST_F(ListSubKeys, SetsTheStatusAloneForANullName) {
  expect({trace("listSubKeys: NULL key name passed"), status(false)});
  EXPECT_EQ(listSubKeys(nullptr), nullptr);
}

TEST_F(ListSubKeys, GivesAnEmptyArrayWhenTheRegistryDoesNotSayHowManyRemain) {
  expect({
      opened("a"),
      first_subkey(7).says("one"),
      enumerated(0, -1),
      find_string_class(),
      new_string_array(0),
      stored(0, "one"),
      ended("a"),
  });
  EXPECT_THAT(textsOf(listSubKeys(string("a"))), ElementsAre());
  EXPECT_TRUE(managed().exception_pending) << "the store at index 0 of an empty array";
}

// Counts below -1 make, taken without sign, a loop that only the registry's answers end. No array has such a length:
// nothing may be stored into the null that stands for it.
TEST_F(ListSubKeys, StoresNothingWhenNoArrayCanBeMadeForANegativeCount) {
  expect({
      opened("a"),
      first_subkey(7).says("one").word(-5),
      enumerated(0, -5),
      find_string_class(),
      new_string_array(-4),
  });
  recording().queue("prtkv_enum_subkey", [] {
    Answer done;
    done.result = 16;
    return done;
  }());
  EXPECT_EQ(listSubKeys(string("a")), nullptr);
  expectLinesStartAsExpected();
  EXPECT_THAT(recording().lines(), ::testing::Not(::testing::Contains(::testing::HasSubstr("SetObjectArrayElement"))));
}

TEST_F(ListSubKeys, StoresNothingWhenTheArrayCannotBeMade) {
  expect({
      opened("a"),
      first_subkey(7).says("one").word(0),
      enumerated(0, 0),
      find_string_class(),
      new_string_array(1).gives_null(),
  });
  EXPECT_EQ(listSubKeys(string("a")), nullptr);
  expectLinesStartAsExpected();
  EXPECT_THAT(recording().lines(), ::testing::Not(::testing::Contains(::testing::HasSubstr("SetObjectArrayElement"))));
}

}  // namespace
}  // namespace bridge_test
