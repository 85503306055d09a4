#include "credentials/hash_value.h"

#include <gtest/gtest.h>
#include <openssl/sha.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "credentials/certificate.h"
#include "credentials_test_util.h"

namespace velk2::testing {
namespace {

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
  struct Case {
    std::string text;
    Result want;
  };
  const std::string d20(20, 'x'), d32(32, 'x');
  const Case kCases[] = {
      {"(4:hash4:sha1" + Atom(std::string(19, 'x')) + ")", VELK2_ERR_INVALID_HASH},
      {"(4:hash4:sha1" + Atom(std::string(21, 'x')) + ")", VELK2_ERR_INVALID_HASH},
      {"(4:hash4:sha1" + Atom(d32) + ")", VELK2_ERR_INVALID_HASH},
      {"(4:hash6:sha256" + Atom(d20) + ")", VELK2_ERR_INVALID_HASH},
      // Only "sha256" may have 32 bytes.
      {"(4:hash6:rmd160" + Atom(d32) + ")", VELK2_ERR_INVALID_HASH},
      // Unknown and differently cased names: 16, not 13.
      {"(4:hash3:md5" + Atom(d20) + ")", VELK2_ERR_HASH_ID},
      {"(4:hash4:SHA1" + Atom(d20) + ")", VELK2_ERR_HASH_ID},
      {"(4:hash5:sha25" + Atom(d32) + ")", VELK2_ERR_HASH_ID},
      {"(4:hash0:" + Atom(d20) + ")", VELK2_ERR_HASH_ID},
      // Literal and reader failures as the source reports them.
      {"(4:HASH4:sha1" + Atom(d20) + ")", VELK2_ERR_INVALID_DATA},
      {"(4:hash4:sha1" + Atom(d20), VELK2_ERR_FILE_OPEN},
      {"(4:hash4:sha1" + Atom(d20) + "]", VELK2_ERR_INVALID_DATA},
      {"(4:hash4:sha1" + Atom(d20) + "(", VELK2_ERR_INVALID_DATA},
      {"(4:hash4:sha120:short)", VELK2_ERR_PARSE_FILE},
      {"(4:hash", VELK2_ERR_FILE_OPEN},
      {"(4:has", VELK2_ERR_FILE_OPEN},
  };
  for (const Case& c : kCases) {
    Result result = VELK2_SUCCESS;
    ParseAs<HashValue>(c.text, &result);
    EXPECT_EQ(result, c.want) << c.text;
  }
  EXPECT_EQ(HashValue::New()->Parse(nullptr), VELK2_ERR_INVALID_PARAM);
}

TEST(HashValueTest, KeepsDisplayHintsOfTheReadAtoms) {
  const std::string digest(20, '\x01');
  const std::string text = "(4:hash[utf-8]4:sha1[bin]" + Atom(digest) + ")";
  Ref<HashValue> hash = MustParse<HashValue>(text);
  ASSERT_TRUE(hash);
  EXPECT_EQ(StoredOf(*hash), text);
  EXPECT_EQ(CanonicalOf(*hash), "(4:hash4:sha1" + Atom(digest) + ")");
}

TEST(HashValueTest, BuildsDigestsOfBytesAndObjects) {
  const std::string data = "the quick brown fox";
  for (uint32_t id : {0u, 2u, 3u}) {
    Ref<HashValue> hash = HashValue::New();
    ASSERT_EQ(hash->Begin(id), VELK2_SUCCESS);
    EXPECT_EQ(hash->Update(data.data(), 4), VELK2_SUCCESS);
    EXPECT_EQ(hash->Update(data.data() + 4, data.size() - 4), VELK2_SUCCESS);
    ASSERT_EQ(hash->Finish(), VELK2_SUCCESS);
    const std::vector<uint8_t> want = DigestOf(id, data);
    EXPECT_EQ(hash->built_length(), want.size());
    EXPECT_EQ(hash->digest(), std::string(want.begin(), want.end()));
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
  const std::vector<uint8_t> want = DigestOf(ZCRY_HASH_SHA256, StoredOf(*object));
  EXPECT_EQ(hash->digest(), std::string(want.begin(), want.end()));
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

TEST(HashValueTest, SameCanonicalFormIgnoresHints) {
  const std::string digest(32, '\x7F');
  Ref<HashValue> plain = MustParse<HashValue>("(4:hash6:sha256" + Atom(digest) + ")");
  Ref<HashValue> hinted = MustParse<HashValue>("(4:hash[bin]6:sha256[bin]" + Atom(digest) + ")");
  Ref<HashValue> other = MustParse<HashValue>("(4:hash6:sha256" + Atom(std::string(32, 'a')) + ")");
  ASSERT_TRUE(plain && hinted && other);
  EXPECT_TRUE(SameCanonicalForm(plain.get(), hinted.get()));
  EXPECT_FALSE(SameCanonicalForm(plain.get(), other.get()));
  EXPECT_FALSE(SameCanonicalForm(plain.get(), nullptr));
}

// ---- HashFile ------------------------------------------------------------------

class HashFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/velk2_hashfile_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    directory_ = pattern;
  }
  void TearDown() override {
    for (const std::string& file : files_) std::remove(file.c_str());
    rmdir(directory_.c_str());
  }
  std::string Write(const std::string& name, const std::string& bytes) {
    const std::string path = directory_ + "/" + name;
    std::FILE* f = std::fopen(path.c_str(), "wb");
    EXPECT_NE(f, nullptr);
    if (f) {
      EXPECT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
      std::fclose(f);
    }
    files_.push_back(path);
    return path;
  }

  std::string directory_;
  std::vector<std::string> files_;
};

TEST_F(HashFileTest, DigestsFilesAroundBlockBoundaries) {
  std::mt19937 random(7);
  const size_t kSizes[] = {0,     1,     3,      4,      5,      1023,       1024,          65535,
                           65536, 65537, 262143, 262144, 262145, 524288 + 7, 3 * 262144 + 1};
  for (size_t size : kSizes) {
    std::string bytes(size, '\0');
    for (char& b : bytes) b = static_cast<char>(random());
    const std::string path = Write("f" + std::to_string(size), bytes);
    uint8_t digest[32] = {};
    uint32_t length = 0;
    ASSERT_EQ(HashFile(WidePath(path).c_str(), digest, &length, nullptr), VELK2_SUCCESS) << size;
    EXPECT_EQ(length, 32u);
    uint8_t want[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), want);
    EXPECT_EQ(std::string(digest, digest + 32), std::string(want, want + 32)) << size;
  }
}

