// Every Wycheproof signature vector in the shared test data through
// zcry_PublicKeyVerifySignature, with keys defined the way the credential code
// defines them: every valid signature accepted, every invalid one rejected,
// acceptable ones counted either way. The key export is checked against the
// DER key of each group as well.
//
// One deliberate difference: the module verifies RSA-PSS with any salt length,
// while the PSS files call a signature whose salt length differs from the
// group's invalid. Such a vector is accepted by the module; the test confirms
// with OpenSSL directly that it is a correct PSS signature with another salt
// length (it verifies with any salt length, fails with the group's) and counts
// it apart. Every other invalid vector must be rejected.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>

#include "platform/zcry.h"
#include "platform/zcry_test_util.h"

namespace velk2::testing {
namespace {

using Json = nlohmann::json;

struct VectorFile {
  const char* label;
  const char* name;
  uint32_t scheme;
};

const VectorFile kFiles[] = {
    {"RsaPkcs1Sha256", "rsa_signature_2048_sha256_test.json", ZCRY_SCHEME_RSA_PKCS1_V15},
    {"RsaPssSha256", "rsa_pss_2048_sha256_mgf1_32_test.json", ZCRY_SCHEME_RSA_PSS},
    {"RsaPssSha1", "rsa_pss_2048_sha1_mgf1_20_test.json", ZCRY_SCHEME_RSA_PSS},
    {"DsaSha1", "dsa_1024_160_sha1_test.json", ZCRY_SCHEME_DSA_SHA1},
};

// The string member |key| of |object| as bytes; fails the test if absent.
Bytes HexMember(const Json& object, const char* key) {
  const auto value = object.find(key);
  const bool present = value != object.end() && value->is_string();
  EXPECT_TRUE(present) << key;
  if (!present) return {};
  std::optional<Bytes> bytes = FromHex(value->get<std::string>());
  EXPECT_TRUE(bytes.has_value()) << key;
  return bytes.value_or(Bytes());
}

std::string StringMember(const Json& object, const char* key) {
  const auto value = object.find(key);
  return value != object.end() && value->is_string() ? value->get<std::string>() : std::string();
}

uint32_t HashId(const std::string& name) {
  if (name == "SHA-1") return ZCRY_HASH_SHA1;
  if (name == "SHA-256") return ZCRY_HASH_SHA256;
  ADD_FAILURE() << "hash " << name;
  return 0xFFFFFFFF;
}

// The key of a group, defined through the key records; |der| receives the
// group's DER SubjectPublicKeyInfo.
ZCRY_STATUS DefineGroupKey(const Json& group, bool dsa, KeyHandle* key, Bytes* der,
                           uint32_t* data_word) {
  const auto k = group.find(dsa ? "key" : "publicKey");
  if (k == group.end() || !k->is_object()) return ZCRY_E_BAD_KEY;
  *der = HexMember(group, dsa ? "keyDer" : "publicKeyDer");
  if (!dsa) {
    return DefineRsaKey(HexMember(*k, "publicExponent"), HexMember(*k, "modulus"), key, data_word);
  }
  return DefineDsaKey(HexMember(*k, "p"), HexMember(*k, "q"), HexMember(*k, "g"),
                      HexMember(*k, "y"), key, data_word);
}

struct Counts {
  int valid = 0, invalid = 0, acceptable = 0;
  int acceptable_accepted = 0, undecodable = 0, other_salt = 0;
};

// Whether OpenSSL itself verifies |signature| over |digest| as RSA-PSS with the
// key |der|, hash |md| for digest and MGF1, and salt length |salt|.
bool OpenSslPssVerifies(const Bytes& der, const EVP_MD* md, int salt, const Bytes& digest,
                        const Bytes& signature) {
  const unsigned char* cursor = der.data();
  EVP_PKEY* pkey = d2i_PUBKEY(nullptr, &cursor, static_cast<long>(der.size()));
  EVP_PKEY_CTX* ctx = pkey ? EVP_PKEY_CTX_new_from_pkey(nullptr, pkey, nullptr) : nullptr;
  const bool verified =
      ctx != nullptr && EVP_PKEY_verify_init(ctx) == 1 &&
      EVP_PKEY_CTX_set_signature_md(ctx, md) == 1 &&
      EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PSS_PADDING) == 1 &&
      EVP_PKEY_CTX_set_rsa_mgf1_md(ctx, md) == 1 &&
      EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx, salt) == 1 &&
      EVP_PKEY_verify(ctx, signature.data(), signature.size(), digest.data(), digest.size()) == 1;
  EVP_PKEY_CTX_free(ctx);
  EVP_PKEY_free(pkey);
  return verified;
}

class Wycheproof : public ::testing::TestWithParam<VectorFile> {};

