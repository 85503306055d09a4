// The engine's message table and keyword vocabulary.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "engine/keywords.h"
#include "engine/status.h"

namespace velk2::engine {
namespace {

std::u16string Wide(const char* text) {
  return std::u16string(text, text + std::strlen(text));
}

TEST(SpkiErrorMessage, KnownCodesHaveTheirOwnTexts) {
  struct Case {
    Status code;
    const char* text;
  };
  // The first and the last code of the table, a sentence and the longest
  // text; the table's order is checked below, and the tool prints -130 and
  // -151 in the CLI tests.
  const Case kCases[] = {
      {-126, "SPKI_ERR_NULL_PARAM"},
      {-145, "S-exp isn't a (hash...)"},
      {-158,
       "Issuer could not be resolved to a public key -- so could not have been validated.  "
       "Rejected during processing."},
      {-168, "Date intersection failed"},
      {-200, "Unknown SPKI problem"},
  };
  for (const Case& c : kCases) {
    EXPECT_STREQ(SpkiErrorMessageUtf8(c.code), c.text) << c.code;
    EXPECT_EQ(std::u16string(SpkiErrorMessage(c.code)), Wide(c.text)) << c.code;
  }
}

TEST(SpkiErrorMessage, GapsAndPositiveCodesAreUnknown) {
  const Status kUnknown[] = {-127, -128, -131, -133, -134, -141, -144,  -148,     -154,
                             -125, -169, -199, -201, 0,    1,    16386, INT32_MIN};
  for (Status code : kUnknown) {
    EXPECT_STREQ(SpkiErrorMessageUtf8(code), "Unknown SPKI problem") << code;
    EXPECT_EQ(std::u16string(SpkiErrorMessage(code)), u"Unknown SPKI problem") << code;
  }
}

TEST(SpkiErrorMessage, TableDescendsWithTwinsThatAgree) {
  ASSERT_EQ(SpkiErrorCount(), 35);
  for (int i = 0; i < SpkiErrorCount(); ++i) {
    Status code = SpkiErrorCodeAt(i);
    if (i > 0) {
      EXPECT_LT(code, SpkiErrorCodeAt(i - 1));
    }
    EXPECT_EQ(std::u16string(SpkiErrorMessage(code)), Wide(SpkiErrorMessageUtf8(code)));
    // Every code except -200 has a text other than the fallback.
    if (code != SPKI_ERR_UNKNOWN) {
      EXPECT_STRNE(SpkiErrorMessageUtf8(code), "Unknown SPKI problem");
    }
  }
  EXPECT_EQ(SpkiErrorCodeAt(-1), SPKI_ERR_UNKNOWN);
  EXPECT_EQ(SpkiErrorCodeAt(35), SPKI_ERR_UNKNOWN);
}

int32_t Lookup(std::string_view word) {
  return KeywordId(reinterpret_cast<const uint8_t*>(word.data()),
                   static_cast<uint32_t>(word.size()));
}

TEST(KeywordId, RecognisesExactlyTheListedWords) {
  struct Case {
    const char* word;
    int32_t id;
  };
  // clang-format off
  const Case kRecognised[] = {
      {"*", 1}, {"a", 2}, {"acl", 3}, {"alpha", 4}, {"b", 5}, {"binary", 7}, {"c", 9},
      {"canceled", 10}, {"cert", 11}, {"comment", 12}, {"crl", 13}, {"d", 15}, {"date", 16},
      {"delta-crl", 26}, {"display", 29}, {"do", 30}, {"dsa-sha1", 32}, {"e", 33}, {"entry", 36},
      {"g", 39}, {"ge", 40}, {"hash", 42}, {"issuer", 48}, {"issuer-info", 49}, {"k-of-n", 50},
      {"keyholder", 52}, {"l", 53}, {"le", 54}, {"md5", 61}, {"n", 63}, {"name", 64},
      {"not-after", 67}, {"not-before", 68}, {"null", 69}, {"numeric", 70}, {"object-hash", 71},
      {"one-time", 72}, {"online", 73}, {"p", 75}, {"prefix", 79}, {"private-key", 80},
      {"propagate", 82}, {"public-key", 86}, {"q", 88}, {"range", 89}, {"reval", 90},
      {"rsa-pkcs1", 99}, {"rsa-pkcs1-md5", 100}, {"rsa-pkcs1-sha1", 101}, {"rsa-pkcs1-sig", 102},
      {"sequence", 105}, {"set", 106}, {"sha1", 108}, {"sha256", 129}, {"signature", 113},
      {"subject", 117}, {"subject-info", 118}, {"tag", 119}, {"time", 121}, {"uri", 122},
      {"version", 123}, {"and", 65536}, {"valid", 65539}};
  // clang-format on
  ASSERT_EQ(std::size(kRecognised), 63u);
  for (const Case& c : kRecognised) {
    EXPECT_EQ(Lookup(c.word), c.id) << c.word;
    // The printer gives the word back, except for sha256 whose id has no text.
    if (c.id != 129) {
      EXPECT_STREQ(KeywordTextOf(c.id).text, c.word);
    }
  }
  // Every word read from inside a longer buffer, and every word with one
  // byte changed or cut short: only the exact word is found, whatever its
  // length and wherever the change falls.
  for (const Case& c : kRecognised) {
    const std::string word = c.word;
    const std::string framed = "xy" + word + "zz";
    EXPECT_EQ(Lookup(std::string_view(framed).substr(2, word.size())), c.id) << c.word;
    for (size_t i = 0; i < word.size(); ++i) {
      std::string changed = word;
      changed[i] = static_cast<char>(changed[i] ^ 0x20);
      const auto same = [&](const Case& other) { return changed == other.word; };
      if (std::none_of(std::begin(kRecognised), std::end(kRecognised), same)) {
        EXPECT_EQ(Lookup(changed), -1) << changed;
      }
      const std::string prefix = word.substr(0, i);
      const auto is_prefix = [&](const Case& other) { return prefix == other.word; };
      if (std::none_of(std::begin(kRecognised), std::end(kRecognised), is_prefix)) {
        EXPECT_EQ(Lookup(prefix), -1) << prefix;
      }
    }
  }
  // Words of the text table that the lookup does not know, near misses, and
  // case: not keywords.
  for (const char* word :
       {"rsa", "sha1withrsa", "ber", "x509v3", "hashed-password", "prompted-biometric", "???", "",
        "tag ", "tags", "ta", "Tag", "TAG", "sha25", "sha2566", "/", "zzz", "\xff"}) {
    EXPECT_EQ(Lookup(word), -1) << word;
  }
  // The walk stops at the first position where both give 0: an atom ends at
  // its first NUL.
  EXPECT_EQ(Lookup(std::string_view("tag\0", 4)), kKeywordTag);
  EXPECT_EQ(Lookup(std::string_view("tag\0xyz", 7)), kKeywordTag);
  EXPECT_EQ(Lookup(std::string_view("ta\0g", 4)), -1);
  EXPECT_EQ(Lookup(std::string_view("\0", 1)), -1);
  // The same past the longest word, and for a long atom.
  EXPECT_EQ(Lookup(std::string("set\0", 4) + std::string(300, 'x')), kKeywordSet);
  EXPECT_EQ(Lookup(std::string_view("rsa-pkcs1-sha1\0", 15)), 101);
  EXPECT_EQ(Lookup("rsa-pkcs1-sha1x"), -1);
  EXPECT_EQ(Lookup(std::string(257, 'n')), -1);
  EXPECT_EQ(KeywordId(nullptr, 0), -1);
  EXPECT_EQ(KeywordId(nullptr, 3), -1);
}

TEST(KeywordTextOf, TableEntriesAndFallback) {
  for (int32_t id : {0, 128, 129, -1, 65535, 65540, INT32_MAX, INT32_MIN}) {
    EXPECT_STREQ(KeywordTextOf(id).text, "???") << id;
    EXPECT_EQ(KeywordTextOf(id).length, 3u) << id;
  }
  // Ids 1..127 follow the byte order of their texts, and lengths are right.
  for (int32_t id = 1; id < 128; ++id) {
    EXPECT_EQ(KeywordTextOf(id).length, std::strlen(KeywordTextOf(id).text)) << id;
    if (id > 1) {
      EXPECT_LT(std::strcmp(KeywordTextOf(id - 1).text, KeywordTextOf(id).text), 0);
    }
  }
}

}  // namespace
}  // namespace velk2::engine
