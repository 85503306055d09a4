// The crypto module: digests, key records, key export and signature checks
// over keys generated here (the published vectors are in wycheproof_test.cc).
#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "platform/zcry.h"
#include "platform/zcry_test_util.h"

namespace velk2::testing {
namespace {

// ---- Digests ---------------------------------------------------------------

TEST(ZcryHash, KnownAnswers) {
  const std::string million(1000000, 'a');
  struct Case {
    uint32_t id;
    std::string_view input;
    const char* digest;
  };
  const Case kCases[] = {
      {ZCRY_HASH_SHA1, "", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {ZCRY_HASH_SHA1, "abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {ZCRY_HASH_SHA1, million, "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
      {ZCRY_HASH_SHA256, "", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {ZCRY_HASH_SHA256, "abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {ZCRY_HASH_SHA256, million,
       "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
      {ZCRY_HASH_RIPEMD160, "", "9c1185a5c5e9fc54612808977ee8f548b2258d31"},
      {ZCRY_HASH_RIPEMD160, "abc", "8eb208f7e05d987a9b044a8e98c6b087f15a0bfc"},
      {ZCRY_HASH_RIPEMD160, million, "52783243c1697bdbe16d37f97f68f08325dc1528"},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(::testing::Message() << "hash " << c.id << ", " << c.input.size() << " bytes");
    EXPECT_EQ(ToHex(Digest(c.id, c.input)), c.digest);
    // Fed in uneven pieces the digest is the same.
    EXPECT_EQ(ToHex(Digest(c.id, c.input, 997)), c.digest);
  }
}

TEST(ZcryHash, InfoRecordHoldsTheDigestSizeInItsSeventhWord) {
  const std::pair<uint32_t, uint32_t> kSizes[] = {
      {ZCRY_HASH_SHA1, 20}, {ZCRY_HASH_SHA256, 32}, {ZCRY_HASH_RIPEMD160, 20}};
  for (const auto& [id, size] : kSizes) {
    zcry_HashInfoRecord info;
    for (uint32_t& word : info.words) word = 0xA5A5A5A5;
    info.words[0] = 32;
    ASSERT_EQ(zcry_HashInfo(id, &info), ZCRY_OK);
    EXPECT_EQ(info.words[6], size) << "hash " << id;
    for (int i : {1, 2, 3, 4, 5, 7}) EXPECT_EQ(info.words[i], 0xA5A5A5A5u) << "word " << i;
  }
  for (uint32_t size : {0u, 31u, 33u, 64u}) {
    zcry_HashInfoRecord info{{size}};
    EXPECT_EQ(zcry_HashInfo(ZCRY_HASH_SHA256, &info), ZCRY_E_BAD_RECORD) << size;
    EXPECT_EQ(info.words[6], 0u);
  }
  for (uint32_t id : {1u, 4u, 99u, 0xFFFFFFFFu}) {
    zcry_HashInfoRecord info{{32}};
    EXPECT_EQ(zcry_HashInfo(id, &info), ZCRY_E_UNKNOWN_HASH) << id;
    EXPECT_EQ(info.words[6], 0u);
    ZCRY_HASH hash = reinterpret_cast<ZCRY_HASH>(&info);  // must be overwritten
    EXPECT_EQ(zcry_HashAlloc(&hash, id, kContextWord), ZCRY_E_UNKNOWN_HASH) << id;
    EXPECT_EQ(hash, nullptr);
  }
  EXPECT_EQ(zcry_HashInfo(ZCRY_HASH_SHA1, nullptr), ZCRY_E_NULL_ARGUMENT);
}

TEST(ZcryHash, HandleRefusesNullArgumentsAndFinalisesOnce) {
  EXPECT_EQ(zcry_HashAlloc(nullptr, ZCRY_HASH_SHA1, kContextWord), ZCRY_E_NULL_ARGUMENT);
  uint8_t digest[32];
  EXPECT_EQ(zcry_HashUpdate(nullptr, "a", 1, kContextWord), ZCRY_E_NULL_ARGUMENT);
  EXPECT_EQ(zcry_HashFinal(nullptr, digest, kContextWord), ZCRY_E_NULL_ARGUMENT);
  EXPECT_EQ(zcry_HashFree(nullptr, kContextWord), ZCRY_OK);  // like free(): harmless

  ZCRY_HASH hash = nullptr;
  ASSERT_EQ(zcry_HashAlloc(&hash, ZCRY_HASH_SHA1, kContextWord), ZCRY_OK);
  EXPECT_EQ(zcry_HashUpdate(hash, nullptr, 3, kContextWord), ZCRY_E_NULL_ARGUMENT);
  EXPECT_EQ(zcry_HashUpdate(hash, nullptr, 0, kContextWord), ZCRY_OK);  // nothing to read
  EXPECT_EQ(zcry_HashFinal(hash, nullptr, kContextWord), ZCRY_E_NULL_ARGUMENT);
  // The refused calls left the state alone: still the digest of "".
  ASSERT_EQ(zcry_HashFinal(hash, digest, kContextWord), ZCRY_OK);
  EXPECT_EQ(ToHex(Bytes(digest, digest + 20)), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(zcry_HashUpdate(hash, "d", 1, kContextWord), ZCRY_E_HASH_FINISHED);
  EXPECT_EQ(zcry_HashFinal(hash, digest, kContextWord), ZCRY_E_HASH_FINISHED);
  EXPECT_EQ(zcry_HashFree(hash, kContextWord), ZCRY_OK);
}

// A handle freed half-way, or after its digest, leaves nothing in the next
// one, whatever its algorithm; handles alive together do not share a state.
TEST(ZcryHash, EveryHandleStartsAfresh) {
  const std::string kAbcSha256 = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
  const std::string kAbcSha1 = "a9993e364706816aba3e25717850c26c9cd0d89d";
  uint8_t digest[32];
  for (uint32_t first : {ZCRY_HASH_SHA1, ZCRY_HASH_SHA256, ZCRY_HASH_RIPEMD160}) {
    for (bool finish : {false, true}) {
      ZCRY_HASH hash = nullptr;
      ASSERT_EQ(zcry_HashAlloc(&hash, first, kContextWord), ZCRY_OK);
      ASSERT_EQ(zcry_HashUpdate(hash, "left over", 9, kContextWord), ZCRY_OK);
      if (finish) {
        ASSERT_EQ(zcry_HashFinal(hash, digest, kContextWord), ZCRY_OK);
      }
      ASSERT_EQ(zcry_HashFree(hash, kContextWord), ZCRY_OK);
      EXPECT_EQ(ToHex(Digest(ZCRY_HASH_SHA256, "abc")), kAbcSha256) << first << finish;
      EXPECT_EQ(ToHex(Digest(ZCRY_HASH_SHA1, "abc")), kAbcSha1) << first << finish;
    }
  }
  ZCRY_HASH one = nullptr;
  ZCRY_HASH two = nullptr;
  ASSERT_EQ(zcry_HashAlloc(&one, ZCRY_HASH_SHA256, kContextWord), ZCRY_OK);
  ASSERT_EQ(zcry_HashAlloc(&two, ZCRY_HASH_SHA256, kContextWord), ZCRY_OK);
  EXPECT_NE(one, two);
  for (const char* piece : {"a", "b", "c"}) {
    ASSERT_EQ(zcry_HashUpdate(one, piece, 1, kContextWord), ZCRY_OK);
    ASSERT_EQ(zcry_HashUpdate(two, "x", 1, kContextWord), ZCRY_OK);
  }
  ASSERT_EQ(zcry_HashFinal(one, digest, kContextWord), ZCRY_OK);
  EXPECT_EQ(ToHex(Bytes(digest, digest + 32)), kAbcSha256);
  EXPECT_EQ(zcry_HashFree(one, kContextWord), ZCRY_OK);
  EXPECT_EQ(zcry_HashFree(two, kContextWord), ZCRY_OK);
}

// ---- Key records -----------------------------------------------------------

TEST(ZcryRecords, InitRefusesWrongKindsAndSizes) {
  zcry_RSAKeyStruct rsa{};
  EXPECT_EQ(zcry_RSAKeyStructInit(6, &rsa), ZCRY_E_UNKNOWN_ALGORITHM);
  EXPECT_EQ(zcry_RSAKeyStructInit(8, nullptr), ZCRY_E_NULL_ARGUMENT);
  EXPECT_EQ(zcry_RSAKeyStructZeroize(&rsa), ZCRY_E_BAD_RECORD);  // never initialised
  EXPECT_EQ(zcry_RSAKeyStructZeroize(nullptr), ZCRY_E_NULL_ARGUMENT);

  struct Case {
    uint32_t kind, record_a, record_b, arg_a, arg_b;
    ZCRY_STATUS want;
  };
  const Case kCases[] = {
      {6, 48, 60, 48, 60, ZCRY_OK},
      {8, 48, 60, 48, 60, ZCRY_E_UNKNOWN_ALGORITHM},
      // The caller did not write one of the sizes into the record.
      {6, 0, 60, 48, 60, ZCRY_E_BAD_RECORD},
      {6, 48, 0, 48, 60, ZCRY_E_BAD_RECORD},
      {6, 47, 60, 47, 60, ZCRY_E_BAD_RECORD},
      {6, 48, 61, 48, 61, ZCRY_E_BAD_RECORD},
      {6, 48, 60, 60, 48, ZCRY_E_BAD_RECORD},
  };
  for (const Case& c : kCases) {
    zcry_DSSKeyStruct dss{};
    dss.size_a = c.record_a;
    dss.size_b = c.record_b;
    EXPECT_EQ(zcry_DSSKeyStructInit(c.kind, &dss, c.arg_a, c.arg_b), c.want)
        << c.kind << " " << c.record_a << "/" << c.record_b << " " << c.arg_a << "/" << c.arg_b;
    EXPECT_EQ(dss.kind, c.want == ZCRY_OK ? 6u : 0u);
  }
  EXPECT_EQ(zcry_DSSKeyStructInit(6, nullptr, 48, 60), ZCRY_E_NULL_ARGUMENT);
}

TEST(ZcryRecords, BigIntFromBufferChecksItsArguments) {
  zcry_RSAKeyStruct rsa{};
  ASSERT_EQ(zcry_RSAKeyStructInit(8, &rsa), ZCRY_OK);
  const Bytes value(2049, 0x7F);
  EXPECT_EQ(zcry_BigIntFromBuffer(nullptr, 1, value.data(), 0, 0, 0), ZCRY_E_NULL_ARGUMENT);
  EXPECT_EQ(zcry_BigIntFromBuffer(&rsa.e, 1, nullptr, 0, 0, 0), ZCRY_E_NULL_ARGUMENT);
  EXPECT_EQ(zcry_BigIntFromBuffer(&rsa.e, 1, value.data(), 1, 0, 0), ZCRY_E_BAD_PARAMETERS);
  EXPECT_EQ(zcry_BigIntFromBuffer(&rsa.e, 1, value.data(), 0, 0, 9), ZCRY_E_BAD_PARAMETERS);
  EXPECT_EQ(zcry_BigIntFromBuffer(&rsa.e, 2049, value.data(), 0, 0, 0), ZCRY_E_BAD_KEY);
  EXPECT_EQ(rsa.e.bytes, nullptr);
  ASSERT_EQ(zcry_BigIntFromBuffer(&rsa.e, 2048, value.data(), 0, 0, 0), ZCRY_OK);
  EXPECT_EQ(rsa.e.length, 2048u);
  // Replacing a value frees the old one; an empty value is allowed here.
  ASSERT_EQ(zcry_BigIntFromBuffer(&rsa.e, 3, value.data(), 0, 0, 0), ZCRY_OK);
  EXPECT_EQ(Bytes(rsa.e.bytes, rsa.e.bytes + rsa.e.length), Bytes(3, 0x7F));
  ASSERT_EQ(zcry_BigIntFromBuffer(&rsa.e, 0, nullptr, 0, 0, 0), ZCRY_OK);
  EXPECT_EQ(rsa.e.bytes, nullptr);
  EXPECT_EQ(zcry_RSAKeyStructZeroize(&rsa), ZCRY_OK);
}

// ---- Keys generated here ---------------------------------------------------

struct PkeyFree {
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
  void operator()(EVP_PKEY_CTX* p) const { EVP_PKEY_CTX_free(p); }
};
using Pkey = std::unique_ptr<EVP_PKEY, PkeyFree>;
using PkeyCtx = std::unique_ptr<EVP_PKEY_CTX, PkeyFree>;

Bytes Param(const EVP_PKEY* pkey, const char* name) {
  BIGNUM* value = nullptr;
  EXPECT_EQ(EVP_PKEY_get_bn_param(pkey, name, &value), 1) << name;
  Bytes out(static_cast<size_t>(BN_num_bytes(value)));
  BN_bn2bin(value, out.data());
  BN_free(value);
  return out;
}

// One RSA and one DSA key pair for the whole suite: generating them is slow.
class ZcryKeys : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    rsa_.reset(EVP_RSA_gen(2048));
    PkeyCtx params_ctx(EVP_PKEY_CTX_new_from_name(nullptr, "DSA", nullptr));
    EVP_PKEY* params = nullptr;
    EVP_PKEY* key = nullptr;
    if (EVP_PKEY_paramgen_init(params_ctx.get()) == 1 &&
        EVP_PKEY_CTX_set_dsa_paramgen_bits(params_ctx.get(), 1024) == 1 &&
        EVP_PKEY_CTX_set_dsa_paramgen_q_bits(params_ctx.get(), 160) == 1 &&
        EVP_PKEY_paramgen(params_ctx.get(), &params) == 1) {
      Pkey domain(params);
      PkeyCtx key_ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, domain.get(), nullptr));
      if (EVP_PKEY_keygen_init(key_ctx.get()) == 1) EVP_PKEY_keygen(key_ctx.get(), &key);
    }
    dsa_.reset(key);
  }
  // Freed here rather than at exit, where OpenSSL may already be shut down.
  static void TearDownTestSuite() {
    rsa_.reset();
    dsa_.reset();
  }

  void SetUp() override {
    ASSERT_TRUE(rsa_ && dsa_);
    ASSERT_EQ(DefineRsaKey(Param(rsa_.get(), "e"), Param(rsa_.get(), "n"), &rsa_key_), ZCRY_OK);
    ASSERT_EQ(DefineDsaKey(Param(dsa_.get(), "p"), Param(dsa_.get(), "q"), Param(dsa_.get(), "g"),
                           Param(dsa_.get(), "pub"), &dsa_key_),
              ZCRY_OK);
  }

  // Signs |digest| with OpenSSL; |salt| is the PSS salt length. DSA signatures
  // come back as r || s.
  static Bytes Sign(uint32_t scheme, uint32_t hash_id, const Bytes& digest, int salt = 0) {
    const bool dsa = scheme == ZCRY_SCHEME_DSA_SHA1;
    const EVP_MD* md = hash_id == ZCRY_HASH_SHA1 ? EVP_sha1() : EVP_sha256();
    PkeyCtx ctx(EVP_PKEY_CTX_new_from_pkey(nullptr, (dsa ? dsa_ : rsa_).get(), nullptr));
    EXPECT_EQ(EVP_PKEY_sign_init(ctx.get()), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_signature_md(ctx.get(), md), 1);
    if (scheme == ZCRY_SCHEME_RSA_PSS) {
      EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(ctx.get(), RSA_PKCS1_PSS_PADDING), 1);
      EXPECT_EQ(EVP_PKEY_CTX_set_rsa_mgf1_md(ctx.get(), md), 1);
      EXPECT_EQ(EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx.get(), salt), 1);
    }
    size_t length = 0;
    EXPECT_EQ(EVP_PKEY_sign(ctx.get(), nullptr, &length, digest.data(), digest.size()), 1);
    Bytes signature(length);
    EXPECT_EQ(EVP_PKEY_sign(ctx.get(), signature.data(), &length, digest.data(), digest.size()), 1);
    signature.resize(length);
    if (!dsa) return signature;
    std::optional<Bytes> raw = DsaDerToRaw(signature);
    EXPECT_TRUE(raw.has_value());
    return raw.value_or(Bytes());
  }

