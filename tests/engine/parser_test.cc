// The canonical parser and the printer.
#include <gtest/gtest.h>

#include <string>

#include "engine/keywords.h"
#include "engine/parser.h"
#include "engine/printer.h"
#include "engine/reduce.h"
#include "engine_fixture.h"
#include "tests/engine/reduce_texts.h"

namespace velk2::engine {
namespace {

using ParserTest = EngineFixture;

TEST_F(ParserTest, EveryParseErrorOnAMinimalInput) {
  struct Case {
    const char* text;
    Status want;
  };
  const Case kCases[] = {
      {"(2147483650:x)", SPKI_ERR_LTH_TOO_BIG},
      {"(0:)", SPKI_ERR_BAD_LTH_FORMAT},
      {"(03:abc)", SPKI_ERR_BAD_LTH_FORMAT},
      {"(", SPKI_ERR_BAD_LTH_FORMAT},
      {"(x)", SPKI_ERR_BAD_LTH_FORMAT},
      {"((3:abc))", SPKI_ERR_BAD_LTH_FORMAT},
      {"([0:]1:a)", SPKI_ERR_BAD_LTH_FORMAT},
      {"(3abc)", SPKI_ERR_COLON_EXPECTED},
      {"(3", SPKI_ERR_COLON_EXPECTED},
      {"([4:textx1:a)", SPKI_ERR_DISP_HINT_NOT_CLOSED},
      {"([4:text]", SPKI_ERR_DISP_HINT_TOO_LONG},
      {"([9:text]1:a)", SPKI_ERR_DISP_HINT_TOO_LONG},
      {"(5:abc)", SPKI_ERR_STRING_TOO_LONG},
      {"(2147483649:x)", SPKI_ERR_STRING_TOO_LONG},
      {"3:abc", SPKI_ERR_BAD_SEXP_START},
      {"", SPKI_ERR_BAD_SEXP_START},
      {"(3:acl x)", SPKI_ERR_BAD_SEXP_FORMAT},
      {"(3:acl0:)", SPKI_ERR_BAD_SEXP_FORMAT},
      {"(3:acl)x", SPKI_ERR_BAD_SEXP_FORMAT},  // ParseText: bytes after the list
      {"(3:acl", SPKI_ERR_SEXP_NOT_CLOSED},
      {"(3:acl(3:tag)", SPKI_ERR_SEXP_NOT_CLOSED},
  };
  for (const Case& c : kCases) {
    std::string text = c.text;
    EngineNode* tree = reinterpret_cast<EngineNode*>(1);
    EXPECT_EQ(ParseText(engine_, &tree, text.data(), text.size()), c.want) << text;
    EXPECT_EQ(tree, nullptr) << text;
  }
  // Nothing made by the failed parses is still counted as live.
  EngineNode* probe = NewNode(engine_);
  EXPECT_EQ(probe->ref_count, 1);
  ReleaseNode(engine_, probe);
}

TEST_F(ParserTest, LengthsAndCursors) {
  struct Case {
    const char* text;
    Status want;
    uint32_t value;
    size_t consumed;
  };
  const Case kCases[] = {
      {"1:", SPKI_OK, 1, 2},
      {"214748364:", SPKI_OK, 214748364, 10},
      {"2147483649:", SPKI_OK, 2147483649u, 11},
  };
  for (const Case& c : kCases) {
    std::string text = c.text;
    ByteCursor cursor(text.data(), text.size());
    uint32_t value = 0;
    EXPECT_EQ(ParseLength(&value, &cursor), c.want) << text;
    if (c.want == SPKI_OK) {
      EXPECT_EQ(value, c.value) << text;
      EXPECT_EQ(cursor.position(), c.consumed) << text;
    }
  }
  ByteCursor empty("", 0);
  uint32_t value = 0;
  EXPECT_EQ(ParseLength(&value, &empty), SPKI_ERR_BAD_LTH_FORMAT);
  EXPECT_EQ(ParseLength(nullptr, &empty), SPKI_ERR_NULL_PARAM);
  EngineNode* out = nullptr;
  EXPECT_EQ(ParseList(engine_, &out, nullptr), SPKI_ERR_NULL_PARAM);

  // A list that does not start with "(" still moves the cursor by one.
  std::string text = "x(1:a)";
  ByteCursor cursor(text.data(), text.size());
  EXPECT_EQ(ParseList(engine_, &out, &cursor), SPKI_ERR_BAD_SEXP_START);
  EXPECT_EQ(cursor.position(), 1u);
  EXPECT_EQ(ParseList(engine_, &out, &cursor), SPKI_OK);
  EXPECT_TRUE(cursor.at_end());
  ReleaseNode(engine_, out);
}

TEST_F(ParserTest, RoundTripsByteForByte) {
  constexpr char kBinary[] = "(4:data[10:image/jpeg]3:\x00\xff\x01)";
  const std::string kTexts[] = {
      "(3:acl)",
      "(1:x)",
      "(3:tag(3:ftp4:host4:read))",
      "(3:tag(1:*3:set4:read5:write(3:foo3:bla)6:delete))",
      "(3:tag(1:*6:prefix5:/pub/))",
      "(3:tag(5:spend(1:*5:range7:numeric(2:ge1:0)(2:le4:5000))))",
      "([4:text]3:abc)",
      std::string(kBinary, sizeof(kBinary) - 1),
      "(5:entry(7:subject(10:public-key(3:rsa(1:e1:\x03))))(9:propagate))",
      "(5:valid(10:not-before19:2004-01-01_00:00:00))",
  };
  for (const std::string& text : kTexts) {
    EngineNode* tree = Canonical(text);
    ASSERT_NE(tree, nullptr) << text;
    size_t length = 0;
    ASSERT_EQ(PrintedLength(tree, &length), SPKI_OK);
    EXPECT_EQ(length, text.size()) << text;
    EXPECT_EQ(Print(tree), text);
    EXPECT_EQ(tree->source, reinterpret_cast<const uint8_t*>(texts_.back().data()));
    EXPECT_EQ(tree->source_length, text.size());
  }
}

// A head remembers its list's text up to 16 MiB less one byte; a longer list
// keeps none, and a key's digest is then taken by walking its nodes: the
// same digest either way, and the same printed text.
TEST_F(ParserTest, ListsPastTheSourceLimitKeepNoText) {
  for (uint32_t length : {kMaxSourceLength, kMaxSourceLength + 1}) {
    // "(1:a" N ":" bytes ")" with an eight-digit N.
    const uint32_t atom = length - 14;
    const std::string list = "(1:a" + std::to_string(atom) + ":" + std::string(atom, 'x') + ")";
    ASSERT_EQ(list.size(), length);
    const std::string key = "(10:public-key" + list + ")";
    EngineNode* tree = Canonical(key);
    ASSERT_NE(tree, nullptr);
    const EngineNode* inner = SublistOf(tree->next);
    const bool kept = length <= kMaxSourceLength;
    EXPECT_EQ(inner->source != nullptr, kept) << length;
    EXPECT_EQ(inner->source_length, kept ? length : 0u) << length;
    EXPECT_EQ(tree->source, nullptr) << length;  // the key's own text is longer still
    EXPECT_EQ(tree->source_length, 0u) << length;
    EXPECT_EQ(Print(tree), key);
    uint8_t digest[kPrincipalDigestSize];
    ASSERT_EQ(PrincipalDigest(0, tree, digest), SPKI_OK);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(digest), sizeof digest),
              texts::Digest("SHA256", key))
        << length;
  }
}

