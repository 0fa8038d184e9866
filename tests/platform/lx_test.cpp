#include "lx.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "lx/charset.h"
#include "lx/process_locale.h"
#include "temporary_directory.h"

namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;
using tkv::lx::Charset;
using tkv::lx::charset_of_locale;
using tkv::lx::charset_of_process;

// The variables that name the process's character set, as a test sets them and as they were before it.
class Environment {
 public:
  Environment() {
    for (const char* name : kNames) {
      const char* value = std::getenv(name);
      before_.emplace_back(value == nullptr ? std::nullopt : std::optional<std::string>(value));
      unsetenv(name);
    }
  }
  ~Environment() {
    for (std::size_t index = 0; index < std::size(kNames); ++index) {
      if (before_[index]) {
        setenv(kNames[index], before_[index]->c_str(), 1);
      } else {
        unsetenv(kNames[index]);
      }
    }
  }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;

  void set(const char* name, const char* value) { setenv(name, value, 1); }

 private:
  static constexpr const char* kNames[] = {"TKV_CHARSET", "LC_ALL", "LC_CTYPE", "LANG"};
  std::vector<std::optional<std::string>> before_;
};

std::string name_of(const Charset* charset) { return charset == nullptr ? "none" : charset->name(); }

// A handle in areas of its own, as a session has it.
class Handle {
 public:
  explicit Handle(const char* charset = "UTF-8") {
    environment_.set("TKV_CHARSET", charset);
    std::uint32_t error = 99;
    handle_ = lxinitc(area_, lxlinit(nullptr, 1, &error), 0, 0);
    lang_env_ = lxhLangEnv(&environment_area_, 0, handle_);
    id_ = static_cast<std::int16_t>(lxhcsn(lang_env_, handle_));
  }
  ~Handle() { lxlterm(handle_); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  void* get() const { return handle_; }
  void* charset() const { return lxhci2h(id_, handle_); }
  const lx_lang_env& lang_env() const { return environment_area_; }

  std::int32_t measure(std::string_view text) const { return convert(text, nullptr, 0); }

  std::int32_t convert(std::string_view text, std::uint16_t* to, std::uint32_t capacity) const {
    // A copy of exactly the text's size, so that a sanitizer detects a read past its end.
    const auto exact = std::make_unique<char[]>(text.size());
    text.copy(exact.get(), text.size());
    return lxgt2u(to, capacity, exact.get(), charset(), static_cast<std::uint32_t>(text.size()), 0, handle_);
  }

  // Returns the text in UTF-16, or nothing if it cannot be converted.
  std::optional<std::u16string> decode(std::string_view text) const {
    const std::int32_t needed = measure(text);
    if (needed < 0) return std::nullopt;
    const auto units = std::make_unique<std::uint16_t[]>(static_cast<std::size_t>(needed));
    const std::int32_t written = convert(text, units.get(), static_cast<std::uint32_t>(needed));
    EXPECT_EQ(written, needed);
    return std::u16string(units.get(), units.get() + needed);
  }

 private:
  Environment environment_;
  alignas(void*) char area_[LX_HANDLE_SIZE] = {};
  lx_lang_env environment_area_;
  void* handle_;
  void* lang_env_;
  std::int16_t id_;
};

TEST(LxLocale, FindsTheCharacterSetInTheNameOfALocale) {
  const struct {
    const char* locale;
    const char* charset;
  } kRows[] = {
      {"C", "UTF-8"},
      {"POSIX", "UTF-8"},
      {"C.UTF-8", "UTF-8"},
      {"C.utf8", "UTF-8"},
      {"C@anything", "UTF-8"},
      {"en_US.UTF-8", "UTF-8"},
      {"en_US.utf8@anything", "UTF-8"},
      {"de_DE.ISO-8859-1", "ISO-8859-1"},
      {"de_DE.iso88591", "ISO-8859-1"},
      {"de_DE.ISO8859-15@euro", "ISO-8859-15"},
      {"de_DE.iso885915", "ISO-8859-15"},
      {"ja_JP.eucJP", "EUC-JP"},
      {"ja_JP.EUC-JP", "EUC-JP"},
      {"ja_JP.SJIS", "SHIFT_JIS"},
      {"ko_KR.euckr", "EUC-KR"},
      {"ru_RU.KOI8-R", "KOI8-R"},
      {"en_US.ANSI_X3.4-1968", "US-ASCII"},
      {"de_DE.", "UTF-8"},
      {"xx_XX@euro", "ISO-8859-15"},
      {"xx_XX", "UTF-8"},
      {"xx_XX@other", "UTF-8"},
      {"xx_XX.no-such-set", "none"},
      {"xx_XX.UTF-16", "none"},
      {"xx_XX.EUC-JP//IGNORE", "none"},
  };
  for (const auto& row : kRows) EXPECT_EQ(name_of(charset_of_locale(row.locale)), row.charset) << row.locale;
}

TEST(LxLocale, TakesTheFirstVariableThatIsSetAndNotEmpty) {
  Environment environment;
  EXPECT_EQ(name_of(charset_of_process()), "UTF-8");
  environment.set("LANG", "de_DE.ISO-8859-1");
  EXPECT_EQ(name_of(charset_of_process()), "ISO-8859-1");
  environment.set("LC_CTYPE", "ja_JP.eucJP");
  EXPECT_EQ(name_of(charset_of_process()), "EUC-JP");
  environment.set("LC_ALL", "C");
  EXPECT_EQ(name_of(charset_of_process()), "UTF-8");
  environment.set("TKV_CHARSET", "KOI8-R");
  EXPECT_EQ(name_of(charset_of_process()), "KOI8-R");
  environment.set("TKV_CHARSET", "");
  environment.set("LC_ALL", "");
  EXPECT_EQ(name_of(charset_of_process()), "EUC-JP");
  environment.set("TKV_CHARSET", "POSIX");
  EXPECT_EQ(name_of(charset_of_process()), "UTF-8");
}

TEST(LxLocale, LooksAgainForASetThatThereWasNoRoomToLoad) {
  Environment environment;
  environment.set("TKV_CHARSET", "IBM866");
  rlimit usual{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
  const rlimit none{0, usual.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  EXPECT_EQ(name_of(charset_of_process()), "none");
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
  EXPECT_EQ(name_of(charset_of_process()), "IBM866");
}

TEST(LxLocale, NeitherReadsNorChangesTheGlobalLocale) {
  const Environment unset;
  const std::string before = std::setlocale(LC_ALL, nullptr);
  ASSERT_NE(std::setlocale(LC_ALL, "C.UTF-8"), nullptr);
  const Handle handle("EUC-JP");
  EXPECT_EQ(handle.decode("\xA4\xA2"), u"\u3042");
  EXPECT_STREQ(std::setlocale(LC_ALL, nullptr), "C.UTF-8");
  std::setlocale(LC_ALL, before.c_str());
}

TEST(LxCharset, IsTheSameOneUnderEverySpelling) {
  EXPECT_EQ(Charset::find("utf8"), Charset::find("UTF-8"));
  EXPECT_EQ(Charset::find("iso8859-1"), Charset::find("LATIN1"));
  EXPECT_EQ(Charset::find("euc-jp"), Charset::find("eucJP"));
  EXPECT_NE(Charset::find("ISO-8859-1"), Charset::find("ISO-8859-11"));
}

// In Turkish, the capital of "i" is not "I".
TEST(LxCharset, IsTheSameOneWhateverTheGlobalLocale) {
  const tkv::TemporaryDirectory locales;
  const std::string locale = locales / "tr_TR.ISO-8859-9";
  const std::string command = "localedef --no-archive -i tr_TR -f ISO-8859-9 '" + locale + "'";
  ASSERT_EQ(std::system(command.c_str()), 0) << "is the package locales installed?";
  const Charset* latin1 = Charset::find("ISO-8859-1");
  const Charset* latin4 = Charset::find("ISO-8859-4");
  const std::string before = std::setlocale(LC_ALL, nullptr);
  setenv("LOCPATH", locales.path().c_str(), 1);
  ASSERT_NE(std::setlocale(LC_ALL, "tr_TR.ISO-8859-9"), nullptr);
  EXPECT_EQ(Charset::find("iso-8859-1"), latin1);
  EXPECT_EQ(Charset::find("iso8859-4"), latin4);
  std::setlocale(LC_ALL, before.c_str());
  unsetenv("LOCPATH");
}

TEST(LxCharset, RefusesNamesThatAreNone) {
  for (const std::string_view name :
       {""sv, "no-such-set"sv, "UTF-8//IGNORE"sv, "//"sv, "UTF-16"sv, "UCS-4"sv, "a\0b"sv, "\xC3\xA4"sv, "UTF-8 "sv}) {
    EXPECT_EQ(name_of(Charset::find(name)), "none") << name;
  }
  EXPECT_EQ(Charset::find(std::string(1000, 'U')), nullptr);
}

TEST(LxCharset, EncodesItsCharactersAndRefusesOthers) {
  const struct {
    const char* charset;
    std::u16string text;
    std::optional<std::string> bytes;
  } kRows[] = {
      {"UTF-8", u"a\u00E4\u3042\U0001F600", "a\xC3\xA4\xE3\x81\x82\xF0\x9F\x98\x80"},
      {"UTF-8", u"\xD83D", std::nullopt},
      {"UTF-8", u"\xDE00\xD83D", std::nullopt},
      {"US-ASCII", u"abc", "abc"},
      {"US-ASCII", u"\u00E4", std::nullopt},
      {"ISO-8859-1", u"\u00E4\u00FF", "\xE4\xFF"},
      {"ISO-8859-1", u"\u0100", std::nullopt},
      {"ISO-8859-15", u"\u20AC", "\xA4"},
      {"EUC-JP", u"a\u3042\u30A2", "a\xA4\xA2\xA5\xA2"},
      {"EUC-JP", u"\U0001F600", std::nullopt},
      {"SHIFT_JIS", u"\u3042", "\x82\xA0"},
      {"ISO-2022-JP", u"a\u3042", "a\x1B$B$\"\x1B(B"},
      {"GB18030", u"\U0001F600", "\x94\x39\xFC\x36"},
      {"EUC-JP", u"", ""},
  };
  for (const auto& row : kRows) EXPECT_EQ(Charset::find(row.charset)->encode(row.text), row.bytes) << row.charset;
}

TEST(LxCharset, ServesThreadsAtOnce) {
  const Environment unset;
  std::vector<std::thread> threads;
  for (const char* name : {"EUC-JP", "SHIFT_JIS", "EUC-JP", "KOI8-U"}) {
    threads.emplace_back([name] {
      for (int round = 0; round < 300; ++round) {
        const Charset* charset = Charset::find(name);
        ASSERT_NE(charset, nullptr);
        ASSERT_EQ(Charset::by_id(charset->id()), charset);
        ASSERT_EQ(Charset::at(charset), charset);
        ASSERT_EQ(charset->encode(u"text"), "text");
        ASSERT_EQ(name_of(charset_of_process()), "UTF-8");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(LxCharset, EncodesTextsOfAnyLength) {
  const std::u16string text(5000, u'\u3042');
  std::string bytes;
  for (int count = 0; count < 5000; ++count) bytes += "\xA4\xA2";
  EXPECT_EQ(Charset::find("EUC-JP")->encode(text), bytes);
}

TEST(Lx, StartsInTheCharacterSetOfTheProcess) {
  const Handle handle("EUC-JP");
  ASSERT_NE(handle.get(), nullptr);
  EXPECT_STREQ(handle.lang_env().name, "EUC-JP");
  EXPECT_NE(handle.charset(), nullptr);
  const Handle utf8;
  EXPECT_STREQ(utf8.lang_env().name, "UTF-8");
}

TEST(Lx, SaysWhetherCharactersMayTakeMoreThanOneByte) {
  for (const char* charset : {"UTF-8", "EUC-JP", "SHIFT_JIS", "GB18030", "ISO-2022-JP"}) {
    EXPECT_EQ(Handle(charset).lang_env().flags, 0x4000000U) << charset;
  }
  for (const char* charset : {"US-ASCII", "ISO-8859-1", "ISO-8859-15", "KOI8-R", "CP1252"}) {
    EXPECT_EQ(Handle(charset).lang_env().flags, 0U) << charset;
  }
}

TEST(Lx, ReportsWhyItCannotStart) {
  Environment environment;
  std::uint32_t error = 99;
  EXPECT_NE(lxlinit(nullptr, 1, &error), nullptr);
  EXPECT_EQ(error, 0U);
  EXPECT_EQ(lxlinit(nullptr, 2, &error), nullptr);
  EXPECT_EQ(error, 1U);
  EXPECT_EQ(lxlinit(&error, 1, &error), nullptr);
  EXPECT_EQ(error, 1U);
  environment.set("TKV_CHARSET", "no-such-set");
  EXPECT_EQ(lxlinit(nullptr, 1, &error), nullptr);
  EXPECT_EQ(error, 2U);
  EXPECT_EQ(lxlinit(nullptr, 1, nullptr), nullptr);
}

TEST(Lx, GivesNothingForWhatIsNoHandle) {
  alignas(void*) char blank[LX_HANDLE_SIZE] = {};
  lx_lang_env environment = {};
  for (void* none : {static_cast<void*>(nullptr), static_cast<void*>(blank)}) {
    EXPECT_EQ(lxhLangEnv(&environment, 0, none), nullptr);
    EXPECT_EQ(lxhcsn(&environment, none), 0);
    EXPECT_EQ(lxhci2h(1, none), nullptr);
    EXPECT_EQ(lxgt2u(nullptr, 0, "a", const_cast<Charset*>(Charset::find("UTF-8")), 1, 0, none), -1);
    lxlterm(none);
  }
  std::uint32_t error = 0;
  void* global = lxlinit(nullptr, 1, &error);
  EXPECT_EQ(lxinitc(nullptr, global, 0, 0), nullptr);
  EXPECT_EQ(lxinitc(blank, nullptr, 0, 0), nullptr);
  EXPECT_EQ(lxinitc(blank, blank, 0, 0), nullptr);
}

TEST(Lx, EndsAHandleOnce) {
  Environment environment;
  environment.set("TKV_CHARSET", "EUC-JP");
  alignas(void*) char area[LX_HANDLE_SIZE] = {};
  std::uint32_t error = 0;
  void* handle = lxinitc(area, lxlinit(nullptr, 1, &error), 0, 0);
  void* charset = lxhci2h(Charset::find("EUC-JP")->id(), handle);
  EXPECT_EQ(lxgt2u(nullptr, 0, "\xA4\xA2", charset, 2, 0, handle), 1);
  alignas(void*) char copy[LX_HANDLE_SIZE];
  std::memcpy(copy, area, sizeof(copy));
  lxlterm(copy);  // a copied record is no handle
  EXPECT_EQ(lxgt2u(nullptr, 0, "\xA4\xA2", charset, 2, 0, handle), 1);
  lxlterm(handle);
  lxlterm(handle);
  EXPECT_EQ(lxgt2u(nullptr, 0, "\xA4\xA2", charset, 2, 0, handle), -1);
  EXPECT_EQ(lxhci2h(1, handle), nullptr);
}

TEST(Lx, KnowsTheIdsThatItGaveAndNoOthers) {
  const Handle handle("SHIFT_JIS");
  EXPECT_EQ(handle.charset(), Charset::find("SHIFT_JIS"));
  for (const std::int32_t id : {0, -1, 32767, INT32_MAX, INT32_MIN}) EXPECT_EQ(lxhci2h(id, handle.get()), nullptr);
  lx_lang_env blank = {};
  EXPECT_EQ(lxhcsn(nullptr, handle.get()), 0);
  EXPECT_EQ(lxhcsn(&blank, handle.get()), 0);
}

TEST(Lx, MeasuresTextsInBytes) {
  EXPECT_EQ(lxsulen("a\xC3\xA4"), 3U);
  EXPECT_EQ(lxsulen(""), 0U);
  EXPECT_EQ(lxsulen(nullptr), 0U);
}

struct Conversion {
  const char* charset;
  std::string bytes;
  std::optional<std::u16string> units;
};

const Conversion kConversions[] = {
    {"UTF-8", "abc", u"abc"},
    {"UTF-8", "\xC3\xA4\xE3\x81\x82\xF0\x9F\x98\x80", u"\u00E4\u3042\U0001F600"},
    {"UTF-8", "\xED\xA0\xBD\xED\xB8\x80", u"\U0001F600"},  // a pair, three bytes each
    {"UTF-8", "a\xED\xA0\xBD", u"a\xD83D"},                // a managed string may hold half of one
    {"UTF-8", "\xED\xB8\x80\xED\xA0\xBD", u"\xDE00\xD83D"},
    {"UTF-8", "a\xC0\x80z", u"a\0z"s},
    {"UTF-8", "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80\xF4\x8F\xBF\xBF",
     u"\x7F\x80\x7FF\x800\xFFFF\xD800\xDC00\xDBFF\xDFFF"},
    {"UTF-8", "\x80", std::nullopt},
    {"UTF-8", "a\xFF", std::nullopt},
    {"UTF-8", "\xC3", std::nullopt},
    {"UTF-8", "\xC3(", std::nullopt},
    {"UTF-8", "\xC0\x81", std::nullopt},
    {"UTF-8", "\xC1\xBF", std::nullopt},
    {"UTF-8", "\xE0\x9F\xBF", std::nullopt},
    {"UTF-8", "\xE3\x81", std::nullopt},
    {"UTF-8", "\xF0\x8F\xBF\xBF", std::nullopt},
    {"UTF-8", "\xF4\x90\x80\x80", std::nullopt},
    {"UTF-8", "\xF5\x80\x80\x80", std::nullopt},
    {"UTF-8", "\xF8\x88\x80\x80\x80", std::nullopt},
    {"US-ASCII", "a\x7F", u"a\x7F"},
    {"US-ASCII", "a\x80", std::nullopt},
    {"ISO-8859-1", "a\x80\xE4\xFF", u"a\x80\u00E4\u00FF"},
    {"ISO-8859-15", "\xA4", u"\u20AC"},
    {"KOI8-R", "\xC1", u"\u0430"},
    {"EUC-JP", "a\xA4\xA2\x8F\xB0\xA1", u"a\u3042\u4E02"},
    {"EUC-JP", "\x8E\xB1", u"\uFF71"},
    {"EUC-JP", "\xA4", std::nullopt},
    {"EUC-JP", "\xA4\x20", std::nullopt},
    {"EUC-JP", "\xFF\xFF", std::nullopt},
    {"SHIFT_JIS", "\x82\xA0\xB1", u"\u3042\uFF71"},
    {"SHIFT_JIS", "\x82", std::nullopt},
    {"SHIFT_JIS", "\x82\x20", std::nullopt},
    {"GB18030", "\x94\x39\xFC\x36", u"\U0001F600"},
    {"BIG5-HKSCS", "\x88\x62", u"\u00CA\u0304"},  // two characters from one
    {"BIG5-HKSCS", "\x88\x66", u"\u00CA"},
    {"CP1258", "ba\xEC", u"b\u00E1"},  // one character from two: iconv holds each back until the next is known
    {"CP1258", "ba", u"ba"},
    {"ISO-2022-JP", "a\x1B$B$\"\x1B(B", u"a\u3042"},
    {"ISO-2022-JP", "\x1B$B$\"", u"\u3042"},
};

TEST(Lx, ConvertsWhatTheCharacterSetHasAndRefusesTheRest) {
  for (const Conversion& row : kConversions) {
    EXPECT_EQ(Handle(row.charset).decode(row.bytes), row.units)
        << row.charset << " " << testing::PrintToString(row.bytes);
  }
}

TEST(Lx, NeverWritesMoreThanThereIsRoomForNorHalfAPair) {
  for (const Conversion& row : kConversions) {
    if (!row.units) continue;
    const Handle handle(row.charset);
    for (std::uint32_t capacity = 0; capacity <= row.units->size() + 1; ++capacity) {
      const auto units = std::make_unique<std::uint16_t[]>(capacity);
      const std::int32_t written = handle.convert(row.bytes, units.get(), capacity);
      ASSERT_GE(written, 0) << row.charset << " " << capacity;
      ASSERT_LE(static_cast<std::uint32_t>(written), capacity);
      const std::u16string_view whole(*row.units);
      const auto count = static_cast<std::size_t>(written);
      EXPECT_EQ(std::u16string(units.get(), units.get() + written), whole.substr(0, count));
      const bool splits = count > 0 && count < whole.size() && (whole[count - 1] & 0xFC00) == 0xD800 &&
                          (whole[count] & 0xFC00) == 0xDC00;
      EXPECT_FALSE(splits) << row.charset << " " << capacity;
    }
  }
}

TEST(Lx, RefusesATextThatEndsWithinACharacter) {
  const Conversion kTexts[] = {
      {"UTF-8", "\xF0\x9F\x98\x80", std::nullopt},   {"UTF-8", "\xE3\x81\x82", std::nullopt},
      {"EUC-JP", "\x8F\xB0\xA1", std::nullopt},      {"SHIFT_JIS", "\x82\xA0", std::nullopt},
      {"GB18030", "\x94\x39\xFC\x36", std::nullopt},
  };
  for (const Conversion& row : kTexts) {
    const Handle handle(row.charset);
    EXPECT_TRUE(handle.decode("ab" + row.bytes).has_value());
    for (std::size_t length = 1; length < row.bytes.size(); ++length) {
      EXPECT_EQ(handle.decode("ab" + row.bytes.substr(0, length)), std::nullopt) << row.charset << " " << length;
    }
  }
}

TEST(Lx, ForgetsEachTextBeforeTheNext) {
  const Handle stateful("ISO-2022-JP");
  EXPECT_EQ(stateful.decode("\x1B$B$\""), u"\u3042");  // leaves the two-byte state on
  EXPECT_EQ(stateful.decode("ab"), u"ab");
  const Handle eucjp("EUC-JP");
  EXPECT_EQ(eucjp.decode("a\xA4"), std::nullopt);
  EXPECT_EQ(eucjp.decode("\xA4\xA2"), u"\u3042");
  const Handle holding("CP1258");
  std::uint16_t units[1];
  EXPECT_EQ(holding.convert("a", units, 0), 0);
  EXPECT_EQ(holding.decode("\xEC"), u"\u0301");  // no accent for the letter of the text before
}

TEST(Lx, GivesTheLengthOfLongTextsAlike) {
  std::string bytes;
  for (int count = 0; count < 3000; ++count) bytes += "\xA4\xA2";
  EXPECT_EQ(Handle("EUC-JP").decode(bytes), std::u16string(3000, u'\u3042'));
}

TEST(Lx, RefusesArgumentsThatItCannotUse) {
  const Handle handle;
  std::uint16_t units[4];
  EXPECT_EQ(lxgt2u(units, 4, "a", nullptr, 1, 0, handle.get()), -1);
  EXPECT_EQ(lxgt2u(units, 4, "a", units, 1, 0, handle.get()), -1);
  EXPECT_EQ(lxgt2u(units, 4, nullptr, handle.charset(), 1, 0, handle.get()), -1);
  EXPECT_EQ(lxgt2u(units, 4, "a", handle.charset(), 1, 1, handle.get()), -1);
  EXPECT_EQ(lxgt2u(units, 4, nullptr, handle.charset(), 0, 0, handle.get()), 0);
  EXPECT_EQ(lxgt2u(units, 4, "", handle.charset(), 0, 0, handle.get()), 0);
}

}  // namespace
