#include "credentials/signature.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "credentials/certificate.h"
#include "credentials/hash_value.h"
#include "credentials/public_key.h"
#include "credentials_test_util.h"

namespace velk2::testing {
namespace {

using issuing::PrivateKey;

std::string Body(const std::string& issuer, const std::string& comment = "hello") {
  const std::string subject = HashText("sha256", std::vector<uint8_t>(32, 0x5A));
  return "(4:cert(7:version1:1)(6:issuer" + issuer + ")(7:subject" + subject +
         ")(9:propagate)(3:tag(3:pkg7:install))(5:valid(10:not-before19:2006-01-01_00:00:00))"
         "(7:comment" +
         Atom(comment) + "))";
}

std::string SignatureText(const std::string& hash, const std::string& signer,
                          const std::string& algorithm, const std::vector<uint8_t>& bytes) {
  return "(9:signature" + hash + signer + "(" + Atom(algorithm) + Atom(bytes) + "))";
}

// Signs |object|'s stored form with |key|: the digest with |hash_id|, the hash
// value under |hash_name| holding |stated| (the digest itself when empty).
std::vector<uint8_t> Sign(const PrivateKey& key, const SexpObject& object,
                          const std::string& algorithm, uint32_t hash_id) {
  const std::vector<uint8_t> digest = StoredDigest(object, hash_id);
  std::vector<uint8_t> signature;
  EXPECT_EQ(key.SignDigest(algorithm, hash_id, digest.data(), digest.size(), &signature),
            VELK2_SUCCESS);
  return signature;
}

struct Scheme {
  const PrivateKey* (*key)();
  const char* algorithm;
  uint32_t hash_id;
  const char* hash_name;
};

const PrivateKey* Rsa() {
  return &RsaKey();
}
const PrivateKey* Dsa() {
  return &DsaKey();
}

// Every algorithm name with both hashes. A DSA key signs SHA-1 digests; its
// hash value may still say "sha256" when its first 20 bytes are the SHA-1
// digest (the object is always hashed with SHA-1 for DSA).
const Scheme kSchemes[] = {
    {Rsa, "rsa-pss", ZCRY_HASH_SHA1, "sha1"},  {Rsa, "rsa-pss", ZCRY_HASH_SHA256, "sha256"},
    {Rsa, "rsa-1.5", ZCRY_HASH_SHA1, "sha1"},  {Rsa, "rsa-1.5", ZCRY_HASH_SHA256, "sha256"},
    {Dsa, "dsa-sha1", ZCRY_HASH_SHA1, "sha1"}, {Dsa, "dsa-sha1", ZCRY_HASH_SHA1, "sha256"},
};

std::string StatedHash(const Scheme& s, const SexpObject& object) {
  std::vector<uint8_t> digest = StoredDigest(object, s.hash_id);
  if (std::string(s.hash_name) == "sha256") digest.resize(32, 0xEE);
  return HashText(s.hash_name, digest);
}

TEST(SignatureTest, ToolkitSignaturesVerifyAndChangesAreCaught) {
  for (const Scheme& s : kSchemes) {
    SCOPED_TRACE(std::string(s.algorithm) + "/" + s.hash_name);
    const PrivateKey& key = *s.key();
    const std::string key_text = KeyText(key);
    Ref<Certificate> certificate = MustParse<Certificate>(Body(key_text));
    ASSERT_TRUE(certificate);
    const std::vector<uint8_t> bytes = Sign(key, *certificate, s.algorithm, s.hash_id);
    const std::string text =
        SignatureText(StatedHash(s, *certificate), key_text, s.algorithm, bytes);
    Ref<Signature> signature = MustParse<Signature>(text);
    ASSERT_TRUE(signature);
    EXPECT_EQ(CanonicalOf(*signature), text);
    EXPECT_EQ(VerifySignature(signature.get(), certificate.get()), VELK2_SUCCESS);

    // One changed byte of the body: the hash no longer matches.
    Ref<Certificate> changed = MustParse<Certificate>(Body(key_text, "hellp"));
    ASSERT_TRUE(changed);
    EXPECT_EQ(VerifySignature(signature.get(), changed.get()), VELK2_ERR_HASH_MISMATCH);

    // One changed byte of the signature bytes: a bad signature.
    for (size_t index : {size_t{0}, bytes.size() / 2, bytes.size() - 1}) {
      std::vector<uint8_t> bad = bytes;
      bad[index] ^= 0x01;
      Ref<Signature> tampered = MustParse<Signature>(
          SignatureText(StatedHash(s, *certificate), key_text, s.algorithm, bad));
      ASSERT_TRUE(tampered);
      EXPECT_EQ(VerifySignature(tampered.get(), certificate.get()), VELK2_ERR_SIGNATURE) << index;
    }
    // Missing or extra signature bytes.
    std::vector<uint8_t> shorter(bytes.begin(), bytes.end() - 1);
    Ref<Signature> truncated = MustParse<Signature>(
        SignatureText(StatedHash(s, *certificate), key_text, s.algorithm, shorter));
    ASSERT_TRUE(truncated);
    EXPECT_EQ(VerifySignature(truncated.get(), certificate.get()), VELK2_ERR_SIGNATURE);
    Ref<Signature> empty =
        MustParse<Signature>(SignatureText(StatedHash(s, *certificate), key_text, s.algorithm, {}));
    ASSERT_TRUE(empty);
    EXPECT_EQ(VerifySignature(empty.get(), certificate.get()), VELK2_ERR_SIGNATURE);
  }
}

// The algorithm name is compared over its own length with "rsa-pss", then
// "rsa-1.5" (and "dsa-sha1"), their terminating NUL included.
TEST(SignatureTest, AlgorithmNamesMatchAsLeadingParts) {
  const std::string key_text = KeyText(RsaKey());
  Ref<Certificate> certificate = MustParse<Certificate>(Body(key_text));
  ASSERT_TRUE(certificate);
  const std::vector<uint8_t> pss = Sign(RsaKey(), *certificate, "rsa-pss", ZCRY_HASH_SHA256);
  const std::vector<uint8_t> pkcs1 = Sign(RsaKey(), *certificate, "rsa-1.5", ZCRY_HASH_SHA256);
  const std::string hash = HashText("sha256", StoredDigest(*certificate, ZCRY_HASH_SHA256));
  struct Case {
    std::string name;
    const std::vector<uint8_t>* bytes;
    Result want;
  };
  const Case kCases[] = {
      {"rsa", &pss, VELK2_SUCCESS},  // taken as "rsa-pss"
      {"rsa", &pkcs1, VELK2_ERR_SIGNATURE},
      {"", &pss, VELK2_SUCCESS},  // the empty name too
      {"r", &pss, VELK2_SUCCESS},
      {"rsa-", &pss, VELK2_SUCCESS},
      {"rsa-1", &pkcs1, VELK2_SUCCESS},  // a leading part of "rsa-1.5" only
      {"rsa-1.", &pss, VELK2_ERR_SIGNATURE},
      {std::string("rsa-pss\0", 8), &pss, VELK2_SUCCESS},
      {std::string("rsa-1.5\0", 8), &pkcs1, VELK2_SUCCESS},
      {std::string("rsa-pss\0x", 9), &pss, VELK2_ERR_SIGNATURE_ID},
      {"rsa-pss-sha256", &pss, VELK2_ERR_SIGNATURE_ID},
      {"rsa-1.5x", &pkcs1, VELK2_ERR_SIGNATURE_ID},
      {"RSA-PSS", &pss, VELK2_ERR_SIGNATURE_ID},
      {"dsa-sha1", &pss, VELK2_ERR_SIGNATURE_ID},
      {"rsa-pkcs", &pkcs1, VELK2_ERR_SIGNATURE_ID},
  };
  for (const Case& c : kCases) {
    Ref<Signature> signature =
        MustParse<Signature>(SignatureText(hash, key_text, c.name, *c.bytes));
    ASSERT_TRUE(signature);
    EXPECT_EQ(VerifySignature(signature.get(), certificate.get()), c.want)
        << "name of " << c.name.size() << " bytes: " << c.name.c_str();
  }

  // The same comparison for DSA keys.
  const std::string dsa_text = KeyText(DsaKey());
  Ref<Certificate> dsa_certificate = MustParse<Certificate>(Body(dsa_text));
  ASSERT_TRUE(dsa_certificate);
  const std::vector<uint8_t> dsa = Sign(DsaKey(), *dsa_certificate, "dsa-sha1", ZCRY_HASH_SHA1);
  const std::string dsa_hash = HashText("sha1", StoredDigest(*dsa_certificate, ZCRY_HASH_SHA1));
  const Case kDsaCases[] = {
      {"dsa", &dsa, VELK2_SUCCESS},
      {"dsa-sha1", &dsa, VELK2_SUCCESS},
      {"dsa-sha1x", &dsa, VELK2_ERR_SIGNATURE_ID},
      {"dsa-sha256", &dsa, VELK2_ERR_SIGNATURE_ID},
      {"rsa-pss", &dsa, VELK2_ERR_SIGNATURE_ID},
  };
  for (const Case& c : kDsaCases) {
    Ref<Signature> signature =
        MustParse<Signature>(SignatureText(dsa_hash, dsa_text, c.name, *c.bytes));
    ASSERT_TRUE(signature);
    EXPECT_EQ(VerifySignature(signature.get(), dsa_certificate.get()), c.want) << c.name;
  }
}

TEST(SignatureTest, HashAlgorithmRules) {
  const std::string key_text = KeyText(RsaKey());
  Ref<Certificate> certificate = MustParse<Certificate>(Body(key_text));
  ASSERT_TRUE(certificate);
  const std::vector<uint8_t> bytes = Sign(RsaKey(), *certificate, "rsa-pss", ZCRY_HASH_SHA1);
  // RSA accepts "sha1" and "sha256" hash values only.
  Ref<Signature> rmd = MustParse<Signature>(
      SignatureText(HashText("rmd160", StoredDigest(*certificate, ZCRY_HASH_RIPEMD160)), key_text,
                    "rsa-pss", bytes));
  ASSERT_TRUE(rmd);
  EXPECT_EQ(VerifySignature(rmd.get(), certificate.get()), VELK2_ERR_SIGNATURE_ID);
  // A stated digest of another algorithm than the one signed: its digest differs.
  Ref<Signature> other = MustParse<Signature>(
      SignatureText(HashText("sha256", StoredDigest(*certificate, ZCRY_HASH_SHA256)), key_text,
                    "rsa-pss", bytes));
  ASSERT_TRUE(other);
  EXPECT_EQ(VerifySignature(other.get(), certificate.get()), VELK2_ERR_SIGNATURE);

  // DSA always hashes with SHA-1: a "sha256" hash value holding the real
  // SHA-256 digest does not match.
  const std::string dsa_text = KeyText(DsaKey());
  Ref<Certificate> dsa_certificate = MustParse<Certificate>(Body(dsa_text));
  ASSERT_TRUE(dsa_certificate);
  const std::vector<uint8_t> dsa = Sign(DsaKey(), *dsa_certificate, "dsa-sha1", ZCRY_HASH_SHA1);
  Ref<Signature> sha256 = MustParse<Signature>(
      SignatureText(HashText("sha256", StoredDigest(*dsa_certificate, ZCRY_HASH_SHA256)), dsa_text,
                    "dsa-sha1", dsa));
  ASSERT_TRUE(sha256);
  EXPECT_EQ(VerifySignature(sha256.get(), dsa_certificate.get()), VELK2_ERR_HASH_MISMATCH);
  // Nor does "rmd160" with its own digest; with the SHA-1 digest it does.
  Ref<Signature> rmd_dsa = MustParse<Signature>(
      SignatureText(HashText("rmd160", StoredDigest(*dsa_certificate, ZCRY_HASH_SHA1)), dsa_text,
                    "dsa-sha1", dsa));
  ASSERT_TRUE(rmd_dsa);
  EXPECT_EQ(VerifySignature(rmd_dsa.get(), dsa_certificate.get()), VELK2_SUCCESS);
}

TEST(SignatureTest, SignerMustBeTheIssuerBeforeAnyCryptoWork) {
  const std::string issuer_text = KeyText(RsaKey());
  const std::string other_text = KeyText(OtherRsaKey());
  Ref<Certificate> certificate = MustParse<Certificate>(Body(issuer_text));
  ASSERT_TRUE(certificate);
  const std::string hash = HashText("sha256", StoredDigest(*certificate, ZCRY_HASH_SHA256));

  // A good signature by another key, naming that key: not the issuer.
  const std::vector<uint8_t> by_other =
      Sign(OtherRsaKey(), *certificate, "rsa-pss", ZCRY_HASH_SHA256);
  Ref<Signature> other = MustParse<Signature>(SignatureText(hash, other_text, "rsa-pss", by_other));
  ASSERT_TRUE(other);
  EXPECT_EQ(VerifySignature(other.get(), certificate.get()), VELK2_ERR_SIGNATURE);
  // With a wrong hash value and a bad algorithm name as well, the issuer
  // check still answers first (21, not 22 or 15).
  Ref<Signature> worse = MustParse<Signature>(SignatureText(
      HashText("sha256", std::vector<uint8_t>(32, 0)), other_text, "bogus", by_other));
  ASSERT_TRUE(worse);
  EXPECT_EQ(VerifySignature(worse.get(), certificate.get()), VELK2_ERR_SIGNATURE);

  // The issuer given as a key only matches that key, not its hash.
  Ref<PublicKey> issuer_key = MustParse<PublicKey>(issuer_text);
  ASSERT_TRUE(issuer_key);
  const std::string key_hash = HashText("sha256", StoredDigest(*issuer_key, ZCRY_HASH_SHA256));
  const std::vector<uint8_t> by_issuer = Sign(RsaKey(), *certificate, "rsa-pss", ZCRY_HASH_SHA256);
  Ref<Signature> by_hash =
      MustParse<Signature>(SignatureText(hash, key_hash, "rsa-pss", by_issuer));
  ASSERT_TRUE(by_hash);
  EXPECT_EQ(VerifySignature(by_hash.get(), certificate.get()), VELK2_ERR_SIGNATURE);

  // An issuer and signer that are the same hash: a hash cannot verify (18).
  Ref<Certificate> hashed = MustParse<Certificate>(Body(key_hash));
  ASSERT_TRUE(hashed);
  EXPECT_EQ(VerifySignature(by_hash.get(), hashed.get()), VELK2_ERR_NOT_IMPLEMENTED);

  // Objects without an issuer and missing arguments.
  Ref<HashValue> not_signed = MustParse<HashValue>(key_hash);
  ASSERT_TRUE(not_signed);
  EXPECT_EQ(VerifySignature(other.get(), not_signed.get()), VELK2_ERR_SIGNATURE);
  EXPECT_EQ(VerifySignature(other.get(), nullptr), VELK2_ERR_PARAM_NULL);
  EXPECT_EQ(VerifySignature(nullptr, certificate.get()), VELK2_ERR_PARAM_NULL);
}

TEST(SignatureTest, VerificationRoutinesRefuseMissingArguments) {
  Ref<PublicKey> key = MustParse<PublicKey>(KeyText(RsaKey()));
  Ref<HashValue> hash = MustParse<HashValue>(HashText("sha1", std::vector<uint8_t>(20, 1)));
  Ref<SexpAtom> atom = SexpAtom::New();
  ASSERT_TRUE(key && hash);
  using Routine = Result (*)(const PublicKey*, const SexpAtom*, const SexpAtom*, const HashValue*,
                             const SexpObject*);
  for (Routine routine : {&VerifyRsaObjectSignature, &VerifyDsaObjectSignature}) {
    EXPECT_EQ(routine(nullptr, atom.get(), atom.get(), hash.get(), hash.get()),
              VELK2_ERR_INVALID_PARAM);
    EXPECT_EQ(routine(key.get(), nullptr, atom.get(), hash.get(), hash.get()),
              VELK2_ERR_INVALID_PARAM);
    EXPECT_EQ(routine(key.get(), atom.get(), nullptr, hash.get(), hash.get()),
              VELK2_ERR_INVALID_PARAM);
    EXPECT_EQ(routine(key.get(), atom.get(), atom.get(), nullptr, hash.get()),
              VELK2_ERR_INVALID_PARAM);
    EXPECT_EQ(routine(key.get(), atom.get(), atom.get(), hash.get(), nullptr),
              VELK2_ERR_INVALID_PARAM);
  }
  // A DSA routine reached with an RSA key: the crypto module refuses the scheme.
  Ref<SexpAtom> name = SexpAtom::New();
  ASSERT_EQ(name->AssignBytes("dsa-sha1", 8), VELK2_SUCCESS);
  const std::vector<uint8_t> digest = StoredDigest(*hash, ZCRY_HASH_SHA1);
  Ref<HashValue> stated = MustParse<HashValue>(HashText("sha1", digest));
  Ref<SexpAtom> bytes = SexpAtom::New();
  ASSERT_EQ(bytes->AssignBytes(std::string(40, 'x').data(), 40), VELK2_SUCCESS);
  EXPECT_EQ(VerifyDsaObjectSignature(key.get(), name.get(), bytes.get(), stated.get(), hash.get()),
            ZCRY_E_BAD_SCHEME);
}

TEST(SignatureTest, ParsesItsFormAndRefusesOthers) {
  const std::string key_text = KeyText(RsaKey());
  const std::string hash = HashText("sha1", std::vector<uint8_t>(20, 3));
  const std::string good = "(9:signature" + hash + key_text + "(7:rsa-pss3:abc))";
  Ref<Signature> signature = MustParse<Signature>(good);
  ASSERT_TRUE(signature);
  EXPECT_EQ(CanonicalOf(*signature), good);
  ASSERT_EQ(signature->ChildCount(), 4u);
  EXPECT_EQ(signature->ChildAt(1), signature->hash_value());
  EXPECT_EQ(signature->ChildAt(2), signature->signer());
  EXPECT_EQ(signature->algorithm()->bytes(), "rsa-pss");
  EXPECT_EQ(signature->signature_bytes()->bytes(), "abc");
  EXPECT_NE(PublicKey::From(signature->signer()), nullptr);

  // A signer given as a hash reads too.
  Ref<Signature> by_hash =
      MustParse<Signature>("(9:signature" + hash + hash + "(8:dsa-sha13:abc))");
  ASSERT_TRUE(by_hash);
  EXPECT_NE(HashValue::From(by_hash->signer()), nullptr);

  struct Case {
    std::string text;
    Result want;
  };
  const Case kCases[] = {
      {"(9:signaturx" + hash, VELK2_ERR_INVALID_DATA},
      {"(9:signature(4:hash3:md520:01234567890123456789)", VELK2_ERR_HASH_ID},
      {"(9:signature" + hash +
           "(6:k-of-n1:\x01"
           "1:\x01" +
           key_text + ")(7:rsa-pss3:abc))",
       VELK2_ERR_PRINCIPAL},
      {"(9:signature" + hash + "3:abc(7:rsa-pss3:abc))", VELK2_ERR_PRINCIPAL},
      {"(9:signature" + hash, VELK2_ERR_PRINCIPAL},
      {"(9:signature" + hash + key_text + "7:rsa-pss3:abc))", VELK2_ERR_INVALID_DATA},
      {"(9:signature" + hash + key_text + "(7:rsa-pss3:abc)", VELK2_ERR_FILE_OPEN},
      {"(9:signature" + hash + key_text + "(7:rsa-pss3:abc3:xyz))", VELK2_ERR_INVALID_DATA},
      {"(9:signature" + hash + key_text + "(7:rsa-pss))", VELK2_ERR_INVALID_DATA},
      {"(9:signature" + hash + key_text + "((7:rsa-pss)3:abc))", VELK2_ERR_INVALID_DATA},
  };
  for (const Case& c : kCases) {
    Result result = VELK2_SUCCESS;
    ParseAs<Signature>(c.text, &result);
    EXPECT_EQ(result, c.want) << c.text.substr(0, 60);
  }
  EXPECT_EQ(Signature::New()->Parse(nullptr), VELK2_ERR_INVALID_PARAM);
}

TEST(SignatureTest, ReadPrincipalPeeksTheKind) {
  struct Case {
    std::string text;
    uint32_t want_class;
    Result want;
  };
  const Case kCases[] = {
      {KeyText(DsaKey()), kClassPublicKey, VELK2_SUCCESS},
      {HashText("sha1", std::vector<uint8_t>(20, 9)), kClassHashValue, VELK2_SUCCESS},
      {"(6:k-of-n1:\x01"
       "1:\x01)",
       0, VELK2_ERR_PRINCIPAL},
      {"(5:hello)", 0, VELK2_ERR_PRINCIPAL},
      {"(", 0, VELK2_ERR_PRINCIPAL},
      {"", 0, VELK2_ERR_PRINCIPAL},
      // The peek only looks at two bytes; the reader then checks the rest.
      {"(10:public-kex(3:rsa(1:e", 0, VELK2_ERR_INVALID_DATA},
      {"(4:hasp4:sha1", 0, VELK2_ERR_INVALID_DATA},
  };
  for (const Case& c : kCases) {
    SexpMemorySource source;
    if (!c.text.empty()) {
      ASSERT_EQ(source.AttachCopy(c.text.data(), c.text.size()), 0u);
    }
    Ref<Principal> principal;
    EXPECT_EQ(ReadPrincipal(&source, &principal, nullptr), c.want) << c.text;
    if (c.want == VELK2_SUCCESS) {
      ASSERT_TRUE(principal);
      EXPECT_EQ(principal->ClassFlag(), c.want_class);
    } else {
      EXPECT_FALSE(principal);
    }
  }
}

TEST(SignatureTest, BuildMakesTheSameSignatureAsParsing) {
  const std::string key_text = KeyText(RsaKey());
  const std::string hash_text = HashText("sha256", std::vector<uint8_t>(32, 4));
  const std::vector<uint8_t> bytes = {1, 2, 3, 0, 255};
  Ref<HashValue> hash = MustParse<HashValue>(hash_text);
  Ref<PublicKey> key = MustParse<PublicKey>(key_text);
  ASSERT_TRUE(hash && key);
  Ref<Signature> built = Signature::New();
  ASSERT_EQ(built->Build(hash.get(), key.get(), "rsa-1.5", bytes.data(), 5), VELK2_SUCCESS);
  EXPECT_EQ(CanonicalOf(*built), SignatureText(hash_text, key_text, "rsa-1.5", bytes));
  EXPECT_EQ(built->signer(), key.get());
  EXPECT_EQ(built->Build(hash.get(), key.get(), "rsa-1.5", bytes.data(), 5),
            VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(Signature::New()->Build(hash.get(), key.get(), "", bytes.data(), 5),
            VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(Signature::New()->Build(HashValue::New().get(), key.get(), "x", bytes.data(), 5),
            VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(Signature::New()->Build(hash.get(), nullptr, "x", bytes.data(), 5),
            VELK2_ERR_INVALID_PARAM);
  std::vector<uint8_t> huge(kMaxAtomLength + 1);
  EXPECT_EQ(Signature::New()->Build(hash.get(), key.get(), "x", huge.data(),
                                    static_cast<uint32_t>(huge.size())),
            VELK2_ERR_MAX_BYTE_STRING);
}

}  // namespace
}  // namespace velk2::testing
