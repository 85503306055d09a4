#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "sexp/reader.h"
#include "sexp/source.h"
#include "tools/issuing/issuer.h"

namespace {

using namespace velk2;
using issuing::KeyType;
using issuing::PrivateKey;

std::string Canonical(const SexpObject& object) {
  std::string out(object.CanonicalLength() + 1, '\0');
  uint32_t position = 0;
  EXPECT_EQ(object.WriteCanonical(reinterpret_cast<uint8_t*>(out.data()), &position,
                                  static_cast<uint32_t>(out.size())),
            0u);
  out.resize(position);
  return out;
}

std::string Atom(std::string_view bytes) {
  return std::to_string(bytes.size()) + ":" + std::string(bytes);
}

class Issuer : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_EQ(PrivateKey::Generate(KeyType::kRsa, 2048, &rsa_), 0u);
    ASSERT_EQ(PrivateKey::Generate(KeyType::kDsa, 0, &dsa_), 0u);
  }
  static PrivateKey rsa_, dsa_;
};
PrivateKey Issuer::rsa_, Issuer::dsa_;

TEST_F(Issuer, PublicKeysHaveTheFixedParameterOrder) {
  Ref<SexpList> key;
  ASSERT_EQ(issuing::MakePublicKey(rsa_, &key), 0u);
  auto p = [](const PrivateKey& k, const char* n) {
    std::vector<uint8_t> v = k.Parameter(n);
    return Atom(std::string_view(reinterpret_cast<const char*>(v.data()), v.size()));
  };
  EXPECT_EQ(Canonical(*key),
            "(10:public-key(3:rsa(1:e" + p(rsa_, "e") + ")(1:n" + p(rsa_, "n") + ")))");
  ASSERT_EQ(issuing::MakePublicKey(dsa_, &key), 0u);
  EXPECT_EQ(Canonical(*key), "(10:public-key(3:dsa(1:p" + p(dsa_, "p") + ")(1:g" + p(dsa_, "g") +
                                 ")(1:q" + p(dsa_, "q") + ")(1:y" + p(dsa_, "y") + ")))");
  PrivateKey empty;
  EXPECT_EQ(issuing::MakePublicKey(empty, &key), VELK2_ERR_INVALID_PARAM);
}

TEST_F(Issuer, CertificateBodiesCarryEveryFieldInOrder) {
  Ref<SexpList> issuer, subject, tag, body;
  ASSERT_EQ(issuing::MakePublicKey(rsa_, &issuer), 0u);
  ASSERT_EQ(issuing::MakeHashPrincipal(*issuer, &subject), 0u);
  ASSERT_EQ(issuing::ParseTag("(ftp (* set read write))", &tag), 0u);
  issuing::CertificateRequest request;
  request.issuer = issuer;
  request.subject = subject;
  request.propagate = true;
  request.tag = tag;
  request.not_before = 0;
  request.not_after = 86399;
  request.comment = "c";
  ASSERT_EQ(issuing::MakeCertificateBody(request, &body), 0u);
  std::string text = Canonical(*body);
  std::string expected =
      "(4:cert(7:version1:1)(6:issuer" + Canonical(*issuer) + ")(7:subject" + Canonical(*subject) +
      ")(9:propagate)(3:tag(3:ftp(1:*3:set4:read5:write)))" +
      "(5:valid(10:not-before19:1970-01-01_00:00:00)(9:not-after19:1970-01-01_23:59:59))" +
      "(7:comment1:c))";
  EXPECT_EQ(text, expected);
  EXPECT_EQ(Canonical(*subject).substr(0, 18), "(4:hash6:sha25632:");

  issuing::CertificateRequest minimal;
  minimal.issuer = issuer;
  minimal.subject = subject;
  ASSERT_EQ(issuing::MakeCertificateBody(minimal, &body), 0u);
  EXPECT_EQ(Canonical(*body), "(4:cert(7:version1:1)(6:issuer" + Canonical(*issuer) +
                                  ")(7:subject" + Canonical(*subject) + "))");
  minimal.issuer = nullptr;
  EXPECT_EQ(issuing::MakeCertificateBody(minimal, &body), VELK2_ERR_INVALID_PARAM);
}

TEST_F(Issuer, SignaturesNameTheDigestAndTheSigner) {
  Ref<SexpList> object, signature, signer;
  ASSERT_EQ(issuing::ParseTag("(pkg install)", &object), 0u);
  ASSERT_EQ(issuing::MakePublicKey(rsa_, &signer), 0u);
  ASSERT_EQ(issuing::SignObject(rsa_, *object, "rsa-pss", 2, &signature), 0u);
  std::string text = Canonical(*signature);
  EXPECT_EQ(text.rfind("(9:signature(4:hash6:sha25632:", 0), 0u);
  EXPECT_NE(text.find(Canonical(*signer)), std::string::npos);
  EXPECT_NE(text.find("(7:rsa-pss256:"), std::string::npos);
  // DSA always signs the SHA-1 digest, whatever hash was asked for.
  ASSERT_EQ(issuing::SignObject(dsa_, *object, "dsa-sha1", 2, &signature), 0u);
  EXPECT_EQ(Canonical(*signature).rfind("(9:signature(4:hash4:sha120:", 0), 0u);
  EXPECT_NE(Canonical(*signature).find("(8:dsa-sha140:"), std::string::npos);
  EXPECT_EQ(issuing::SignObject(rsa_, *object, "rsa-pss", 3, &signature), VELK2_ERR_HASH_ID);
  EXPECT_EQ(issuing::SignObject(rsa_, *object, "dsa-sha1", 0, &signature), VELK2_ERR_SIGNATURE_ID);
}

