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

const auto Key1 = [] { return KeyText(RsaKey()); };
const auto Key2 = [] { return KeyText(OtherRsaKey()); };
const auto Key3 = [] { return KeyText(DsaKey()); };
const auto Hash1 = [] { return HashText("sha1", std::vector<uint8_t>(20, 0x11)); };
const auto Hash2 = [] { return HashText("sha256", std::vector<uint8_t>(32, 0x22)); };
const auto Issuer = [](const std::string& p) { return "(6:issuer" + p + ")"; };
const auto Subject = [](const std::string& p) { return "(7:subject" + p + ")"; };
// A k-of-n group with |k| and |n| as they are written (canonical atoms or not).
std::string Group(const std::string& k, const std::string& n,
                  const std::vector<std::string>& members) {
  std::string text = "(6:k-of-n" + k + n;
  for (const std::string& m : members) text += m;
  return text + ")";
}
std::string KOfNText(char k, char n, const std::vector<std::string>& members) {
  return Group(Atom(std::string(1, k)), Atom(std::string(1, n)), members);
}
const char kVersion[] = "(7:version1:1)";
const char kPropagate[] = "(9:propagate)";
const char kTag[] = "(3:tag(3:pkg7:install))";
const char kValid[] =
    "(5:valid(10:not-before19:2006-01-01_00:00:00)(9:not-after19:2007-01-01_00:00:00))";
const char kComment[] = "(7:comment11:hello world)";
const char kRevocation[] = "(10:revocation(3:crl4:main))";

