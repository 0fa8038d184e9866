/* getKeyValue. */
#include "bridge_test.h"

namespace bridge_test {
namespace {

using ::testing::Values;

constexpr uint64_t kKey = 7;

class GetKeyValue : public BridgeTest {
 public:
  void SetUp() override {
    BridgeTest::SetUp();
    givenSession();
  }
};

Calls opened(const std::string& name) {
  return {takes(name), open_key(name).gives(kKey), trace("getKeyValue: prtkv_open_key retval = 0\n")};
}

Call read_trace(int rc, int64_t size) {
  return trace("getKeyValue: prtkv_get_value retval = " + std::to_string(rc) + ", size = " + std::to_string(size) +
               "\n");
}

Calls given_back(const std::string& name) { return {close_key(kKey), releases(name)}; }

// A value of at most 1024 bytes, its type, and the text that it is read as.
struct Value {
  std::string bytes;
  int type;
  std::string text;
};

class GetKeyValueWithValue : public GetKeyValue, public ::testing::WithParamInterface<Value> {};

TEST_P(GetKeyValueWithValue, GivesTheBytesUpToTheFirstNul) {
  const auto& [bytes, type, text] = GetParam();
  expect({
      takes("a.b"),
      open_key("a.b").gives(kKey),
      trace("getKeyValue: prtkv_open_key retval = 0\n"),
      get_value(kKey, 1024).says(bytes).word(type),
      trace("getKeyValue: prtkv_get_value retval = 0, size = " + std::to_string(bytes.size()) + "\n"),
      trace("getKeyValue: value is [" + text + "] dtype = " + std::to_string(type) + "\n"),
      new_string(text),
      close_key(kKey),
      releases("a.b"),
      status(true),
  });
  EXPECT_EQ(textOf(getKeyValue(string("a.b"))), text);
}

std::string bytes(std::initializer_list<int> all) {
  std::string text;
  for (const int byte : all) text += static_cast<char>(byte);
  return text;
}

INSTANTIATE_TEST_SUITE_P(Values, GetKeyValueWithValue,
                         Values(Value{bytes({'x', 0}), 3, "x"}, Value{"xy", 3, "xy"},
                                Value{bytes({'a', 'b', 'c', 0}), 3, "abc"}, Value{bytes({'a', 0, 'c', 0}), 3, "a"},
                                Value{bytes({0, 'b', 'c', 0}), 3, ""}, Value{bytes({'a', 'b', 'c', 'd'}), 1, "abcd"},
                                Value{"abcdefgh", 2, "abcdefgh"}, Value{bytes({'a', 0, 'b', 0, 0}), 5, "a"},
                                Value{bytes({0xff, 0xfe}), -9, "\xff\xfe"}, Value{"%s%n", 3, "%s%n"},
                                Value{std::string(1023, 'v'), 3, std::string(1023, 'v')},
                                Value{std::string(1024, 'v'), 3, std::string(1024, 'v')}));

class GetKeyValueWithShortValue : public GetKeyValue, public ::testing::WithParamInterface<std::string> {};

TEST_P(GetKeyValueWithShortValue, GivesNullWithStatusTrue) {
  expect({
      opened("a"),
      get_value(kKey, 1024).says(GetParam()),
      read_trace(0, static_cast<int64_t>(GetParam().size())),
      given_back("a"),
      status(true),
  });
  EXPECT_EQ(getKeyValue(string("a")), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Values, GetKeyValueWithShortValue, Values("", "x", std::string(1, '\0')));

// The first buffer is as long as the largest value of one read.
TEST_F(GetKeyValue, ReadsALongValueASecondTimeIntoABufferOfItsSizeAndOne) {
  const std::string value(1025, 'v');
  expect({
      opened("a"),
      get_value(kKey, 1024).returns(9).size(1025).word(3),
      read_trace(9, 1025),
      allocates(1026, "enlarged"),
      get_value(kKey, 1025, "enlarged").says(value).word(3),
      read_trace(0, 1025),
      trace("getKeyValue: value is [" + value + "] dtype = 3\n"),
      new_string(value),
      frees("enlarged"),
      given_back("a"),
      status(true),
  });
  EXPECT_EQ(textOf(getKeyValue(string("a"))), value);
}

TEST_F(GetKeyValue, PassesTheTypeOfTheFirstReadToTheSecond) {
  expect({
      opened("a"),
      get_value(kKey, 1024).returns(9).size(2000).word(5),
      read_trace(9, 2000),
      allocates(2001, "enlarged"),
      get_value(kKey, 2000, "enlarged").with_argument(2, "word 5").says("short").word(1),
      read_trace(0, 5),
      trace("getKeyValue: value is [short] dtype = 1\n"),
      new_string("short"),
      frees("enlarged"),
      given_back("a"),
      status(true),
  });
  EXPECT_EQ(textOf(getKeyValue(string("a"))), "short");
}

TEST_F(GetKeyValue, EndsAValueThatShrankAtItsNewSize) {
  expect({
      opened("a"),
      get_value(kKey, 1024).returns(9).size(1100),
      read_trace(9, 1100),
      allocates(1101, "enlarged"),
      get_value(kKey, 1100, "enlarged").says(std::string(1100, 'v')).size(2),
      read_trace(0, 2),
      trace("getKeyValue: value is [vv] dtype = 3\n"),
      new_string("vv"),
      frees("enlarged"),
      given_back("a"),
      status(true),
  });
  EXPECT_EQ(textOf(getKeyValue(string("a"))), "vv");
}

// A registry that answers with more than the buffer holds is not believed beyond the buffer's end.
TEST_F(GetKeyValue, EndsAValueThatHasGrownAtTheEndOfTheBuffer) {
  const std::string value(1100, 'v');
  expect({
      opened("a"),
      get_value(kKey, 1024).returns(9).size(1100),
      read_trace(9, 1100),
      allocates(1101, "enlarged"),
      get_value(kKey, 1100, "enlarged").says(value).size(5000),
      read_trace(0, 5000),
      trace("getKeyValue: value is [" + value + "] dtype = 3\n"),
      new_string(value),
      frees("enlarged"),
      given_back("a"),
      status(true),
  });
  EXPECT_EQ(textOf(getKeyValue(string("a"))), value);
}

TEST_F(GetKeyValue, EndsAValueOfOneReadAtTheEndOfTheBuffer) {
  const std::string value(1024, 'v');
  expect({
      opened("a"),
      get_value(kKey, 1024).says(value).size(1025),
      read_trace(0, 1025),
      trace("getKeyValue: value is [" + value + "] dtype = 3\n"),
      new_string(value),
      given_back("a"),
      status(true),
  });
  EXPECT_EQ(textOf(getKeyValue(string("a"))), value);
}

TEST_F(GetKeyValue, GivesNullForALongValueThatShrankToOneByte) {
  expect({
      opened("a"),
      get_value(kKey, 1024).returns(9).size(1100),
      read_trace(9, 1100),
      allocates(1101, "enlarged"),
      get_value(kKey, 1100, "enlarged").says("v"),
      read_trace(0, 1),
      frees("enlarged"),
      given_back("a"),
      status(true),
  });
  EXPECT_EQ(getKeyValue(string("a")), nullptr);
}

TEST_F(GetKeyValue, ReportsNineWithoutMemoryForALongValue) {
  expect({
      opened("a"),
      get_value(kKey, 1024).returns(9).size(5000),
      read_trace(9, 5000),
      allocates(5001, "enlarged").gives_null(),
      trace("getKeyValue: memory allocation failed"),
      reports(9),
      trace("getKeyValue: prtkv_get_value failed for the key [a]\n"),
      given_back("a"),
  });
  EXPECT_EQ(getKeyValue(string("a")), nullptr);
}

// No block has room for such a value and its NUL.
TEST_F(GetKeyValue, ReportsNineForASizeThatCannotBeAllocated) {
  expect({
      opened("a"),
      get_value(kKey, 1024).returns(9).size(UINT32_MAX),
      read_trace(9, -1),
      trace("getKeyValue: memory allocation failed"),
      reports(9),
      trace("getKeyValue: prtkv_get_value failed for the key [a]\n"),
      given_back("a"),
  });
  EXPECT_EQ(getKeyValue(string("a")), nullptr);
}

class GetKeyValueWithResult : public GetKeyValue, public ::testing::WithParamInterface<int> {};

TEST_P(GetKeyValueWithResult, AbandonsTheBufferWhenTheSecondReadFails) {
  expect({
      opened("a"),
      get_value(kKey, 1024).returns(9).size(5000),
      read_trace(9, 5000),
      allocates(5001, "enlarged"),
      get_value(kKey, 5000, "enlarged").returns(GetParam()),
      read_trace(GetParam(), 5000),
      reports(GetParam()),
      trace("getKeyValue: prtkv_get_value failed for the key [a]\n"),
      given_back("a"),
  });
  EXPECT_EQ(getKeyValue(string("a")), nullptr);
  abandons({"enlarged"});
}

TEST_P(GetKeyValueWithResult, ReportsAFailedOpen) {
  if (GetParam() == 4) return;  // a missing key is an answer of its own
  expect({
      takes("%s"),
      open_key("%s").returns(GetParam()),
      trace("getKeyValue: prtkv_open_key retval = " + std::to_string(GetParam()) + "\n"),
      reports(GetParam()),
      trace("getKeyValue: prtkv_open_key faild for key [%s]\n"),
      releases("%s"),
  });
  EXPECT_EQ(getKeyValue(string("%s")), nullptr);
}

// 9 again: a value that grew between the two reads is not read a third time.
INSTANTIATE_TEST_SUITE_P(Results, GetKeyValueWithResult, Values(2, 4, 9, 15, -1));

TEST_F(GetKeyValue, ReportsAFailedRead) {
  expect({
      opened("a"),
      get_value(kKey, 1024).returns(2).size(0),
      read_trace(2, 0),
      reports_text("TKV-0002: access denied"),
      trace("getKeyValue: prtkv_get_value failed for the key [a]\n"),
      given_back("a"),
  });
  EXPECT_EQ(getKeyValue(string("a")), nullptr);
}

TEST_F(GetKeyValue, GivesNullWithStatusTrueForAMissingKey) {
  expect({
      takes("a"),
      open_key("a").returns(4),
      trace("getKeyValue: prtkv_open_key retval = 4\n"),
      status(true),
      releases("a"),
  });
  EXPECT_EQ(getKeyValue(string("a")), nullptr);
}

TEST_F(GetKeyValue, IgnoresTheResultOfTheClose) {
  expect({
      opened("a"),
      get_value(kKey, 1024).says("v1"),
      read_trace(0, 2),
      trace("getKeyValue: value is [v1] dtype = 3\n"),
      new_string("v1"),
      close_key(kKey).returns(3),
      releases("a"),
      status(true),
  });
  EXPECT_EQ(textOf(getKeyValue(string("a"))), "v1");
}

TEST_F(GetKeyValue, GivesNullWhenTheStringCannotBeMade) {
  expect({
      opened("a"),
      get_value(kKey, 1024).says("v1"),
      read_trace(0, 2),
      trace("getKeyValue: value is [v1] dtype = 3\n"),
      new_string("v1").gives_null(),
      given_back("a"),
      status(true),
  });
  EXPECT_EQ(getKeyValue(string("a")), nullptr);
}

Calls refused_name() {
  return {
      open_key("").with_argument(2, "null").returns(13),
      trace("getKeyValue: prtkv_open_key retval = 13\n"),
      reports(13),
      Call("prsrvut_trace", {"\"getKeyValue: prtkv_open_key faild for key [" + kAny + "]\\n\""}),
  };
}

TEST_F(GetKeyValue, AsksTheRegistryWithoutANameWhenItsCharactersCannotBeHad) {
  expect({takes("a"), refused_name()});
  EXPECT_EQ(getKeyValue(unobtainable("a")), nullptr);
}

TEST_F(GetKeyValue, AsksTheRegistryWithoutANameForANullName) {
  expect(refused_name());
  EXPECT_EQ(getKeyValue(nullptr), nullptr);
}

TEST_F(GetKeyValue, SucceedsForANullNameWhenTheRegistryAnswersThatThereIsNoSuchKey) {
  expect({
      open_key("").with_argument(2, "null").returns(4),
      trace("getKeyValue: prtkv_open_key retval = 4\n"),
      status(true),
  });
  EXPECT_EQ(getKeyValue(nullptr), nullptr);
}

}  // namespace
}  // namespace bridge_test
