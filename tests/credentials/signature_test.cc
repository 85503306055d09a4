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

// Signs the digest of |object|'s stored form with |key|.
std::vector<uint8_t> Sign(const PrivateKey& key, const SexpObject& object,
                          const std::string& algorithm, uint32_t hash_id) {
  const std::vector<uint8_t> digest = StoredDigest(object, hash_id);
  std::vector<uint8_t> signature;
  EXPECT_EQ(key.SignDigest(algorithm, hash_id, digest.data(), digest.size(), &signature),
            VELK2_SUCCESS);
  return signature;
}

// Reads |signature_text| and verifies it over |object| (1 when it does not read).
Result Check(const std::string& signature_text, const Credential* object) {
  Ref<Signature> signature = MustParse<Signature>(signature_text);
  return signature ? VerifySignature(signature.get(), object) : VELK2_FAILURE;
}

// Signs a body issued by the DSA or the RSA toolkit key as |signed_as| over
// |sign_hash|; the signature states the |stated_id| digest of the body under
// |stated_name| and names the algorithm |name|. The result of verifying it.
Result SignAndCheck(bool dsa, const char* signed_as, uint32_t sign_hash, const char* stated_name,
                    uint32_t stated_id, const std::string& name) {
  const PrivateKey& key = dsa ? DsaKey() : RsaKey();
  const std::string key_text = KeyText(key);
  Ref<Certificate> certificate = MustParse<Certificate>(Body(key_text));
  if (!certificate) return VELK2_FAILURE;
  const std::string hash = HashText(stated_name, StoredDigest(*certificate, stated_id));
  return Check(SignatureText(hash, key_text, name, Sign(key, *certificate, signed_as, sign_hash)),
               certificate.get());
}

TEST(SignatureTest, ToolkitSignaturesVerifyAndChangesAreCaught) {
  // Every algorithm name with both hashes. A DSA key signs SHA-1 digests; its
  // hash value may still say "sha256" when its first 20 bytes are the SHA-1
  // digest (the object is always hashed with SHA-1 for DSA).
  struct Scheme {
    bool dsa;
    const char* algorithm;
    uint32_t hash_id;
    const char* hash_name;
  };
  const Scheme kSchemes[] = {
      {false, "rsa-pss", ZCRY_HASH_SHA1, "sha1"}, {false, "rsa-pss", ZCRY_HASH_SHA256, "sha256"},
      {false, "rsa-1.5", ZCRY_HASH_SHA1, "sha1"}, {false, "rsa-1.5", ZCRY_HASH_SHA256, "sha256"},
      {true, "dsa-sha1", ZCRY_HASH_SHA1, "sha1"}, {true, "dsa-sha1", ZCRY_HASH_SHA1, "sha256"},
  };
  for (const Scheme& s : kSchemes) {
    SCOPED_TRACE(std::string(s.algorithm) + "/" + s.hash_name);
    const PrivateKey& key = s.dsa ? DsaKey() : RsaKey();
    const std::string key_text = KeyText(key);
    Ref<Certificate> certificate = MustParse<Certificate>(Body(key_text));
    Ref<Certificate> changed = MustParse<Certificate>(Body(key_text, "hellp"));
    ASSERT_TRUE(certificate && changed);
    std::vector<uint8_t> digest = StoredDigest(*certificate, s.hash_id);
    digest.resize(std::string(s.hash_name) == "sha256" ? 32 : 20, 0xEE);
    const std::vector<uint8_t> bytes = Sign(key, *certificate, s.algorithm, s.hash_id);
    auto text = [&](const std::vector<uint8_t>& signature_bytes) {
      return SignatureText(HashText(s.hash_name, digest), key_text, s.algorithm, signature_bytes);
    };
    EXPECT_EQ(Check(text(bytes), certificate.get()), VELK2_SUCCESS);
    // One changed byte of the body: the hash no longer matches.
    EXPECT_EQ(Check(text(bytes), changed.get()), VELK2_ERR_HASH_MISMATCH);
    // One changed byte of the signature bytes, or no bytes at all: a bad signature.
    std::vector<uint8_t> bad = bytes;
    bad[bytes.size() / 2] ^= 0x01;
    EXPECT_EQ(Check(text(bad), certificate.get()), VELK2_ERR_SIGNATURE);
    EXPECT_EQ(Check(text({}), certificate.get()), VELK2_ERR_SIGNATURE);
  }
}