  static inline Pkey rsa_;
  static inline Pkey dsa_;
  KeyHandle rsa_key_, dsa_key_;
};

TEST_F(ZcryKeys, GetDataReturnsTheNumbersWithoutLeadingZeros) {
  KeyHandle key;
  const Bytes n = Param(rsa_.get(), "n");
  Bytes padded_n = n;
  padded_n.insert(padded_n.begin(), {0, 0});
  ASSERT_EQ(DefineRsaKey({0, 1, 0, 1}, padded_n, &key), ZCRY_OK);
  zcry_RSAKeyStruct data{};
  EXPECT_EQ(zcry_PublicKeyGetData(key.get(), 8, &data, kContextWord), ZCRY_E_BAD_RECORD);
  ASSERT_EQ(zcry_RSAKeyStructInit(8, &data), ZCRY_OK);
  EXPECT_EQ(zcry_PublicKeyGetData(dsa_key_.get(), 8, &data, kContextWord), ZCRY_E_BAD_RECORD);
  EXPECT_EQ(zcry_PublicKeyGetData(key.get(), 7, &data, kContextWord), ZCRY_E_UNKNOWN_ALGORITHM);
  EXPECT_EQ(zcry_PublicKeyGetData(nullptr, 8, &data, kContextWord), ZCRY_E_NULL_ARGUMENT);
  EXPECT_EQ(zcry_PublicKeyGetData(key.get(), 8, nullptr, kContextWord), ZCRY_E_NULL_ARGUMENT);
  EXPECT_EQ(data.n.bytes, nullptr);
  ASSERT_EQ(zcry_PublicKeyGetData(key.get(), 8, &data, kContextWord), ZCRY_OK);
  EXPECT_EQ(Bytes(data.e.bytes, data.e.bytes + data.e.length), (Bytes{1, 0, 1}));
  EXPECT_EQ(Bytes(data.n.bytes, data.n.bytes + data.n.length), n);
  EXPECT_EQ(data.data_word, 2048u);
  // A second GetData into the filled record replaces the values (ASan: no leak).
  ASSERT_EQ(zcry_PublicKeyGetData(key.get(), 8, &data, kContextWord), ZCRY_OK);
  EXPECT_EQ(zcry_RSAKeyStructZeroize(&data), ZCRY_OK);
  EXPECT_EQ(data.n.bytes, nullptr);
  EXPECT_EQ(data.n.length, 0u);
  EXPECT_EQ(zcry_RSAKeyStructZeroize(&data), ZCRY_OK);  // twice is harmless

  zcry_DSSKeyStruct dss{};
  dss.size_a = 48;
  dss.size_b = 60;
  EXPECT_EQ(zcry_PublicKeyGetData(dsa_key_.get(), 6, &dss, kContextWord), ZCRY_E_BAD_RECORD);
  ASSERT_EQ(zcry_DSSKeyStructInit(6, &dss, 48, 60), ZCRY_OK);
  ASSERT_EQ(zcry_PublicKeyGetData(dsa_key_.get(), 6, &dss, kContextWord), ZCRY_OK);
  EXPECT_EQ(Bytes(dss.q.bytes, dss.q.bytes + dss.q.length), Param(dsa_.get(), "q"));
  EXPECT_EQ(Bytes(dss.y.bytes, dss.y.bytes + dss.y.length), Param(dsa_.get(), "pub"));
  EXPECT_EQ(dss.data_word, 1024u);
  EXPECT_EQ(zcry_DSSKeyStructZeroize(&dss), ZCRY_OK);
}

TEST_F(ZcryKeys, ExportIsSubjectPublicKeyInfo) {
  for (ZCRY_PUBLIC_KEY handle : {rsa_key_.get(), dsa_key_.get()}) {
    uint32_t needed = 0;
    ASSERT_EQ(zcry_PublicKeyExport(handle, 0, 0, nullptr, &needed, kContextWord),
              ZCRY_E_BUFFER_TOO_SMALL);
    ASSERT_GT(needed, 0u);
    Bytes buffer(needed + 8, 0xEE);
    uint32_t length = needed - 1;
    EXPECT_EQ(zcry_PublicKeyExport(handle, 0, 0, buffer.data(), &length, kContextWord),
              ZCRY_E_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, needed);
    EXPECT_EQ(buffer[0], 0xEE);  // nothing written to a short buffer
    ASSERT_EQ(zcry_PublicKeyExport(handle, 0, 0, buffer.data(), &length, kContextWord), ZCRY_OK);
    EXPECT_EQ(length, needed);
    EXPECT_EQ(buffer[needed], 0xEE);
    length = needed + 8;  // a larger buffer: the length written comes back
    ASSERT_EQ(zcry_PublicKeyExport(handle, 0, 0, buffer.data(), &length, kContextWord), ZCRY_OK);
    EXPECT_EQ(length, needed);
  }
  uint32_t length = 0;
  EXPECT_EQ(zcry_PublicKeyExport(nullptr, 0, 0, nullptr, &length, kContextWord),
            ZCRY_E_NULL_ARGUMENT);
  EXPECT_EQ(zcry_PublicKeyExport(rsa_key_.get(), 0, 0, nullptr, nullptr, kContextWord),
            ZCRY_E_NULL_ARGUMENT);
  EXPECT_EQ(zcry_PublicKeyExport(rsa_key_.get(), 1, 0, nullptr, &length, kContextWord),
            ZCRY_E_BAD_PARAMETERS);
  EXPECT_EQ(zcry_PublicKeyExport(rsa_key_.get(), 0, 1, nullptr, &length, kContextWord),
            ZCRY_E_BAD_PARAMETERS);
  EXPECT_EQ(length, 0u);
}

TEST_F(ZcryKeys, SignaturesRoundTrip) {
  struct Case {
    uint32_t scheme, hash_id;
    int salt;  // PSS salt length the signer uses
  };
  const Case kCases[] = {
      {ZCRY_SCHEME_RSA_PKCS1_V15, ZCRY_HASH_SHA1, 0},
      {ZCRY_SCHEME_RSA_PKCS1_V15, ZCRY_HASH_SHA256, 0},
      {ZCRY_SCHEME_RSA_PSS, ZCRY_HASH_SHA1, 20},
      {ZCRY_SCHEME_RSA_PSS, ZCRY_HASH_SHA256, 32},
      {ZCRY_SCHEME_RSA_PSS, ZCRY_HASH_SHA256, 0},  // any salt length verifies
      {ZCRY_SCHEME_RSA_PSS, ZCRY_HASH_SHA256, 100},
      {ZCRY_SCHEME_RSA_PSS, ZCRY_HASH_SHA1, RSA_PSS_SALTLEN_MAX},
      {ZCRY_SCHEME_DSA_SHA1, ZCRY_HASH_SHA1, 0},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(::testing::Message()
                 << "scheme " << c.scheme << " hash " << c.hash_id << " salt " << c.salt);
    const Bytes digest = Digest(c.hash_id, "signed object " + std::to_string(c.scheme));
    const bool dsa = c.scheme == ZCRY_SCHEME_DSA_SHA1;
    const Bytes signature = Sign(c.scheme, c.hash_id, digest, c.salt);
    const zcry_RSAParams rsa_params = RsaParams(c.hash_id);
    const zcry_DSAParams dsa_params = DsaParams();
    const void* params = dsa ? static_cast<const void*>(&dsa_params) : &rsa_params;
    const KeyHandle& key = dsa ? dsa_key_ : rsa_key_;
    auto verifies = [&](uint32_t scheme, const Bytes& signed_digest, const Bytes& bytes) {
      uint32_t valid = 7;
      EXPECT_EQ(Verify(key, scheme, params, signed_digest, bytes, &valid), ZCRY_OK);
      EXPECT_TRUE(valid == 0 || valid == 1);
      return valid == 1;
    };
    EXPECT_TRUE(verifies(c.scheme, digest, signature));

    // Any changed byte of the signature or the digest makes it a bad signature,
    // and so do a missing, an extra and an empty signature.
    Bytes other = digest;
    other.back() ^= 0x80;
    EXPECT_FALSE(verifies(c.scheme, other, signature));
    Bytes shorter(signature.begin() + 1, signature.end());
    Bytes longer = signature;
    longer.insert(longer.begin(), 0);
    std::vector<Bytes> wrong = {shorter, longer, Bytes()};
    for (size_t at : {size_t{0}, signature.size() / 2, signature.size() - 1}) {
      wrong.push_back(signature);
      wrong.back()[at] ^= 0x01;
    }
    for (const Bytes& bytes : wrong) EXPECT_FALSE(verifies(c.scheme, digest, bytes));
    // One RSA scheme's signature is not the other's.
    const uint32_t other_scheme =
        c.scheme == ZCRY_SCHEME_RSA_PSS ? ZCRY_SCHEME_RSA_PKCS1_V15 : ZCRY_SCHEME_RSA_PSS;
    EXPECT_TRUE(dsa || !verifies(other_scheme, digest, signature));
  }
}

// A key is built for OpenSSL on its first use; threads that verify with a
// fresh key at once all get the same, right answer.
TEST_F(ZcryKeys, AFreshKeyVerifiesFromManyThreadsAtOnce) {
  const Bytes digest = Digest(ZCRY_HASH_SHA256, "first use");
  const Bytes signature = Sign(ZCRY_SCHEME_RSA_PKCS1_V15, ZCRY_HASH_SHA256, digest, 0);
  const zcry_RSAParams params = RsaParams(ZCRY_HASH_SHA256);
  for (int round = 0; round < 5; ++round) {
    KeyHandle key;
    ASSERT_EQ(DefineRsaKey(Param(rsa_.get(), "e"), Param(rsa_.get(), "n"), &key), ZCRY_OK);
    std::atomic<int> good{0}, bad{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&] {
        uint32_t valid = 0;
        const bool ok =
            Verify(key, ZCRY_SCHEME_RSA_PKCS1_V15, &params, digest, signature, &valid) == ZCRY_OK &&
            valid == 1;
        ++(ok ? good : bad);
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(good.load(), 4);
    EXPECT_EQ(bad.load(), 0);
  }
}

TEST_F(ZcryKeys, VerifyRefusesUnusableArguments) {
  struct Case {
    const char* what;
    bool dsa_key;
    uint32_t scheme;
    bool dsa_params;
    std::vector<std::pair<int, uint32_t>> changes;  // words of the parameter record
    size_t digest_length;
    ZCRY_STATUS want;
  };
  const Case kCases[] = {
      {"scheme 3", false, 3, false, {}, 32, ZCRY_E_BAD_SCHEME},
      {"dsa scheme, rsa key", false, 1, true, {}, 20, ZCRY_E_BAD_SCHEME},
      {"rsa scheme, dsa key", true, 2, false, {}, 32, ZCRY_E_BAD_SCHEME},
      {"dsa record for rsa", false, 2, true, {}, 32, ZCRY_E_BAD_PARAMETERS},
      {"rsa record for dsa", true, 1, false, {}, 20, ZCRY_E_BAD_PARAMETERS},
      {"hash 1", false, 2, false, {{3, 1}, {5, 1}}, 32, ZCRY_E_UNKNOWN_HASH},
      {"sha1 digest, sha256 record", false, 2, false, {}, 20, ZCRY_E_BAD_DIGEST_LENGTH},
      {"no digest", false, 4, false, {{3, 0}, {5, 0}}, 0, ZCRY_E_BAD_DIGEST_LENGTH},
      {"sha256 digest, dsa", true, 1, true, {}, 32, ZCRY_E_BAD_DIGEST_LENGTH},
      {"rsa size 44", false, 2, false, {{0, 44}}, 32, ZCRY_E_BAD_PARAMETERS},
      {"rsa tag", false, 2, false, {{1, ZCRY_DSA_PARAMS_TAG}}, 32, ZCRY_E_BAD_PARAMETERS},
      {"rsa word 2", false, 2, false, {{2, 1}}, 32, ZCRY_E_BAD_PARAMETERS},
      {"mgf hash 0", false, 2, false, {{5, 0}}, 32, ZCRY_E_BAD_PARAMETERS},
      {"rsa word 8", false, 2, false, {{8, 0}}, 32, ZCRY_E_BAD_PARAMETERS},
      {"rsa word 9", false, 2, false, {{9, 1}}, 32, ZCRY_E_BAD_PARAMETERS},
      {"ripemd160", false, 2, false, {{3, 3}, {5, 3}}, 32, ZCRY_E_BAD_PARAMETERS},
      {"dsa size 16", true, 1, true, {{0, 16}}, 20, ZCRY_E_BAD_PARAMETERS},
      {"dsa tag", true, 1, true, {{1, ZCRY_RSA_PARAMS_TAG}}, 20, ZCRY_E_BAD_PARAMETERS},
      {"dsa word 2", true, 1, true, {{2, 1}}, 20, ZCRY_E_BAD_PARAMETERS},
      {"dsa word 4", true, 1, true, {{4, 1}}, 20, ZCRY_E_BAD_PARAMETERS},
  };
  for (const Case& c : kCases) {
    zcry_RSAParams rsa = RsaParams(ZCRY_HASH_SHA256);
    zcry_DSAParams dsa = DsaParams();
    for (const auto& [word, value] : c.changes)
      (c.dsa_params ? dsa.words : rsa.words)[word] = value;
    const void* params = c.dsa_params ? static_cast<const void*>(&dsa) : &rsa;
    uint32_t valid = 7;
    EXPECT_EQ(Verify(c.dsa_key ? dsa_key_ : rsa_key_, c.scheme, params, Bytes(c.digest_length, 1),
                     Bytes(c.dsa_key ? 40 : 256, 1), &valid),
              c.want)
        << c.what;
    EXPECT_EQ(valid, 0u) << c.what;
  }

  const zcry_DSAParams good = DsaParams();
  const uint8_t byte = 0;
  uint32_t valid = 0;
  auto call = [&](ZCRY_PUBLIC_KEY key, const void* params, const uint8_t* digest,
                  const uint8_t* sig, uint32_t* out) {
    return zcry_PublicKeyVerifySignature(key, 1, params, digest, 20, sig, 40, out, kContextWord);
  };
  EXPECT_EQ(call(nullptr, &good, &byte, &byte, &valid), ZCRY_E_NULL_ARGUMENT);
  EXPECT_EQ(call(dsa_key_.get(), nullptr, &byte, &byte, &valid), ZCRY_E_NULL_ARGUMENT);
  EXPECT_EQ(call(dsa_key_.get(), &good, nullptr, &byte, &valid), ZCRY_E_NULL_ARGUMENT);
  EXPECT_EQ(call(dsa_key_.get(), &good, &byte, nullptr, &valid), ZCRY_E_NULL_ARGUMENT);
  EXPECT_EQ(call(dsa_key_.get(), &good, &byte, &byte, nullptr), ZCRY_E_NULL_ARGUMENT);
}

// The generated keys' numbers broken one at a time.
TEST_F(ZcryKeys, DefineRefusesBadRecordsAndKeys) {
  const Bytes n = Param(rsa_.get(), "n"), e = Param(rsa_.get(), "e");
  Bytes even_n = n;
  even_n.back() &= 0xFE;
  const Bytes three = {3}, one = {1}, two = {2};
  KeyHandle key;
  struct RsaCase {
    const char* what;
    Bytes e, n;
    ZCRY_STATUS want;
  };
  const RsaCase kRsa[] = {
      {"e = 3", three, n, ZCRY_OK},         {"missing n", e, {}, ZCRY_E_BAD_KEY},
      {"missing e", {}, n, ZCRY_E_BAD_KEY}, {"even n", e, even_n, ZCRY_E_BAD_KEY},
      {"e = 1", one, n, ZCRY_E_BAD_KEY},    {"even e", two, n, ZCRY_E_BAD_KEY},
      {"e = n", n, n, ZCRY_E_BAD_KEY},
  };
  for (const RsaCase& c : kRsa) {
    EXPECT_EQ(DefineRsaKey(c.e, c.n, &key), c.want) << c.what;
    EXPECT_EQ(key == nullptr, c.want != ZCRY_OK) << c.what;
  }

  // DSA: a 160-bit q is required, and 1 < g, y < p.
  const Bytes p = Param(dsa_.get(), "p"), q = Param(dsa_.get(), "q"), g = Param(dsa_.get(), "g"),
              y = Param(dsa_.get(), "pub");
  Bytes q161 = q, q159 = q;
  q161.insert(q161.begin(), 1);
  q159[0] = 0x59;
  struct DsaCase {
    const char* what;
    Bytes p, q, g, y;
  };
  const DsaCase kDsa[] = {
      {"missing p", {}, q, g, y}, {"missing q", p, {}, g, y},   {"missing g", p, q, {}, y},
      {"missing y", p, q, g, {}}, {"161-bit q", p, q161, g, y}, {"159-bit q", p, q159, g, y},
      {"g = 1", p, q, one, y},    {"g = p", p, q, p, y},        {"y = 1", p, q, g, one},
      {"y = p", p, q, g, p},      {"p = q", q, q, g, y},
  };
  for (const DsaCase& c : kDsa) {
    EXPECT_EQ(DefineDsaKey(c.p, c.q, c.g, c.y, &key), ZCRY_E_BAD_KEY) << c.what;
    EXPECT_EQ(key, nullptr) << c.what;
  }

  // The record and type checks of zcry_PublicKeyDefine itself.
  zcry_RSAKeyStruct rsa_record{};
  ASSERT_EQ(zcry_RSAKeyStructInit(8, &rsa_record), ZCRY_OK);
  ASSERT_EQ(Fill(&rsa_record.e, e), ZCRY_OK);
  ASSERT_EQ(Fill(&rsa_record.n, n), ZCRY_OK);
  zcry_DSSKeyStruct dss_record{};
  dss_record.size_a = 48;
  dss_record.size_b = 60;
  ASSERT_EQ(zcry_DSSKeyStructInit(6, &dss_record, 48, 60), ZCRY_OK);
  zcry_RSAKeyStruct uninitialised{};
  struct RecordCase {
    const char* what;
    uint32_t key_type, kind;
    const void* record;
    uint32_t flags;
    ZCRY_STATUS want;
  };
  const RecordCase kRecords[] = {
      {"good", 1, 8, &rsa_record, 0, ZCRY_OK},
      {"key type 2", 2, 8, &rsa_record, 0, ZCRY_E_UNKNOWN_ALGORITHM},
      {"kind 7", 1, 7, &rsa_record, 0, ZCRY_E_UNKNOWN_ALGORITHM},
      {"rsa with kind 6", 1, 6, &dss_record, 0, ZCRY_E_BAD_RECORD},
      {"record never initialised", 1, 8, &uninitialised, 0, ZCRY_E_BAD_RECORD},
      {"empty dss record", 0, 6, &dss_record, 0, ZCRY_E_BAD_KEY},
      {"flags", 1, 8, &rsa_record, 1, ZCRY_E_BAD_PARAMETERS},
  };
  for (const RecordCase& c : kRecords) {
    ZCRY_PUBLIC_KEY handle = reinterpret_cast<ZCRY_PUBLIC_KEY>(&key);  // must be overwritten
    EXPECT_EQ(zcry_PublicKeyDefine(&handle, c.key_type, c.kind, c.record, c.flags, kContextWord),
              c.want)
        << c.what;
    EXPECT_EQ(handle == nullptr, c.want != ZCRY_OK) << c.what;
    if (c.want == ZCRY_OK) zcry_PublicKeyFree(handle, kContextWord);
  }
  ZCRY_PUBLIC_KEY handle = nullptr;
  EXPECT_EQ(zcry_PublicKeyDefine(nullptr, 1, 8, &rsa_record, 0, kContextWord),
            ZCRY_E_NULL_ARGUMENT);
  EXPECT_EQ(zcry_PublicKeyDefine(&handle, 1, 8, nullptr, 0, kContextWord), ZCRY_E_NULL_ARGUMENT);
  EXPECT_EQ(zcry_PublicKeyFree(nullptr, kContextWord), ZCRY_OK);
  EXPECT_EQ(zcry_RSAKeyStructZeroize(&rsa_record), ZCRY_OK);
  EXPECT_EQ(zcry_DSSKeyStructZeroize(&dss_record), ZCRY_OK);
}

}  // namespace
}  // namespace velk2::testing
