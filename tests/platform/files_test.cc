// Opening files: only regular files are read or written, and nothing that is
// not one (a FIFO above all) can make an open block.
#include "platform/files.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/utf.h"

namespace velk2 {
namespace {

namespace fs = std::filesystem;

class FilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() / ("velk2_files_" + std::to_string(::getpid()));
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::u16string Path(const std::string& name) const { return Utf8ToUtf16((dir_ / name).string()); }
  fs::path dir_;
};

TEST_F(FilesTest, OnlyRegularFilesOpenAndNothingBlocks) {
  std::ofstream(dir_ / "plain") << "abc";
  fs::create_symlink(dir_ / "plain", dir_ / "link");
  fs::create_directories(dir_ / "dir");
  ASSERT_EQ(::mkfifo((dir_ / "fifo").c_str(), 0600), 0);
  // A listening socket: its name is no file to read either.
  const int sock = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(sock, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string socket_path = (dir_ / "sock").string();
  ASSERT_LT(socket_path.size(), sizeof(address.sun_path));
  socket_path.copy(address.sun_path, socket_path.size());
  ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);

  struct Case {
    std::u16string path;
    bool opens;
  };
  const Case kCases[] = {
      {Path("plain"), true}, {Path("link"), true},     {Path("dir"), false},  {Path("fifo"), false},
      {Path("sock"), false}, {Path("missing"), false}, {u"/dev/null", false}, {u"/dev/zero", false},
  };
  for (const Case& c : kCases) {
    for (OpenMode mode : {OpenMode::kRead, OpenMode::kAppend, OpenMode::kWrite}) {
      if (c.path == u"/dev/null" && mode != OpenMode::kRead) continue;  // never truncate devices
      if (c.path == Path("missing") && mode != OpenMode::kRead) continue;
      FileHandle file = OpenFile(c.path.c_str(), static_cast<uint32_t>(mode));
      EXPECT_EQ(file != nullptr, c.opens)
          << Utf16ToUtf8(c.path) << " mode " << static_cast<int>(mode);
    }
  }
  ::close(sock);

  // The regular file (truncated by the write mode above) works as usual.
  std::ofstream(dir_ / "plain") << "abc";
  FileHandle file = OpenFile(Path("plain").c_str(), static_cast<uint32_t>(OpenMode::kAppend));
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(WriteBytes(file.get(), "de", 2), 2u);
  file.reset();
  file = OpenFile(Path("plain").c_str(), static_cast<uint32_t>(OpenMode::kRead));
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(OpenFileSize(file.get()), 5);
  char buffer[8] = {};
  EXPECT_EQ(ReadBytes(file.get(), buffer, sizeof buffer), 5u);
  EXPECT_STREQ(buffer, "abcde");
  EXPECT_EQ(OpenFileSize(nullptr), -1);
  // A missing file is created by the write modes, and only by them.
  EXPECT_NE(OpenFile(Path("new").c_str(), static_cast<uint32_t>(OpenMode::kWrite)), nullptr);
  EXPECT_TRUE(fs::is_regular_file(dir_ / "new"));
  EXPECT_EQ(OpenFile(Path("plain").c_str(), 0), nullptr);
}

// A file is replaced whole or not at all, and an existing one is kept unless
// the caller asks to overwrite it.
TEST_F(FilesTest, WriteFileAtomicallyReplacesWholeOrNothing) {
  const std::string path = (dir_ / "out.crl").string();
  auto contents = [](const std::string& p) {
    std::ifstream in(p, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  };
  ASSERT_EQ(WriteFileAtomically(path, "first", 0600, false), VELK2_SUCCESS);
  EXPECT_EQ(contents(path), "first");
  EXPECT_EQ(fs::status(path).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(WriteFileAtomically(path, "second", 0644, false), VELK2_ERR_PARAM_NOT_NULL);
  EXPECT_EQ(contents(path), "first");
  ASSERT_EQ(WriteFileAtomically(path, std::string(1 << 20, 'x'), 0644, true), VELK2_SUCCESS);
  EXPECT_EQ(fs::file_size(path), 1u << 20);
  // A dangling symlink is a name taken too; overwriting replaces the link,
  // never writes through it.
  fs::create_symlink(dir_ / "elsewhere", dir_ / "link.crl");
  EXPECT_EQ(WriteFileAtomically((dir_ / "link.crl").string(), "x", 0644, false),
            VELK2_ERR_PARAM_NOT_NULL);
  ASSERT_EQ(WriteFileAtomically((dir_ / "link.crl").string(), "y", 0644, true), VELK2_SUCCESS);
  EXPECT_FALSE(fs::exists(dir_ / "elsewhere"));
  EXPECT_FALSE(fs::is_symlink(dir_ / "link.crl"));
  // Nowhere to write: nothing is left behind.
  EXPECT_EQ(WriteFileAtomically((dir_ / "missing" / "x.crl").string(), "x", 0644, true),
            VELK2_ERR_WRITE_FILE);
  size_t files = 0;
  for (const auto& entry : fs::directory_iterator(dir_)) {
    EXPECT_EQ(entry.path().filename().string().find(".tmp-"), std::string::npos);
    ++files;
  }
  EXPECT_EQ(files, 2u);
}

}  // namespace
}  // namespace velk2