// The algorithm name is compared over its own length with "rsa-pss", then
// "rsa-1.5" (or "dsa-sha1"), their terminating NUL included.
TEST(SignatureTest, AlgorithmNamesMatchAsLeadingParts) {
  struct Case {
    bool dsa;
    std::string name;
    const char* signed_as;
    Result want;
  };
  const Case kCases[] = {
      {false, "rsa", "rsa-pss", VELK2_SUCCESS},  // taken as "rsa-pss"
      {false, "rsa", "rsa-1.5", VELK2_ERR_SIGNATURE},
      {false, "", "rsa-pss", VELK2_SUCCESS},       // the empty name too
      {false, "rsa-1", "rsa-1.5", VELK2_SUCCESS},  // a leading part of "rsa-1.5" only
      {false, "rsa-1.", "rsa-pss", VELK2_ERR_SIGNATURE},
      {false, std::string("rsa-pss\0", 8), "rsa-pss", VELK2_SUCCESS},
      {false, std::string("rsa-1.5\0", 8), "rsa-1.5", VELK2_SUCCESS},
      {false, std::string("rsa-pss\0x", 9), "rsa-pss", VELK2_ERR_SIGNATURE_ID},
      {false, "rsa-pss-sha256", "rsa-pss", VELK2_ERR_SIGNATURE_ID},
      {false, "RSA-PSS", "rsa-pss", VELK2_ERR_SIGNATURE_ID},
      {false, "dsa-sha1", "rsa-pss", VELK2_ERR_SIGNATURE_ID},
      {true, "dsa", "dsa-sha1", VELK2_SUCCESS},
      {true, std::string("dsa-sha1\0", 9), "dsa-sha1", VELK2_SUCCESS},
      {true, "dsa-sha1x", "dsa-sha1", VELK2_ERR_SIGNATURE_ID},
      {true, "rsa-pss", "dsa-sha1", VELK2_ERR_SIGNATURE_ID},
  };
  for (const Case& c : kCases) {
    const uint32_t hash_id = c.dsa ? ZCRY_HASH_SHA1 : ZCRY_HASH_SHA256;
    EXPECT_EQ(SignAndCheck(c.dsa, c.signed_as, hash_id, c.dsa ? "sha1" : "sha256", hash_id, c.name),
              c.want)
        << "name of " << c.name.size() << " bytes: " << c.name.c_str();
  }
}

TEST(SignatureTest, HashAlgorithmRules) {
  struct Case {
    bool dsa;  // signed as "dsa-sha1", else as "rsa-pss"; both over SHA-1
    const char* stated_name;
    uint32_t stated_id;  // the digest the hash value holds
    Result want;
  };
  const Case kCases[] = {
      // RSA accepts "sha1" and "sha256" hash values only.
      {false, "rmd160", ZCRY_HASH_RIPEMD160, VELK2_ERR_SIGNATURE_ID},
      // A stated digest of another algorithm than the one signed: its digest differs.
      {false, "sha256", ZCRY_HASH_SHA256, VELK2_ERR_SIGNATURE},
      // DSA always hashes with SHA-1: a "sha256" hash value holding the real
      // SHA-256 digest does not match, an "rmd160" one with the SHA-1 digest does.
      {true, "sha256", ZCRY_HASH_SHA256, VELK2_ERR_HASH_MISMATCH},
      {true, "rmd160", ZCRY_HASH_SHA1, VELK2_SUCCESS},
  };
  for (const Case& c : kCases) {
    const char* algorithm = c.dsa ? "dsa-sha1" : "rsa-pss";
    EXPECT_EQ(SignAndCheck(c.dsa, algorithm, ZCRY_HASH_SHA1, c.stated_name, c.stated_id, algorithm),
              c.want)
        << c.stated_name;
  }
}

