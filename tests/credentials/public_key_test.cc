#include "credentials/public_key.h"

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>
#include <vector>

#include "credentials/hash_value.h"
#include "credentials/signature.h"
#include "credentials_test_util.h"

namespace velk2::testing {
namespace {

using issuing::KeyType;
using issuing::PrivateKey;

// A small RSA key written by hand: a 3-byte exponent and a 128-byte modulus.
std::string SmallRsaKeyText(const std::string& e, const std::string& n) {
  return "(10:public-key(3:rsa(1:e" + Atom(e) + ")(1:n" + Atom(n) + ")))";
}

std::string Modulus1024() {
  // The modulus of the toolkit key would do, but a fixed odd 1024-bit value
  // keeps this table independent of key generation.
  std::string n(128, '\xC3');
  n[127] = '\x01';
  return n;
}

TEST(PublicKeyTest, ReadsRsaAndDsaKeysBackToTheirText) {
  struct Case {
    std::string text;
    KeyType type;
    const char* name;
  };
  const Case kCases[] = {
      {SmallRsaKeyText(std::string("\x01\x00\x01", 3), Modulus1024()), KeyType::kRsa, "rsa"},
      {KeyText(RsaKey()), KeyType::kRsa, "rsa"},
      {KeyText(DsaKey()), KeyType::kDsa, "dsa"},
  };
  for (const Case& c : kCases) {
    Ref<PublicKey> key = MustParse<PublicKey>(c.text);
    ASSERT_TRUE(key);
    EXPECT_EQ(key->type(), c.type == KeyType::kRsa ? kKeyRsa : kKeyDsa);
    EXPECT_STREQ(key->algorithm_name(), c.name);
    EXPECT_NE(key->handle(), nullptr);
    EXPECT_EQ(CanonicalOf(*key), c.text);
    EXPECT_EQ(StoredOf(*key), c.text);
    EXPECT_EQ(PublicKey::From(key.get()), key.get());
    EXPECT_EQ(HashValue::From(key.get()), nullptr);
  }
  Ref<PublicKey> small =
      MustParse<PublicKey>(SmallRsaKeyText(std::string("\x01\x00\x01", 3), Modulus1024()));
  ASSERT_TRUE(small);
  EXPECT_EQ(small->data_word(), 1024u);
}

TEST(PublicKeyTest, RefusesOtherFormsWithTheirCodes) {
  const std::string e("\x01\x00\x01", 3);
  const std::string n = Modulus1024();
  const std::string p = Atom(DsaKey().Parameter("p")), g = Atom(DsaKey().Parameter("g")),
                    q = Atom(DsaKey().Parameter("q")), y = Atom(DsaKey().Parameter("y"));
  struct Case {
    std::string text;
    Result want;
  };
  const Case kCases[] = {
      // n before e, q before g: the order is part of the format.
      {"(10:public-key(3:rsa(1:n" + Atom(n) + ")(1:e" + Atom(e) + ")))", VELK2_ERR_INVALID_DATA},
      {"(10:public-key(3:dsa(1:p" + p + ")(1:q" + q + ")(1:g" + g + ")(1:y" + y + ")))",
       VELK2_ERR_INVALID_DATA},
      // Any other first letter of the algorithm name.
      {"(10:public-key(3:ecc(1:q" + Atom(n) + ")))", VELK2_ERR_PARSE_FILE},
      {"(10:public-key(3:", VELK2_ERR_PARSE_FILE},
      // The whole name is checked by its literal.
      {"(10:public-key(3:rsb(1:e" + Atom(e) + ")(1:n" + Atom(n) + ")))", VELK2_ERR_INVALID_DATA},
      {"(10:public-key(5:rsa-2(1:e" + Atom(e) + ")))", VELK2_ERR_INVALID_DATA},
      // Extra or missing fields, missing parentheses.
      {"(10:public-key(3:rsa(1:e" + Atom(e) + ")(1:n" + Atom(n) + ")(1:x1:0)))",
       VELK2_ERR_INVALID_DATA},
      {"(10:public-key(3:rsa(1:e" + Atom(e) + ")))(3:tag)", VELK2_ERR_INVALID_DATA},
      {"(10:public-key(3:rsa(1:e" + Atom(e) + ")))", VELK2_ERR_FILE_OPEN},
      {"(10:public-key(3:rsa(1:e" + Atom(e) + ")(1:n" + Atom(n) + "))", VELK2_ERR_FILE_OPEN},
      {"(10:public-key(3:rsa(1:e" + Atom(e) + ")(1:n" + Atom(n) + ")))x", VELK2_SUCCESS},
      {"(10:public-key(3:rsa(1:e" + Atom(e) + ")(1:n" + Atom(n) + "))x)", VELK2_ERR_INVALID_DATA},
      {"(10:public-key(3:rsa(1:e" + Atom(e) + ")(1:n" + Atom(n) + ")()", VELK2_ERR_INVALID_DATA},
      {"(10:PUBLIC-key(3:rsa", VELK2_ERR_INVALID_DATA},
      {"(10:public-key(3:rsa(1:e9:", VELK2_ERR_PARSE_FILE},
      // Numbers that form no usable key: the crypto module's code.
      {SmallRsaKeyText(e, std::string(128, '\x02')), ZCRY_E_BAD_KEY},
      {SmallRsaKeyText("", n), ZCRY_E_BAD_KEY},
      {"(10:public-key(3:dsa(1:p" + p + ")(1:g" + g + ")(1:q" + Atom("\x05") + ")(1:y" + y + ")))",
       ZCRY_E_BAD_KEY},
  };
  for (const Case& c : kCases) {
    Result result = VELK2_FAILURE;
    ParseAs<PublicKey>(c.text, &result);
    EXPECT_EQ(result, c.want) << c.text.substr(0, 40);
  }
  EXPECT_EQ(PublicKey::New()->Parse(nullptr), VELK2_ERR_INVALID_PARAM);
}

TEST(PublicKeyTest, IsReadOnceAndVerifiesNothingUnread) {
  Ref<PublicKey> key = PublicKey::New();
  EXPECT_EQ(std::u16string(key->FileExtension()), u".pub");
  // A key that never parsed has no handle and verifies nothing.
  EXPECT_EQ(key->type(), kKeyNone);
  EXPECT_EQ(key->VerifyObjectSignature(nullptr, nullptr, nullptr, nullptr),
            VELK2_ERR_NOT_IMPLEMENTED);
  // A read key keeps its handle: a second read is refused.
  Ref<PublicKey> read = MustParse<PublicKey>(KeyText(DsaKey()));
  ASSERT_TRUE(read);
  const ZCRY_PUBLIC_KEY handle = read->handle();
  EXPECT_EQ(read->Parse(Source(KeyText(RsaKey())).get()), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(read->handle(), handle);
  EXPECT_EQ(read->type(), kKeyDsa);
}

// The export bytes are the key's DER SubjectPublicKeyInfo: OpenSSL reads them
// back to the toolkit key's numbers.
TEST(PublicKeyTest, ExportsTheKeyAsSubjectPublicKeyInfo) {
  struct Case {
    const PrivateKey* key;
    std::vector<const char*> parameters;
  };
  const Case kCases[] = {
      {&RsaKey(), {OSSL_PKEY_PARAM_RSA_E, OSSL_PKEY_PARAM_RSA_N}},
      {&DsaKey(),
       {OSSL_PKEY_PARAM_FFC_P, OSSL_PKEY_PARAM_FFC_Q, OSSL_PKEY_PARAM_FFC_G,
        OSSL_PKEY_PARAM_PUB_KEY}},
  };
  for (const Case& c : kCases) {
    Ref<PublicKey> key = MustParse<PublicKey>(KeyText(*c.key));
    ASSERT_TRUE(key);
    CBuffer<uint8_t> bytes;
    uint32_t length = 0;
    ASSERT_EQ(key->ExportKey(&bytes, &length), VELK2_SUCCESS);
    ASSERT_NE(bytes, nullptr);
    const unsigned char* cursor = bytes.get();
    EVP_PKEY* decoded = d2i_PUBKEY(nullptr, &cursor, length);
    ASSERT_NE(decoded, nullptr);
    EXPECT_EQ(cursor, bytes.get() + length);
    const bool rsa = c.key->type() == KeyType::kRsa;
    const char* const kToolkitNames[] = {"e", "n"};
    const char* const kDsaToolkitNames[] = {"p", "q", "g", "y"};
    for (size_t i = 0; i < c.parameters.size(); ++i) {
      BIGNUM* number = nullptr;
      ASSERT_EQ(EVP_PKEY_get_bn_param(decoded, c.parameters[i], &number), 1);
      const std::vector<uint8_t> want =
          c.key->Parameter(rsa ? kToolkitNames[i] : kDsaToolkitNames[i]);
      BIGNUM* expected = BN_bin2bn(want.data(), static_cast<int>(want.size()), nullptr);
      EXPECT_EQ(BN_cmp(number, expected), 0) << c.parameters[i];
      BN_free(number);
      BN_free(expected);
    }
    EVP_PKEY_free(decoded);

    // The out buffer must be empty on entry.
    uint32_t again = 0;
    EXPECT_EQ(key->ExportKey(&bytes, &again), VELK2_ERR_INVALID_PARAM);
  }
  // A key without a handle: the crypto module's refusal.
  CBuffer<uint8_t> bytes;
  uint32_t length = 0;
  EXPECT_EQ(PublicKey::New()->ExportKey(&bytes, &length), ZCRY_E_NULL_ARGUMENT);
}

// ---- Blob signatures -----------------------------------------------------------

class BlobSignatureTest : public ::testing::Test {
 protected:
  // |leading| followed by the DSA signature of SHA-1(leading || data).
  std::vector<uint8_t> MakeBlob(const std::string& leading, const std::string& data) {
    const std::vector<uint8_t> digest = DigestOf(ZCRY_HASH_SHA1, leading + data);
    std::vector<uint8_t> signature;
    EXPECT_EQ(
        DsaKey().SignDigest("dsa-sha1", ZCRY_HASH_SHA1, digest.data(), digest.size(), &signature),
        VELK2_SUCCESS);
    std::vector<uint8_t> blob(leading.begin(), leading.end());
    blob.insert(blob.end(), signature.begin(), signature.end());
    return blob;
  }
  Ref<SexpAtom> Name(const std::string& name) {
    Ref<SexpAtom> atom = SexpAtom::New();
    EXPECT_EQ(atom->AssignBytes(name.data(), static_cast<uint32_t>(name.size())), VELK2_SUCCESS);
    return atom;
  }
};

TEST_F(BlobSignatureTest, VerifiesTheSignatureOverLeadingPartAndData) {
  Ref<PublicKey> key = MustParse<PublicKey>(KeyText(DsaKey()));
  ASSERT_TRUE(key);
  const std::string leading = "BLOB-HEADER-14";
  ASSERT_EQ(leading.size(), kBlobLeadingBytes);
  const std::string data = "data that is not an S-expression";
  std::vector<uint8_t> blob = MakeBlob(leading, data);
  ASSERT_EQ(blob.size(), kBlobBytes);
  const auto* bytes = reinterpret_cast<const uint8_t*>(data.data());
  const uint32_t size = static_cast<uint32_t>(data.size());

  struct Case {
    const char* name;
    Result want;
  };
  const Case kCases[] = {{"dsa-sha1", VELK2_SUCCESS},
                         {"dsa", VELK2_SUCCESS},  // a leading part of the name
                         {"dsa-sha1x", VELK2_ERR_SIGNATURE_ID},
                         {"rsa-pss", VELK2_ERR_SIGNATURE_ID}};
  for (const Case& c : kCases) {
    EXPECT_EQ(key->VerifyBlobSignature(Name(c.name).get(), blob.data(), kBlobBytes, bytes, size),
              c.want)
        << c.name;
  }
  Ref<SexpAtom> name = Name("dsa-sha1");
  // Changed data, leading part or signature byte.
  std::string changed = data;
  changed[0] ^= 1;
  EXPECT_EQ(key->VerifyBlobSignature(name.get(), blob.data(), kBlobBytes,
                                     reinterpret_cast<const uint8_t*>(changed.data()), size),
            VELK2_ERR_SIGNATURE);
  for (size_t index : {size_t{0}, size_t{13}, size_t{14}, size_t{53}}) {
    std::vector<uint8_t> bad = blob;
    bad[index] ^= 0x40;
    EXPECT_EQ(key->VerifyBlobSignature(name.get(), bad.data(), kBlobBytes, bytes, size),
              VELK2_ERR_SIGNATURE)
        << index;
  }
  // Bytes after the 54 of the blob are not part of it.
  std::vector<uint8_t> longer = blob;
  longer.push_back(0xEE);
  EXPECT_EQ(key->VerifyBlobSignature(name.get(), longer.data(), kBlobBytes + 1, bytes, size),
            VELK2_SUCCESS);
  EXPECT_EQ(key->VerifyBlobSignature(name.get(), blob.data(), kBlobBytes - 1, bytes, size),
            VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(key->VerifyBlobSignature(nullptr, blob.data(), kBlobBytes, bytes, size),
            VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(key->VerifyBlobSignature(name.get(), nullptr, kBlobBytes, bytes, size),
            VELK2_ERR_INVALID_PARAM);

  // Empty data: the signature covers the leading part alone.
  std::vector<uint8_t> empty_blob = MakeBlob(leading, "");
  EXPECT_EQ(key->VerifyBlobSignature(name.get(), empty_blob.data(), kBlobBytes, nullptr, 0),
            VELK2_SUCCESS);

  // Only a DSA key verifies blobs.
  Ref<PublicKey> rsa = MustParse<PublicKey>(KeyText(RsaKey()));
  ASSERT_TRUE(rsa);
  EXPECT_EQ(rsa->VerifyBlobSignature(name.get(), blob.data(), kBlobBytes, bytes, size),
            VELK2_ERR_NOT_IMPLEMENTED);
  Ref<HashValue> hash = HashValue::New();
  EXPECT_EQ(hash->VerifyBlobSignature(name.get(), blob.data(), kBlobBytes, bytes, size),
            VELK2_ERR_NOT_IMPLEMENTED);
}

}  // namespace
}  // namespace velk2::testing
