#include "credentials/public_key.h"

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>
#include <tuple>
#include <vector>

#include "credentials/hash_value.h"
#include "credentials/signature.h"
#include "credentials_test_util.h"
#include "platform/zcry_test_util.h"

namespace velk2::testing {
namespace {

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
    decltype(kKeyRsa) type;
    const char* name;
  };
  const Case kCases[] = {
      {SmallRsaKeyText(std::string("\x01\x00\x01", 3), Modulus1024()), kKeyRsa, "rsa"},
      {KeyText(RsaKey()), kKeyRsa, "rsa"},
      {KeyText(DsaKey()), kKeyDsa, "dsa"},
  };
  for (const Case& c : kCases) {
    Ref<PublicKey> key = MustParse<PublicKey>(c.text);
    ASSERT_TRUE(key);
    EXPECT_EQ(key->type(), c.type);
    EXPECT_STREQ(key->algorithm_name(), c.name);
    EXPECT_NE(key->handle(), nullptr);
    EXPECT_EQ(CanonicalOf(*key), c.text);
    EXPECT_EQ(StoredOf(*key), c.text);
    EXPECT_EQ(PublicKey::From(key.get()), key.get());
    EXPECT_EQ(HashValue::From(key.get()), nullptr);
  }
  EXPECT_EQ(MustParse<PublicKey>(kCases[0].text)->data_word(), 1024u);
}

TEST(PublicKeyTest, RefusesOtherFormsWithTheirCodes) {
  const std::string e("\x01\x00\x01", 3);
  const std::string n = Modulus1024();
  const std::string p = Atom(DsaKey().Parameter("p")), g = Atom(DsaKey().Parameter("g")),
                    q = Atom(DsaKey().Parameter("q")), y = Atom(DsaKey().Parameter("y"));
  ExpectParseResults<PublicKey>({
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
      {"(10:PUBLIC-key(3:rsa", VELK2_ERR_INVALID_DATA},
      {"(10:public-key(3:rsa(1:e9:", VELK2_ERR_PARSE_FILE},
      // Numbers that form no usable key: the crypto module's code.
      {SmallRsaKeyText(e, std::string(128, '\x02')), ZCRY_E_BAD_KEY},
      {SmallRsaKeyText("", n), ZCRY_E_BAD_KEY},
      {"(10:public-key(3:dsa(1:p" + p + ")(1:g" + g + ")(1:q" + Atom("\x05") + ")(1:y" + y + ")))",
       ZCRY_E_BAD_KEY},
  });
  EXPECT_EQ(PublicKey::New()->Parse(nullptr), VELK2_ERR_INVALID_PARAM);
}

