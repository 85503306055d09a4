// The readable display form and the reading of whole files of elements.
#include "sexp/display.h"

#include <gtest/gtest.h>

#include <string>

#include "sexp_test_util.h"

namespace velk2 {
namespace {

using namespace std::string_literals;

using testing::MakeAtom;
using testing::ParseList;

std::string Bytes(int count) {
  std::string bytes;
  for (int i = 0; i < count; ++i) bytes.push_back(static_cast<char>(i));
  return bytes;
}

TEST(SexpDisplay, AtomForms) {
  struct Case {
    std::string bytes;
    DisplayHint hint;
    std::string want;
  };
  const Case kCases[] = {
      {"public-key", kHintNone, "public-key"},
      {"2006-03-01_12:00:00", kHintNone, "2006-03-01_12:00:00"},
      {"hello world", kHintNone, "\"hello world\""},
      {"say \"hi\" \\", kHintNone, "\"say \\\"hi\\\" \\\\\""},
      {"", kHintNone, "\"\""},
      {"\x01\x00\x01"s, kHintNone, "#010001#"},
      {"a\0"s, kHintNone, "#6100#"},
      {Bytes(16), kHintNone, "#000102030405060708090a0b0c0d0e0f#"},
      {Bytes(17), kHintNone, "|AAECAwQFBgcICQoLDA0ODxA=|"},
      {Bytes(18), kHintNone, "|AAECAwQFBgcICQoLDA0ODxAR|"},
      {Bytes(19), kHintNone, "|AAECAwQFBgcICQoLDA0ODxAREg==|"},
      {"\x02", kHintNum, "[num]#02#"},
      {"abc", kHintBin, "[bin]abc"},
      {"caf\xC3\xA9", kHintUtf8, "[utf-8]#636166c3a9#"},
  };
  for (const Case& c : kCases) {
    Ref<SexpAtom> atom = MakeAtom(c.bytes, c.hint);
    EXPECT_EQ(FormatReadable(*atom), c.want + "\n") << c.want;
  }
}

TEST(SexpDisplay, ListsOneElementPerLine) {
  const std::string n = Bytes(64);
  const std::string text = "(4:cert(6:issuer(10:public-key(3:rsa(1:e3:\x01\x00\x01)(1:n64:"s + n +
                           "))))(7:subject(4:hash6:sha2561:x))(3:tag(3:pkg7:install))"
                           "(7:comment11:hello world)0:)";
  Ref<SexpList> list = ParseList(text);
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(FormatReadable(*list),
            "(cert\n"
            "  (issuer\n"
            "    (public-key\n"
            "      (rsa\n"
            "        (e #010001#)\n"
            "        (n\n"
            "          "
            "|AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8gISIjJCUmJygpKissLS4vMDEyMzQ1Njc4OTo7PD0+"
            "Pw==|))))\n"
            "  (subject (hash sha256 x))\n"
            "  (tag (pkg install))\n"
            "  (comment \"hello world\")\n"
            "  \"\")\n");
}

// Short lists stay on one line; FormatReadableLine keeps every list on one
// line, as a tag is typed.
TEST(SexpDisplay, ShortListsAndOneLineForms) {
  struct Case {
    std::string text, readable, line;
  };
  const std::string x40(40, 'x'), y61(61, 'y');
  const Case kCases[] = {
      {"()", "()\n", "()"},
      {"(1:a1:b)", "(a b)\n", "(a b)"},
      {"(()1:a)", "(() a)\n", "(() a)"},
      {"(3:tag40:" + x40 + ")", "(tag " + x40 + ")\n", "(tag " + x40 + ")"},
      // 65 bytes on one line: too long.
      {"(1:a61:" + y61 + ")", "(a\n  " + y61 + ")\n", "(a " + y61 + ")"},
      // A leading list gets a line of its own.
      {"((1:a61:" + y61 + ")1:b)", "(\n  (a\n    " + y61 + ")\n  b)\n", "((a " + y61 + ") b)"},
      {"(3:tag(3:ftp(1:*3:set4:read5:write)))", "(tag (ftp (* set read write)))\n",
       "(tag (ftp (* set read write)))"},
      {"(7:comment12:device owner)", "(comment \"device owner\")\n", "(comment \"device owner\")"},
      {"(1:k[num]1:\x02)", "(k [num]#02#)\n", "(k [num]#02#)"},
  };
  for (const Case& c : kCases) {
    Ref<SexpList> list = ParseList(c.text);
    ASSERT_NE(list, nullptr) << c.text;
    EXPECT_EQ(FormatReadable(*list), c.readable) << c.text;
    EXPECT_EQ(FormatReadableLine(*list), c.line) << c.text;
  }
  // Nesting past the writers' limit is cut, not followed.
  EXPECT_NE(FormatReadableLine(*testing::NestedChain(kMaxWriteDepth + 5)).find("(...)"),
            std::string::npos);
}

TEST(SexpDisplay, ReadCanonicalElements) {
  struct Case {
    std::string text;
    Result want;
    size_t elements;
  };
  const Case kCases[] = {
      {"(1:a)3:abc(1:b)", VELK2_SUCCESS, 3}, {"(1:a)", VELK2_SUCCESS, 1},
      {"[bin]1:x", VELK2_SUCCESS, 1},        {"", VELK2_ERR_PARSE_FILE, 0},
      {"(1:a)(", VELK2_ERR_FILE_OPEN, 1},    {"(1:a) ", VELK2_ERR_INVALID_DATA, 1},
      {"(1:a))", VELK2_ERR_INVALID_DATA, 1},
  };
  for (const Case& c : kCases) {
    SexpMemorySource source;
    ASSERT_EQ(source.AttachCopy(c.text.data(), c.text.size()), VELK2_SUCCESS);
    std::vector<Ref<SexpObject>> elements;
    EXPECT_EQ(ReadCanonicalElements(&source, nullptr, &elements), c.want) << c.text;
    EXPECT_EQ(elements.size(), c.elements) << c.text;
  }
}

}  // namespace
}  // namespace velk2