TEST(SignatureTest, SignerMustBeTheIssuerBeforeAnyCryptoWork) {
  const std::string issuer_text = KeyText(RsaKey()), other_text = KeyText(OtherRsaKey());
  Ref<Certificate> certificate = MustParse<Certificate>(Body(issuer_text));
  Ref<PublicKey> issuer_key = MustParse<PublicKey>(issuer_text);
  ASSERT_TRUE(certificate && issuer_key);
  const std::string hash = HashText("sha256", StoredDigest(*certificate, ZCRY_HASH_SHA256));
  const std::vector<uint8_t> by_other =
      Sign(OtherRsaKey(), *certificate, "rsa-pss", ZCRY_HASH_SHA256);
  const std::vector<uint8_t> by_issuer = Sign(RsaKey(), *certificate, "rsa-pss", ZCRY_HASH_SHA256);
  // A good signature by another key, naming that key: not the issuer.
  const std::string other = SignatureText(hash, other_text, "rsa-pss", by_other);
  EXPECT_EQ(Check(other, certificate.get()), VELK2_ERR_SIGNATURE);
  // With a wrong hash value and a bad algorithm name as well, the issuer
  // check still answers first (21, not 22 or 15).
  EXPECT_EQ(Check(SignatureText(HashText("sha256", std::vector<uint8_t>(32, 0)), other_text,
                                "bogus", by_other),
                  certificate.get()),
            VELK2_ERR_SIGNATURE);
  // The issuer given as a key only matches that key, not its hash.
  const std::string key_hash = HashText("sha256", StoredDigest(*issuer_key, ZCRY_HASH_SHA256));
  const std::string by_hash = SignatureText(hash, key_hash, "rsa-pss", by_issuer);
  EXPECT_EQ(Check(by_hash, certificate.get()), VELK2_ERR_SIGNATURE);
  // An issuer and signer that are the same hash: a hash cannot verify (18).
  Ref<Certificate> hashed = MustParse<Certificate>(Body(key_hash));
  Ref<HashValue> not_signed = MustParse<HashValue>(key_hash);
  ASSERT_TRUE(hashed && not_signed);
  EXPECT_EQ(Check(by_hash, hashed.get()), VELK2_ERR_NOT_IMPLEMENTED);
  // Objects without an issuer and missing arguments.
  EXPECT_EQ(Check(other, not_signed.get()), VELK2_ERR_SIGNATURE);
  EXPECT_EQ(Check(other, nullptr), VELK2_ERR_PARAM_NULL);
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
    for (int missing = 0; missing < 5; ++missing) {
      EXPECT_EQ(routine(missing == 0 ? nullptr : key.get(), missing == 1 ? nullptr : atom.get(),
                        missing == 2 ? nullptr : atom.get(), missing == 3 ? nullptr : hash.get(),
                        missing == 4 ? nullptr : hash.get()),
                VELK2_ERR_INVALID_PARAM)
          << missing;
    }
  }
  // A DSA routine reached with an RSA key: the crypto module refuses the scheme.
  Ref<HashValue> stated =
      MustParse<HashValue>(HashText("sha1", StoredDigest(*hash, ZCRY_HASH_SHA1)));
  ASSERT_TRUE(stated);
  EXPECT_EQ(
      VerifyDsaObjectSignature(key.get(), MakeAtom("dsa-sha1").get(),
                               MakeAtom(std::string(40, 'x')).get(), stated.get(), hash.get()),
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

  ExpectParseResults<Signature>({
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
  });
  EXPECT_EQ(Signature::New()->Parse(nullptr), VELK2_ERR_INVALID_PARAM);
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
