// Certificate files: the sequence reader over real signed certificates and
// its refusals.
#include "credentials/certificate_sequence.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "acl/acl_test_util.h"
#include "credentials/signature.h"
#include "platform/zcry.h"

namespace velk2 {
namespace {

using testing::TempDir;
using testing::WriteFile;

// The stored bytes of one signed entry: body, signature, owner.
std::string SignedEntry(size_t issuer, size_t subject, const std::string& tag,
                        const std::string& owner_list) {
  issuing::CertificateRequest request;
  request.issuer = testing::PublicKeyList(issuer);
  request.subject = testing::PublicKeyList(subject);
  request.tag = testing::TagList(tag);
  Ref<SexpList> body, signature;
  EXPECT_EQ(issuing::MakeCertificateBody(request, &body), VELK2_SUCCESS);
  EXPECT_EQ(issuing::SignObject(testing::TestKey(issuer), *body, issuing::kRsaPss, ZCRY_HASH_SHA256,
                                &signature),
            VELK2_SUCCESS);
  return StoredForm(*body) + StoredForm(*signature) + owner_list;
}

struct Read {
  Result result;
  Ref<CertificateSequence> sequence;
};

Read ReadText(const TempDir& dir, const std::string& bytes) {
  WriteFile(dir.Sub("chain.cert"), bytes);
  Read read{VELK2_FAILURE, nullptr};
  read.result = ReadCertificateFile(&read.sequence, dir.Wide("chain.cert").c_str(), nullptr);
  return read;
}

TEST(ReadCertificateFile, ReadsEveryEntry) {
  TempDir dir;
  const std::string first = SignedEntry(0, 1, "(pkg (* set install remove))", "(5:owner4:root)");
  const std::string second = SignedEntry(1, 2, "(pkg install)", "(5:owner)");
  const std::string odd_owner = SignedEntry(2, 0, "(x)", "(3:who(1:a))");
  struct Case {
    const char* name;
    std::string text;
    size_t entries;
  };
  const std::vector<Case> cases = {
      {"empty sequence", "(8:sequence)", 0},
      {"one entry", "(8:sequence" + first + ")", 1},
      {"three entries, any owner list", "(8:sequence" + first + second + odd_owner + ")", 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Read read = ReadText(dir, c.text);
    ASSERT_EQ(read.result, VELK2_SUCCESS);
    const CertificateSequence& s = *read.sequence;
    EXPECT_EQ(s.entry_count(), c.entries);
    EXPECT_EQ(testing::CanonicalOf(s), c.text);
    for (size_t i = 0; i < s.entry_count(); ++i) {
      CertificateEntry entry = s.entry(i);
      ASSERT_NE(entry.certificate, nullptr);
      ASSERT_NE(entry.signature, nullptr);
      ASSERT_NE(entry.owner, nullptr);
      // The signer is the certificate's issuer, and the signature verifies.
      EXPECT_EQ(VerifySignature(entry.signature, entry.certificate), VELK2_SUCCESS);
    }
    CertificateEntry past = s.entry(c.entries);
    EXPECT_EQ(past.certificate, nullptr);
    EXPECT_EQ(past.owner, nullptr);
  }
  Read three = ReadText(dir, "(8:sequence" + first + second + odd_owner + ")");
  ASSERT_EQ(three.result, VELK2_SUCCESS);
  EXPECT_EQ(testing::CanonicalOf(*three.sequence->entry(0).owner), "(5:owner4:root)");
  EXPECT_EQ(testing::CanonicalOf(*three.sequence->entry(2).owner), "(3:who(1:a))");
}

TEST(ReadCertificateFile, Refusals) {
  TempDir dir;
  const std::string entry = SignedEntry(0, 1, "(pkg install)", "(5:owner4:root)");
  const std::string body_and_signature = entry.substr(0, entry.size() - 15);
  const size_t signature_at = entry.find("(9:signature");
  ASSERT_NE(signature_at, std::string::npos);
  struct Case {
    const char* name;
    std::string text;
    Result want;
  };
  const std::vector<Case> cases = {
      {"missing owner list", "(8:sequence" + body_and_signature + ")", VELK2_ERR_INVALID_DATA},
      {"missing owner list at the end", "(8:sequence" + body_and_signature, VELK2_ERR_FILE_OPEN},
      {"missing signature", "(8:sequence" + entry.substr(0, signature_at) + "(5:owner1:x))",
       VELK2_ERR_INVALID_DATA},
      // Too few bytes are left to hold the signature's head.
      {"certificate only", "(8:sequence" + entry.substr(0, signature_at) + ")",
       VELK2_ERR_FILE_OPEN},
      {"trailing garbage", "(8:sequence" + entry + ")x", VELK2_ERR_PARSE_FILE},
      {"two sequences", "(8:sequence)(8:sequence" + entry + ")", VELK2_ERR_PARSE_FILE},
      {"not closed", "(8:sequence" + entry, VELK2_ERR_FILE_OPEN},
      {"not a sequence", "(4:cert(3:abc))", VELK2_ERR_INVALID_DATA},
      {"an atom between entries", "(8:sequence" + entry + "1:x)", VELK2_ERR_INVALID_DATA},
      {"truncated in a certificate", "(8:sequence" + entry.substr(0, 60), VELK2_ERR_FILE_OPEN},
      {"empty file", "", VELK2_ERR_FILE_OPEN},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Read read = ReadText(dir, c.text);
    EXPECT_EQ(read.result, c.want);
    EXPECT_EQ(read.sequence, nullptr);
  }
  Ref<CertificateSequence> out;
  EXPECT_EQ(ReadCertificateFile(&out, dir.Wide("missing.cert").c_str(), nullptr),
            VELK2_ERR_FILE_OPEN);
  EXPECT_EQ(ReadCertificateFile(&out, u"", nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(ReadCertificateFile(&out, nullptr, nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(ReadCertificateFile(nullptr, dir.Wide("chain.cert").c_str(), nullptr),
            VELK2_ERR_INVALID_PARAM);
  Ref<CertificateSequence> taken = CertificateSequence::New();
  EXPECT_EQ(ReadCertificateFile(&taken, dir.Wide("chain.cert").c_str(), nullptr),
            VELK2_ERR_INVALID_PARAM);
  // A sequence is parsed once.
  SexpMemorySource source;
  ASSERT_EQ(source.AttachCopy("(8:sequence)", 12), VELK2_SUCCESS);
  Ref<CertificateSequence> sequence = CertificateSequence::New();
  EXPECT_EQ(sequence->Parse(&source), VELK2_SUCCESS);
  EXPECT_EQ(sequence->Parse(&source), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(CertificateSequence::New()->Parse(nullptr), VELK2_ERR_INVALID_PARAM);
}

}  // namespace
}  // namespace velk2
