// Files and directories on Linux. Paths are UTF-16 inside the library and are
// converted to UTF-8 only here, at the system call.
#ifndef VELK2_PLATFORM_FILES_H_
#define VELK2_PLATFORM_FILES_H_

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "velk2.h"

namespace velk2 {

// A file descriptor closed when it goes out of scope (-1: none).
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

// Stream open modes.
enum class OpenMode : uint32_t { kWrite = 1, kRead = 2, kAppend = 3 };

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

// OpenFile opens |path| as "wb", "rb" or "ab". Null on failure, for another
// mode, and when the path is not a regular file (a directory, FIFO, socket or
// device): the open never blocks, and the type is checked on the opened
// descriptor.
FileHandle OpenFile(const char16_t* path, uint32_t mode);
// OpenFileSize is the size of the open file in bytes, -1 when unknown.
int64_t OpenFileSize(std::FILE* stream);
// ReadWholeFile reads the regular file at |path| into |bytes|. 0 on success;
// VELK2_ERR_FILE_OPEN (7) when it cannot be opened, is not a regular file, or
// fewer bytes arrive than its size; VELK2_ERR_MEM_ALLOC (3) when it is larger
// than |max_size| bytes or memory runs out. |bytes| is empty after a failure.
VELK2_RESULT ReadWholeFile(const char16_t* path, uint64_t max_size, std::vector<uint8_t>* bytes);
// Transfer |count| bytes; each returns the count actually transferred.
size_t ReadBytes(std::FILE* stream, void* buffer, size_t count);
size_t WriteBytes(std::FILE* stream, const void* buffer, size_t count);

// File status: size (low 32 bits) and mode 0x4000 for a directory, else 0.
struct FileStatus {
  uint32_t size = 0;
  uint32_t mode = 0;
};
constexpr uint32_t kStatDirectory = 0x4000;
// 0 and |status| filled when |path| exists, 1 when it does not.
int StatFile(const char16_t* path, FileStatus* status);

// 0 when |path| is a directory or was created (one level, mode 0755);
// VELK2_ERR_FILE_OPEN (7) otherwise.
VELK2_RESULT EnsureDirectory(const char16_t* path);

// One entry of a directory listing.
struct DirectoryEntry {
  std::u16string name;
  bool is_directory = false;
};
// Lists |directory| without "." and "..", sorted by name with ASCII letters
// folded, then bytewise. False when the directory cannot be opened.
bool ListDirectory(const char16_t* directory, std::vector<DirectoryEntry>* entries);

// WriteFileAtomically writes |bytes| to |path| through a temporary file in
// the same directory, flushed to disk and renamed into place (the directory
// then synced too), so a reader sees the old file or the new one, never half
// of one, and a crash loses neither. VELK2_ERR_PARAM_NOT_NULL (39) when the
// file exists and |overwrite| is false (also when it appears meanwhile: the
// new file is linked, never renamed, over nothing); VELK2_ERR_WRITE_FILE (76)
// when writing fails, with nothing left behind and the old file untouched.
VELK2_RESULT WriteFileAtomically(const std::string& path, const std::string& bytes, unsigned mode,
                                 bool overwrite);

// FileLock holds an exclusive lock (flock) on a lock file for as long as it
// lives; writers that read, compare and replace a file take it around all
// three, so two of them never interleave. Readers need no lock: files are
// replaced whole.
class FileLock {
 public:
  FileLock() = default;
  ~FileLock() { Release(); }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  // Acquire opens |path| (created with mode 0600 when missing, so only its
  // owner can take it; never through a symlink) and waits for the lock.
  // VELK2_ERR_WRITE_FILE (76) when the file cannot be opened as a regular
  // file; VELK2_ERR_INVALID_DATA (6) when this lock is already held.
  VELK2_RESULT Acquire(const std::string& path);
  void Release();
  bool held() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

// Writable: whether this process may create files in |directory| (false on a
// read-only file system or without write permission).
bool Writable(const std::string& directory);

}  // namespace velk2

#endif  // VELK2_PLATFORM_FILES_H_