TEST_F(HashFileTest, EmptyFileGivesTheDigestOfNothing) {
  const std::string path = Write("empty", "");
  uint8_t digest[32] = {};
  uint32_t length = 32;
  ASSERT_EQ(HashFile(WidePath(path).c_str(), digest, &length, nullptr), VELK2_SUCCESS);
  const std::vector<uint8_t> want = DigestOf(ZCRY_HASH_SHA256, "");
  EXPECT_EQ(std::vector<uint8_t>(digest, digest + 32), want);
}

TEST_F(HashFileTest, FollowsTheLengthRules) {
  const std::string path = Write("data", "abc");
  const std::u16string wide = WidePath(path);
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
      {1, VELK2_ERR_BUFFER_OVERFLOW, 1},
  };
  for (const Case& c : kCases) {
    uint8_t digest[64] = {};
    uint32_t length = c.length_in;
    EXPECT_EQ(HashFile(wide.c_str(), digest, &length, nullptr), c.want) << c.length_in;
    EXPECT_EQ(length, c.length_out) << c.length_in;
  }
}

TEST_F(HashFileTest, MissingFilesAndDirectoriesCannotBeOpened) {
  uint8_t digest[32];
  for (const std::string& path : {directory_ + "/missing", directory_}) {
    uint32_t length = 32;
    EXPECT_EQ(HashFile(WidePath(path).c_str(), digest, &length, nullptr), VELK2_ERR_FILE_OPEN)
        << path;
    EXPECT_EQ(length, 0u);
  }
  uint32_t length = 0;
  EXPECT_EQ(HashFile(nullptr, digest, &length, nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(HashFile(u"/tmp", nullptr, &length, nullptr), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(HashFile(u"/tmp", digest, nullptr, nullptr), VELK2_ERR_INVALID_PARAM);
}

}  // namespace
}  // namespace velk2::testing
