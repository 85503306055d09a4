// Helpers of the crypto module tests: hex, digests through the module, and key
// handles defined the way the credential code defines them.
#ifndef VELK2_TESTS_PLATFORM_ZCRY_TEST_UTIL_H_
#define VELK2_TESTS_PLATFORM_ZCRY_TEST_UTIL_H_

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
std::optional<Bytes> FromHex(std::string_view hex);
std::string ToHex(const Bytes& bytes);

// Digest of |data| through zcry_HashAlloc/Update/Final/Free, fed in pieces of
// |piece| bytes (0: all at once). Fails the current test on a non-zero status.
Bytes Digest(uint32_t hash_id, std::string_view data, size_t piece = 0);

struct KeyFree {
  void operator()(zcry_KeyState* key) const { zcry_PublicKeyFree(key, kContextWord); }
};
using KeyHandle = std::unique_ptr<zcry_KeyState, KeyFree>;

// Defines an RSA key from e and n exactly as the credential code does: a record
// of kind 8, e then n through zcry_BigIntFromBuffer, zcry_PublicKeyDefine, then
// zcry_PublicKeyGetData into a second record for the data word. Both records
// are wiped before returning. Returns the first non-zero status.
ZCRY_STATUS DefineRsaKey(const Bytes& e, const Bytes& n, KeyHandle* key,
                         uint32_t* data_word = nullptr);
// The same for DSA: records of kind 6 with the sizes 48 and 60, p, g, q, y.
ZCRY_STATUS DefineDsaKey(const Bytes& p, const Bytes& q, const Bytes& g, const Bytes& y,
                         KeyHandle* key, uint32_t* data_word = nullptr);

// Parameter records as the signature code writes them.
zcry_RSAParams RsaParams(uint32_t hash_id);
zcry_DSAParams DsaParams();

// Verifies and returns the status; *valid receives the valid word.
ZCRY_STATUS Verify(const KeyHandle& key, uint32_t scheme, const void* params, const Bytes& digest,
                   const Bytes& signature, uint32_t* valid);

// The 40-byte r || s form of a DER DSA signature, or nullopt when the DER does
// not decode strictly (exact DER, nothing after it, 0 <= r, s < 2^160).
std::optional<Bytes> DsaDerToRaw(const Bytes& der);

}  // namespace velk2::testing

#endif  // VELK2_TESTS_PLATFORM_ZCRY_TEST_UTIL_H_
