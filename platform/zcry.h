// The crypto module: hashing and public-key signature verification over
// OpenSSL 3 libcrypto, behind the zcry_* entry points the credential code calls.
//
// Every entry point returns a ZCRY_STATUS: 0 on success, otherwise one of the
// values below (all >= 1000, so they never collide with library result codes
// and can be passed up unchanged). Every entry point takes the caller's context
// word as its last argument; the module accepts it and passes it through.
#ifndef VELK2_PLATFORM_ZCRY_H_
#define VELK2_PLATFORM_ZCRY_H_

#include <cstddef>
#include <cstdint>

typedef uint32_t ZCRY_STATUS;

enum : ZCRY_STATUS {
  ZCRY_OK = 0,
  ZCRY_E_NULL_ARGUMENT = 1001,      // a required pointer was null
  ZCRY_E_BAD_RECORD = 1002,         // a record's size word or kind is wrong
  ZCRY_E_UNKNOWN_ALGORITHM = 1003,  // unknown key type or record kind
  ZCRY_E_NO_MEMORY = 1007,          // allocation failed
  ZCRY_E_BAD_KEY = 1009,            // the key material does not form a usable key
  ZCRY_E_BAD_SCHEME = 1014,         // unknown signature scheme, or not one for the key's type
  ZCRY_E_BAD_PARAMETERS = 1015,     // a parameter record, format, flag or reserved word is wrong
  ZCRY_E_BAD_DIGEST_LENGTH = 1017,  // the digest length does not fit the hash named
  ZCRY_E_UNKNOWN_HASH = 1020,       // unknown hash identifier
  ZCRY_E_HASH_FINISHED = 1025,      // the hash handle was already finalised
  ZCRY_E_INTERNAL = 1030,           // the backend failed unexpectedly
  ZCRY_E_BUFFER_TOO_SMALL = 1070,   // an output buffer is too small
};

// Whether |status| is one of the failure statuses above.
inline bool ZcryIsStatus(uint32_t status) {
  switch (status) {
    case ZCRY_E_NULL_ARGUMENT:
    case ZCRY_E_BAD_RECORD:
    case ZCRY_E_UNKNOWN_ALGORITHM:
    case ZCRY_E_NO_MEMORY:
    case ZCRY_E_BAD_KEY:
    case ZCRY_E_BAD_SCHEME:
    case ZCRY_E_BAD_PARAMETERS:
    case ZCRY_E_BAD_DIGEST_LENGTH:
    case ZCRY_E_UNKNOWN_HASH:
    case ZCRY_E_HASH_FINISHED:
    case ZCRY_E_INTERNAL:
    case ZCRY_E_BUFFER_TOO_SMALL:
      return true;
    default:
      return false;
  }
}

// Hash identifiers.
enum : uint32_t {
  ZCRY_HASH_SHA1 = 0,
  ZCRY_HASH_SHA256 = 2,
  ZCRY_HASH_RIPEMD160 = 3,
};

// Signature schemes of zcry_PublicKeyVerifySignature.
enum : uint32_t {
  ZCRY_SCHEME_DSA_SHA1 = 1,
  ZCRY_SCHEME_RSA_PKCS1_V15 = 2,
  ZCRY_SCHEME_RSA_PSS = 4,
};

// Key types of zcry_PublicKeyDefine and record kinds of the key records.
enum : uint32_t {
  ZCRY_KEY_DSA = 0,
  ZCRY_KEY_RSA = 1,
  ZCRY_RECORD_DSS_KEY = 6,
  ZCRY_RECORD_RSA_KEY = 8,
};

// Tags of the signature parameter records.
enum : uint32_t {
  ZCRY_RSA_PARAMS_TAG = 0x7AFAB04Du,
  ZCRY_DSA_PARAMS_TAG = 0x1A5A6C5Bu,
};

typedef struct zcry_HashState* ZCRY_HASH;       // opaque hash handle
typedef struct zcry_KeyState* ZCRY_PUBLIC_KEY;  // opaque public-key handle

// Hash information record: 32 bytes. The caller zeroes it and writes its size
// (32) into words[0]; zcry_HashInfo stores the digest size into words[6].
struct zcry_HashInfoRecord {
  uint32_t words[8];
};
static_assert(sizeof(zcry_HashInfoRecord) == 32);

// An unsigned big-endian integer owned by the key record that holds it.
struct zcry_BigInt {
  uint8_t* bytes;
  uint32_t length;
};

// RSA key record (kind 8): exponent and modulus. After zcry_PublicKeyGetData,
// data_word holds the modulus size in bits.
struct zcry_RSAKeyStruct {
  uint32_t kind;
  zcry_BigInt e;
  zcry_BigInt n;
  uint32_t data_word;
};

// DSS key record (kind 6). The caller writes the record's two structure sizes
// (48 and 60) into it before zcry_DSSKeyStructInit, which checks them.
struct zcry_DSSKeyStruct {
  uint32_t kind;
  uint32_t size_a;
  uint32_t size_b;
  zcry_BigInt p;
  zcry_BigInt q;
  zcry_BigInt g;
  zcry_BigInt y;
  uint32_t data_word;
};

// Signature parameter records; the first word is the record's size in bytes.
// RSA (40 bytes): size 40, tag, 0, hash id, 0, hash id, 0, 0, 4, 0.
struct zcry_RSAParams {
  uint32_t words[10];
};
static_assert(sizeof(zcry_RSAParams) == 40);
// DSA (20 bytes): size 20, tag, 0, 0, 0.
struct zcry_DSAParams {
  uint32_t words[5];
};
static_assert(sizeof(zcry_DSAParams) == 20);

// ---- Hashing ---------------------------------------------------------------

