// Names: which are valid, and their parts.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "registry/name.h"
#include "registry_fixture.h"

namespace tkv::registry {
namespace {

std::string levels(std::size_t count) {
  std::string name = "l";
  for (std::size_t level = 1; level < count; ++level) name += ".l";
  return name;
}

// `size` bytes in levels of at most 200.
std::string bytes(std::size_t size) {
  std::string name(size, 'n');
  for (std::size_t at = 200; at + 1 < size; at += 201) name[at] = '.';
  return name;
}

struct NameCase {
  const char* claim;
  std::string name;
  bool good;
};

class Name : public ::testing::TestWithParam<NameCase> {};

// Names are checked several bytes at a time: each byte counts, wherever it is among the others.
TEST(NameCheck, FindsASpecialByteAtEachPlaceOfNamesOfEachSize) {
  for (std::size_t size = 3; size <= 40; ++size) {
    EXPECT_TRUE(check_name(std::string(size, '~')).ok()) << size;
    for (std::size_t at = 0; at < size; ++at) {
      const auto with = [&](const std::string& special) {
        return std::string(size, 'n').replace(at, special.size(), special).substr(0, size);
      };
      const bool is_inside = at > 0 && at + 1 < size;
      EXPECT_EQ(check_name(with(".")).ok(), is_inside) << size << ' ' << at;
      EXPECT_FALSE(check_name(with("..")).ok()) << size << ' ' << at;
      EXPECT_FALSE(check_name(with(std::string(1, '\0'))).ok()) << size << ' ' << at;
      EXPECT_FALSE(check_name(with("\x80")).ok()) << size << ' ' << at;
      EXPECT_EQ(check_name(with("\xc3\xa9")).ok(), at + 1 < size) << size << ' ' << at;
    }
  }
}

TEST_P(Name, IsCheckedAsAFullAndAsARelativeName) {
  const prtkv_result expected = GetParam().good ? PRTKV_DONE : PRTKV_INVALID_NAME;
  EXPECT_EQ(check_name(GetParam().name).code(), expected) << GetParam().claim;
  EXPECT_EQ(check_relative_name(GetParam().name).code(), expected) << GetParam().claim;
}

INSTANTIATE_TEST_SUITE_P(
    Table, Name,
    ::testing::Values(NameCase{"one level", "a", true}, NameCase{"several", "SYSTEM.version.patch", true},
                      NameCase{"any ASCII but the dot", "a b%/\n\x01~", true}, NameCase{"two bytes", "\xc3\xa9", true},
                      NameCase{"three bytes", "\xe2\x82\xac", true},
                      NameCase{"a pair of surrogates", "\xed\xa0\xbd\xed\xb8\x80", true},
                      NameCase{"a surrogate alone", "\xed\xa0\xbd", true},
                      NameCase{"264 bytes", std::string(264, 'x'), true},
                      NameCase{"265 bytes", std::string(265, 'x'), false}, NameCase{"64 levels", levels(64), true},
                      NameCase{"65 levels", levels(65), false}, NameCase{"1023 bytes", bytes(1023), true},
                      NameCase{"1024 bytes", bytes(1024), false}, NameCase{"dot alone", ".", false},
                      NameCase{"dot in front", ".a", false}, NameCase{"dot behind", "a.", false},
                      NameCase{"two dots", "a..b", false}, NameCase{"NUL", std::string("a\0b", 3), false},
                      NameCase{"two-byte NUL", "a\xc0\x80", false}, NameCase{"overlong of two", "\xc1\xbf", false},
                      NameCase{"overlong of three", "\xe0\x9f\xbf", false}, NameCase{"trail byte alone", "\x80", false},
                      NameCase{"cut after one of two", "\xc3", false},
                      NameCase{"cut after two of three", "\xe2\x82", false},
                      NameCase{"cut by the end of the level", "\xe2\x82.a", false},
                      NameCase{"four bytes", "\xf0\x9f\x98\x80", false}, NameCase{"no character", "\xff", false}));

TEST(Names, EmptyIsTheRootAndNoRelativeName) {
  EXPECT_TRUE(check_name("").ok());
  EXPECT_EQ(check_relative_name("").code(), PRTKV_INVALID_NAME);
}

TEST(Names, FailureSaysWhatIsWrong) {
  EXPECT_EQ(check_name("a..b").text(), "invalid name: a level is empty");
  EXPECT_EQ(check_name(std::string(265, 'x')).text(), "invalid name: a level has 265 bytes, more than 264");
  EXPECT_EQ(check_name(levels(65)).text(), "invalid name: 65 levels, more than 64");
  EXPECT_EQ(check_name(bytes(1024)).text(), "invalid name: 1024 bytes, more than 1023");
}

TEST(Names, Parts) {
  EXPECT_EQ(parent_of("a.b.c"), "a.b");
  EXPECT_EQ(parent_of("a"), "");
  EXPECT_EQ(parent_of(""), "");
  EXPECT_EQ(last_level("a.b.c"), "c");
  EXPECT_EQ(last_level("a"), "a");
  EXPECT_EQ(last_level(""), "");
  EXPECT_EQ(count_levels(""), 0U);
  EXPECT_EQ(count_levels("a.b.c"), 3U);
  std::vector<std::string> taken;
  for (std::string_view rest = "one.two.three"; !rest.empty();) taken.emplace_back(take_level(&rest));
  EXPECT_EQ(taken, (std::vector<std::string>{"one", "two", "three"}));
}

TEST(Names, WithinIsALevelsMatterNotABytesMatter) {
  EXPECT_TRUE(is_within("a.b", "a"));
  EXPECT_TRUE(is_within("a", "a"));
  EXPECT_TRUE(is_within("a", ""));
  EXPECT_TRUE(is_within("", ""));
  EXPECT_FALSE(is_within("ab", "a"));
  EXPECT_FALSE(is_within("a", "a.b"));
  EXPECT_FALSE(is_within("", "a"));
}

TEST(Names, JoinKeepsTheLimitsOfTheWhole) {
  FullName name;
  ASSERT_TRUE(name.join("", "a").ok());
  EXPECT_EQ(name.view(), "a");
  ASSERT_TRUE(name.join("a.b", "c.d").ok());
  EXPECT_EQ(name.view(), "a.b.c.d");
  ASSERT_TRUE(name.join("a", "").ok());
  EXPECT_EQ(name.view(), "a");
  EXPECT_TRUE(name.join(levels(63), "x").ok());
  EXPECT_EQ(name.join(levels(63), "x.y").code(), PRTKV_INVALID_NAME);
  EXPECT_TRUE(name.join(bytes(1000), std::string(22, 'x')).ok());
  EXPECT_EQ(name.view().size(), 1023U);
  EXPECT_EQ(name.join(bytes(1000), std::string(23, 'x')).code(), PRTKV_INVALID_NAME);
  EXPECT_EQ(name.view().size(), 1023U) << "a name that did not fit leaves it as it was";
}

TEST(Names, TextsShowALongNameByItsEnds) {
  EXPECT_EQ(describe(""), "the root key");
  EXPECT_EQ(describe("a.b"), "key 'a.b'");
  const std::string text = describe("begin." + std::string(900, 'x') + ".end");
  EXPECT_LT(text.size(), 300U);
  EXPECT_EQ(text.substr(0, 10), "key 'begin");
  EXPECT_EQ(text.substr(text.size() - 5), ".end'");
  std::string euros;
  for (int n = 0; n < 300; ++n) euros += "\xe2\x82\xac";
  const std::string cut = describe(euros);
  EXPECT_EQ((cut.size() - 5 - 3 - 1) % 3, 0U) << "a character was cut in two";
}

}  // namespace
}  // namespace tkv::registry