TEST_P(Wycheproof, EveryVectorHasItsExpectedOutcome) {
  const VectorFile& file = GetParam();
  std::ifstream in(std::string(VELK2_TESTDATA) + "/wycheproof/" + file.name, std::ios::binary);
  ASSERT_TRUE(in) << file.name;
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const Json root = Json::parse(text, nullptr, false);
  ASSERT_FALSE(root.is_discarded()) << file.name;
  const auto groups = root.find("testGroups");
  const auto declared = root.find("numberOfTests");
  ASSERT_TRUE(groups != root.end() && groups->is_array() && declared != root.end());

  Counts counts;
  for (const Json& group : *groups) {
    const uint32_t hash_id = HashId(StringMember(group, "sha"));
    if (file.scheme == ZCRY_SCHEME_RSA_PSS) {
      ASSERT_EQ(StringMember(group, "mgf"), "MGF1");
      ASSERT_EQ(StringMember(group, "mgfSha"), StringMember(group, "sha"));
    }
    KeyHandle key;
    Bytes der;
    uint32_t data_word = 0;
    const bool dsa = file.scheme == ZCRY_SCHEME_DSA_SHA1;
    ASSERT_EQ(DefineGroupKey(group, dsa, &key, &der, &data_word), ZCRY_OK);
    EXPECT_EQ(data_word, dsa ? 1024u : 2048u);

    // The export is the group's own DER key, byte for byte.
    uint32_t length = 0;
    ASSERT_EQ(zcry_PublicKeyExport(key.get(), 0, 0, nullptr, &length, kContextWord),
              ZCRY_E_BUFFER_TOO_SMALL);
    Bytes exported(length);
    ASSERT_EQ(zcry_PublicKeyExport(key.get(), 0, 0, exported.data(), &length, kContextWord),
              ZCRY_OK);
    EXPECT_EQ(ToHex(exported), ToHex(der));

    const zcry_RSAParams rsa_params = RsaParams(hash_id);
    const zcry_DSAParams dsa_params = DsaParams();
    const void* params = dsa ? static_cast<const void*>(&dsa_params) : &rsa_params;
    const auto tests = group.find("tests");
    ASSERT_TRUE(tests != group.end() && tests->is_array());
    for (const Json& test : *tests) {
      const std::string result = StringMember(test, "result");
      const int id = test.value("tcId", -1);
      SCOPED_TRACE(::testing::Message() << file.name << " tcId " << id << " (" << result << ") "
                                        << StringMember(test, "comment"));
      ASSERT_TRUE(result == "valid" || result == "invalid" || result == "acceptable");
      (result == "valid"     ? counts.valid
       : result == "invalid" ? counts.invalid
                             : counts.acceptable)++;

      const Bytes message = HexMember(test, "msg");
      const Bytes digest = Digest(
          hash_id, std::string_view(reinterpret_cast<const char*>(message.data()), message.size()));
      Bytes signature = HexMember(test, "sig");
      if (dsa) {
        std::optional<Bytes> raw = DsaDerToRaw(signature);
        if (!raw) {
          // A DER signature that does not decode strictly cannot even be
          // handed over: it is a rejected signature.
          ++counts.undecodable;
          EXPECT_NE(result, "valid");
          continue;
        }
        signature = *raw;
      }
      uint32_t valid = 7;
      ASSERT_EQ(Verify(key, file.scheme, params, digest, signature, &valid), ZCRY_OK);
      ASSERT_TRUE(valid == 0 || valid == 1);
      const bool accepted = valid == 1;
      if (result == "acceptable") {
        counts.acceptable_accepted += accepted ? 1 : 0;
      } else if (result == "invalid" && accepted && file.scheme == ZCRY_SCHEME_RSA_PSS) {
        const EVP_MD* md = hash_id == ZCRY_HASH_SHA1 ? EVP_sha1() : EVP_sha256();
        ASSERT_TRUE(group.contains("sLen"));
        const int group_salt = group["sLen"].get<int>();
        EXPECT_TRUE(OpenSslPssVerifies(der, md, RSA_PSS_SALTLEN_AUTO, digest, signature));
        EXPECT_FALSE(OpenSslPssVerifies(der, md, group_salt, digest, signature));
        ++counts.other_salt;
      } else {
        EXPECT_EQ(accepted, result == "valid");
      }
    }
  }
  EXPECT_EQ(counts.valid + counts.invalid + counts.acceptable, declared->get<int>());
  EXPECT_GT(counts.valid, 0);
  EXPECT_GT(counts.invalid, 0);
  std::printf(
      "[ vectors  ] %s: %d valid, %d invalid, %d acceptable (%d accepted); "
      "%d signatures not strict DER; %d PSS with another salt length accepted\n",
      file.name, counts.valid, counts.invalid, counts.acceptable, counts.acceptable_accepted,
      counts.undecodable, counts.other_salt);
  RecordProperty("acceptable_accepted", counts.acceptable_accepted);
}

INSTANTIATE_TEST_SUITE_P(Files, Wycheproof, ::testing::ValuesIn(kFiles),
                         [](const auto& info) { return std::string(info.param.label); });

}  // namespace
}  // namespace velk2::testing
