// UTF-8 and modified UTF-8: what each accepts, and the conversions between them and UTF-16.
#include "base/utf8.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tkv {
namespace {

constexpr std::size_t kIll = 0;  // size of an ill-formed character

struct DecodeCase {
  const char* claim;
  std::string_view bytes;
  std::uint32_t code_point;  // where any form accepts it
  std::size_t standard;      // sizes
  std::size_t modified;
  std::size_t either;
};

constexpr DecodeCase kDecodeCases[] = {
    {"ASCII", "a", 'a', 1, 1, 1},
    {"DEL", "\x7f", 0x7f, 1, 1, 1},
    {"NUL as a zero byte", {"\0", 1}, 0, 1, kIll, 1},
    {"NUL as two bytes", "\xc0\x80", 0, kIll, 2, 2},
    {"an overlong form of two bytes", "\xc1\xbf", 0, kIll, kIll, kIll},
    {"the first of two bytes", "\xc2\x80", 0x80, 2, 2, 2},
    {"the last of two bytes", "\xdf\xbf", 0x7ff, 2, 2, 2},
    {"an overlong form of three bytes", "\xe0\x9f\xbf", 0, kIll, kIll, kIll},
    {"the first of three bytes", "\xe0\xa0\x80", 0x800, 3, 3, 3},
    {"the last before the surrogates", "\xed\x9f\xbf", 0xd7ff, 3, 3, 3},
    {"a high surrogate alone", "\xed\xa0\xbd", 0xd83d, kIll, 3, 3},
    {"a low surrogate alone", "\xed\xb8\x80", 0xde00, kIll, 3, 3},
    {"a pair of surrogates", "\xed\xa0\xbd\xed\xb8\x80", 0x1f600, kIll, 6, 6},
    {"the largest pair", "\xed\xaf\xbf\xed\xbf\xbf", 0x10ffff, kIll, 6, 6},
    {"a pair in the wrong order", "\xed\xb8\x80\xed\xa0\xbd", 0xde00, kIll, 3, 3},
    {"a high surrogate before another character", "\xed\xa0\xbd\xee\x80\x80", 0xd83d, kIll, 3, 3},
    {"a high surrogate before a truncated one", "\xed\xa0\xbd\xed\xb8", 0xd83d, kIll, 3, 3},
    {"the first after the surrogates", "\xee\x80\x80", 0xe000, 3, 3, 3},
    {"the last of three bytes", "\xef\xbf\xbf", 0xffff, 3, 3, 3},
    {"an overlong form of four bytes", "\xf0\x8f\xbf\xbf", 0, kIll, kIll, kIll},
    {"the first of four bytes", "\xf0\x90\x80\x80", 0x10000, 4, kIll, 4},
    {"the last character", "\xf4\x8f\xbf\xbf", 0x10ffff, 4, kIll, 4},
    {"beyond the last character", "\xf4\x90\x80\x80", 0, kIll, kIll, kIll},
    {"a lead byte that never occurs", "\xf5\x80\x80\x80", 0, kIll, kIll, kIll},
    {"a form of five bytes", "\xf8\x88\x80\x80\x80", 0, kIll, kIll, kIll},
    {"a continuation byte", "\x80", 0, kIll, kIll, kIll},
    {"two bytes, truncated", "\xc3", 0, kIll, kIll, kIll},
    {"three bytes, truncated", "\xe2\x82", 0, kIll, kIll, kIll},
    {"four bytes, truncated", "\xf0\x9f\x98", 0, kIll, kIll, kIll},
    {"a lead byte before another", "\xc3\xc3", 0, kIll, kIll, kIll},
};

void expect_decoded(const DecodeCase& row, Utf8 form, std::size_t size) {
  const Utf8Character character = decode_utf8(row.bytes, form);
  EXPECT_EQ(character.size, size) << row.claim;
  EXPECT_EQ(character.code_point, size == kIll ? 0xfffd : row.code_point) << row.claim;
}

TEST(Utf8Decoding, AcceptsWhatEachFormAllows) {
  for (const DecodeCase& row : kDecodeCases) {
    expect_decoded(row, Utf8::standard, row.standard);
    expect_decoded(row, Utf8::modified, row.modified);
    expect_decoded(row, Utf8::either, row.either);
  }
}

TEST(Utf8Decoding, TellsAsciiFromOtherTextsWhereverTheByteStands) {
  EXPECT_TRUE(is_ascii(""));
  for (const std::size_t size : {1U, 7U, 8U, 63U, 64U, 65U, 130U}) {
    std::string text(size, '\x7F');
    EXPECT_TRUE(is_ascii(text)) << size;
    for (std::size_t at = 0; at < size; ++at) {
      text[at] = '\x80';
      EXPECT_FALSE(is_ascii(text)) << at << " of " << size;
      text[at] = '\x7F';
    }
  }
}

TEST(Utf8Decoding, FindsTheIllFormedByteWhereverItStands) {
  for (const Utf8 form : {Utf8::standard, Utf8::modified, Utf8::either}) {
    EXPECT_TRUE(is_utf8("", form));
    EXPECT_TRUE(is_utf8("a\xc3\xa4z", form));
    EXPECT_FALSE(
        is_utf8("\xff"
                "az",
                form));
    EXPECT_FALSE(is_utf8("a\xffz", form));
    EXPECT_FALSE(is_utf8("az\xff", form));
  }
}

TEST(Utf8Conversion, GoesFromStandardToModifiedAndBack) {
  const std::string smile = "a\xf0\x9f\x98\x80.\xe2\x82\xac";
  const std::string modified = modified_from_utf8(smile);
  EXPECT_EQ(modified, "a\xed\xa0\xbd\xed\xb8\x80.\xe2\x82\xac");
  EXPECT_TRUE(is_utf8(modified, Utf8::modified));
  EXPECT_EQ(utf8_from_modified(modified), smile);
  EXPECT_EQ(modified_from_utf8("\xf4\x8f\xbf\xbf"), "\xed\xaf\xbf\xed\xbf\xbf");  // U+10FFFF
  EXPECT_EQ(utf8_from_modified("\xed\xaf\xbf\xed\xbf\xbf"), "\xf4\x8f\xbf\xbf");
}

TEST(Utf8Conversion, LeavesWhatIsIllFormedUnchanged) {
  for (const char* odd : {"\xf0\x9f\x98", "\xed\xa0\xbd", "\xed\xb8\x80\xed\xa0\xbd", "\xf5\x80\x80\x80", "\xff"}) {
    EXPECT_EQ(modified_from_utf8(odd), odd);
    EXPECT_EQ(utf8_from_modified(odd), odd);
  }
}

TEST(Utf16FromUtf8, ReplacesEachIllFormedByte) {
  const struct {
    std::string bytes;
    std::u16string units;
  } kRows[] = {
      {"a\xFFz", u"a\uFFFDz"},
      {"\x80\x80", u"\uFFFD\uFFFD"},
      {"\xE3\x81", u"\uFFFD\uFFFD"},
      {"\xE3\x81z", u"\uFFFD\uFFFDz"},
      {"\xF0\x9F\x98", u"\uFFFD\uFFFD\uFFFD"},
      {"\xF0\x9F\x98\xC3\xA4", u"\uFFFD\uFFFD\uFFFD\u00E4"},
      {"\xC0\x81", u"\uFFFD\uFFFD"},
      {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"12345678\xC3", u"12345678\uFFFD"},
  };
  for (const auto& row : kRows) {
    std::u16string units(row.bytes.size(), u'x');
    std::vector<std::uint16_t> to(row.bytes.size());
    const auto count = utf8_to_utf16(row.bytes, to.data(), to.size(), IllFormed::replace);
    ASSERT_TRUE(count.has_value());
    EXPECT_EQ(std::u16string(to.begin(), to.begin() + static_cast<std::ptrdiff_t>(*count)), row.units);
    EXPECT_EQ(utf8_to_utf16(row.bytes, nullptr, 0, IllFormed::replace), row.units.size());
  }
}

TEST(Utf8FromUtf16, RefusesASurrogateWithoutItsPartner) {
  EXPECT_EQ(utf16_to_utf8(u"a\u00e4\u20ac\U0001f600"), "a\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80");
  for (const std::u16string odd : {u"\xd83d", u"\xde00", u"\xde00\xd83d", u"\xd83dz"}) {
    EXPECT_EQ(utf16_to_utf8(odd), std::nullopt);
  }
}

}  // namespace
}  // namespace tkv
