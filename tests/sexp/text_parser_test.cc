// The text parsers: tokens, text lists and sequences, and the length-prefixed
// parsers with their kept quirks and their bounds.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "sexp/reader.h"
#include "sexp_test_util.h"

namespace velk2 {
namespace {

using testing::CanonicalOf;

// The text in a heap buffer of exactly its size, without a NUL, so that the
// sanitizer sees any read past it.
std::unique_ptr<char[]> Exact(std::string_view text) {
  auto buffer = std::make_unique<char[]>(text.size() ? text.size() : 1);
  std::copy(text.begin(), text.end(), buffer.get());
  return buffer;
}

// A parsed list against the canonical text wanted; a failure leaves no list.
void ExpectList(Result result, const Ref<SexpList>& list, Result want, const std::string& canonical,
                const std::string& input) {
  EXPECT_EQ(result, want) << input;
  if (want != VELK2_SUCCESS) {
    EXPECT_EQ(list, nullptr) << input;
  } else if (list != nullptr) {
    EXPECT_EQ(CanonicalOf(*list), canonical) << input;
  } else {
    ADD_FAILURE() << "no list from " << input;
  }
}

TEST(SexpTextParser, SkipSpace) {
  size_t position = 0, bounded = 0, high = 0;
  SkipSpace(" \t\n\v\f\rx", &position);
  SkipSpace("    ", 2, &bounded);
  SkipSpace("\xA0x", &high);  // no-break space is not white space in the C locale
  EXPECT_EQ(position, 6u);
  EXPECT_EQ(bounded, 2u);
  EXPECT_EQ(high, 0u);
}

TEST(SexpTextParser, ExpectLiteralBoundedComparesFromThePositionIndex) {
  struct Case {
    const char* literal;
    std::string text;
    size_t start;
    Result want;
    size_t want_position;
  };
  const Case kCases[] = {
      {"(3:acl", "(3:acl(5:entry", 0, VELK2_SUCCESS, 6},
      {"(3:acl", "(3:abc", 0, VELK2_ERR_UNEXPECTED_CHAR, 0},
      {"(3:acl", "(3:a", 0, VELK2_ERR_BUFFER_OVERFLOW, 0},
      {":", "x", 0, VELK2_ERR_UNEXPECTED_CHAR, 0},
      {":", ":", 0, VELK2_SUCCESS, 1},
      {":", "", 0, VELK2_ERR_BUFFER_OVERFLOW, 0},
      // Past index 0 a one-byte literal is skipped, not checked (kept on purpose).
      {":", "3x", 1, VELK2_SUCCESS, 2},
      {"(", "ab", 2, VELK2_SUCCESS, 3},
      // Longer literals are compared from literal index p at text index 2p.
      {"abcd", "..xxcd", 2, VELK2_SUCCESS, 6},
      {"abcd", "..xxcx", 2, VELK2_ERR_UNEXPECTED_CHAR, 2},
      {"abcd", "..xxc", 2, VELK2_ERR_BUFFER_OVERFLOW, 2},
  };
  for (const Case& c : kCases) {
    auto text = Exact(c.text);
    size_t position = c.start;
    EXPECT_EQ(ExpectLiteralBounded(c.literal, text.get(), c.text.size(), &position), c.want)
        << c.literal << " in " << c.text;
    EXPECT_EQ(position, c.want_position) << c.literal << " in " << c.text;
  }
  size_t position = 0;
  EXPECT_EQ(ExpectLiteralBounded(nullptr, "x", 1, &position), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(ExpectLiteralBounded("x", nullptr, 1, &position), VELK2_ERR_INVALID_PARAM);
}

TEST(SexpTextParser, ParseToken) {
  struct Case {
    const char* text;
    size_t start;
    std::string want;
    size_t want_position;
  };
  const Case kCases[] = {
      {"  abc def", 0, "abc", 5},
      {"abc(", 0, "abc", 3},
      {"a)b", 0, "a", 1},
      {"(x", 0, "", 0},
      {"", 0, "", 0},
      {"   ", 0, "", 3},
      {"x y", 1, "y", 3},
      {"\xC3\xA9t\xC3\xA9", 0, "\xC3\xA9t\xC3\xA9", 5},
  };
  for (const Case& c : kCases) {
    Ref<SexpAtom> atom;
    size_t position = c.start;
    ASSERT_EQ(ParseToken(&atom, c.text, &position, nullptr), VELK2_SUCCESS) << c.text;
    EXPECT_EQ(atom->bytes(), c.want);
    EXPECT_EQ(atom->hint(), kHintNone);
    EXPECT_EQ(position, c.want_position) << c.text;
  }
  Ref<SexpAtom> taken = SexpAtom::New();
  size_t position = 0;
  EXPECT_EQ(ParseToken(&taken, "x", &position, nullptr), VELK2_ERR_INVALID_PARAM);
  Ref<SexpAtom> fresh;
  EXPECT_EQ(ParseToken(&fresh, nullptr, &position, nullptr), VELK2_ERR_INVALID_PARAM);
}

TEST(SexpTextParser, ParseTextList) {
  struct Case {
    const char* text;
    Result want;
    std::string canonical;  // when it parses
    size_t want_position;
  };
  const Case kCases[] = {
      {"(tag (ftp x))", VELK2_SUCCESS, "(3:tag(3:ftp1:x))", 13},
      {"  ( a\tb )rest", VELK2_SUCCESS, "(1:a1:b)", 9},
      {"((a))", VELK2_SUCCESS, "(0:(1:a))", 5},  // the first token is empty
      {"()", VELK2_SUCCESS, "(0:)", 2},
      {"(a (b (c d) e) f)", VELK2_SUCCESS, "(1:a(1:b(1:c1:d)1:e)1:f)", 17},
      {"x", VELK2_ERR_UNEXPECTED_CHAR, "", 0},
      {"  ", VELK2_ERR_UNEXPECTED_CHAR, "", 2},
      {"(a b", VELK2_ERR_INVALID_S_EXPRESSION, "", 4},
      {"(a (b", VELK2_ERR_INVALID_S_EXPRESSION, "", 5},
      {"(", VELK2_ERR_INVALID_S_EXPRESSION, "", 1},
  };
  for (const Case& c : kCases) {
    Ref<SexpList> list;
    size_t position = 0;
    ExpectList(ParseTextList(&list, c.text, &position, nullptr), list, c.want, c.canonical, c.text);
    EXPECT_EQ(position, c.want_position) << c.text;
  }
}

TEST(SexpTextParser, ParseTextSequence) {
  struct Case {
    const char* text;
    const char* keyword;
    Result want;
    std::string canonical;
  };
  const Case kCases[] = {
      {"(pkg install)", "tag", VELK2_SUCCESS, "(3:tag(3:pkg7:install))"},
      {"(ftp (* set read write))", "tag", VELK2_SUCCESS, "(3:tag(3:ftp(1:*3:set4:read5:write)))"},
      {"", "tag", VELK2_SUCCESS, "(3:tag)"},
      {"  \n", "tag", VELK2_SUCCESS, "(3:tag)"},
      {"a b (c)", "k", VELK2_SUCCESS, "(1:k1:a1:b(1:c))"},
      {"a)", "k", VELK2_ERR_UNEXPECTED_CHAR, ""},
      {"(a", "k", VELK2_ERR_INVALID_S_EXPRESSION, ""},
      {"a", nullptr, VELK2_ERR_INVALID_PARAM, ""},
      {"a", "", VELK2_ERR_INVALID_PARAM, ""},
  };
  for (const Case& c : kCases) {
    Ref<SexpList> list;
    ExpectList(ParseTextSequence(&list, c.text, c.keyword, nullptr), list, c.want, c.canonical,
               c.text);
  }
  Ref<SexpList> list;
  EXPECT_EQ(ParseTextSequence(&list, nullptr, "tag", nullptr), VELK2_ERR_INVALID_PARAM);
}

TEST(SexpTextParser, ParseLengthPrefixedAtom) {
  struct Case {
    std::string text;
    size_t start;
    Result want;
    std::string bytes;
    size_t want_position;
  };
  const Case kCases[] = {
      {"3:abc", 0, VELK2_SUCCESS, "abc", 5},
      {"  3:abcdef", 0, VELK2_SUCCESS, "abc", 7},
      {":abc", 0, VELK2_SUCCESS, "", 1},
      {std::string("2:\0x", 4), 0, VELK2_SUCCESS, std::string("\0x", 2), 4},
      {"x1:abc", 1, VELK2_SUCCESS, "a", 4},
      // After position 0 the ":" is skipped unchecked, as the callers expect.
      {"x2;ab", 1, VELK2_SUCCESS, "ab", 5},
      {"x:ab", 0, VELK2_ERR_UNEXPECTED_CHAR, "", 0},
      // The count is checked against the text instead of being trusted.
      {"5:abc", 0, VELK2_ERR_BUFFER_OVERFLOW, "", 2},
      {"99999999999999999999999:x", 0, VELK2_ERR_BUFFER_OVERFLOW, "", 24},
      {"x3", 1, VELK2_ERR_BUFFER_OVERFLOW, "", 3},
      {"   ", 0, VELK2_ERR_BUFFER_OVERFLOW, "", 3},
      {"9000:" + std::string(9000, 'n'), 0, VELK2_SUCCESS, std::string(9000, 'n'), 9005},
  };
  for (const Case& c : kCases) {
    auto text = Exact(c.text);
    Ref<SexpAtom> atom;
    size_t position = c.start;
    EXPECT_EQ(ParseLengthPrefixedAtom(&atom, text.get(), c.text.size(), &position, nullptr), c.want)
        << c.text;
    if (c.want == VELK2_SUCCESS) {
      ASSERT_NE(atom, nullptr);
      EXPECT_EQ(atom->bytes(), c.bytes);
      EXPECT_EQ(position, c.want_position) << c.text;
    } else {
      EXPECT_EQ(atom, nullptr);
    }
  }
  Ref<SexpAtom> atom;
  size_t position = 0;
  EXPECT_EQ(ParseLengthPrefixedAtom(&atom, "1:a", 0, &position, nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(ParseLengthPrefixedAtom(&atom, nullptr, 3, &position, nullptr),
            VELK2_ERR_INVALID_PARAM);
}

TEST(SexpTextParser, ParseLengthPrefixedList) {
  struct Case {
    std::string text;
    Result want;
    std::string canonical;
    size_t want_position;
  };
  const Case kCases[] = {
      {"(3:abc 1:d)", VELK2_SUCCESS, "(3:abc1:d)", 11},
      {" ( 3:abc\n(1:x 1:y) )", VELK2_SUCCESS, "(3:abc(1:x1:y))", 20},
      {"(3:acl(5:entry(1:a)))", VELK2_SUCCESS, "(3:acl(5:entry(1:a)))", 21},
      // An empty list is returned at its ")", which then closes the list around it.
      {"()", VELK2_SUCCESS, "()", 1},
      {"(1:a()1:b)", VELK2_SUCCESS, "(1:a())", 6},
      {"x", VELK2_ERR_UNEXPECTED_CHAR, "", 0},
      {"", VELK2_ERR_BUFFER_OVERFLOW, "", 0},
      {"(", VELK2_ERR_INVALID_S_EXPRESSION, "", 1},
      {std::string("(\0", 2), VELK2_ERR_INVALID_S_EXPRESSION, "", 1},
      {"(1:a", VELK2_ERR_INVALID_S_EXPRESSION, "", 4},
      {"(1:a (1:b", VELK2_ERR_INVALID_S_EXPRESSION, "", 9},
      {std::string("(1:a\0)", 6), VELK2_ERR_INVALID_S_EXPRESSION, "", 4},
      {"(3:ab", VELK2_ERR_BUFFER_OVERFLOW, "", 3},
      {"(1:a 7:xyz)", VELK2_ERR_BUFFER_OVERFLOW, "", 7},
  };
  for (const Case& c : kCases) {
    auto text = Exact(c.text);
    Ref<SexpList> list;
    size_t position = 0;
    ExpectList(ParseLengthPrefixedList(&list, text.get(), c.text.size(), &position, nullptr), list,
               c.want, c.canonical, c.text);
    EXPECT_EQ(position, c.want_position) << c.text;
  }
}

TEST(SexpTextParser, RefuseNestingPastTheLimit) {
  for (uint32_t depth : {kMaxReadDepth, kMaxReadDepth + 1}) {
    // Text lists: (a (a (a ... ))).
    std::string text;
    for (uint32_t i = 0; i < depth; ++i) text += "(a ";
    text += std::string(depth, ')');
    Ref<SexpList> list;
    size_t position = 0;
    Result want = depth <= kMaxReadDepth ? VELK2_SUCCESS : VELK2_ERR_INVALID_S_EXPRESSION;
    EXPECT_EQ(ParseTextList(&list, text.c_str(), &position, nullptr), want) << depth;

    // Length-prefixed lists: (1:a(1:a(...))).
    std::string prefixed;
    for (uint32_t i = 0; i < depth; ++i) prefixed += "(1:a";
    prefixed += std::string(depth, ')');
    auto bounded = Exact(prefixed);
    Ref<SexpList> prefixed_list;
    position = 0;
    EXPECT_EQ(
        ParseLengthPrefixedList(&prefixed_list, bounded.get(), prefixed.size(), &position, nullptr),
        want)
        << depth;
  }
  // A sequence counts its keyword list as the first level.
  std::string deep = std::string(kMaxReadDepth, '(') + std::string(kMaxReadDepth, ')');
  Ref<SexpList> list;
  EXPECT_EQ(ParseTextSequence(&list, deep.c_str(), "tag", nullptr), VELK2_ERR_INVALID_S_EXPRESSION);
  std::string fits = deep.substr(1, deep.size() - 2);
  EXPECT_EQ(ParseTextSequence(&list, fits.c_str(), "tag", nullptr), VELK2_SUCCESS);
}

}  // namespace
}  // namespace velk2
