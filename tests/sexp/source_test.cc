// The memory source: attaching, whole-file loading, literals, seeking and reads.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "platform/utf.h"
#include "sexp/source.h"

namespace velk2 {
namespace {

SexpMemorySource* Attached(SexpMemorySource* source, std::string_view text) {
  EXPECT_EQ(source->AttachCopy(text.data(), text.size()), VELK2_SUCCESS);
  return source;
}

TEST(SexpSource, AttachTakesDataOnce) {
  SexpMemorySource source;
  char byte;
  EXPECT_FALSE(source.has_data());
  EXPECT_EQ(source.Expect("(", 1), VELK2_ERR_INVALID_PARAM);
  EXPECT_EQ(source.Seek(0, kSeekSet), -1);
  EXPECT_EQ(source.GetByte(true), -1);
  EXPECT_EQ(source.Read(&byte, 1, true), -1);
  ASSERT_EQ(source.Attach({'(', ')'}), VELK2_SUCCESS);
  EXPECT_EQ(source.length(), 2);
  EXPECT_EQ(source.position(), 0);
  EXPECT_EQ(source.Attach({'x'}), VELK2_ERR_INVALID_DATA);
  EXPECT_EQ(source.AttachCopy("x", 1), VELK2_ERR_INVALID_DATA);
  EXPECT_EQ(source.LoadFile(u"/"), VELK2_ERR_INVALID_DATA);
  EXPECT_EQ(source.length(), 2);
  EXPECT_NE(NewMemorySource({}), nullptr);  // an empty buffer is still data
}

TEST(SexpSource, ExpectModes) {
  struct Case {
    const char* data;
    int32_t start;
    const char* literal;
    uint32_t length;
    uint32_t mode;
    Result want;
    int32_t want_position;
  };
  const Case kCases[] = {
      {"(4:cert)", 0, "(4:cert", kLiteralLength, kExpectRequired, VELK2_SUCCESS, 7},
      {"(4:cert)", 0, "(4:cert", kLiteralLength, kExpectOptional, VELK2_SUCCESS, 7},
      {"(4:cert)", 0, "(4:cert", kLiteralLength, kExpectPeek, VELK2_SUCCESS, 0},
      {"(4:cert)", 0, "(4:cert", 0xFFFFFFFEu, kExpectRequired, VELK2_SUCCESS, 7},
      {"(4:cert)", 0, "(4:cexx", 4, kExpectRequired, VELK2_SUCCESS, 4},  // only 4 bytes compared
      {"(4:cert)", 0, "(4:hash", kLiteralLength, kExpectRequired, VELK2_ERR_INVALID_DATA, 0},
      {"(4:cert)", 0, "(4:hash", kLiteralLength, kExpectPeek, VELK2_ERR_INVALID_DATA, 0},
      {"(4:cert)", 3, "cert)", kLiteralLength, kExpectRequired, VELK2_SUCCESS, 8},
      {"(4:cert)", 3, "cert))", kLiteralLength, kExpectRequired, VELK2_ERR_FILE_OPEN, 8},
      // Past the end a required literal moves the position to the end; an
      // optional or peeked one leaves it where it was.
      {"(4:cert)", 5, "(9:propagate)", kLiteralLength, kExpectRequired, VELK2_ERR_FILE_OPEN, 8},
      {"(4:cert)", 5, "(9:propagate)", kLiteralLength, kExpectPeek, VELK2_ERR_FILE_OPEN, 5},
      {"(4:cert)", 5, "(9:propagate)", kLiteralLength, kExpectOptional, VELK2_ERR_FILE_OPEN, 5},
      {"(4:cert)", 8, ")", kLiteralLength, kExpectRequired, VELK2_ERR_FILE_OPEN, 8},
      {"(4:cert)", 8, "", kLiteralLength, kExpectRequired, VELK2_SUCCESS, 8},
  };
  for (const Case& c : kCases) {
    SexpMemorySource source;
    Attached(&source, c.data);
    ASSERT_EQ(source.Seek(c.start, kSeekSet), 0);
    EXPECT_EQ(source.Expect(c.literal, c.length, c.mode), c.want) << c.literal;
    EXPECT_EQ(source.position(), c.want_position) << c.literal;
  }
  SexpMemorySource source;
  Attached(&source, "x");
  EXPECT_EQ(source.Expect(nullptr, 1), VELK2_ERR_INVALID_PARAM);
}

TEST(SexpSource, SeekOrigins) {
  struct Case {
    int64_t offset;
    uint32_t origin;
    int want;
    int32_t want_position;
  };
  // Every case starts at position 2 of a 6-byte buffer.
  const Case kCases[] = {
      {1, kSeekCurrent, 0, 3},
      {-2, kSeekCurrent, 0, 0},
      {-3, kSeekCurrent, -1, 2},
      {4, kSeekCurrent, 0, 6},
      {5, kSeekCurrent, -1, 2},
      {0, kSeekSet, 0, 0},
      {6, kSeekSet, 0, 6},
      {7, kSeekSet, -1, 2},
      {-1, kSeekSet, -1, 2},
      {0, kSeekEnd, 0, 6},
      {6, kSeekEnd, 0, 0},
      {7, kSeekEnd, -1, 2},
      {-1, kSeekEnd, -1, 2},
      {0, 3, -1, 2},
      {INT64_MAX, kSeekCurrent, -1, 2},
      {INT64_MIN, kSeekEnd, -1, 2},
  };
  for (const Case& c : kCases) {
    SexpMemorySource source;
    Attached(&source, "abcdef");
    ASSERT_EQ(source.Seek(2, kSeekSet), 0);
    EXPECT_EQ(source.Seek(c.offset, c.origin), c.want) << c.offset << " from " << c.origin;
    EXPECT_EQ(source.position(), c.want_position) << c.offset << " from " << c.origin;
  }
}

TEST(SexpSource, GetByteAndRead) {
  SexpMemorySource source;
  Attached(&source,
           "a\xFF"
           "c");
  EXPECT_EQ(source.GetByte(false), 'a');
  EXPECT_EQ(source.position(), 0);
  EXPECT_EQ(source.GetByte(true), 'a');
  EXPECT_EQ(source.GetByte(true), 0xFF);  // unsigned
  char buffer[8] = {};
  EXPECT_EQ(source.Read(buffer, 5, false), 1);  // only what is left
  EXPECT_EQ(source.position(), 2);
  EXPECT_EQ(source.Read(nullptr, 1, true), -1);
  EXPECT_EQ(source.Read(buffer, 5, true), 1);
  EXPECT_EQ(buffer[0], 'c');
  EXPECT_EQ(source.position(), 3);
  EXPECT_EQ(source.GetByte(true), -1);
  EXPECT_EQ(source.Read(buffer, 1, true), -1);  // at the end
  ASSERT_EQ(source.Seek(0, kSeekSet), 0);
  EXPECT_EQ(source.Read(buffer, 2, true), 2);
  EXPECT_EQ(source.position(), 2);
}

class SexpSourceFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() /
           ("velk2_sexp_source_" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::u16string WriteFile(const std::string& name, size_t size) {
    std::filesystem::path path = dir_ / name;
    std::ofstream out(path, std::ios::binary);
    std::string bytes(size, 'x');
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return Utf8ToUtf16(path.string());
  }
  std::filesystem::path dir_;
};

TEST_F(SexpSourceFileTest, LoadFileSizeLimitAndFailures) {
  for (uint32_t size : {0u, 1u, kMaxSourceFileSize, kMaxSourceFileSize + 1}) {
    const Result want = size > kMaxSourceFileSize ? VELK2_ERR_MEM_ALLOC : VELK2_SUCCESS;
    SexpMemorySource source;
    EXPECT_EQ(
        source.LoadFile(WriteFile(std::string("f").append(std::to_string(size)), size).c_str()),
        want)
        << size;
    EXPECT_EQ(source.has_data(), want == VELK2_SUCCESS);
    EXPECT_EQ(source.length(), want == VELK2_SUCCESS ? static_cast<int32_t>(size) : 0);
    EXPECT_EQ(source.position(), 0);
  }

  SexpMemorySource missing;
  std::u16string nothing = Utf8ToUtf16((dir_ / "missing").string());
  EXPECT_EQ(missing.LoadFile(nothing.c_str()), VELK2_ERR_INVALID_DATA);
  EXPECT_EQ(NewFileSource(nothing.c_str()), nullptr);
  // A directory is found but cannot be opened as a file.
  std::filesystem::create_directories(dir_ / "sub");
  SexpMemorySource from_directory;
  EXPECT_EQ(from_directory.LoadFile(Utf8ToUtf16((dir_ / "sub").string()).c_str()),
            VELK2_ERR_FILE_OPEN);
  EXPECT_FALSE(from_directory.has_data());
  // A FIFO or a device is found but never read: reading a FIFO would block.
  ASSERT_EQ(::mkfifo((dir_ / "fifo").c_str(), 0600), 0);
  for (const std::u16string& special :
       {Utf8ToUtf16((dir_ / "fifo").string()), std::u16string(u"/dev/null")}) {
    SexpMemorySource from_special;
    EXPECT_EQ(from_special.LoadFile(special.c_str()), VELK2_ERR_FILE_OPEN);
    EXPECT_FALSE(from_special.has_data());
  }
  // A file that cannot be read (root reads it anyway).
  std::u16string locked = WriteFile("locked", 3);
  std::filesystem::permissions(dir_ / "locked", std::filesystem::perms::none);
  SexpMemorySource from_locked;
  EXPECT_TRUE(::geteuid() == 0 || from_locked.LoadFile(locked.c_str()) == VELK2_ERR_FILE_OPEN);

  std::u16string path = WriteFile("twice", 3);
  std::unique_ptr<SexpMemorySource> source = NewFileSource(path.c_str());
  ASSERT_NE(source, nullptr);
  EXPECT_EQ(source->LoadFile(path.c_str()), VELK2_ERR_INVALID_DATA);
  EXPECT_EQ(source->length(), 3);
}

}  // namespace
}  // namespace velk2