TEST(PublicKeyTest, IsReadOnceAndVerifiesNothingUnread) {
  Ref<PublicKey> key = PublicKey::New();
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
// back to the toolkit key's public number.
TEST(PublicKeyTest, ExportsTheKeyAsSubjectPublicKeyInfo) {
  const std::tuple<const PrivateKey*, const char*, const char*> kCases[] = {
      {&RsaKey(), "n", OSSL_PKEY_PARAM_RSA_N}, {&DsaKey(), "y", OSSL_PKEY_PARAM_PUB_KEY}};
  for (const auto& [private_key, toolkit_name, openssl_name] : kCases) {
    Ref<PublicKey> key = MustParse<PublicKey>(KeyText(*private_key));
    ASSERT_TRUE(key);
    CBuffer<uint8_t> bytes;
    uint32_t length = 0;
    ASSERT_EQ(key->ExportKey(&bytes, &length), VELK2_SUCCESS);
    ASSERT_NE(bytes, nullptr);
    const unsigned char* cursor = bytes.get();
    EVP_PKEY* decoded = d2i_PUBKEY(nullptr, &cursor, length);
    ASSERT_NE(decoded, nullptr);
    EXPECT_EQ(cursor, bytes.get() + length);
    BIGNUM* number = nullptr;
    EXPECT_EQ(EVP_PKEY_get_bn_param(decoded, openssl_name, &number), 1);
    const std::vector<uint8_t> want = private_key->Parameter(toolkit_name);
    BIGNUM* expected = BN_bin2bn(want.data(), static_cast<int>(want.size()), nullptr);
    EXPECT_EQ(BN_cmp(number, expected), 0) << toolkit_name;
    BN_free(number);
    BN_free(expected);
    EVP_PKEY_free(decoded);
    // The out buffer must be empty on entry.
    EXPECT_EQ(key->ExportKey(&bytes, &length), VELK2_ERR_INVALID_PARAM);
  }
  // A key without a handle: the crypto module's refusal.
  CBuffer<uint8_t> bytes;
  uint32_t length = 0;
  EXPECT_EQ(PublicKey::New()->ExportKey(&bytes, &length), ZCRY_E_NULL_ARGUMENT);
}

// |leading| followed by the DSA signature of SHA-1(leading || data).
std::vector<uint8_t> MakeBlob(const std::string& leading, const std::string& data) {
  const Bytes digest = Digest(ZCRY_HASH_SHA1, leading + data);
  std::vector<uint8_t> signature;
  EXPECT_EQ(
      DsaKey().SignDigest("dsa-sha1", ZCRY_HASH_SHA1, digest.data(), digest.size(), &signature),
      VELK2_SUCCESS);
  std::vector<uint8_t> blob(leading.begin(), leading.end());
  blob.insert(blob.end(), signature.begin(), signature.end());
  return blob;
}

TEST(BlobSignatureTest, VerifiesTheSignatureOverLeadingPartAndData) {
  Ref<PublicKey> key = MustParse<PublicKey>(KeyText(DsaKey()));
  Ref<PublicKey> rsa = MustParse<PublicKey>(KeyText(RsaKey()));
  ASSERT_TRUE(key && rsa);
  const std::string leading = "BLOB-HEADER-14", data = "data that is not an S-expression";
  ASSERT_EQ(leading.size(), kBlobLeadingBytes);
  std::vector<uint8_t> blob = MakeBlob(leading, data);
  ASSERT_EQ(blob.size(), kBlobBytes);
  blob.push_back(0xEE);  // bytes after the 54 of the blob are not part of it
  std::string changed = data;
  changed[0] ^= 1;
  struct Case {
    const char* name;
    int flip;  // the blob byte changed, or -1
    uint32_t length;
    const std::string& data;
    Result want;
  };
  const Case kCases[] = {
      {"dsa-sha1", -1, kBlobBytes + 1, data, VELK2_SUCCESS},
      {"dsa", -1, kBlobBytes, data, VELK2_SUCCESS},  // a leading part of the name
      {"rsa-pss", -1, kBlobBytes, data, VELK2_ERR_SIGNATURE_ID},
      {"dsa-sha1", -1, kBlobBytes, changed, VELK2_ERR_SIGNATURE},
      {"dsa-sha1", 0, kBlobBytes, data, VELK2_ERR_SIGNATURE},   // the leading part's first byte
      {"dsa-sha1", 13, kBlobBytes, data, VELK2_ERR_SIGNATURE},  // and its last
      {"dsa-sha1", 14, kBlobBytes, data, VELK2_ERR_SIGNATURE},  // the signature's first byte
      {"dsa-sha1", 53, kBlobBytes, data, VELK2_ERR_SIGNATURE},  // and its last
      {"dsa-sha1", 54, kBlobBytes + 1, data, VELK2_SUCCESS},
      {"dsa-sha1", -1, kBlobBytes - 1, data, VELK2_ERR_INVALID_PARAM},
  };
  for (const Case& c : kCases) {
    std::vector<uint8_t> bytes = blob;
    if (c.flip >= 0) bytes[c.flip] ^= 0x40;
    EXPECT_EQ(key->VerifyBlobSignature(MakeAtom(c.name).get(), bytes.data(), c.length,
                                       reinterpret_cast<const uint8_t*>(c.data.data()),
                                       static_cast<uint32_t>(c.data.size())),
              c.want)
        << c.name << " " << c.flip << " " << c.length;
  }
  Ref<SexpAtom> name = MakeAtom("dsa-sha1");
  const auto* bytes = reinterpret_cast<const uint8_t*>(data.data());
  const uint32_t size = static_cast<uint32_t>(data.size());
  EXPECT_EQ(key->VerifyBlobSignature(nullptr, blob.data(), kBlobBytes, bytes, size),
            VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(key->VerifyBlobSignature(name.get(), nullptr, kBlobBytes, bytes, size),
            VELK2_ERR_INVALID_PARAM);
  // Empty data: the signature covers the leading part alone.
  EXPECT_EQ(
      key->VerifyBlobSignature(name.get(), MakeBlob(leading, "").data(), kBlobBytes, nullptr, 0),
      VELK2_SUCCESS);
  // Only a DSA key verifies blobs.
  EXPECT_EQ(rsa->VerifyBlobSignature(name.get(), blob.data(), kBlobBytes, bytes, size),
            VELK2_ERR_NOT_IMPLEMENTED);
  EXPECT_EQ(HashValue::New()->VerifyBlobSignature(name.get(), blob.data(), kBlobBytes, bytes, size),
            VELK2_ERR_NOT_IMPLEMENTED);
}

}  // namespace
}  // namespace velk2::testing