TEST(IssuerDates, NativeAndIsoDatesReadExactly) {
  int64_t t = -1;
  ASSERT_EQ(issuing::ParseDate("1970-01-01_00:00:00", &t), 0u);
  EXPECT_EQ(t, 0);
  ASSERT_EQ(issuing::ParseDate("2024-02-29_23:59:59", &t), 0u);
  EXPECT_EQ(issuing::FormatDate(t), "2024-02-29_23:59:59");
  // The ISO forms people type mean the same instant as the native one.
  const struct {
    const char* iso;
    const char* native;
  } kSame[] = {{"2026-01-01", "2026-01-01_00:00:00"},
               {"2026-01-01T12:30:05Z", "2026-01-01_12:30:05"},
               {"2026-01-01T12:30:05", "2026-01-01_12:30:05"},
               {"2026-01-01 12:30:05", "2026-01-01_12:30:05"},
               {"2026-01-01T01:00:00+02:00", "2025-12-31_23:00:00"},
               {"2026-01-01T23:00:00-0530", "2026-01-02_04:30:00"}};
  for (const auto& same : kSame) {
    SCOPED_TRACE(same.iso);
    ASSERT_EQ(issuing::ParseDate(same.iso, &t), 0u);
    EXPECT_EQ(issuing::FormatDate(t), same.native);
  }
  for (const char* bad :
       {"2023-02-29_00:00:00", "2024-13-01_00:00:00", "2024-1-01_00:00:00", "2024-01-01_24:00:00",
        "2024-01-01_00:00:6", "", "2024-01-01_00:00:00Z", "abcd-ef-gh_ij:kl:mn", "2023-02-29",
        "2024-04-31T00:00:00Z", "2024-01-01T23:59:60Z", "2024-01-01T00:00Z",
        "2024-01-01T00:00:00+24:00", "2024-01-01T00:00:00+2", "2024-01-01T00:00:00 Z",
        " 2024-01-01", "2024-01-01T", "20240101"}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(issuing::ParseDate(bad, &t), VELK2_ERR_INVALID_PARAM);
  }
}

TEST(IssuerTags, ReadableTagsBecomeTagLists) {
  Ref<SexpList> tag;
  ASSERT_EQ(issuing::ParseTag("(pkg install) (x)", &tag), 0u);
  EXPECT_EQ(Canonical(*tag), "(3:tag(3:pkg7:install)(1:x))");
  EXPECT_NE(issuing::ParseTag("(pkg", &tag), 0u);
  EXPECT_EQ(issuing::ParseTag("", &tag), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(issuing::ParseTag("   ", &tag), VELK2_ERR_INVALID_PARAM);
}

TEST_F(Issuer, CertificateFilesGrowOneEntryAtATime) {
  char tmpl[] = "/tmp/velk2-issuer-XXXXXX";
  std::string dir = mkdtemp(tmpl);
  std::string path = dir + "/chain.cert";
  Ref<SexpList> issuer, body, signature, sequence;
  ASSERT_EQ(issuing::MakePublicKey(rsa_, &issuer), 0u);
  issuing::CertificateRequest request;
  request.issuer = issuer;
  request.subject = issuer;
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(issuing::MakeCertificateBody(request, &body), 0u);
    ASSERT_EQ(issuing::SignObject(rsa_, *body, "rsa-1.5", 0, &signature), 0u);
    ASSERT_EQ(issuing::AppendCertificate(path, body, signature, i ? "second" : ""), 0u);
  }
  ASSERT_EQ(issuing::ReadObjectFile(path, &sequence), 0u);
  ASSERT_EQ(sequence->ChildCount(), 7u);  // "sequence" and two entries of three lists
  EXPECT_EQ(Canonical(*sequence->ChildAt(3)), "(5:owner)");
  EXPECT_EQ(Canonical(*sequence->ChildAt(6)), "(5:owner6:second)");
  EXPECT_EQ(Canonical(*sequence->ChildAt(1)), Canonical(*body));

  // A file that is not a sequence is left alone.
  std::ofstream(dir + "/other.cert") << "(3:foo)";
  EXPECT_EQ(issuing::AppendCertificate(dir + "/other.cert", body, signature, "x"),
            VELK2_ERR_INVALID_SEQUENCE);
  std::ifstream in(dir + "/other.cert");
  std::stringstream kept;
  kept << in.rdbuf();
  EXPECT_EQ(kept.str(), "(3:foo)");
  std::ofstream(dir + "/trailing.cert") << "(8:sequence)x";
  EXPECT_EQ(issuing::AppendCertificate(dir + "/trailing.cert", body, signature, "x"),
            VELK2_ERR_PARSE_FILE);
  EXPECT_EQ(issuing::AppendCertificate(dir + "/missing/x.cert", body, signature, "x"),
            VELK2_ERR_WRITE_FILE);
  std::system(("rm -rf '" + dir + "'").c_str());
}

}  // namespace
