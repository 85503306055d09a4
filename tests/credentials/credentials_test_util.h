// Helpers of the credential tests: canonical text builders, sources over
// text, and toolkit keys made once per run (the output forms as strings come
// from the S-expression tests' helpers).
#ifndef VELK2_TESTS_CREDENTIALS_CREDENTIALS_TEST_UTIL_H_
#define VELK2_TESTS_CREDENTIALS_CREDENTIALS_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "credentials/credential.h"
#include "sexp/sexp_test_util.h"
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

// Reads every text as a T and expects its result code.
template <typename T>
void ExpectParseResults(const std::vector<std::pair<std::string, Result>>& cases) {
  for (const auto& [text, want] : cases) {
    Result result = VELK2_SUCCESS;
    ParseAs<T>(text, &result);
    EXPECT_EQ(result, want) << text.substr(0, 60);
  }
}

// The digest of |object|'s stored form, as a signer computes it.
inline std::vector<uint8_t> StoredDigest(const SexpObject& object, uint32_t hash_id) {
  CBuffer<uint8_t> digest;
  uint32_t length = 0;
  EXPECT_EQ(ComputeHash(&object, &digest, &length, hash_id, false), VELK2_SUCCESS);
  return digest ? std::vector<uint8_t>(digest.get(), digest.get() + length)
                : std::vector<uint8_t>();
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
inline issuing::PrivateKey Generated(issuing::KeyType type) {
  issuing::PrivateKey key;
  EXPECT_EQ(issuing::PrivateKey::Generate(type, 2048, &key), VELK2_SUCCESS);
  return key;
}
inline const issuing::PrivateKey& RsaKey() {
  static const issuing::PrivateKey key = Generated(issuing::KeyType::kRsa);
  return key;
}
inline const issuing::PrivateKey& OtherRsaKey() {
  static const issuing::PrivateKey key = Generated(issuing::KeyType::kRsa);
  return key;
}
inline const issuing::PrivateKey& DsaKey() {
  static const issuing::PrivateKey key = Generated(issuing::KeyType::kDsa);
  return key;
}

}  // namespace velk2::testing

#endif  // VELK2_TESTS_CREDENTIALS_CREDENTIALS_TEST_UTIL_H_
