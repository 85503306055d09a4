// The engine's half of the authorization query: ReduceCanonical on texts,
// TagImplies, the crypto status mapping and principal digests.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "engine/parser.h"
#include "engine/query.h"
#include "engine/reduce.h"
#include "platform/zcry.h"
#include "tests/engine/reduce_texts.h"

namespace velk2::engine {
namespace {

using namespace texts;

const std::string K1 = Key("K1");
const std::string kFtp = Canonical("(tag (ftp))");

TEST(ReduceCanonical, ParserCodesPassThroughUnchanged) {
  const std::string acl = Acl({Entry({K1, false, kFtp})});
  const std::string seq = Sequence({});
  const std::string bad_tag = "(3:tag(3:ftp)";
  const std::string bad_valid = "(5:valid x)";
  const std::string_view tag_view = bad_tag;
  const std::string_view valid_view = bad_valid;
  struct Case {
    const char* name;
    std::string acl;
    std::string sequence;
    std::string key;
    const std::string_view* tag;
    const std::string_view* validity;
    Status want;
  };
  // One for each text: the first bad one's code comes back as it is.
  const Case cases[] = {
      {"ACL not closed", "(3:acl", seq, K1, nullptr, nullptr, SPKI_ERR_SEXP_NOT_CLOSED},
      {"sequence with a zero length", acl, "(8:sequence0:)", K1, nullptr, nullptr,
       SPKI_ERR_BAD_SEXP_FORMAT},
      {"key with a length past the end", acl, seq, "(10:public-key9:x)", nullptr, nullptr,
       SPKI_ERR_STRING_TOO_LONG},
      {"tag not closed", acl, seq, K1, &tag_view, nullptr, SPKI_ERR_SEXP_NOT_CLOSED},
      {"validity with a blank", acl, seq, K1, nullptr, &valid_view, SPKI_ERR_BAD_SEXP_FORMAT},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string result = "stale";
    EXPECT_EQ(ReduceCanonical(0, c.acl, c.sequence, c.key, c.tag, c.validity, &result), c.want);
    EXPECT_TRUE(result.empty());
  }
  EXPECT_EQ(ReduceCanonical(0, acl, seq, K1, nullptr, nullptr, nullptr), SPKI_ERR_NULL_PARAM);
}

TEST(ReduceCanonical, ResultsAndEngineStart) {
  const std::string acl = Acl({Entry({K1, true, kFtp})});
  std::string result;
  ASSERT_EQ(ReduceCanonical(0, acl, Sequence({}), K1, nullptr, nullptr, &result), SPKI_OK);
  EXPECT_EQ(result, Result({ResultEntry(K1, true, kFtp)}));
  ASSERT_EQ(ReduceCanonical(0, acl, Sequence({}), Key("other"), nullptr, nullptr, &result),
            SPKI_OK);
  EXPECT_EQ(result, "(3:acl)");

  // An allocator that has nothing at all: EngineInit's status.
  EngineAllocator empty{[](size_t, void*) -> void* { return nullptr; }, [](void*, void*) {},
                        nullptr};
  result = "stale";
  EXPECT_EQ(ReduceCanonicalWith(&empty, 0, acl, Sequence({}), K1, nullptr, nullptr, &result, {}),
            kEngineArenaUnavailable);
  EXPECT_TRUE(result.empty());
}

TEST(TagImplies, GrantedImpliesRequested) {
  struct Case {
    const char* requested;
    const char* granted;
    int want;
  };
  // The tag algebra itself is pinned by the tag tests; here, the question
  // asked of it: is the intersection the requested tag itself?
  const Case cases[] = {
      {"(tag (ftp))", "(tag (ftp))", 1},
      {"(tag (ftp host))", "(tag (ftp))", 1},  // a broader grant covers it
      {"(tag (ftp))", "(tag (ftp host))", 0},  // a narrower grant does not
      {"(tag (ftp))", "(tag (http))", 0},      // disjoint
      {"(tag (file (* set read write)))", "(tag (file (* set write read exec)))", 1},
      {"(tag (file (* set read write)))", "(tag (file read))", 0},
      {"(tag (size (* range numeric (ge 1) (le 10))))",
       "(tag (size (* range numeric (ge 1) (le 10))))", 1},
      {"(tag (ftp))", "(tag (*))", 1},
      {"(tag (*))", "(tag (ftp))", 0},
      {"(tag)", "(tag (ftp))", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.requested) + " under " + c.granted);
    EXPECT_EQ(TagImplies(Canonical(c.requested), Canonical(c.granted)), c.want);
  }
  // Texts that do not parse imply nothing.
  EXPECT_EQ(TagImplies("(3:tag", kFtp), 0);
  EXPECT_EQ(TagImplies(kFtp, ""), 0);
  EXPECT_EQ(TagImplies("", ""), 0);
}

TEST(ReduceCrypto, StatusMapping) {
  // Grouped by the engine code each crypto status becomes.
  const std::pair<Status, std::vector<uint32_t>> groups[] = {
      {0, {ZCRY_OK, ZCRY_E_BAD_RECORD, ZCRY_E_HASH_FINISHED, ZCRY_E_INTERNAL}},
      {0, {ZCRY_E_BUFFER_TOO_SMALL, 1016, 7}},
      {SPKI_ERR_NULL_PARAM, {ZCRY_E_NULL_ARGUMENT}},
      {SPKI_ERR_NO_MEM, {ZCRY_E_NO_MEMORY}},
      {SPKI_ERR_UNKNOWN_HASH, {ZCRY_E_UNKNOWN_ALGORITHM, ZCRY_E_UNKNOWN_HASH}},
      {SPKI_ERR_UNKNOWN, {ZCRY_E_BAD_KEY, ZCRY_E_BAD_SCHEME, ZCRY_E_BAD_PARAMETERS}},
      {SPKI_ERR_UNKNOWN, {ZCRY_E_BAD_DIGEST_LENGTH}},
  };
  for (const auto& [engine, crypto_statuses] : groups) {
    for (uint32_t crypto : crypto_statuses) EXPECT_EQ(MapCryptoStatus(crypto), engine) << crypto;
  }
}

TEST(ReduceCrypto, PrincipalDigestIsTheSha256OfTheCanonicalText) {
  EngineContext engine;
  ASSERT_EQ(engine.Init(DefaultAllocator()), SPKI_OK);
  const std::string texts[] = {K1, "(4:hash6:sha2561:x)", "(1:a[4:text]2:bc(1:d(1:e)))"};
  for (const std::string& text : texts) {
    EngineNode* node = nullptr;
    ASSERT_EQ(ParseText(engine, &node, text.data(), text.size()), SPKI_OK);
    uint8_t digest[kPrincipalDigestSize];
    ASSERT_EQ(PrincipalDigest(0, node, digest), SPKI_OK);
    EXPECT_EQ(DigestHex(digest), Hex(Digest("SHA256", text)));
    // A tree without its parsed text is walked and gives the same digest.
    EngineNode* built = nullptr;
    ASSERT_EQ(ParseTemplate(engine, &built, text.c_str()), SPKI_OK);
    uint8_t walked[kPrincipalDigestSize];
    ASSERT_EQ(PrincipalDigest(0, built, walked), SPKI_OK);
    EXPECT_EQ(DigestHex(walked), DigestHex(digest));
    ReleaseNode(engine, built);
    ReleaseNode(engine, node);
  }
  uint8_t digest[kPrincipalDigestSize];
  EXPECT_EQ(PrincipalDigest(0, nullptr, digest), SPKI_ERR_NULL_PARAM);
}

}  // namespace
}  // namespace velk2::engine
