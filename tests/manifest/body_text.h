// Manifest bodies written by hand for the tests of the tree reader and the
// comparisons: each file's digest is the SHA-256 of the content it stands
// for, computed here with OpenSSL rather than by the library under test.
#ifndef VELK2_TESTS_MANIFEST_BODY_TEXT_H_
#define VELK2_TESTS_MANIFEST_BODY_TEXT_H_

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "credentials/credentials_test_util.h"  // Atom
#include "manifest/body.h"
#include "platform/utf.h"
#include "velk2.h"

namespace velk2::testing {

// The raw 32 bytes of the SHA-256 of |content|.
inline std::string Sha256(std::string_view content) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EXPECT_EQ(EVP_Digest(content.data(), content.size(), digest, &length, EVP_sha256(), nullptr), 1);
  return std::string(reinterpret_cast<const char*>(digest), length);
}

inline std::array<uint8_t, 32> DigestOf(std::string_view content) {
  const std::string bytes = Sha256(content);
  std::array<uint8_t, 32> digest{};
  std::copy(bytes.begin(), bytes.end(), digest.begin());
  return digest;
}

inline std::string HexOf(std::string_view content) {
  const std::string bytes = Sha256(content);
  return HexString(bytes.data(), bytes.size());
}

// "(4:file NAME SIZE DIGEST)" for a file holding |content|.
inline std::string FileEntry(std::string_view name, std::string_view content) {
  return "(4:file" + Atom(name) + Atom(std::to_string(content.size())) + Atom(Sha256(content)) +
         ")";
}

inline std::string DirEntry(std::string_view name, std::initializer_list<std::string> entries) {
  std::string out = "(3:dir" + Atom(name) + "0:";
  for (const std::string& entry : entries) out += entry;
  return out + ")";
}

inline std::string BodyText(std::initializer_list<std::string> entries,
                            std::string_view token = "tokn") {
  std::string out = "(4:body(12:random-token" + Atom(token) + ")";
  for (const std::string& entry : entries) out += entry;
  return out + ")";
}

// The tree of |body| with the root path |path|; the test fails when it does
// not read.
inline ManifestDirectory Tree(const std::string& body, const std::string& path = "",
                              const std::vector<std::string>& ignored = {}) {
  ManifestDirectory root;
  root.path = Utf8ToUtf16(path);
  std::vector<std::u16string> wide;
  for (const std::string& item : ignored) wide.push_back(Utf8ToUtf16(item));
  EXPECT_EQ(ReadManifestBody(&root, body, &wide), VELK2_SUCCESS) << body;
  return root;
}

inline std::vector<std::string> Names(const ManifestDirectory& level) {
  std::vector<std::string> names;
  for (const ManifestFileEntry& file : level.files) names.push_back(Utf16ToUtf8(file.name));
  for (const ManifestDirectory& directory : level.directories) {
    names.push_back(Utf16ToUtf8(directory.name) + "/");
  }
  return names;
}

}  // namespace velk2::testing

#endif  // VELK2_TESTS_MANIFEST_BODY_TEXT_H_
