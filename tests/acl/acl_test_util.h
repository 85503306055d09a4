// Helpers of the ACL tests: temporary directories and files, canonical texts
// of toolkit keys, and library lists parsed from canonical text.
#ifndef VELK2_TESTS_ACL_ACL_TEST_UTIL_H_
#define VELK2_TESTS_ACL_ACL_TEST_UTIL_H_

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "credentials/credentials_test_util.h"
#include "platform/utf.h"
#include "sexp/reader.h"
#include "sexp/source.h"
#include "tools/issuing/issuer.h"
#include "tools/issuing/private_key.h"

namespace velk2::testing {

// A fresh directory under the system's temporary directory, removed with
// everything in it at the end of the test.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "velk2_acl_XXXXXX").string();
    path_ = mkdtemp(pattern.data()) ? pattern : std::string();
    EXPECT_FALSE(path_.empty());
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string Sub(const std::string& name) const { return path_ + "/" + name; }
  std::u16string Wide(const std::string& name = "") const {
    return Utf8ToUtf16(name.empty() ? path_ : Sub(name));
  }

 private:
  std::string path_;
};

inline void WriteFile(const std::string& path, std::string_view bytes) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  ASSERT_TRUE(out.good()) << path;
}

inline std::string ReadFileText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Toolkit RSA keys, generated once per test binary; |index| picks one.
inline const issuing::PrivateKey& TestKey(size_t index) {
  static std::vector<issuing::PrivateKey> keys;
  while (keys.size() <= index) {
    issuing::PrivateKey key;
    EXPECT_EQ(issuing::PrivateKey::Generate(issuing::KeyType::kRsa, 2048, &key), VELK2_SUCCESS);
    keys.push_back(std::move(key));
  }
  return keys[index];
}

// A list read from canonical text (no class of its own), or null.
inline Ref<SexpList> ListFromText(std::string_view text) {
  SexpMemorySource source;
  EXPECT_EQ(source.AttachCopy(text.data(), text.size()), VELK2_SUCCESS);
  Ref<SexpList> list;
  EXPECT_EQ(ParseCanonicalList(&list, &source, nullptr), VELK2_SUCCESS) << text;
  return list;
}

inline Ref<SexpList> PublicKeyList(size_t index) {
  Ref<SexpList> key;
  EXPECT_EQ(issuing::MakePublicKey(TestKey(index), &key), VELK2_SUCCESS);
  return key;
}

// "(tag ...)" from the readable form.
inline Ref<SexpList> TagList(const std::string& readable) {
  Ref<SexpList> tag;
  EXPECT_EQ(issuing::ParseTag(readable, &tag), VELK2_SUCCESS) << readable;
  return tag;
}

}  // namespace velk2::testing

#endif  // VELK2_TESTS_ACL_ACL_TEST_UTIL_H_