TEST(CertificateTest, ReadsEveryFormBackToItsText) {
  // |fields| names the optional fields present: version, propagate, tag,
  // not-before, not-after, comment, revocation specification. Hints are kept
  // in the stored form and left out of the canonical one (|canonical|, when
  // it differs from the text).
  struct Case {
    std::string text;
    std::string fields;
    std::string canonical = "";
  };
  const std::string is = Issuer(Key1()), sub = Subject(Hash2());
  const Case kCases[] = {
      {"(4:cert" + is + sub + ")", ""},
      {"(4:cert" + std::string(kVersion) + is + sub + kPropagate + kTag + kValid + kComment +
           kRevocation + ")",
       "vptbacr"},
      {"(4:cert" + is + sub + kTag + ")", "t"},
      {"(4:cert" + is + sub + kPropagate + kComment + ")", "pc"},
      {"(4:cert" + is + sub + "(5:valid)" + ")", ""},
      {"(4:cert" + is + sub + "(5:valid(9:not-after19:2007-01-01_00:00:00))" + kRevocation + ")",
       "ar"},
      {"(4:cert" + is + sub + "(5:valid(10:not-before5:early))" + ")", "b"},
      // Any list whose first atom has three bytes is a tag.
      {"(4:cert" + is + sub + "(3:xyz)" + ")", "t"},
      {"(4:cert" + Issuer(Hash1()) + Subject(Key2()) + ")", ""},
      {"(4:cert" + is + sub + "(3:tag([utf-8]3:pkg7:install))(7:comment[utf-8]5:hello))", "tc",
       "(4:cert" + is + sub + kTag + "(7:comment5:hello))"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.fields);
    auto has = [&](char field) { return c.fields.find(field) != std::string::npos; };
    Ref<Certificate> certificate = MustParse<Certificate>(c.text);
    ASSERT_TRUE(certificate);
    EXPECT_EQ(CanonicalOf(*certificate), c.canonical.empty() ? c.text : c.canonical);
    EXPECT_EQ(StoredOf(*certificate), c.text);
    EXPECT_EQ(certificate->version() != nullptr, has('v'));
    EXPECT_EQ(certificate->propagate(), has('p'));
    EXPECT_EQ(certificate->tag() != nullptr, has('t'));
    EXPECT_EQ(certificate->not_before() != nullptr, has('b'));
    EXPECT_EQ(certificate->not_after() != nullptr, has('a'));
    EXPECT_EQ(certificate->comment() != nullptr, has('c'));
    EXPECT_EQ(certificate->revocation_spec() != nullptr, has('r'));
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
      {"no issuer", "(4:cert" + sub + ")", VELK2_ERR_INVALID_DATA},
      {"no subject", "(4:cert" + is + kTag + ")", VELK2_ERR_INVALID_DATA},
      {"propagate before the subject", "(4:cert" + is + kPropagate + sub + ")",
       VELK2_ERR_INVALID_DATA},
      {"version after the issuer", "(4:cert" + is + kVersion + sub + ")", VELK2_ERR_INVALID_DATA},
      {"tag before propagate", "(4:cert" + is + sub + kTag + kPropagate + ")",
       VELK2_ERR_INVALID_DATA},
      {"revocation before the comment", "(4:cert" + is + sub + kRevocation + kComment + ")",
       VELK2_ERR_INVALID_DATA},
      {"two tags", "(4:cert" + is + sub + kTag + kTag + ")", VELK2_ERR_INVALID_DATA},
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
      {Group(Atom("\x05x"), Atom("\x01"), {Key1()}), VELK2_SUCCESS, 5, 1},
      {KOfNText(0, 0, {}), VELK2_SUCCESS, 0, 0},
      {KOfNText(7, 2, {Key1(), Key3()}), VELK2_SUCCESS, 7, 2},
      {Group("[num]1:\x01", "[bin]1:\x01", {Key1()}), VELK2_SUCCESS, 1, 1},
      {KOfNText('\xFF', 1, {Key1()}), VELK2_SUCCESS, 255, 1},
      // Too few keys: fails where the next key's literal is expected.
      {KOfNText(2, 3, {Key1(), Key2()}), VELK2_ERR_INVALID_DATA, 0, 0},
      // Too many keys: the group's ")" does not come.
      {KOfNText(1, 1, {Key1(), Key2()}), VELK2_ERR_INVALID_DATA, 0, 0},
      // Only keys are members: no hashes, no nested groups.
      {KOfNText(1, 2, {Key1(), Hash1()}), VELK2_ERR_INVALID_DATA, 0, 0},
      {KOfNText(1, 1, {KOfNText(1, 1, {Key1()})}), VELK2_ERR_INVALID_DATA, 0, 0},
      // Empty k or n atoms have no first byte.
      {Group("0:", Atom("\x01"), {Key1()}), VELK2_ERR_PARSE_FILE, 0, 0},
      {Group(Atom("\x01"), "0:", {Key1()}), VELK2_ERR_PARSE_FILE, 0, 0},
      {Group("(1:x)", Atom("\x01"), {Key1()}), VELK2_ERR_INVALID_DATA, 0, 0},
      {"(6:k-of-x" + KOfNText(1, 1, {Key1()}).substr(9), VELK2_ERR_INVALID_DATA, 0, 0},
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

// A principal is a key or a hash, a subject may also be a group; both are told
// apart by their first two bytes.
TEST(CertificateTest, PrincipalsAndSubjectsArePeekedByTheirFirstBytes) {
  struct Case {
    bool subject;  // ReadSubject, else ReadPrincipal
    std::string text;
    uint32_t want_class;
    Result want;
  };
  const Case kCases[] = {
      {false, Key3(), kClassPublicKey, VELK2_SUCCESS},
      {false, Hash1(), kClassHashValue, VELK2_SUCCESS},
      {false, KOfNText(1, 1, {Key3()}), 0, VELK2_ERR_PRINCIPAL},
      {false, "(5:hello)", 0, VELK2_ERR_PRINCIPAL},
      {false, "(", 0, VELK2_ERR_PRINCIPAL},
      {false, "", 0, VELK2_ERR_PRINCIPAL},
      // The peek only looks at two bytes; the reader then checks the rest.
      {false, "(10:public-kex(3:rsa(1:e", 0, VELK2_ERR_INVALID_DATA},
      {false, "(4:hasp4:sha1", 0, VELK2_ERR_INVALID_DATA},
      {true, Key1(), kClassPublicKey, VELK2_SUCCESS},
      {true, Hash1(), kClassHashValue, VELK2_SUCCESS},
      {true, KOfNText(1, 1, {Key3()}), kClassKOfN, VELK2_SUCCESS},
      {true, "(7:subject)", 0, VELK2_ERR_PRINCIPAL},
      {true, "(", 0, VELK2_ERR_PRINCIPAL},
  };
  for (const Case& c : kCases) {
    SexpMemorySource source;
    ASSERT_TRUE(c.text.empty() || source.AttachCopy(c.text.data(), c.text.size()) == 0);
    Ref<Principal> principal;
    EXPECT_EQ((c.subject ? ReadSubject : ReadPrincipal)(&source, &principal, nullptr), c.want)
        << c.text.substr(0, 12);
    EXPECT_EQ(principal ? principal->ClassFlag() : 0u, c.want_class) << c.text.substr(0, 12);
    EXPECT_EQ(principal ? CanonicalOf(*principal) : c.text, c.text);
  }
  auto source = Source(Key1());
  Ref<Principal> taken = KOfN::New();
  EXPECT_EQ(ReadSubject(source.get(), &taken, nullptr), VELK2_ERR_INVALID_PARAM);
}

TEST(CertificateTest, BuildsBodiesFromPartsAndFromCertificates) {
  const std::string full = "(4:cert" + std::string(kVersion) + Issuer(Key1()) +
                           Subject(KOfNText(1, 2, {Key2(), Key3()})) + kPropagate + kTag + kValid +
                           kComment + kRevocation + ")";
  Ref<Certificate> read = MustParse<Certificate>(full);
  ASSERT_TRUE(read);

  // The copy form makes a fresh body with the same fields.
  Ref<Certificate> copy = Certificate::New();
  ASSERT_EQ(BuildCertificate(copy.get(), read->fields()), VELK2_SUCCESS);
  EXPECT_EQ(CanonicalOf(*copy), full);
  EXPECT_EQ(StoredOf(*copy), StoredOf(*read));
  EXPECT_EQ(copy->issuer(), read->issuer());  // shared, not copied
  EXPECT_EQ(copy->propagate(), true);

  // The parts form: the version is always written, absent parts left out.
  Ref<Certificate> minimal =
      MustParse<Certificate>("(4:cert" + Issuer(Hash1()) + Subject(Key1()) + ")");
  ASSERT_TRUE(minimal);
  Ref<Certificate> rebuilt = Certificate::New();
  ASSERT_EQ(BuildCertificate(rebuilt.get(), minimal->fields()), VELK2_SUCCESS);
  EXPECT_EQ(CanonicalOf(*rebuilt),
            "(4:cert" + std::string(kVersion) + Issuer(Hash1()) + Subject(Key1()) + ")");

  // Without the revocation specification, with one date only.
  Ref<Certificate> parts = Certificate::New();
  Ref<SexpAtom> not_after = SexpAtom::New();
  ASSERT_EQ(WriteDate(not_after.get(), 1167609600), VELK2_SUCCESS);
  CertificateFields fields = read->fields();
  fields.propagate = false;
  fields.not_before = nullptr;
  fields.not_after = not_after;
  fields.comment = nullptr;
  fields.revocation_spec = nullptr;
  ASSERT_EQ(BuildCertificate(parts.get(), fields), VELK2_SUCCESS);
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
  CertificateFields no_issuer = read->fields();
  no_issuer.issuer = nullptr;
  EXPECT_EQ(BuildCertificate(Certificate::New().get(), no_issuer), VELK2_ERR_INVALID_PARAM);
  CertificateFields no_subject = read->fields();
  no_subject.subject = nullptr;
  EXPECT_EQ(BuildCertificate(Certificate::New().get(), no_subject), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(BuildCertificate(parts.get(), read->fields()), VELK2_ERR_INVALID_PARAM);
}

// A built body signed by its issuer verifies; the signature check and the
// certificate reader agree on what is signed.
TEST(CertificateTest, SignedBuiltBodyVerifies) {
  Ref<Certificate> read = MustParse<Certificate>("(4:cert" + Issuer(Key3()) +
                                                 Subject(KOfNText(1, 1, {Key1()})) + kTag + ")");
  ASSERT_TRUE(read);
  Ref<Certificate> body = Certificate::New();
  ASSERT_EQ(BuildCertificate(body.get(), read->fields()), VELK2_SUCCESS);
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
