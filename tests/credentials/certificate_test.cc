#include "credentials/certificate.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "credentials/date.h"
#include "credentials/hash_value.h"
#include "credentials/signature.h"
#include "credentials_test_util.h"

namespace velk2::testing {
namespace {

std::string Key1() {
  return KeyText(RsaKey());
}
std::string Key2() {
  return KeyText(OtherRsaKey());
}
std::string Key3() {
  return KeyText(DsaKey());
}
std::string Hash1() {
  return HashText("sha1", std::vector<uint8_t>(20, 0x11));
}
std::string Hash2() {
  return HashText("sha256", std::vector<uint8_t>(32, 0x22));
}

std::string Issuer(const std::string& p) {
  return "(6:issuer" + p + ")";
}
std::string Subject(const std::string& p) {
  return "(7:subject" + p + ")";
}
std::string KOfNText(uint8_t k, uint8_t n, const std::vector<std::string>& members) {
  std::string text = "(6:k-of-n1:" + std::string(1, static_cast<char>(k)) +
                     "1:" + std::string(1, static_cast<char>(n));
  for (const std::string& m : members) text += m;
  return text + ")";
}
const char kVersion[] = "(7:version1:1)";
const char kPropagate[] = "(9:propagate)";
const char kTag[] = "(3:tag(3:pkg7:install))";
const char kValid[] =
    "(5:valid(10:not-before19:2006-01-01_00:00:00)(9:not-after19:2007-01-01_00:00:00))";
const char kComment[] = "(7:comment11:hello world)";
const char kRevocation[] = "(10:revocation(3:crl4:main))";

TEST(CertificateTest, ReadsEveryFormBackToItsText) {
  struct Case {
    std::string text;
    bool version, propagate, tag, not_before, not_after, comment, revocation;
  };
  const std::string is = Issuer(Key1()), sub = Subject(Hash2());
  const Case kCases[] = {
      // Only the required fields.
      {"(4:cert" + is + sub + ")", false, false, false, false, false, false, false},
      {"(4:cert" + std::string(kVersion) + is + sub + kPropagate + kTag + kValid + kComment +
           kRevocation + ")",
       true, true, true, true, true, true, true},
      {"(4:cert" + is + sub + kTag + ")", false, false, true, false, false, false, false},
      {"(4:cert" + is + sub + kPropagate + kComment + ")", false, true, false, false, false, true,
       false},
      {"(4:cert" + is + sub + "(5:valid)" + ")", false, false, false, false, false, false, false},
      {"(4:cert" + is + sub + "(5:valid(9:not-after19:2007-01-01_00:00:00))" + kRevocation + ")",
       false, false, false, false, true, false, true},
      {"(4:cert" + is + sub + "(5:valid(10:not-before5:early))" + ")", false, false, false, true,
       false, false, false},
      // Any list whose first atom has three bytes is a tag.
      {"(4:cert" + is + sub + "(3:xyz)" + ")", false, false, true, false, false, false, false},
      {"(4:cert" + Issuer(Hash1()) + Subject(Key2()) + ")", false, false, false, false, false,
       false, false},
  };
  for (size_t i = 0; i < std::size(kCases); ++i) {
    const Case& c = kCases[i];
    SCOPED_TRACE(i);
    Ref<Certificate> certificate = MustParse<Certificate>(c.text);
    ASSERT_TRUE(certificate);
    EXPECT_EQ(CanonicalOf(*certificate), c.text);
    EXPECT_EQ(StoredOf(*certificate), c.text);
    EXPECT_EQ(certificate->version() != nullptr, c.version);
    EXPECT_EQ(certificate->propagate(), c.propagate);
    EXPECT_EQ(certificate->tag() != nullptr, c.tag);
    EXPECT_EQ(certificate->not_before() != nullptr, c.not_before);
    EXPECT_EQ(certificate->not_after() != nullptr, c.not_after);
    EXPECT_EQ(certificate->comment() != nullptr, c.comment);
    EXPECT_EQ(certificate->revocation_spec() != nullptr, c.revocation);
    ASSERT_NE(certificate->issuer(), nullptr);
    ASSERT_NE(certificate->subject(), nullptr);
    EXPECT_EQ(certificate->Issuer(), certificate->issuer());
    EXPECT_EQ(certificate->revocation_state(), kNotRevoked);
    // The same body followed by more data (a signature in a sequence).
    Ref<Certificate> followed = MustParse<Certificate>(c.text + "(9:signature)");
    ASSERT_TRUE(followed);
    EXPECT_TRUE(SameCanonicalForm(followed.get(), certificate.get()));
  }
}

TEST(CertificateTest, FieldsHoldWhatWasRead) {
  const std::string text = "(4:cert" + std::string(kVersion) + Issuer(Key1()) + Subject(Key3()) +
                           kPropagate + kTag + kValid + kComment + kRevocation + ")";
  Ref<Certificate> c = MustParse<Certificate>(text);
  ASSERT_TRUE(c);
  EXPECT_EQ(CanonicalOf(*c->version()), kVersion);
  EXPECT_EQ(CanonicalOf(*c->issuer()), Key1());
  EXPECT_EQ(CanonicalOf(*c->subject()), Key3());
  EXPECT_NE(PublicKey::From(c->issuer()), nullptr);
  EXPECT_EQ(PublicKey::From(c->subject())->type(), kKeyDsa);
  EXPECT_EQ(CanonicalOf(*c->tag()), kTag);
  EXPECT_EQ(c->not_before()->bytes(), "2006-01-01_00:00:00");
  EXPECT_EQ(ReadDate(c->not_after()), 1167609600);
  EXPECT_EQ(c->comment()->bytes(), "hello world");
  EXPECT_EQ(CanonicalOf(*c->revocation_spec()), kRevocation);
  EXPECT_EQ(Certificate::From(c.get()), c.get());
  EXPECT_EQ(std::u16string(c->StoreSubdirectory()), u"cert");
  EXPECT_EQ(std::u16string(c->FileExtension()), u".cert");
  // The children in order: cert, version, issuer, subject, propagate, tag,
  // valid, comment, revocation specification.
  ASSERT_EQ(c->ChildCount(), 9u);
  EXPECT_EQ(c->ChildAt(1), c->version());
  EXPECT_EQ(c->ChildAt(5), c->tag());
  EXPECT_EQ(c->ChildAt(8), c->revocation_spec());
  c->set_revocation_state(kSubjectKeyRevoked);
  EXPECT_EQ(c->revocation_state(), kSubjectKeyRevoked);
}

TEST(CertificateTest, RefusesOtherFormsWithTheirCodes) {
  struct Case {
    const char* what;
    std::string text;
    Result want;
  };
  const std::string is = Issuer(Key1()), sub = Subject(Hash2());
  const Case kCases[] = {
      {"not a body", "(4:cerx" + is + sub + ")", VELK2_ERR_INVALID_DATA},
      {"version 2 fails at the issuer", "(4:cert(7:version1:2)" + is + sub + ")",
       VELK2_ERR_INVALID_DATA},
      {"version as a number", "(4:cert(7:version[num]1:1)" + is + sub + ")",
       VELK2_ERR_INVALID_DATA},
      {"no issuer", "(4:cert" + sub + ")", VELK2_ERR_INVALID_DATA},
      {"no subject", "(4:cert" + is + kTag + ")", VELK2_ERR_INVALID_DATA},
      {"subject before issuer", "(4:cert" + sub + is + ")", VELK2_ERR_INVALID_DATA},
      {"propagate before the subject", "(4:cert" + is + kPropagate + sub + ")",
       VELK2_ERR_INVALID_DATA},
      {"version after the issuer", "(4:cert" + is + kVersion + sub + ")", VELK2_ERR_INVALID_DATA},
      {"tag before propagate", "(4:cert" + is + sub + kTag + kPropagate + ")",
       VELK2_ERR_INVALID_DATA},
      {"valid before the tag", "(4:cert" + is + sub + kValid + kTag + ")", VELK2_ERR_INVALID_DATA},
      {"comment before valid", "(4:cert" + is + sub + kComment + kValid + ")",
       VELK2_ERR_INVALID_DATA},
      {"revocation before the comment", "(4:cert" + is + sub + kRevocation + kComment + ")",
       VELK2_ERR_INVALID_DATA},
      {"two tags", "(4:cert" + is + sub + kTag + kTag + ")", VELK2_ERR_INVALID_DATA},
      {"two propagates", "(4:cert" + is + sub + kPropagate + kPropagate + ")",
       VELK2_ERR_INVALID_DATA},
      {"an unknown field", "(4:cert" + is + sub + "(5:other)" + ")", VELK2_ERR_INVALID_DATA},
      {"not-after before not-before",
       "(4:cert" + is + sub +
           "(5:valid(9:not-after19:2007-01-01_00:00:00)(10:not-before19:2006-01-01_00:00:00))" +
           ")",
       VELK2_ERR_INVALID_DATA},
      {"a comment list", "(4:cert" + is + sub + "(7:comment(1:x))" + ")", VELK2_ERR_INVALID_DATA},
      {"a comment of two atoms", "(4:cert" + is + sub + "(7:comment1:x1:y)" + ")",
       VELK2_ERR_INVALID_DATA},
      {"an issuer of two principals", "(4:cert(6:issuer" + Key1() + Hash1() + ")" + sub + ")",
       VELK2_ERR_INVALID_DATA},
      {"no closing parenthesis", "(4:cert" + is + sub, VELK2_ERR_FILE_OPEN},
      {"an unclosed tag", "(4:cert" + is + sub + "(3:tag(3:pkg)", VELK2_ERR_FILE_OPEN},
      {"issuer as k-of-n", "(4:cert(6:issuer" + KOfNText(1, 1, {Key1()}) + ")" + sub + ")",
       VELK2_ERR_PRINCIPAL},
      {"issuer as an atom", "(4:cert(6:issuer3:abc)" + sub + ")", VELK2_ERR_PRINCIPAL},
      {"subject as a list", "(4:cert" + is + "(7:subject(5:other))" + ")", VELK2_ERR_PRINCIPAL},
      {"a bad hash subject", "(4:cert" + is + Subject("(4:hash3:md51:x)") + ")", VELK2_ERR_HASH_ID},
      {"an empty body", "(4:cert)", VELK2_ERR_FILE_OPEN},
  };
  for (const Case& c : kCases) {
    Result result = VELK2_SUCCESS;
    ParseAs<Certificate>(c.text, &result);
    EXPECT_EQ(result, c.want) << c.what;
  }
  EXPECT_EQ(Certificate::New()->Parse(nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(ParseCertificate(nullptr, nullptr), VELK2_ERR_INVALID_PARAM);
  // A certificate is read once.
  Ref<Certificate> c = MustParse<Certificate>("(4:cert" + is + sub + ")");
  ASSERT_TRUE(c);
  auto source = Source("(4:cert" + is + sub + ")");
  EXPECT_EQ(c->Parse(source.get()), VELK2_ERR_INVALID_PARAM);
}

TEST(CertificateTest, ReadsKOfNSubjects) {
  const std::string is = Issuer(Hash1());
  const std::string text =
      "(4:cert" + is + Subject(KOfNText(2, 3, {Key1(), Key2(), Key3()})) + kTag + ")";
  Ref<Certificate> c = MustParse<Certificate>(text);
  ASSERT_TRUE(c);
  const KOfN* group = KOfN::From(c->subject());
  ASSERT_NE(group, nullptr);
  EXPECT_EQ(group->k(), 2u);
  EXPECT_EQ(group->n(), 3u);
  ASSERT_EQ(group->key_count(), 3u);
  EXPECT_EQ(CanonicalOf(*group->key(2)), Key3());
  // k and n are rebuilt as one-byte numbers: the canonical form is the input,
  // the stored form carries the hint.
  EXPECT_EQ(CanonicalOf(*c), text);
  const SexpAtom* k = group->ChildAt(1)->AsAtom();
  ASSERT_NE(k, nullptr);
  EXPECT_EQ(k->hint(), kHintNum);
  EXPECT_NE(StoredOf(*c).find("(6:k-of-n[num]1:\x02[num]1:\x03"), std::string::npos);

  // Only the first byte of k and n counts; 0 keys and k > n are read as they are.
  struct Case {
    std::string subject;
    Result want;
    uint32_t k, n;
  };
  const Case kCases[] = {
      {"(6:k-of-n2:\x05x1:\x01" + Key1() + ")", VELK2_SUCCESS, 5, 1},
      {KOfNText(0, 0, {}), VELK2_SUCCESS, 0, 0},
      {KOfNText(7, 2, {Key1(), Key3()}), VELK2_SUCCESS, 7, 2},
      {"(6:k-of-n[num]1:\x01[bin]1:\x01" + Key1() + ")", VELK2_SUCCESS, 1, 1},
      {"(6:k-of-n1:\xFF"
       "1:\x01" +
           Key1() + ")",
       VELK2_SUCCESS, 255, 1},
      // Too few keys: fails where the next key's literal is expected.
      {KOfNText(2, 3, {Key1(), Key2()}), VELK2_ERR_INVALID_DATA, 0, 0},
      {KOfNText(1, 2, {Key1()}), VELK2_ERR_INVALID_DATA, 0, 0},
      // Too many keys: the group's ")" does not come.
      {KOfNText(1, 1, {Key1(), Key2()}), VELK2_ERR_INVALID_DATA, 0, 0},
      // Only keys are members: no hashes, no nested groups.
      {KOfNText(1, 2, {Key1(), Hash1()}), VELK2_ERR_INVALID_DATA, 0, 0},
      {KOfNText(1, 1, {KOfNText(1, 1, {Key1()})}), VELK2_ERR_INVALID_DATA, 0, 0},
      // Empty k or n atoms have no first byte.
      {"(6:k-of-n0:1:\x01" + Key1() + ")", VELK2_ERR_PARSE_FILE, 0, 0},
      {"(6:k-of-n1:\x01"
       "0:" +
           Key1() + ")",
       VELK2_ERR_PARSE_FILE, 0, 0},
      {"(6:k-of-n(1:x)1:\x01" + Key1() + ")", VELK2_ERR_INVALID_DATA, 0, 0},
      {"(6:k-of-x1:\x01"
       "1:\x01" +
           Key1() + ")",
       VELK2_ERR_INVALID_DATA, 0, 0},
  };
  for (const Case& c : kCases) {
    Result result = VELK2_SUCCESS;
    Ref<Certificate> certificate =
        ParseAs<Certificate>("(4:cert" + is + Subject(c.subject) + kTag + ")", &result);
    EXPECT_EQ(result, c.want) << c.subject.substr(0, 16);
    if (result == VELK2_SUCCESS) {
      const KOfN* g = KOfN::From(certificate->subject());
      ASSERT_NE(g, nullptr);
      EXPECT_EQ(g->k(), c.k);
      EXPECT_EQ(g->n(), c.n);
      EXPECT_EQ(g->key_count(), c.n);
    }
  }
}

TEST(CertificateTest, ReadSubjectPeeksTheThreeKinds) {
  struct Case {
    std::string text;
    uint32_t want_class;
    Result want;
  };
  const Case kCases[] = {
      {Key1(), kClassPublicKey, VELK2_SUCCESS},
      {Hash1(), kClassHashValue, VELK2_SUCCESS},
      {KOfNText(1, 1, {Key3()}), kClassKOfN, VELK2_SUCCESS},
      {"(7:subject)", 0, VELK2_ERR_PRINCIPAL},
      {"(2", 0, VELK2_ERR_PRINCIPAL},
      {"(", 0, VELK2_ERR_PRINCIPAL},
  };
  for (const Case& c : kCases) {
    auto source = Source(c.text);
    Ref<Principal> subject;
    EXPECT_EQ(ReadSubject(source.get(), &subject, nullptr), c.want) << c.text.substr(0, 12);
    if (c.want == VELK2_SUCCESS) {
      ASSERT_TRUE(subject);
      EXPECT_EQ(subject->ClassFlag(), c.want_class);
      EXPECT_EQ(CanonicalOf(*subject), c.text);
    } else {
      EXPECT_FALSE(subject);
    }
  }
  auto source = Source(Key1());
  Ref<Principal> taken = KOfN::New();
  EXPECT_EQ(ReadSubject(source.get(), &taken, nullptr), VELK2_ERR_INVALID_PARAM);
}

TEST(CertificateTest, CanonicalEqualityIgnoresHints) {
  const std::string plain =
      "(4:cert" + Issuer(Key1()) + Subject(Hash2()) + kTag + "(7:comment5:hello))";
  const std::string hinted = "(4:cert" + Issuer(Key1()) + Subject(Hash2()) +
                             "(3:tag([utf-8]3:pkg7:install))" + "(7:comment[utf-8]5:hello))";
  Ref<Certificate> a = MustParse<Certificate>(plain);
  Ref<Certificate> b = MustParse<Certificate>(hinted);
  ASSERT_TRUE(a && b);
  EXPECT_TRUE(SameCanonicalForm(a.get(), b.get()));
  EXPECT_EQ(CanonicalOf(*b), plain);
  EXPECT_EQ(StoredOf(*b), hinted);
  // A signature digest covers the stored form: the hints make it differ.
  EXPECT_NE(StoredDigest(*a, ZCRY_HASH_SHA256), StoredDigest(*b, ZCRY_HASH_SHA256));
  Ref<Certificate> other = MustParse<Certificate>("(4:cert" + Issuer(Key1()) + Subject(Hash2()) +
                                                  kTag + "(7:comment5:hellO))");
  ASSERT_TRUE(other);
  EXPECT_FALSE(SameCanonicalForm(a.get(), other.get()));
}

TEST(CertificateTest, BuildsBodiesFromPartsAndFromCertificates) {
  const std::string full = "(4:cert" + std::string(kVersion) + Issuer(Key1()) +
                           Subject(KOfNText(1, 2, {Key2(), Key3()})) + kPropagate + kTag + kValid +
                           kComment + kRevocation + ")";
  Ref<Certificate> read = MustParse<Certificate>(full);
  ASSERT_TRUE(read);

  // The copy form makes a fresh body with the same fields.
  Ref<Certificate> copy = Certificate::New();
  ASSERT_EQ(BuildCertificate(copy.get(), *read), VELK2_SUCCESS);
  EXPECT_EQ(CanonicalOf(*copy), full);
  EXPECT_EQ(StoredOf(*copy), StoredOf(*read));
  EXPECT_EQ(copy->issuer(), read->issuer());  // shared, not copied
  EXPECT_EQ(copy->propagate(), true);

  // The parts form: the version is always written, absent parts left out.
  Ref<Certificate> minimal =
      MustParse<Certificate>("(4:cert" + Issuer(Hash1()) + Subject(Key1()) + ")");
  ASSERT_TRUE(minimal);
  Ref<Certificate> rebuilt = Certificate::New();
  ASSERT_EQ(BuildCertificate(rebuilt.get(), *minimal), VELK2_SUCCESS);
  EXPECT_EQ(CanonicalOf(*rebuilt),
            "(4:cert" + std::string(kVersion) + Issuer(Hash1()) + Subject(Key1()) + ")");

  // Without the revocation specification, with one date only.
  Ref<Certificate> parts = Certificate::New();
  Ref<SexpAtom> not_after = SexpAtom::New();
  ASSERT_EQ(WriteDate(not_after.get(), 1167609600), VELK2_SUCCESS);
  ASSERT_EQ(BuildCertificate(parts.get(), const_cast<Principal*>(read->issuer()),
                             const_cast<Principal*>(read->subject()), false,
                             const_cast<SexpList*>(read->tag()), nullptr, not_after.get(), nullptr,
                             nullptr),
            VELK2_SUCCESS);
  const std::string want = "(4:cert" + std::string(kVersion) + Issuer(Key1()) +
                           Subject(KOfNText(1, 2, {Key2(), Key3()})) + kTag +
                           "(5:valid(9:not-after19:2007-01-01_00:00:00)))";
  EXPECT_EQ(CanonicalOf(*parts), want);
  // The built body reads back to the same certificate.
  Ref<Certificate> reread = MustParse<Certificate>(CanonicalOf(*parts));
  ASSERT_TRUE(reread);
  EXPECT_TRUE(SameCanonicalForm(reread.get(), parts.get()));
  EXPECT_EQ(reread->not_after()->bytes(), "2007-01-01_00:00:00");
  EXPECT_EQ(reread->not_before(), nullptr);

  // Refusals: missing issuer or subject, a body that is not empty.
  Principal* issuer = const_cast<Principal*>(read->issuer());
  EXPECT_EQ(BuildCertificate(Certificate::New().get(), nullptr, issuer, false, nullptr, nullptr,
                             nullptr, nullptr, nullptr),
            VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(BuildCertificate(Certificate::New().get(), issuer, nullptr, false, nullptr, nullptr,
                             nullptr, nullptr, nullptr),
            VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(BuildCertificate(parts.get(), *read), VELK2_ERR_INVALID_PARAM);
}

// A built body signed by its issuer verifies; the signature check and the
// certificate reader agree on what is signed.
TEST(CertificateTest, SignedBuiltBodyVerifies) {
  Ref<Certificate> read = MustParse<Certificate>("(4:cert" + Issuer(Key3()) +
                                                 Subject(KOfNText(1, 1, {Key1()})) + kTag + ")");
  ASSERT_TRUE(read);
  Ref<Certificate> body = Certificate::New();
  ASSERT_EQ(BuildCertificate(body.get(), *read), VELK2_SUCCESS);
  const std::vector<uint8_t> digest = StoredDigest(*body, ZCRY_HASH_SHA1);
  std::vector<uint8_t> bytes;
  ASSERT_EQ(DsaKey().SignDigest("dsa-sha1", ZCRY_HASH_SHA1, digest.data(), digest.size(), &bytes),
            VELK2_SUCCESS);
  const std::string signature_text =
      "(9:signature" + HashText("sha1", digest) + Key3() + "(8:dsa-sha1" + Atom(bytes) + "))";
  Ref<Signature> signature = MustParse<Signature>(signature_text);
  ASSERT_TRUE(signature);
  EXPECT_EQ(VerifySignature(signature.get(), body.get()), VELK2_SUCCESS);
  // The body as a file holds it (with its [num] hints) verifies after reading.
  Ref<Certificate> stored = MustParse<Certificate>(StoredOf(*body));
  ASSERT_TRUE(stored);
  EXPECT_EQ(VerifySignature(signature.get(), stored.get()), VELK2_SUCCESS);
  // The read body without a version field is another object.
  EXPECT_EQ(VerifySignature(signature.get(), read.get()), VELK2_ERR_HASH_MISMATCH);
}

}  // namespace
}  // namespace velk2::testing
