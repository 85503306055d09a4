// Helpers of the crypto module tests: hex, digests through the module, and key
// handles defined the way the credential code defines them.
#ifndef VELK2_TESTS_PLATFORM_ZCRY_TEST_UTIL_H_
#define VELK2_TESTS_PLATFORM_ZCRY_TEST_UTIL_H_

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/dsa.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/zcry.h"

namespace velk2::testing {

using Bytes = std::vector<uint8_t>;

// The context word handed to every call; any value must pass through.
constexpr uint32_t kContextWord = 0x5EC0DE;

// Hex decodes |hex| (an even number of hex digits); nullopt for anything else.
inline std::optional<Bytes> FromHex(std::string_view hex) {
  auto nibble = [](char c) {
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                  : -1;
  };
  if (hex.size() % 2 != 0) return std::nullopt;
  Bytes out;
  for (size_t i = 0; i < hex.size(); i += 2) {
    const int hi = nibble(hex[i]), lo = nibble(hex[i + 1]);
    if (hi < 0 || lo < 0) return std::nullopt;
    out.push_back(static_cast<uint8_t>(hi * 16 + lo));
  }
  return out;
}

inline std::string ToHex(const Bytes& bytes) {
  std::string out;
  for (uint8_t b : bytes) out += {"0123456789abcdef"[b >> 4], "0123456789abcdef"[b & 15]};
  return out;
}

// Digest of |data| through zcry_HashAlloc/Update/Final/Free, fed in pieces of
// |piece| bytes (0: all at once). Fails the current test on a non-zero status.
inline Bytes Digest(uint32_t hash_id, std::string_view data, size_t piece = 0) {
  zcry_HashInfoRecord info{};
  info.words[0] = sizeof(info);
  EXPECT_EQ(zcry_HashInfo(hash_id, &info), ZCRY_OK);
  ZCRY_HASH hash = nullptr;
  EXPECT_EQ(zcry_HashAlloc(&hash, hash_id, kContextWord), ZCRY_OK);
  if (hash == nullptr) return {};
  if (piece == 0) piece = data.size() + 1;
  for (size_t at = 0; at < data.size(); at += piece) {
    const std::string_view part = data.substr(at, piece);
    EXPECT_EQ(zcry_HashUpdate(hash, part.data(), part.size(), kContextWord), ZCRY_OK);
  }
  Bytes digest(info.words[6]);
  EXPECT_EQ(zcry_HashFinal(hash, digest.data(), kContextWord), ZCRY_OK);
  EXPECT_EQ(zcry_HashFree(hash, kContextWord), ZCRY_OK);
  return digest;
}

struct KeyFree {
  void operator()(zcry_KeyState* key) const { zcry_PublicKeyFree(key, kContextWord); }
};
using KeyHandle = std::unique_ptr<zcry_KeyState, KeyFree>;

inline ZCRY_STATUS Fill(zcry_BigInt* bigint, const Bytes& value) {
  return zcry_BigIntFromBuffer(bigint, static_cast<uint32_t>(value.size()), value.data(), 0, 0, 0);
}

// Defines an RSA key from e and n exactly as the credential code does: a record
// of kind 8, e then n through zcry_BigIntFromBuffer, zcry_PublicKeyDefine, then
// zcry_PublicKeyGetData into a second record for the data word. Both records
// are wiped before returning. Returns the first non-zero status.
inline ZCRY_STATUS DefineRsaKey(const Bytes& e, const Bytes& n, KeyHandle* key,
                                uint32_t* data_word = nullptr) {
  zcry_RSAKeyStruct record{}, data{};
  ZCRY_PUBLIC_KEY handle = nullptr;
  ZCRY_STATUS status = zcry_RSAKeyStructInit(8, &record);
  if (status == ZCRY_OK) status = Fill(&record.e, e);
  if (status == ZCRY_OK) status = Fill(&record.n, n);
  if (status == ZCRY_OK) status = zcry_PublicKeyDefine(&handle, 1, 8, &record, 0, kContextWord);
  key->reset(handle);
  if (status == ZCRY_OK) status = zcry_RSAKeyStructInit(8, &data);
  if (status == ZCRY_OK) status = zcry_PublicKeyGetData(handle, 8, &data, kContextWord);
  if (status == ZCRY_OK && data_word != nullptr) *data_word = data.data_word;
  zcry_RSAKeyStructZeroize(&record);
  zcry_RSAKeyStructZeroize(&data);
  return status;
}

// The same for DSA: records of kind 6 with the sizes 48 and 60, p, g, q, y.
inline ZCRY_STATUS DefineDsaKey(const Bytes& p, const Bytes& q, const Bytes& g, const Bytes& y,
                                KeyHandle* key, uint32_t* data_word = nullptr) {
  zcry_DSSKeyStruct record{}, data{};
  record.size_a = data.size_a = 48;
  record.size_b = data.size_b = 60;
  ZCRY_PUBLIC_KEY handle = nullptr;
  ZCRY_STATUS status = zcry_DSSKeyStructInit(6, &record, 48, 60);
  for (auto [target, value] :
       {std::pair{&record.p, &p}, {&record.g, &g}, {&record.q, &q}, {&record.y, &y}}) {
    if (status == ZCRY_OK) status = Fill(target, *value);
  }
  if (status == ZCRY_OK) status = zcry_PublicKeyDefine(&handle, 0, 6, &record, 0, kContextWord);
  key->reset(handle);
  if (status == ZCRY_OK) status = zcry_DSSKeyStructInit(6, &data, 48, 60);
  if (status == ZCRY_OK) status = zcry_PublicKeyGetData(handle, 6, &data, kContextWord);
  if (status == ZCRY_OK && data_word != nullptr) *data_word = data.data_word;
  zcry_DSSKeyStructZeroize(&record);
  zcry_DSSKeyStructZeroize(&data);
  return status;
}

// Parameter records as the signature code writes them.
inline zcry_RSAParams RsaParams(uint32_t hash_id) {
  return zcry_RSAParams{{40, ZCRY_RSA_PARAMS_TAG, 0, hash_id, 0, hash_id, 0, 0, 4, 0}};
}
inline zcry_DSAParams DsaParams() {
  return zcry_DSAParams{{20, ZCRY_DSA_PARAMS_TAG, 0, 0, 0}};
}

// Verifies and returns the status; *valid receives the valid word.
inline ZCRY_STATUS Verify(const KeyHandle& key, uint32_t scheme, const void* params,
                          const Bytes& digest, const Bytes& signature, uint32_t* valid) {
  static const uint8_t kEmpty = 0;
  return zcry_PublicKeyVerifySignature(
      key.get(), scheme, params, digest.empty() ? &kEmpty : digest.data(),
      static_cast<uint32_t>(digest.size()), signature.empty() ? &kEmpty : signature.data(),
      static_cast<uint32_t>(signature.size()), valid, kContextWord);
}

// The 40-byte r || s form of a DER DSA signature, or nullopt when the DER does
// not decode strictly: nothing after the sequence, re-encoding gives the same
// bytes (no BER lengths, no superfluous zeros), 0 <= r, s < 2^160.
inline std::optional<Bytes> DsaDerToRaw(const Bytes& der) {
  const unsigned char* cursor = der.data();
  DSA_SIG* sig = d2i_DSA_SIG(nullptr, &cursor, static_cast<long>(der.size()));
  if (sig == nullptr) return std::nullopt;
  std::optional<Bytes> raw;
  unsigned char* again = nullptr;
  const int again_length = i2d_DSA_SIG(sig, &again);
  const BIGNUM *r, *s;
  DSA_SIG_get0(sig, &r, &s);
  if (cursor == der.data() + der.size() && again_length == static_cast<int>(der.size()) &&
      Bytes(again, again + again_length) == der && !BN_is_negative(r) && !BN_is_negative(s) &&
      BN_num_bytes(r) <= 20 && BN_num_bytes(s) <= 20) {
    raw.emplace(40);
    BN_bn2binpad(r, raw->data(), 20);
    BN_bn2binpad(s, raw->data() + 20, 20);
  }
  OPENSSL_free(again);
  DSA_SIG_free(sig);
  return raw;
}

}  // namespace velk2::testing

#endif  // VELK2_TESTS_PLATFORM_ZCRY_TEST_UTIL_H_
