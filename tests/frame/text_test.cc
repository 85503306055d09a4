#include <gtest/gtest.h>

#include <string>

#include "frame/text.h"
#include "platform/utf.h"
#include "velk2.h"

namespace {

using velk2::CBuffer;

struct Utf8Case {
  const char* name;
  std::string utf8;
  std::u16string utf16;
};

// Well-formed text converts both ways without loss.
const Utf8Case kWellFormed[] = {
    {"empty", "", u""},
    {"ascii", "acl/x.cert", u"acl/x.cert"},
    {"two-byte", "caf\xC3\xA9", u"caf\u00E9"},
    {"three-byte", "\xE2\x82\xAC\xE2\x82\xAC", u"\u20AC\u20AC"},
    {"four-byte", "a\xF0\x9F\x98\x80z", u"a\U0001F600z"},
    {"max scalar", "\xF4\x8F\xBF\xBF", u"\U0010FFFF"},
    {"last before surrogates", "\xED\x9F\xBF", u"\uD7FF"},
};

TEST(Conversion, WellFormedTextRoundTrips) {
  for (const Utf8Case& c : kWellFormed) {
    SCOPED_TRACE(c.name);
    uint32_t units = 99, bytes = 99;
    CBuffer<char16_t> wide(Velk2AsciiToWide(c.utf8.c_str(), -1, &units));
    ASSERT_NE(wide, nullptr);
    EXPECT_EQ(std::u16string(wide.get()), c.utf16);
    EXPECT_EQ(units, c.utf16.size());  // the export counts units
    CBuffer<char> back(Velk2WideToAscii(wide.get(), -1, &bytes));
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(std::string(back.get()), c.utf8);
    EXPECT_EQ(bytes, c.utf8.size());
  }
}

// Ill-formed UTF-8 becomes U+FFFD, one per maximal ill-formed subpart.
const Utf8Case kIllFormedUtf8[] = {
    {"lone continuation", "a\x80z", u"a\uFFFDz"},
    {"truncated two-byte at end", "a\xC3", u"a\uFFFD"},
    {"truncated three-byte", "\xE2\x82z", u"\uFFFDz"},
    {"truncated four-byte", "\xF0\x9F\x98", u"\uFFFD"},
    {"overlong slash", "\xC0\xAF", u"\uFFFD\uFFFD"},
    {"overlong three-byte", "\xE0\x80\xAF", u"\uFFFD\uFFFD\uFFFD"},
    {"encoded surrogate", "\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},
    {"above U+10FFFF", "\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},
    {"invalid lead FF", "\xFF", u"\uFFFD"},
};

TEST(Conversion, IllFormedUtf8BecomesReplacement) {
  for (const Utf8Case& c : kIllFormedUtf8) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(velk2::Utf8ToUtf16(c.utf8), c.utf16);
    CBuffer<char16_t> wide(
        Velk2AsciiToWide(c.utf8.c_str(), static_cast<int32_t>(c.utf8.size()), nullptr));
    ASSERT_NE(wide, nullptr);
    EXPECT_EQ(std::u16string(wide.get()), c.utf16);
  }
}

TEST(Conversion, LoneSurrogatesBecomeReplacement) {
  const struct {
    const char* name;
    std::u16string utf16;
    std::string utf8;
  } cases[] = {
      {"lone high at end", u"a\xD83D", "a\xEF\xBF\xBD"},
      {"lone low", u"\xDE00z", "\xEF\xBF\xBDz"},
      {"reversed pair", u"\xDE00\xD83D", "\xEF\xBF\xBD\xEF\xBF\xBD"},
      {"high then letter", u"\xD83Dx", "\xEF\xBF\xBDx"},
      {"valid pair", u"\xD83D\xDE00", "\xF0\x9F\x98\x80"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    uint32_t bytes = 0;
    CBuffer<char> utf8(
        Velk2WideToAscii(c.utf16.c_str(), static_cast<int32_t>(c.utf16.size()), &bytes));
    ASSERT_NE(utf8, nullptr);
    EXPECT_EQ(std::string(utf8.get()), c.utf8);
    EXPECT_EQ(bytes, c.utf8.size());
  }
}

TEST(Conversion, ExplicitCountsConvertOnlyThatMuch) {
  uint32_t units = 0;
  CBuffer<char16_t> wide(Velk2AsciiToWide("abcdef", 3, &units));
  EXPECT_EQ(std::u16string(wide.get()), u"abc");
  EXPECT_EQ(units, 3u);
  // A count that cuts a sequence leaves a replacement, not a read past the count.
  CBuffer<char16_t> cut(Velk2AsciiToWide("\xE2\x82\xAC", 2, &units));
  EXPECT_EQ(std::u16string(cut.get()), u"\uFFFD");
  uint32_t bytes = 0;
  CBuffer<char> narrow(Velk2WideToAscii(u"\u00E9\u00E9\u00E9", 2, &bytes));
  EXPECT_EQ(std::string(narrow.get()), "\xC3\xA9\xC3\xA9");
  EXPECT_EQ(bytes, 4u);
  CBuffer<char> none(Velk2WideToAscii(u"xyz", 0, &bytes));
  EXPECT_EQ(std::string(none.get()), "");
  EXPECT_EQ(bytes, 0u);
}

TEST(Conversion, InternalConverterReportsBytes) {
  uint32_t bytes = 0;
  CBuffer<char16_t> wide(velk2::Utf8ToWide("h\xC3\xA9llo", -1, &bytes));
  EXPECT_EQ(std::u16string(wide.get()), u"h\u00E9llo");
  EXPECT_EQ(bytes, 10u);  // five units, counted in bytes
  CBuffer<char> narrow(velk2::WideToUtf8(u"h\u00E9llo", -1, &bytes));
  EXPECT_EQ(bytes, 6u);
  EXPECT_EQ(velk2::Utf8ToWide(nullptr, -1, &bytes), nullptr);
  EXPECT_EQ(velk2::WideToUtf8(nullptr, -1, &bytes), nullptr);
}

TEST(Text, CaseFoldingIsAsciiOnly) {
  EXPECT_EQ(velk2::CompareNoCase(u"X.CERT", u"x.cert"), 0);
  EXPECT_LT(velk2::CompareNoCase(u"a", u"B"), 0);
  EXPECT_GT(velk2::CompareNoCase(u"b", u"A"), 0);
  EXPECT_NE(velk2::CompareNoCase(u"\u00C9", u"\u00E9"), 0);  // not folded
  EXPECT_LT(velk2::CompareNoCase(u"ab", u"abc"), 0);
  EXPECT_EQ(velk2::CompareNoCaseN(u"abcX", u"ABCy", 3), 0);
  EXPECT_NE(velk2::CompareNoCaseN(u"abcX", u"ABCy", 4), 0);
}

TEST(Text, ParseIntegersReadsDateFields) {
  long v[6] = {};
  EXPECT_EQ(velk2::ParseIntegers("2006-03-01_12:34:56", 6, v), 6);
  EXPECT_EQ(v[0], 2006);
  EXPECT_EQ(v[1], 3);
  EXPECT_EQ(v[2], 1);
  EXPECT_EQ(v[5], 56);
  // Any one character separates; stops where no digits follow.
  EXPECT_EQ(velk2::ParseIntegers("1x2yy3", 6, v), 2);
  EXPECT_EQ(velk2::ParseIntegers("7/8", 1, v), 1);
  EXPECT_EQ(velk2::ParseIntegers("", 6, v), 0);
  EXPECT_EQ(velk2::ParseIntegers("abc", 6, v), 0);
  EXPECT_EQ(velk2::ParseIntegers("2006-", 6, v), 1);
}

}  // namespace