TEST_F(ParserTest, HeadsKeywordsAndHints) {
  EngineNode* acl = Canonical("(3:acl)");
  EXPECT_EQ(acl->kind, kNodeKeywordHead);
  EXPECT_EQ(KeywordOf(acl), kKeywordAcl);
  EXPECT_EQ(AtomOf(acl), nullptr);  // the keyword's atom is dropped
  EXPECT_EQ(acl->next, nullptr);

  EngineNode* plain = Canonical("(1:x)");
  EXPECT_EQ(plain->kind, kNodeAtomHead);
  ASSERT_NE(AtomOf(plain), nullptr);
  EXPECT_EQ(AtomOf(plain)->keyword_id, -1);

  // A hint keeps a keyword from being one: kind 2 with id -1.
  EngineNode* hinted = Canonical("([4:text]3:acl)");
  EXPECT_EQ(hinted->kind, kNodeAtomHead);
  EXPECT_EQ(AtomOf(hinted)->keyword_id, -1);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(AtomOf(hinted)->hint), 4), "text");
  EXPECT_EQ(Print(hinted), "([4:text]3:acl)");

  // Atom elements keep their keyword id but stay atoms (kind 3).
  EngineNode* entry = Canonical("(5:entry3:tag(3:tag))");
  EXPECT_EQ(KeywordOf(entry), kKeywordEntry);
  EXPECT_EQ(entry->next->kind, kNodeAtom);
  EXPECT_EQ(AtomOf(entry->next)->keyword_id, kKeywordTag);
  EXPECT_EQ(entry->next->next->kind, kNodeSublist);
  EXPECT_EQ(KeywordOf(SublistOf(entry->next->next)), kKeywordTag);
  // Atoms point into the parsed text.
  EXPECT_EQ(AtomOf(entry->next)->bytes,
            reinterpret_cast<const uint8_t*>(texts_.back().data()) + 10);

  // The high ids are keyword heads too.
  EXPECT_EQ(KeywordOf(Canonical("(5:valid)")), kKeywordValid);
  EXPECT_EQ(KeywordOf(Canonical("(3:and)")), kKeywordAnd);
}

