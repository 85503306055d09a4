#include "credentials/hash_value.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "credentials/certificate.h"
#include "credentials_test_util.h"
#include "platform/utf.h"
#include "platform/zcry_test_util.h"

namespace velk2::testing {
namespace {

std::string Text(const std::vector<uint8_t>& bytes) {
  return std::string(bytes.begin(), bytes.end());
}

TEST(HashValueTest, ParsesEveryAlgorithmWithItsLength) {
  struct Case {
    const char* name;
    size_t length;
    int32_t id;
  };
  const Case kCases[] = {{"sha1", 20, 0}, {"sha256", 32, 2}, {"rmd160", 20, 3}};
  for (const Case& c : kCases) {
    const std::string digest(c.length, '\xA5');
    const std::string text = "(4:hash" + Atom(c.name) + Atom(digest) + ")";
    Ref<HashValue> hash = MustParse<HashValue>(text);
    ASSERT_TRUE(hash) << c.name;
    EXPECT_EQ(hash->algorithm(), c.id);
    EXPECT_EQ(hash->digest(), digest);
    EXPECT_EQ(hash->ChildCount(), 3u);
    EXPECT_EQ(hash->value(), hash->ChildAt(2));
    EXPECT_EQ(CanonicalOf(*hash), text);
    EXPECT_EQ(HashValue::From(hash.get()), hash.get());
  }
}

TEST(HashValueTest, RefusesBadNamesAndLengthsWithTheirCodes) {
  const std::string d20 = Atom(std::string(20, 'x')), d32 = Atom(std::string(32, 'x'));
  ExpectParseResults<HashValue>({
      {"(4:hash4:sha1" + Atom(std::string(19, 'x')) + ")", VELK2_ERR_INVALID_HASH},
      {"(4:hash4:sha1" + Atom(std::string(21, 'x')) + ")", VELK2_ERR_INVALID_HASH},
      {"(4:hash4:sha1" + d32 + ")", VELK2_ERR_INVALID_HASH},
      {"(4:hash6:sha256" + d20 + ")", VELK2_ERR_INVALID_HASH},
      // Only "sha256" may have 32 bytes.
      {"(4:hash6:rmd160" + d32 + ")", VELK2_ERR_INVALID_HASH},
      // Unknown and differently cased names: 16, not 13.
      {"(4:hash3:md5" + d20 + ")", VELK2_ERR_HASH_ID},
      {"(4:hash4:SHA1" + d20 + ")", VELK2_ERR_HASH_ID},
      {"(4:hash5:sha25" + d32 + ")", VELK2_ERR_HASH_ID},
      {"(4:hash0:" + d20 + ")", VELK2_ERR_HASH_ID},
      // Literal and reader failures as the source reports them.
      {"(4:HASH4:sha1" + d20 + ")", VELK2_ERR_INVALID_DATA},
      {"(4:hash4:sha1" + d20, VELK2_ERR_FILE_OPEN},
      {"(4:hash4:sha1" + d20 + "(", VELK2_ERR_INVALID_DATA},
      {"(4:hash4:sha120:short)", VELK2_ERR_PARSE_FILE},
      {"(4:hash", VELK2_ERR_FILE_OPEN},
      {"(4:has", VELK2_ERR_FILE_OPEN},
  });
  EXPECT_EQ(HashValue::New()->Parse(nullptr), VELK2_ERR_INVALID_PARAM);
}

TEST(HashValueTest, KeepsHintsInTheStoredFormOnly) {
  const std::string digest = Atom(std::string(20, '\x01'));
  Ref<HashValue> hash = MustParse<HashValue>("(4:hash[utf-8]4:sha1[bin]" + digest + ")");
  ASSERT_TRUE(hash);
  EXPECT_EQ(StoredOf(*hash), "(4:hash[utf-8]4:sha1[bin]" + digest + ")");
  EXPECT_EQ(CanonicalOf(*hash), "(4:hash4:sha1" + digest + ")");
}

TEST(HashValueTest, BuildsDigestsOfBytesAndObjects) {
  const std::string data = "the quick brown fox";
  for (uint32_t id : {0u, 2u, 3u}) {
    Ref<HashValue> hash = HashValue::New();
    ASSERT_EQ(hash->Begin(id), VELK2_SUCCESS);
    EXPECT_EQ(hash->Update(data.data(), 4), VELK2_SUCCESS);
    EXPECT_EQ(hash->Update(data.data() + 4, data.size() - 4), VELK2_SUCCESS);
    ASSERT_EQ(hash->Finish(), VELK2_SUCCESS);
    const Bytes want = Digest(id, data);
    EXPECT_EQ(hash->built_length(), want.size());
    EXPECT_EQ(hash->digest(), Text(want));
    EXPECT_EQ(hash->algorithm(), static_cast<int32_t>(id));
    // The built value reads back as the same hash value.
    Ref<HashValue> reread = MustParse<HashValue>(CanonicalOf(*hash));
    ASSERT_TRUE(reread);
    EXPECT_TRUE(SameCanonicalForm(hash.get(), reread.get()));
    // A second Finish is the crypto module's finished-hash failure.
    EXPECT_EQ(hash->Finish(), ZCRY_E_HASH_FINISHED);
  }

  // Absorb feeds the stored form, hint markers included.
  Ref<HashValue> object =
      MustParse<HashValue>("(4:hash4:sha1[bin]" + Atom(std::string(20, 'q')) + ")");
  ASSERT_TRUE(object);
  Ref<HashValue> hash = HashValue::New();
  ASSERT_EQ(hash->Begin(ZCRY_HASH_SHA256), VELK2_SUCCESS);
  ASSERT_EQ(hash->Absorb(object.get()), VELK2_SUCCESS);
  ASSERT_EQ(hash->Finish(), VELK2_SUCCESS);
  EXPECT_EQ(hash->digest(), Text(Digest(ZCRY_HASH_SHA256, StoredOf(*object))));
  EXPECT_EQ(hash->Absorb(nullptr), VELK2_ERR_INVALID_PARAM);
}

TEST(HashValueTest, BuildingRefusesBadIdentifiersAndOrder) {
  for (uint32_t id : {1u, 4u, 13u, 0xFFFFFFFFu}) {
    EXPECT_EQ(HashValue::New()->Begin(id), VELK2_ERR_HASH_ID) << id;
  }
  Ref<HashValue> hash = HashValue::New();
  EXPECT_EQ(hash->Finish(), VELK2_ERR_INVALID_PARAM);
  ASSERT_EQ(hash->Begin(ZCRY_HASH_SHA1), VELK2_SUCCESS);
  EXPECT_EQ(hash->Begin(ZCRY_HASH_SHA1), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(HashValue::New()->Update("x", 1), ZCRY_E_NULL_ARGUMENT);
  // A hash value being built, or one read already, is not read again.
  const std::string text = "(4:hash4:sha1" + Atom(std::string(20, 'x')) + ")";
  EXPECT_EQ(hash->Parse(Source(text).get()), VELK2_ERR_INVALID_PARAM);
  Ref<HashValue> read = MustParse<HashValue>(text);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->Parse(Source(text).get()), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(read->Begin(ZCRY_HASH_SHA1), VELK2_ERR_INVALID_PARAM);
}

// ---- HashFile ------------------------------------------------------------------

class HashFileTest : public ::testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directories(directory_); }
  void TearDown() override { std::filesystem::remove_all(directory_); }
  std::u16string Write(const std::string& name, const std::string& bytes) {
    std::ofstream(directory_ / name, std::ios::binary) << bytes;
    return Utf8ToUtf16((directory_ / name).string());
  }
  const std::filesystem::path directory_ =
      std::filesystem::temp_directory_path() / ("velk2_hashfile_" + std::to_string(::getpid()));
};

TEST_F(HashFileTest, DigestsFilesAroundBlockBoundaries) {
  std::mt19937 random(7);
  const size_t kSizes[] = {0,     1,     3,      4,      5,      1023,       1024,          65535,
                           65536, 65537, 262143, 262144, 262145, 524288 + 7, 3 * 262144 + 1};
  for (size_t size : kSizes) {
    std::string bytes(size, '\0');
    for (char& b : bytes) b = static_cast<char>(random());
    uint8_t digest[32] = {};
    uint32_t length = 0;
    ASSERT_EQ(HashFile(Write(std::string("f").append(std::to_string(size)), bytes).c_str(), digest,
                       &length, nullptr),
              VELK2_SUCCESS)
        << size;
    EXPECT_EQ(length, 32u);
    EXPECT_EQ(Bytes(digest, digest + 32), Digest(ZCRY_HASH_SHA256, bytes)) << size;
  }
}

TEST_F(HashFileTest, FollowsTheLengthRules) {
  const std::u16string path = Write("data", "abc");
  struct Case {
    uint32_t length_in;
    Result want;
    uint32_t length_out;
  };
  const Case kCases[] = {
      {0, VELK2_SUCCESS, 32},  // 0: the buffer is large enough
      {32, VELK2_SUCCESS, 32},
      {64, VELK2_SUCCESS, 32},
      {16, VELK2_ERR_BUFFER_OVERFLOW, 16},  // left untouched
      {31, VELK2_ERR_BUFFER_OVERFLOW, 31},
  };
  for (const Case& c : kCases) {
    uint8_t digest[64] = {};
    uint32_t length = c.length_in;
    EXPECT_EQ(HashFile(path.c_str(), digest, &length, nullptr), c.want) << c.length_in;
    EXPECT_EQ(length, c.length_out) << c.length_in;
  }
  uint8_t digest[32];
  for (const std::filesystem::path& missing : {directory_ / "missing", directory_}) {
    uint32_t length = 32;
    EXPECT_EQ(HashFile(Utf8ToUtf16(missing.string()).c_str(), digest, &length, nullptr),
              VELK2_ERR_FILE_OPEN)
        << missing;
    EXPECT_EQ(length, 0u);
  }
  uint32_t length = 0;
  EXPECT_EQ(HashFile(nullptr, digest, &length, nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(HashFile(path.c_str(), nullptr, &length, nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(HashFile(path.c_str(), digest, nullptr, nullptr), VELK2_ERR_INVALID_PARAM);
}

}  // namespace
}  // namespace velk2::testing
