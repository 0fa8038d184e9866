/* getKeyValues: the count scan, the extraction and the conversion of a list's elements. */
#include "bridge_test.h"

namespace bridge_test {
namespace {

using ::testing::ElementsAre;
using ::testing::Values;

constexpr uint64_t kKey = 7;
constexpr int kMultiByte = 0x4000000;

std::string operator""_bytes(const char* text, size_t size) { return {text, size}; }

// The text that begins at a position of the value, as a reader of the buffer sees it.
std::string text_at(const std::string& value, size_t position) {
  return position >= value.size() ? "" : std::string(value.c_str() + position);
}

Calls opened(const std::string& name) {
  return {takes(name), open_key(name).gives(kKey), trace("getKeyValues: open_key retval = 0\n")};
}

Calls read_at_once(const std::string& value, int type = 5) {
  return {
      get_value(kKey, 8192).says(value).word(type),
      trace("getKeyValues: prtkv_get_value retval = 0, dtype is " + std::to_string(type) +
            " size = " + std::to_string(value.size()) + "\n"),
      when(!value.empty(),
           {trace("getKeyValues: returned dtype is " + std::to_string(type) + "\n"), find_string_class()}),
  };
}

Call scan_trace(const char* when, size_t position, int count, const std::string& value) {
  return trace("getKeyValues: " + std::string(when) + " j=" + std::to_string(position) +
               " elemcount=" + std::to_string(count) + " itmp=" + text_at(value, position) + "\n");
}

// The count scan over a value, byte by byte; `count` receives what it counted.
Calls scanned(const std::string& value, int* count) {
  Calls calls;
  *count = 1;
  for (size_t j = 0; j + 1 < value.size(); ++j) {
    calls.add(scan_trace("before", j, *count, value));
    if (value[j] == '\0') {
      if (j > 0 && value[j - 1] == '\0') break;
      ++*count;
    }
    calls.add(scan_trace("after", j + 1, *count, value));
  }
  return calls;
}

Calls scanned(const std::string& value) {
  int count = 0;
  return scanned(value, &count);
}

Calls converted(const std::string& element, int charset = 873, bool multi_byte = false) {
  const auto units = static_cast<int>(element.size());
  const std::string length = std::to_string(element.size());
  const Calls handle = {
      Call("lxhci2h", {std::to_string(charset), "session.lx_handle_area"}),
      when(multi_byte, Call("lxsulen", {quote(element)}).returns(units)),
  };
  return {
      handle,
      Call("lxgt2u", {"null", "0", quote(element), "charset", length, "0x0", "session.lx_handle_area"}).returns(units),
      allocates(2 * element.size() + 2, "units"),
      handle,
      Call("lxgt2u",
           {"units", std::to_string(units + 1), quote(element), "charset", length, "0x0", "session.lx_handle_area"})
          .says(element)
          .returns(units),
      new_utf16_string(element, "units", units),
      frees("units"),
  };
}

// An element's extraction up to its conversion: `start` and `next` are its and the next element's places.
Calls extracted(const std::string& value, int index, size_t start) {
  const std::string element = text_at(value, start);
  const size_t next = start + element.size() + 1;
  return {
      allocates(element.size() + 1, "copy"),
      trace("getKeyValues: before i=" + std::to_string(start) + " tmp=" + element + "\n"),
      trace("getKeyValues: after i=" + std::to_string(next) + " tmp=" + text_at(value, next) + " value[" +
            std::to_string(index) + "]=[" + element + "] value_len=" + std::to_string(element.size()) + "\n"),
  };
}

Calls stored(const std::string& value, int index, size_t start) {
  return {
      extracted(value, index, start),
      converted(text_at(value, start)),
      stores_element(index, text_at(value, start)),
      frees("copy"),
  };
}

Calls ended(int count, const std::string& name, const Calls& freed = {}) {
  return {
      trace("getKeyValues: count=" + std::to_string(count) + "\n"), freed,          close_key(kKey),
      trace("getKeyValues: prtkv_close_key retval = 0\n"),          releases(name), status(true),
  };
}

class GetKeyValues : public BridgeTest {
 public:
  void SetUp() override {
    BridgeTest::SetUp();
    givenSession();
  }
};

// Written out without the shorthands above, which all other tests use.
TEST_F(GetKeyValues, GivesTheElementsAndANull) {
  expect({
      takes("a.b"),
      open_key("a.b").gives(kKey),
      trace("getKeyValues: open_key retval = 0\n"),
      get_value(kKey, 8192).says("a\0bc\0\0"_bytes).word(5),
      trace("getKeyValues: prtkv_get_value retval = 0, dtype is 5 size = 6\n"),
      trace("getKeyValues: returned dtype is 5\n"),
      find_string_class(),
      trace("getKeyValues: before j=0 elemcount=1 itmp=a\n"),
      trace("getKeyValues: after j=1 elemcount=1 itmp=\n"),
      trace("getKeyValues: before j=1 elemcount=1 itmp=\n"),
      trace("getKeyValues: after j=2 elemcount=2 itmp=bc\n"),
      trace("getKeyValues: before j=2 elemcount=2 itmp=bc\n"),
      trace("getKeyValues: after j=3 elemcount=2 itmp=c\n"),
      trace("getKeyValues: before j=3 elemcount=2 itmp=c\n"),
      trace("getKeyValues: after j=4 elemcount=2 itmp=\n"),
      trace("getKeyValues: before j=4 elemcount=2 itmp=\n"),
      trace("getKeyValues: after j=5 elemcount=3 itmp=\n"),
      new_string_array(3),
      allocates(2, "copy"),
      trace("getKeyValues: before i=0 tmp=a\n"),
      trace("getKeyValues: after i=2 tmp=bc value[0]=[a] value_len=1\n"),
      Call("lxhci2h", {"873", "session.lx_handle_area"}),
      Call("lxgt2u", {"null", "0", "\"a\"", "charset", "1", "0x0", "session.lx_handle_area"}).returns(1),
      allocates(4, "units"),
      Call("lxhci2h", {"873", "session.lx_handle_area"}),
      Call("lxgt2u", {"units", "2", "\"a\"", "charset", "1", "0x0", "session.lx_handle_area"}).says("a").returns(1),
      new_utf16_string("a", "units", 1),
      frees("units"),
      stores_element(0, "a"),
      frees("copy"),
      allocates(3, "copy"),
      trace("getKeyValues: before i=2 tmp=bc\n"),
      trace("getKeyValues: after i=5 tmp= value[1]=[bc] value_len=2\n"),
      Call("lxhci2h", {"873", "session.lx_handle_area"}),
      Call("lxgt2u", {"null", "0", "\"bc\"", "charset", "2", "0x0", "session.lx_handle_area"}).returns(2),
      allocates(6, "units"),
      Call("lxhci2h", {"873", "session.lx_handle_area"}),
      Call("lxgt2u", {"units", "3", "\"bc\"", "charset", "2", "0x0", "session.lx_handle_area"}).says("bc").returns(2),
      new_utf16_string("bc", "units", 2),
      frees("units"),
      stores_element(1, "bc"),
      frees("copy"),
      trace("getKeyValues: count=2\n"),
      close_key(kKey),
      trace("getKeyValues: prtkv_close_key retval = 0\n"),
      releases("a.b"),
      status(true),
  });
  EXPECT_THAT(textsOf(getKeyValues(string("a.b"))), ElementsAre("a", "bc", "null"));
}

TEST_F(GetKeyValues, EndsTheListAtAnEmptyElement) {
  const std::string value = "a\0\0b\0\0"_bytes;
  expect({
      opened("k"),
      read_at_once(value),
      trace("getKeyValues: before j=0 elemcount=1 itmp=a\n"),
      trace("getKeyValues: after j=1 elemcount=1 itmp=\n"),
      trace("getKeyValues: before j=1 elemcount=1 itmp=\n"),
      trace("getKeyValues: after j=2 elemcount=2 itmp=\n"),
      trace("getKeyValues: before j=2 elemcount=2 itmp=\n"),
      new_string_array(2),
      stored(value, 0, 0),
      ended(1, "k"),
  });
  EXPECT_THAT(textsOf(getKeyValues(string("k"))), ElementsAre("a", "null"));
}

TEST_F(GetKeyValues, GivesOneNullForAValueOfOneByte) {
  expect({opened("k"), read_at_once("x"), new_string_array(1), ended(0, "k")});
  EXPECT_THAT(textsOf(getKeyValues(string("k"))), ElementsAre("null"));
}

TEST_F(GetKeyValues, GivesOneNullForALoneNul) {
  expect({opened("k"), read_at_once("\0"_bytes), new_string_array(1), ended(0, "k")});
  EXPECT_THAT(textsOf(getKeyValues(string("k"))), ElementsAre("null"));
}

TEST_F(GetKeyValues, GivesNullWithStatusTrueForAnEmptyValue) {
  expect({
      opened("%s"),
      read_at_once("", 0),
      trace("getKeyValues: key [%s] has NULL value\n"),
      status(true),
      close_key(kKey),
      releases("%s"),
  });
  EXPECT_EQ(getKeyValues(string("%s")), nullptr);
}

TEST_F(GetKeyValues, ReadsATextAsAListOfOne) {
  const std::string value = "abc\0"_bytes;
  expect(
      {opened("k"), read_at_once(value, 3), scanned(value), new_string_array(1), stored(value, 0, 0), ended(1, "k")});
  EXPECT_THAT(textsOf(getKeyValues(string("k"))), ElementsAre("abc"));
}

TEST_F(GetKeyValues, TracesElementsWithPercentSignsAsTheyAre) {
  const std::string value = "%s\0%n\0\0"_bytes;
  expect({opened("k"), read_at_once(value), scanned(value), new_string_array(3), stored(value, 0, 0),
          stored(value, 1, 3), ended(2, "k")});
  EXPECT_THAT(textsOf(getKeyValues(string("k"))), ElementsAre("%s", "%n", "null"));
}

TEST_F(GetKeyValues, CountsALastElementWithoutItsSecondNul) {
  const std::string value = "a\0b\0"_bytes;
  expect({opened("k"), read_at_once(value), scanned(value), new_string_array(2), stored(value, 0, 0),
          stored(value, 1, 2), ended(2, "k")});
  EXPECT_THAT(textsOf(getKeyValues(string("k"))), ElementsAre("a", "b"));
}

TEST_F(GetKeyValues, ReadsAnElementThatIsNotEnded) {
  const std::string value = "a\0bc"_bytes;
  expect({opened("k"), read_at_once(value), scanned(value), new_string_array(2), stored(value, 0, 0),
          stored(value, 1, 2), ended(2, "k")});
  EXPECT_THAT(textsOf(getKeyValues(string("k"))), ElementsAre("a", "bc"));
}

// The first byte has none before it, so a NUL there is an empty element and not the list's end. Its conversion gives
// nothing, which ends the call.
TEST_F(GetKeyValues, TakesALeadingNulForAnEmptyElement) {
  const std::string value = "\0a\0\0"_bytes;
  expect({
      opened("k"),
      read_at_once(value),
      trace("getKeyValues: before j=0 elemcount=1 itmp=\n"),
      trace("getKeyValues: after j=1 elemcount=2 itmp=a\n"),
      trace("getKeyValues: before j=1 elemcount=2 itmp=a\n"),
      trace("getKeyValues: after j=2 elemcount=2 itmp=\n"),
      trace("getKeyValues: before j=2 elemcount=2 itmp=\n"),
      trace("getKeyValues: after j=3 elemcount=3 itmp=\n"),
      new_string_array(3),
      allocates(1, "copy"),
      trace("getKeyValues: before i=0 tmp=\n"),
      trace("getKeyValues: after i=1 tmp=a value[0]=[] value_len=0\n"),
      Call("lxhci2h", {"873", "session.lx_handle_area"}),
      Call("lxgt2u", {"null", "0", "\"\"", "charset", "0", "0x0", "session.lx_handle_area"}).returns(0),
      trace("getKeyValues: failure during java string conversion for value[0]=[]\n"),
      status(true),
      close_key(kKey),
      releases("k"),
  });
  EXPECT_EQ(getKeyValues(string("k")), nullptr);
  abandons({"copy"});
}

TEST_F(GetKeyValues, TakesTwoLeadingNulsForOneEmptyElement) {
  const std::string value = "\0\0a\0"_bytes;
  expect({
      opened("k"),
      read_at_once(value),
      trace("getKeyValues: before j=0 elemcount=1 itmp=\n"),
      trace("getKeyValues: after j=1 elemcount=2 itmp=\n"),
      trace("getKeyValues: before j=1 elemcount=2 itmp=\n"),
      new_string_array(2),
      allocates(1, "copy"),
      trace("getKeyValues: before i=0 tmp=\n"),
      trace("getKeyValues: after i=1 tmp= value[0]=[] value_len=0\n"),
      Call("lxhci2h", {"873", "session.lx_handle_area"}),
      Call("lxgt2u", {"null", "0", "\"\"", "charset", "0", "0x0", "session.lx_handle_area"}).returns(0),
      trace("getKeyValues: failure during java string conversion for value[0]=[]\n"),
      status(true),
      close_key(kKey),
      releases("k"),
  });
  EXPECT_EQ(getKeyValues(string("k")), nullptr);
  abandons({"copy"});
}

// Sizes of the first buffer and beyond.

TEST_F(GetKeyValues, ReadsAValueThatFillsTheFirstBufferAtOnce) {
  std::string value;
  while (value.size() < 8190) value += "a\0"_bytes;
  value += "bc";
  int count = 0;
  const Calls scan = scanned(value, &count);
  expect({opened("k"), read_at_once(value), scan, new_string_array(count)});
  std::vector<std::string> elements(4095, "a");
  for (int i = 0; i < 4095; ++i) expect(stored(value, i, static_cast<size_t>(2 * i)));
  expect({stored(value, 4095, 8190), ended(4096, "k")});
  elements.emplace_back("bc");
  EXPECT_EQ(textsOf(getKeyValues(string("k"))), elements);
}

TEST_F(GetKeyValues, ReadsALongValueASecondTimeIntoABufferOfItsSizeAndOne) {
  const std::string element(8191, 'e');
  const std::string value = element.substr(0, 20) + "\0"_bytes + "x\0\0"_bytes;
  expect({
      opened("k"),
      get_value(kKey, 8192).returns(9).size(8193).word(5),
      trace("getKeyValues: prtkv_get_value retval = 9, dtype is 5 size = 8193\n"),
      allocates(8194, "enlarged"),
      get_value(kKey, 8193, "enlarged").with_argument(2, "word 5").says(value).word(5),
      trace("getKeyValues: prtkv_get_value retval = 0, size = 24\n"),
      trace("getKeyValues: returned dtype is 5\n"),
      find_string_class(),
      scanned(value),
      new_string_array(3),
      stored(value, 0, 0),
      stored(value, 1, 21),
      ended(2, "k", frees("enlarged")),
  });
  EXPECT_THAT(textsOf(getKeyValues(string("k"))), ElementsAre(std::string(20, 'e'), "x", "null"));
}

// The last element's NUL is the byte that the buffer has over the value: there is no text behind it.
TEST_F(GetKeyValues, ReadsAnElementThatIsNotEndedInTheEnlargedBuffer) {
  std::string value;
  while (value.size() < 8200) value += std::string(99, 'e') + "\0"_bytes;
  value += "last";
  expect({
      opened("k"),
      get_value(kKey, 8192).returns(9).size(value.size()).word(3),
      trace("getKeyValues: prtkv_get_value retval = 9, dtype is 3 size = " + std::to_string(value.size()) + "\n"),
      allocates(value.size() + 1, "enlarged"),
      get_value(kKey, value.size(), "enlarged").says(value).word(3),
      trace("getKeyValues: prtkv_get_value retval = 0, size = " + std::to_string(value.size()) + "\n"),
      trace("getKeyValues: returned dtype is 3\n"),
      find_string_class(),
      scanned(value),
      new_string_array(83),
  });
  for (int i = 0; i < 82; ++i) expect(stored(value, i, static_cast<size_t>(100 * i)));
  expect({stored(value, 82, 8200), ended(83, "k", frees("enlarged"))});
  EXPECT_EQ(textsOf(getKeyValues(string("k"))).back(), "last");
}

TEST_F(GetKeyValues, GivesNullWithStatusTrueForALongValueThatWasEmptied) {
  expect({
      opened("k"),
      get_value(kKey, 8192).returns(9).size(9000),
      trace("getKeyValues: prtkv_get_value retval = 9, dtype is 3 size = 9000\n"),
      allocates(9001, "enlarged"),
      get_value(kKey, 9000, "enlarged").says(""),
      trace("getKeyValues: prtkv_get_value retval = 0, size = 0\n"),
      trace("getKeyValues: key [k] has NULL value\n"),
      status(true),
      close_key(kKey),
      releases("k"),
  });
  EXPECT_EQ(getKeyValues(string("k")), nullptr);
  abandons({"enlarged"});
}

// No byte counts that the buffer has no room for.
TEST_F(GetKeyValues, GivesNullForAValueWithoutASizeThatSeemsToGrow) {
  expect({
      opened("k"),
      get_value(kKey, 8192).returns(9).size(0),
      trace("getKeyValues: prtkv_get_value retval = 9, dtype is 3 size = 0\n"),
      allocates(1, "enlarged"),
      get_value(kKey, 0, "enlarged").size(5),
      trace("getKeyValues: prtkv_get_value retval = 0, size = 5\n"),
      trace("getKeyValues: key [k] has NULL value\n"),
      status(true),
      close_key(kKey),
      releases("k"),
  });
  EXPECT_EQ(getKeyValues(string("k")), nullptr);
  abandons({"enlarged"});
}

// Failures.

TEST_F(GetKeyValues, GivesNullWithStatusTrueForAMissingKey) {
  expect({
      takes("%s"),
      open_key("%s").returns(4),
      trace("getKeyValues: open_key retval = 4\n"),
      trace("getKeyValues: key [%s] does not exist\n"),
      status(true),
      releases("%s"),
  });
  EXPECT_EQ(getKeyValues(string("%s")), nullptr);
}

TEST_F(GetKeyValues, ReportsAFailedOpen) {
  expect({
      takes("%s"),
      open_key("%s").returns(15),
      trace("getKeyValues: open_key retval = 15\n"),
      reports(15),
      trace("getKeyValues: Failure in getting handle to the  key [%s] \n"),
      releases("%s"),
  });
  EXPECT_EQ(getKeyValues(string("%s")), nullptr);
}

class GetKeyValuesWithResult : public GetKeyValues, public ::testing::WithParamInterface<int> {};

TEST_P(GetKeyValuesWithResult, ReportsAFailedSecondReadAndAbandonsTheBuffer) {
  const std::string rc = std::to_string(GetParam());
  expect({
      opened("k"),
      get_value(kKey, 8192).returns(9).size(9000),
      trace("getKeyValues: prtkv_get_value retval = 9, dtype is 3 size = 9000\n"),
      allocates(9001, "enlarged"),
      get_value(kKey, 9000, "enlarged").returns(GetParam()),
      trace("getKeyValues: prtkv_get_value retval = " + rc + ", size = 9000\n"),
      reports(GetParam()),
      trace("getKeyValues: Failure in getting the value for the key [k]\n"),
      close_key(kKey),
      releases("k"),
  });
  EXPECT_EQ(getKeyValues(string("k")), nullptr);
  abandons({"enlarged"});
}

INSTANTIATE_TEST_SUITE_P(Results, GetKeyValuesWithResult, Values(2, 4, 9, -1));

TEST_F(GetKeyValues, ReportsAFailedRead) {
  expect({
      opened("k"),
      get_value(kKey, 8192).returns(2).size(0).word(0),
      trace("getKeyValues: prtkv_get_value retval = 2, dtype is 0 size = 0\n"),
      reports_text("TKV-0002: access denied"),
      trace("getKeyValues: Failure in getting the value for the key [k]\n"),
      close_key(kKey),
      releases("k"),
  });
  EXPECT_EQ(getKeyValues(string("k")), nullptr);
}

TEST_F(GetKeyValues, ReportsNineWithoutMemoryForALongValue) {
  expect({
      opened("k"),
      get_value(kKey, 8192).returns(9).size(9000),
      trace("getKeyValues: prtkv_get_value retval = 9, dtype is 3 size = 9000\n"),
      allocates(9001, "enlarged").gives_null(),
      trace("getKeyValues: memory allocation failed"),
      reports(9),
      trace("getKeyValues: Failure in getting the value for the key [k]\n"),
      close_key(kKey),
      releases("k"),
  });
  EXPECT_EQ(getKeyValues(string("k")), nullptr);
}

TEST_F(GetKeyValues, LeavesEverythingAsItIsWithoutMemoryForAnElement) {
  const std::string value = "a\0bc\0\0"_bytes;
  expect({
      opened("k"),
      read_at_once(value),
      scanned(value),
      new_string_array(3),
      stored(value, 0, 0),
      allocates(3, "copy").gives_null(),
      trace("getKeyValues: memory allocation failed"),
  });
  EXPECT_EQ(getKeyValues(string("k")), nullptr);
  keepsCharacters({"k"});
  leavesOpen({kKey});
}

TEST_F(GetKeyValues, IgnoresTheResultOfTheClose) {
  const std::string value = "a\0\0"_bytes;
  expect({
      opened("k"),
      read_at_once(value),
      scanned(value),
      new_string_array(2),
      stored(value, 0, 0),
      trace("getKeyValues: count=1\n"),
      close_key(kKey).returns(3),
      trace("getKeyValues: prtkv_close_key retval = 3\n"),
      releases("k"),
      status(true),
  });
  EXPECT_THAT(textsOf(getKeyValues(string("k"))), ElementsAre("a", "null"));
}

Calls refused_name() {
  return {
      open_key("").with_argument(2, "null").returns(13),
      trace("getKeyValues: open_key retval = 13\n"),
      reports(13),
      Call("prsrvut_trace", {"\"getKeyValues: Failure in getting handle to the  key [" + kAny + "] \\n\""}),
  };
}

TEST_F(GetKeyValues, AsksTheRegistryWithoutANameWhenItsCharactersCannotBeHad) {
  expect({takes("k"), refused_name()});
  EXPECT_EQ(getKeyValues(unobtainable("k")), nullptr);
}

TEST_F(GetKeyValues, AsksTheRegistryWithoutANameForANullName) {
  expect(refused_name());
  EXPECT_EQ(getKeyValues(nullptr), nullptr);
}

TEST_F(GetKeyValues, StoresNothingWhenTheArrayCannotBeMade) {
  const std::string value = "a\0\0"_bytes;
  expect({opened("k"), read_at_once(value), scanned(value), new_string_array(2).gives_null()});
  EXPECT_EQ(getKeyValues(string("k")), nullptr);
  expectLinesStartAsExpected();
  EXPECT_THAT(recording().lines(), ::testing::Not(::testing::Contains(::testing::HasSubstr("SetObjectArrayElement"))));
}

// Conversion.

class Conversion : public GetKeyValues {
 public:
  // A list of "a" and "bc", of which "bc" is converted as told and fails.
  void expectFailedConversion(const Calls& conversion) {
    const std::string value = "a\0bc\0\0"_bytes;
    expect({
        opened("k"),
        read_at_once(value),
        scanned(value),
        new_string_array(3),
        stored(value, 0, 0),
        extracted(value, 1, 2),
        conversion,
        trace("getKeyValues: failure during java string conversion for value[1]=[bc]\n"),
        status(true),
        close_key(kKey),
        releases("k"),
    });
    EXPECT_EQ(getKeyValues(string("k")), nullptr);
    abandons({"copy"});
  }
};

Call charset_handle() { return {"lxhci2h", {"873", "session.lx_handle_area"}}; }

Call units_needed(int units) {
  return Call("lxgt2u", {"null", "0", "\"bc\"", "charset", "2", "0x0", "session.lx_handle_area"}).returns(units);
}

Call units_written(int capacity, const std::string& units, int count) {
  return Call("lxgt2u", {"units", std::to_string(capacity), "\"bc\"", "charset", "2", "0x0", "session.lx_handle_area"})
      .says(units)
      .returns(count);
}

class ConversionWithResult : public Conversion, public ::testing::WithParamInterface<int> {};

TEST_P(ConversionWithResult, FailsWhenNoUnitIsNeeded) {
  expectFailedConversion({charset_handle(), units_needed(GetParam())});
}

TEST_P(ConversionWithResult, FailsWhenNoUnitIsWritten) {
  expectFailedConversion({charset_handle(), units_needed(2), allocates(6, "units"), charset_handle(),
                          units_written(3, "", GetParam()), frees("units")});
}

INSTANTIATE_TEST_SUITE_P(Results, ConversionWithResult, Values(0, -1, -100));

TEST_F(Conversion, FailsWithoutMemory) {
  expectFailedConversion({charset_handle(), units_needed(2), allocates(6, "units").gives_null()});
}

TEST_F(Conversion, FailureAbandonsAnEnlargedBufferToo) {
  const std::string value = "bc\0\0"_bytes;
  expect({
      opened("k"),
      get_value(kKey, 8192).returns(9).size(9000),
      trace("getKeyValues: prtkv_get_value retval = 9, dtype is 3 size = 9000\n"),
      allocates(9001, "enlarged"),
      get_value(kKey, 9000, "enlarged").says(value),
      trace("getKeyValues: prtkv_get_value retval = 0, size = 4\n"),
      trace("getKeyValues: returned dtype is 3\n"),
      find_string_class(),
      scanned(value),
      new_string_array(2),
      extracted(value, 0, 0),
      charset_handle(),
      units_needed(-1),
      trace("getKeyValues: failure during java string conversion for value[0]=[bc]\n"),
      status(true),
      close_key(kKey),
      releases("k"),
  });
  EXPECT_EQ(getKeyValues(string("k")), nullptr);
  abandons({"enlarged", "copy"});
}

TEST_F(Conversion, FailureIgnoresTheResultOfTheClose) {
  const std::string value = "bc\0\0"_bytes;
  expect({
      opened("k"),
      read_at_once(value),
      scanned(value),
      new_string_array(2),
      extracted(value, 0, 0),
      charset_handle(),
      units_needed(0),
      trace("getKeyValues: failure during java string conversion for value[0]=[bc]\n"),
      status(true),
      close_key(kKey).returns(3),
      releases("k"),
  });
  EXPECT_EQ(getKeyValues(string("k")), nullptr);
  abandons({"copy"});
}

// How many units a first call announced, how many the second gave, and the text that is made.
struct Units {
  int needed;
  std::string written;
  int given;
  std::string text;
};

class ConversionWithUnits : public Conversion, public ::testing::WithParamInterface<Units> {};

TEST_P(ConversionWithUnits, TakesTheSmallerNumber) {
  const auto& [needed, written, given, text] = GetParam();
  const std::string value = "bc\0\0"_bytes;
  expect({
      opened("k"),
      read_at_once(value),
      scanned(value),
      new_string_array(2),
      extracted(value, 0, 0),
      charset_handle(),
      units_needed(needed),
      allocates(static_cast<uint64_t>(2 * needed + 2), "units"),
      charset_handle(),
      units_written(needed + 1, written, given),
      new_utf16_string(text, "units", static_cast<int>(text.size())),
      frees("units"),
      stores_element(0, text),
      frees("copy"),
      ended(1, "k"),
  });
  EXPECT_THAT(textsOf(getKeyValues(string("k"))), ElementsAre(text, "null"));
}

INSTANTIATE_TEST_SUITE_P(Counts, ConversionWithUnits,
                         Values(Units{1, "X", 1, "X"}, Units{3, "XY", 2, "XY"}, Units{2, "XYZ", 3, "XY"},
                                Units{2, "XYZ", 1, "X"}, Units{1, "XY", 1000, "X"}));

class MultiByteCharset : public BridgeTest {};

TEST_F(MultiByteCharset, MeasuresTheElementWithTheCharacterSet) {
  givenSession({.lang_env_flags = kMultiByte});
  const std::string value = "a\0\0"_bytes;
  expect({
      opened("k"),
      read_at_once(value),
      scanned(value),
      new_string_array(2),
      extracted(value, 0, 0),
      converted("a", 873, true),
      stores_element(0, "a"),
      frees("copy"),
      ended(1, "k"),
  });
  EXPECT_THAT(textsOf(getKeyValues(string("k"))), ElementsAre("a", "null"));
}

TEST_F(MultiByteCharset, PassesTheMeasuredLengthOn) {
  givenSession({.lang_env_flags = kMultiByte | 0x7});
  const std::string value = "bc\0\0"_bytes;
  const auto conversion = [](const std::string& to, const std::string& capacity, const std::string& length) {
    return Call("lxgt2u", {to, capacity, "\"bc\"", "charset", length, "0x0", "session.lx_handle_area"});
  };
  expect({
      opened("k"),
      read_at_once(value),
      scanned(value),
      new_string_array(2),
      extracted(value, 0, 0),
      charset_handle(),
      Call("lxsulen", {"\"bc\""}).returns(1),
      conversion("null", "0", "1").returns(1),
      allocates(4, "units"),
      charset_handle(),
      Call("lxsulen", {"\"bc\""}).returns(2),
      conversion("units", "2", "2").says("X").returns(1),
      new_utf16_string("X", "units", 1),
      frees("units"),
      stores_element(0, "X"),
      frees("copy"),
      ended(1, "k"),
  });
  EXPECT_THAT(textsOf(getKeyValues(string("k"))), ElementsAre("X", "null"));
}

TEST_F(MultiByteCharset, IsToldByItsFlagAlone) {
  givenSession({.lang_env_flags = static_cast<int32_t>(~static_cast<uint32_t>(kMultiByte))});
  const std::string value = "a\0\0"_bytes;
  expect({opened("k"), read_at_once(value), scanned(value), new_string_array(2), stored(value, 0, 0), ended(1, "k")});
  EXPECT_THAT(textsOf(getKeyValues(string("k"))), ElementsAre("a", "null"));
}

class CharsetId : public BridgeTest, public ::testing::WithParamInterface<std::pair<uint16_t, int>> {};

TEST_P(CharsetId, IsWidenedWithItsSign) {
  givenSession({.charset_id = GetParam().first});
  const std::string value = "a\0\0"_bytes;
  expect({
      opened("k"),
      read_at_once(value),
      scanned(value),
      new_string_array(2),
      extracted(value, 0, 0),
      converted("a", GetParam().second),
      stores_element(0, "a"),
      frees("copy"),
      ended(1, "k"),
  });
  EXPECT_THAT(textsOf(getKeyValues(string("k"))), ElementsAre("a", "null"));
}

INSTANTIATE_TEST_SUITE_P(Ids, CharsetId,
                         Values(std::pair<uint16_t, int>{0, 0}, std::pair<uint16_t, int>{0x7fff, 32767},
                                std::pair<uint16_t, int>{0x8000, -32768}, std::pair<uint16_t, int>{0xffff, -1}));

}  // namespace
}  // namespace bridge_test