TEST_F(ParserTest, Sha256HeadPrintsAsUnknown) {
  // "sha256" has an id without a text: as a head it prints as "???"; as an
  // atom element it keeps its own bytes.
  EngineNode* head = Canonical("(6:sha2565:bytes)");
  EXPECT_EQ(head->kind, kNodeKeywordHead);
  EXPECT_EQ(KeywordOf(head), kKeywordSha256);
  EXPECT_EQ(Print(head), "(3:???5:bytes)");
  EngineNode* hash = Canonical("(4:hash6:sha2562:ab)");
  EXPECT_EQ(Print(hash), "(4:hash6:sha2562:ab)");
  // A keyword with trailing NUL bytes is that keyword, and prints without them.
  EXPECT_EQ(Print(Canonical(std::string("(4:tag\0)", 8))), "(3:tag)");
}

TEST_F(ParserTest, NestingIsBounded) {
  auto nested = [](int depth) {
    std::string text;
    for (int i = 0; i < depth; ++i) text += "(1:x";
    for (int i = 0; i < depth; ++i) text += ")";
    return text;
  };
  std::string deepest = nested(kMaxNesting);
  EngineNode* tree = Canonical(deepest);
  ASSERT_NE(tree, nullptr);
  EXPECT_EQ(Print(tree), deepest);

  for (int depth : {kMaxNesting + 1, 100000}) {
    std::string text = nested(depth);
    EngineNode* out = nullptr;
    EXPECT_EQ(ParseText(engine_, &out, text.data(), text.size()), SPKI_ERR_BAD_SEXP) << depth;
    EXPECT_EQ(out, nullptr);
  }
  // An unclosed deep input is refused the same way, long before its end.
  std::string open;
  for (int i = 0; i < 300000; ++i) open += "(1:x";
  EngineNode* out = nullptr;
  EXPECT_EQ(ParseText(engine_, &out, open.data(), open.size()), SPKI_ERR_BAD_SEXP);
}

TEST_F(ParserTest, PrinterOnBuiltTreesAndSmallBuffers) {
  // A tree built by hand, deeper than the parser allows, is refused too.
  EngineNode* deep = Nested(kKeywordTag, kMaxNesting + 1);
  size_t length = 0;
  EXPECT_EQ(PrintedLength(deep, &length), SPKI_ERR_BAD_SEXP);
  std::string text;
  EXPECT_EQ(PrintToString(deep, &text), SPKI_ERR_BAD_SEXP);

  // A null chain counts 2 and writes nothing.
  ASSERT_EQ(PrintedLength(nullptr, &length), SPKI_OK);
  EXPECT_EQ(length, 2u);
  char buffer[32] = {};
  PrintCursor cursor = PrintCursor::Over(buffer, sizeof(buffer));
  EXPECT_EQ(PrintCanonical(nullptr, &cursor), SPKI_OK);
  EXPECT_EQ(cursor.Written(), 0u);

  // Too little room: nothing written, an error.
  EngineNode* tree = Canonical("(3:tag(3:ftp4:host))");
  PrintCursor small = PrintCursor::Over(buffer, 19);
  EXPECT_EQ(PrintCanonical(tree, &small), SPKI_ERR_UNKNOWN);
  EXPECT_EQ(small.Written(), 0u);
  PrintCursor exact = PrintCursor::Over(buffer, 20);
  EXPECT_EQ(PrintCanonical(tree, &exact), SPKI_OK);
  EXPECT_EQ(std::string(buffer, exact.Written()), "(3:tag(3:ftp4:host))");
  EXPECT_EQ(PrintCanonical(tree, nullptr), SPKI_ERR_NULL_PARAM);
  for (const auto& [value, digits] :
       {std::pair<uint64_t, uint32_t>{0, 1}, {9, 1}, {10, 2}, {4294967295u, 10}}) {
    EXPECT_EQ(DecimalDigits(value), digits) << value;
  }
}

TEST_F(ParserTest, TemplatesForgetTheirSource) {
  EngineNode* range = nullptr;
  ASSERT_EQ(ParseTemplate(engine_, &range, "(1:*5:range(2:ge1:0))"), SPKI_OK);
  Keep(range);
  EXPECT_EQ(range->kind, kNodeKeywordHead);
  EXPECT_EQ(KeywordOf(range), kKeywordStar);
  EXPECT_EQ(range->source, nullptr);
  EXPECT_EQ(range->source_length, 0u);
  EXPECT_EQ(SublistOf(range->next->next)->source, nullptr);
  EXPECT_EQ(Print(range), "(1:*5:range(2:ge1:0))");
  EngineNode* bad = nullptr;
  EXPECT_EQ(ParseTemplate(engine_, &bad, "(1:*"), SPKI_ERR_SEXP_NOT_CLOSED);
  EXPECT_EQ(ParseTemplate(engine_, &bad, nullptr), SPKI_ERR_NULL_PARAM);
}

}  // namespace
}  // namespace velk2::engine
