// Helpers of the credential tests: canonical text builders, sources over
// text, the output forms as strings, and toolkit keys made once per run.
#ifndef VELK2_TESTS_CREDENTIALS_CREDENTIALS_TEST_UTIL_H_
#define VELK2_TESTS_CREDENTIALS_CREDENTIALS_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "credentials/credential.h"
#include "platform/zcry.h"
#include "sexp/object.h"
#include "sexp/source.h"
#include "tools/issuing/private_key.h"

namespace velk2::testing {

// "3:abc": a canonical atom.
inline std::string Atom(std::string_view bytes) {
  return std::to_string(bytes.size()) + ":" + std::string(bytes);
}
inline std::string Atom(const std::vector<uint8_t>& bytes) {
  return Atom(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

inline std::unique_ptr<SexpMemorySource> Source(std::string_view text) {
  auto source = std::make_unique<SexpMemorySource>();
  EXPECT_EQ(source->AttachCopy(text.data(), text.size()), VELK2_SUCCESS);
  return source;
}

// Parses |text| into a new object of class T; the result code in *result.
template <typename T>
Ref<T> ParseAs(std::string_view text, Result* result) {
  Ref<T> object = T::New();
  auto source = Source(text);
  *result = object->Parse(source.get());
  return object;
}

// Parses |text| and expects success.
template <typename T>
Ref<T> MustParse(std::string_view text) {
  Result result = VELK2_FAILURE;
  Ref<T> object = ParseAs<T>(text, &result);
  EXPECT_EQ(result, VELK2_SUCCESS) << "parsing " << text;
  return result == VELK2_SUCCESS ? object : nullptr;
}

// The canonical form (hints left out).
inline std::string CanonicalOf(const SexpObject& object) {
  const uint32_t size = object.CanonicalLength();
  std::vector<uint8_t> buffer(size + 1);
  uint32_t position = 0;
  EXPECT_EQ(object.WriteCanonical(buffer.data(), &position, size + 1), VELK2_SUCCESS);
  return std::string(buffer.begin(), buffer.begin() + position);
}

// The stored form (hint markers kept), as a file holds it.
inline std::string StoredOf(const SexpObject& object) {
  std::string stored = StoredForm(object);
  EXPECT_FALSE(stored.empty());
  return stored;
}

// The digest of |object|'s stored form, as a signer computes it.
inline std::vector<uint8_t> StoredDigest(const SexpObject& object, uint32_t hash_id) {
  CBuffer<uint8_t> digest;
  uint32_t length = 0;
  EXPECT_EQ(ComputeHash(&object, &digest, &length, hash_id, false), VELK2_SUCCESS);
  return digest ? std::vector<uint8_t>(digest.get(), digest.get() + length)
                : std::vector<uint8_t>();
}

inline std::vector<uint8_t> DigestOf(uint32_t hash_id, std::string_view bytes) {
  zcry_HashInfoRecord info{};
  info.words[0] = sizeof(info);
  EXPECT_EQ(zcry_HashInfo(hash_id, &info), 0u);
  std::vector<uint8_t> digest(info.words[6]);
  ZCRY_HASH hash = nullptr;
  EXPECT_EQ(zcry_HashAlloc(&hash, hash_id, 0), 0u);
  EXPECT_EQ(zcry_HashUpdate(hash, bytes.data(), bytes.size(), 0), 0u);
  EXPECT_EQ(zcry_HashFinal(hash, digest.data(), 0), 0u);
  zcry_HashFree(hash, 0);
  return digest;
}

// The canonical public key of a toolkit key.
inline std::string KeyText(const issuing::PrivateKey& key) {
  if (key.type() == issuing::KeyType::kRsa) {
    return "(10:public-key(3:rsa(1:e" + Atom(key.Parameter("e")) + ")(1:n" +
           Atom(key.Parameter("n")) + ")))";
  }
  return "(10:public-key(3:dsa(1:p" + Atom(key.Parameter("p")) + ")(1:g" +
         Atom(key.Parameter("g")) + ")(1:q" + Atom(key.Parameter("q")) + ")(1:y" +
         Atom(key.Parameter("y")) + ")))";
}

inline std::string HashText(std::string_view name, const std::vector<uint8_t>& digest) {
  return "(4:hash" + Atom(name) + Atom(digest) + ")";
}

// Toolkit keys, generated once per test binary (DSA parameters are slow).
inline const issuing::PrivateKey& RsaKey() {
  static const issuing::PrivateKey key = [] {
    issuing::PrivateKey k;
    EXPECT_EQ(issuing::PrivateKey::Generate(issuing::KeyType::kRsa, 2048, &k), VELK2_SUCCESS);
    return k;
  }();
  return key;
}
inline const issuing::PrivateKey& OtherRsaKey() {
  static const issuing::PrivateKey key = [] {
    issuing::PrivateKey k;
    EXPECT_EQ(issuing::PrivateKey::Generate(issuing::KeyType::kRsa, 2048, &k), VELK2_SUCCESS);
    return k;
  }();
  return key;
}
inline const issuing::PrivateKey& DsaKey() {
  static const issuing::PrivateKey key = [] {
    issuing::PrivateKey k;
    EXPECT_EQ(issuing::PrivateKey::Generate(issuing::KeyType::kDsa, 1024, &k), VELK2_SUCCESS);
    return k;
  }();
  return key;
}

// "/tmp/..." as a library path.
inline std::u16string WidePath(const std::string& path) {
  return std::u16string(path.begin(), path.end());
}

}  // namespace velk2::testing

#endif  // VELK2_TESTS_CREDENTIALS_CREDENTIALS_TEST_UTIL_H_
