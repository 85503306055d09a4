// The readable form: conversion to canonical text and printing back.
#include <gtest/gtest.h>

#include <string>

#include "engine/readable.h"
#include "engine_fixture.h"

namespace velk2::engine {
namespace {

TEST(ReadableToCanonical, Conversions) {
  struct Case {
    std::string readable;
    std::string canonical;
  };
  const Case kCases[] = {
      {"(ftp (* set read write))", "(3:ftp(1:*3:set4:read5:write))"},
      {"  (tag\n\t(ftp  host) )  ", "(3:tag(3:ftp4:host))"},
      {"read", "4:read"},
      {"(a \"two words\")", "(1:a9:two words)"},
      {"(a \"q\\\"b\\\\\")", "(1:a4:q\"b\\)"},
      {"(a \"\\x00\\xff\\n\\r\\t\")", std::string("(1:a5:\x00\xff\n\r\t)", 12)},
      {"(a [text]b)", "(1:a[4:text]1:b)"},
      {"([\"image/png\"]\"x y\")", "([9:image/png]3:x y)"},
      {"(a(b)c)", "(1:a(1:b)1:c)"},
  };
  for (const Case& c : kCases) {
    std::string out;
    EXPECT_EQ(ReadableToCanonical(c.readable, &out), SPKI_OK) << c.readable;
    EXPECT_EQ(out, c.canonical) << c.readable;
  }
}

TEST(ReadableToCanonical, BadInput) {
  struct Case {
    const char* readable;
    Status want;
  };
  const Case kCases[] = {
      {"", SPKI_ERR_BAD_SEXP_START},
      {"   ", SPKI_ERR_BAD_SEXP_START},
      {")", SPKI_ERR_BAD_SEXP_FORMAT},
      {"(a) b", SPKI_ERR_BAD_SEXP_FORMAT},
      {"(a", SPKI_ERR_SEXP_NOT_CLOSED},
      {"()", SPKI_ERR_BAD_LTH_FORMAT},
      {"(a \"\")", SPKI_ERR_BAD_LTH_FORMAT},
      {"(a \"open)", SPKI_ERR_BAD_SEXP_FORMAT},
      {"(a \"\\q\")", SPKI_ERR_BAD_SEXP_FORMAT},
      {"(a \"\\x4\")", SPKI_ERR_BAD_SEXP_FORMAT},
      {"(a \"\\x4", SPKI_ERR_BAD_SEXP_FORMAT},
      {"(a \"\\", SPKI_ERR_BAD_SEXP_FORMAT},
      {"(a [text b)", SPKI_ERR_DISP_HINT_NOT_CLOSED},
      {"(a [text] b)", SPKI_ERR_BAD_LTH_FORMAT},
      {"(a [] b)", SPKI_ERR_BAD_SEXP_FORMAT},
      {"(a \\ b)", SPKI_ERR_BAD_SEXP_FORMAT},
      {"(a ]b)", SPKI_ERR_BAD_SEXP_FORMAT},
  };
  for (const Case& c : kCases) {
    std::string out = "stale";
    EXPECT_EQ(ReadableToCanonical(c.readable, &out), c.want) << c.readable;
    EXPECT_TRUE(out.empty()) << c.readable;
  }
  std::string deep;
  for (int i = 0; i < kMaxNesting; ++i) deep += "(a ";
  deep += std::string(kMaxNesting, ')');
  std::string out;
  EXPECT_EQ(ReadableToCanonical(deep, &out), SPKI_OK);
  EXPECT_EQ(ReadableToCanonical("(a " + deep + ")", &out), SPKI_ERR_BAD_SEXP);
  EXPECT_EQ(ReadableToCanonical(std::string(1000000, '('), &out), SPKI_ERR_BAD_SEXP);
  EXPECT_EQ(ReadableToCanonical("(a)", nullptr), SPKI_ERR_NULL_PARAM);
}

using ReadableTest = EngineFixture;

TEST_F(ReadableTest, PrintedFormReadsBackToTheSameCanonicalText) {
  constexpr char kBinary[] = "(4:data[10:image/jpeg]4:\x00\xff \")";
  const std::string kTexts[] = {
      "(3:tag(3:ftp(1:*3:set4:read5:write)))",
      "(3:tag(5:spend(1:*5:range7:numeric(2:ge1:0)(2:le4:5000))))",
      "(1:a9:two words2:\\\")",
      std::string(kBinary, sizeof(kBinary) - 1),
      "(6:sha2561:x)",  // the keyword head prints as ???
  };
  for (const std::string& text : kTexts) {
    EngineNode* tree = Canonical(text);
    ASSERT_NE(tree, nullptr) << text;
    std::string readable;
    ASSERT_EQ(PrintReadable(tree, &readable), SPKI_OK);
    std::string back;
    ASSERT_EQ(ReadableToCanonical(readable, &back), SPKI_OK) << readable;
    EXPECT_EQ(back, Print(tree)) << readable;
  }
  EXPECT_EQ(ReadableOf(Canonical("(3:tag(3:ftp(1:*3:set4:read5:write)))")->next),
            "(ftp (* set read write))");
  std::string text;
  EXPECT_EQ(PrintReadable(Canonical("(6:sha2561:x)"), &text), SPKI_OK);
  EXPECT_EQ(text, "(??? x)");
  EXPECT_EQ(PrintReadableElement(nullptr, &text), SPKI_ERR_NULL_PARAM);
}

}  // namespace
}  // namespace velk2::engine