// zcry_HashInfo fills |info| for |hash_id|: the digest size in words[6]; the
// other words are left as they are. |info| must carry its size (32) in words[0].
ZCRY_STATUS zcry_HashInfo(uint32_t hash_id, zcry_HashInfoRecord* info);
// zcry_HashAlloc starts a digest of |hash_id|; *handle receives the new state.
ZCRY_STATUS zcry_HashAlloc(ZCRY_HASH* handle, uint32_t hash_id, uint32_t context);
ZCRY_STATUS zcry_HashUpdate(ZCRY_HASH handle, const void* bytes, size_t count, uint32_t context);
// zcry_HashFinal writes the digest (its size as zcry_HashInfo reports) to |digest|.
// The handle can be finalised once: a later update or final gives
// ZCRY_E_HASH_FINISHED. It must still be freed.
ZCRY_STATUS zcry_HashFinal(ZCRY_HASH handle, uint8_t* digest, uint32_t context);
// zcry_HashFree releases a hash handle; a null handle is harmless.
ZCRY_STATUS zcry_HashFree(ZCRY_HASH handle, uint32_t context);

// ---- Public keys -----------------------------------------------------------

// zcry_BigIntFromBuffer copies |length| big-endian bytes into |bigint| (which
// must belong to an initialised record), wiping and freeing what it held. The
// three trailing words are reserved and must be 0. More than 2048 bytes give
// ZCRY_E_BAD_KEY.
ZCRY_STATUS zcry_BigIntFromBuffer(zcry_BigInt* bigint, uint32_t length, const uint8_t* bytes,
                                  uint32_t reserved1, uint32_t reserved2, uint32_t reserved3);
// zcry_RSAKeyStructInit empties a record of kind 8 (any other kind:
// ZCRY_E_UNKNOWN_ALGORITHM). It does not free what the record held.
ZCRY_STATUS zcry_RSAKeyStructInit(uint32_t kind, zcry_RSAKeyStruct* record);
// Wipes and frees the big integers of an initialised record (ZCRY_E_BAD_RECORD
// otherwise); wiping twice is harmless.
ZCRY_STATUS zcry_RSAKeyStructZeroize(zcry_RSAKeyStruct* record);
// zcry_DSSKeyStructInit empties a record of kind 6 whose two size words, and
// the two size arguments, are 48 and 60 (ZCRY_E_BAD_RECORD otherwise).
ZCRY_STATUS zcry_DSSKeyStructInit(uint32_t kind, zcry_DSSKeyStruct* record, uint32_t size_a,
                                  uint32_t size_b);
ZCRY_STATUS zcry_DSSKeyStructZeroize(zcry_DSSKeyStruct* record);

// zcry_PublicKeyDefine makes a key handle of |key_type| (ZCRY_KEY_RSA with an
// RSA record of kind 8, ZCRY_KEY_DSA with a DSS record of kind 6). |flags| is 0.
// An unknown key type or kind gives ZCRY_E_UNKNOWN_ALGORITHM, a kind that is
// not the key type's or a record not initialised as |kind| ZCRY_E_BAD_RECORD,
// and missing or unusable numbers ZCRY_E_BAD_KEY: RSA needs an odd n and an odd
// e with 1 < e < n; DSA needs a 160-bit q (the signature form has 20 bytes for
// each of r and s), q < p and 1 < g, y < p. *handle is null after a failure.
ZCRY_STATUS zcry_PublicKeyDefine(ZCRY_PUBLIC_KEY* handle, uint32_t key_type, uint32_t kind,
                                 const void* record, uint32_t flags, uint32_t context);
// zcry_PublicKeyGetData fills a record of |kind| (initialised by the caller) with
// the key's parameters and its data word: the size in bits of n (RSA) or p (DSA).
ZCRY_STATUS zcry_PublicKeyGetData(ZCRY_PUBLIC_KEY handle, uint32_t kind, void* record,
                                  uint32_t context);
// zcry_PublicKeyExport writes the key as DER SubjectPublicKeyInfo. With a null
// or too small |buffer| it stores the size needed in *length and returns
// ZCRY_E_BUFFER_TOO_SMALL. |format| and |flags| are 0.
ZCRY_STATUS zcry_PublicKeyExport(ZCRY_PUBLIC_KEY handle, uint32_t format, uint32_t flags,
                                 uint8_t* buffer, uint32_t* length, uint32_t context);
// zcry_PublicKeyFree releases a key handle; a null handle is harmless.
ZCRY_STATUS zcry_PublicKeyFree(ZCRY_PUBLIC_KEY handle, uint32_t context);

// zcry_PublicKeyVerifySignature checks |signature| over |digest| with |scheme|
// and its parameter record. *valid is 1 for a good signature, 0 for a bad one;
// the status is 0 in both cases and non-zero only for unusable arguments.
// Scheme 1 (DSA key, DSA record) takes a 20-byte SHA-1 digest and a 40-byte
// signature r || s. Schemes 2 (RSASSA-PKCS1-v1_5) and 4 (RSASSA-PSS, MGF1 with
// the same hash, any salt length) take an RSA record naming SHA-1 or SHA-256 and
// a signature as long as the modulus. A signature of another length is a bad
// signature; a digest of the wrong length gives ZCRY_E_BAD_DIGEST_LENGTH.
ZCRY_STATUS zcry_PublicKeyVerifySignature(ZCRY_PUBLIC_KEY handle, uint32_t scheme,
                                          const void* params, const uint8_t* digest,
                                          uint32_t digest_length, const uint8_t* signature,
                                          uint32_t signature_length, uint32_t* valid,
                                          uint32_t context);

#endif  // VELK2_PLATFORM_ZCRY_H_
