// The canonical reader: round trips through every output form, each failure
// code with the position it leaves, and the nesting limit.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sexp/reader.h"
#include "sexp_test_util.h"

namespace velk2 {
namespace {

using testing::AdvancedOf;
using testing::CanonicalOf;
using testing::StoredOf;
using testing::TokensOf;

using Tokens = std::vector<std::string>;

TEST(SexpReader, RoundTripsThroughEveryForm) {
  struct Case {
    std::string input;      // canonical text with hints: the stored form
    std::string canonical;  // without hints
    std::string text;       // WriteAdvanced, up to its position
    Tokens tokens;          // EmitTokens at depth 0
  };
  const std::string big(kMaxAtomLength, 'b');
  const Case kCases[] = {
      {"(4:cert)", "(4:cert)", "(cert)", {"cert"}},
      {"(1:a1:b)", "(1:a1:b)", "(a b)", {"a", " ", "b"}},
      {"()", "()", "()", {}},
      {"(0:)", "(0:)", "()", {""}},
      {"(0:0:)", "(0:0:)", "( )", {"", " ", ""}},
      {"([bin]3:abc)", "(3:abc)", "(abc)", {}},
      {"([utf-8]6:h\xC3\xA9llo)", "(6:h\xC3\xA9llo)", "(h\xC3\xA9llo)", {"h\xC3\xA9llo"}},
      {std::string("([num]2:\x01\x02)", 11),
       std::string("(2:\x01\x02)", 6),
       std::string("(\x01\x02)", 4),
       {"1"}},
      {"(3:tag(3:ftp1:x))",
       "(3:tag(3:ftp1:x))",
       "(tag (ftp x))",
       {"tag", " ", "(", "ftp", " ", "x", ")"}},
      {"(((1:a)))", "(((1:a)))", "(((a)))", {"(", "(", "a", ")", ")"}},
      {"(()())", "(()())", "(() ())", {"(", ")", " ", "(", ")"}},
      {std::string("(3:a\0b1:c)", 10),
       std::string("(3:a\0b1:c)", 10),
       std::string("(a\0b c)", 7),
       {" ", "c"}},
      {"([bin]0:[num]1:*)", "(0:1:*)", "( *)", {" ", "42"}},
      {"(8192:" + big + ")", "(8192:" + big + ")", "(" + big + ")", {big}},
  };
  for (const Case& c : kCases) {
    SexpMemorySource source;
    ASSERT_EQ(source.AttachCopy(c.input.data(), c.input.size()), VELK2_SUCCESS);
    Ref<SexpList> list;
    ASSERT_EQ(ParseCanonicalList(&list, &source, nullptr), VELK2_SUCCESS) << c.input;
    EXPECT_EQ(source.position(), source.length());
    EXPECT_EQ(StoredOf(*list), c.input);
    EXPECT_EQ(CanonicalOf(*list), c.canonical);
    EXPECT_EQ(list->CanonicalLength(), c.canonical.size());
    EXPECT_EQ(AdvancedOf(*list), c.text) << c.input;
    EXPECT_EQ(TokensOf(*list), c.tokens) << c.input;
  }
}

TEST(SexpReader, AtomHintsLengthsAndFailures) {
  struct Case {
    std::string input;
    Result want;
    DisplayHint hint;
    std::string bytes;  // afterwards: failures after the hint empty the atom
  };
  const Case kCases[] = {
      {"[bin]3:abc", VELK2_SUCCESS, kHintBin, "abc"},
      {"[utf-8]1:x", VELK2_SUCCESS, kHintUtf8, "x"},
      {"[num]1:\x05", VELK2_SUCCESS, kHintNum, "\x05"},
      {"3:abc", VELK2_SUCCESS, kHintNone, "abc"},
      {"0:", VELK2_SUCCESS, kHintNone, ""},
      {":", VELK2_SUCCESS, kHintNone, ""},
      {"0003:abc", VELK2_SUCCESS, kHintNone, "abc"},  // leading zeros count as digits
      {"[nope]1:x", VELK2_ERR_PARSE_FILE, kHintNone, "previous"},
      {"9:x", VELK2_ERR_PARSE_FILE, kHintNone, ""},
      {"12345", VELK2_ERR_MAX_BYTE_STRING, kHintNone, ""},
      {"9999:", VELK2_ERR_MAX_BYTE_STRING, kHintNone, ""},
      {"3;abc", VELK2_ERR_INVALID_DATA, kHintNone, ""},
      {"3", VELK2_ERR_FILE_OPEN, kHintNone, ""},
  };
  for (const Case& c : kCases) {
    SexpMemorySource source;
    ASSERT_EQ(source.AttachCopy(c.input.data(), c.input.size()), VELK2_SUCCESS);
    Ref<SexpAtom> atom = testing::MakeAtom("previous");
    EXPECT_EQ(ParseCanonicalAtom(atom.get(), &source), c.want) << c.input;
    EXPECT_EQ(atom->bytes(), c.bytes) << c.input;
    EXPECT_EQ(atom->hint(), c.hint) << c.input;
    EXPECT_TRUE(c.want != VELK2_SUCCESS || source.position() == source.length()) << c.input;
  }
}

TEST(SexpReader, ListFailuresLeavePositionAndOutPointer) {
  struct Case {
    std::string input;
    Result want;
    int32_t position;  // where the failure was found
  };
  const Case kCases[] = {
      {"(4:cert )", VELK2_ERR_INVALID_DATA, 7},  // white space is an atom without ":"
      {"x", VELK2_ERR_INVALID_DATA, 0},          // no "("
      {"(4;cert)", VELK2_ERR_INVALID_DATA, 2},
      {"(4:cert", VELK2_ERR_FILE_OPEN, 7},  // missing ")" at the end
      {"(4", VELK2_ERR_FILE_OPEN, 2},       // ":" beyond the end
      {"", VELK2_ERR_FILE_OPEN, 0},
      {"((1:a)", VELK2_ERR_FILE_OPEN, 6},
      {"([BIN]3:abc)", VELK2_ERR_PARSE_FILE, 6},
      {"([]0:)", VELK2_ERR_PARSE_FILE, 3},
      {"([abcdefghijk]1:x)", VELK2_ERR_PARSE_FILE, 13},  // the 11th hint byte
      {"([abcdefghij]1:x)", VELK2_ERR_PARSE_FILE, 13},   // 10 bytes, not a hint
      {"([bin", VELK2_ERR_PARSE_FILE, 5},
      {"(5:abc)", VELK2_ERR_PARSE_FILE, 7},         // short atom
      {"(10000:x)", VELK2_ERR_MAX_BYTE_STRING, 5},  // at the fifth digit
      {"(8193:x)", VELK2_ERR_MAX_BYTE_STRING, 5},
      {"(1:a(2:bc(3:", VELK2_ERR_PARSE_FILE, 12},  // no byte left to read
  };
  for (const Case& c : kCases) {
    SexpMemorySource source;
    ASSERT_EQ(source.AttachCopy(c.input.data(), c.input.size()), VELK2_SUCCESS);
    Ref<SexpList> list;
    EXPECT_EQ(ParseCanonicalList(&list, &source, nullptr), c.want) << c.input;
    EXPECT_EQ(list, nullptr) << c.input;
    EXPECT_EQ(source.position(), c.position) << c.input;
  }
}

TEST(SexpReader, BadArguments) {
  SexpMemorySource source;
  ASSERT_EQ(source.AttachCopy("(1:a)", 5), VELK2_SUCCESS);
  Ref<SexpAtom> atom = SexpAtom::New();
  EXPECT_EQ(ParseCanonicalAtom(atom.get(), nullptr), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(ReadCanonicalAtom(&atom, &source, nullptr), VELK2_ERR_INVALID_PARAM);
  Ref<SexpList> list = SexpList::New();
  SexpList* before = list.get();
  EXPECT_EQ(ParseCanonicalList(&list, &source, nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(list.get(), before);
  Ref<SexpList> fresh;
  EXPECT_EQ(ParseCanonicalList(&fresh, nullptr, nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(source.position(), 0);
}

// The reader reads one list, its elements taking the context, and leaves what
// follows for the caller.
TEST(SexpReader, ReadsOneElementWithTheContextAndStops) {
  Velk2Context context{0x5EED};
  SexpMemorySource source;
  ASSERT_EQ(source.AttachCopy("(1:a(1:b))(1:c)", 15), VELK2_SUCCESS);
  Ref<SexpList> first, second;
  ASSERT_EQ(ParseCanonicalList(&first, &source, &context), VELK2_SUCCESS);
  EXPECT_EQ(source.position(), 10);
  EXPECT_EQ(first->context(), &context);
  EXPECT_EQ(first->ChildAt(0)->context(), &context);
  EXPECT_EQ(first->ChildAt(1)->context(), &context);
  EXPECT_EQ(first->ChildAt(1)->AsList()->ChildAt(0)->context(), &context);
  ASSERT_EQ(ParseCanonicalList(&second, &source, nullptr), VELK2_SUCCESS);
  EXPECT_EQ(CanonicalOf(*second), "(1:c)");
}

TEST(SexpReader, RefusesNestingPastTheLimit) {
  for (uint32_t depth : {kMaxReadDepth, kMaxReadDepth + 1, 100000u}) {
    std::string text = std::string(depth, '(') + std::string(depth, ')');
    SexpMemorySource source;
    ASSERT_EQ(source.AttachCopy(text.data(), text.size()), VELK2_SUCCESS);
    Ref<SexpList> list;
    Result result = ParseCanonicalList(&list, &source, nullptr);
    if (depth <= kMaxReadDepth) {
      EXPECT_EQ(result, VELK2_SUCCESS);
      EXPECT_EQ(CanonicalOf(*list), text);
    } else {
      EXPECT_EQ(result, VELK2_ERR_PARSE_FILE) << depth;
      EXPECT_EQ(list, nullptr);
      EXPECT_EQ(source.position(), static_cast<int32_t>(kMaxReadDepth));  // at the refused "("
    }
  }
}

}  // namespace
}  // namespace velk2
