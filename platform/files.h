// Files and directories on Linux. Paths are UTF-16 inside the library and are
// converted to UTF-8 only here, at the system call.
#ifndef VELK2_PLATFORM_FILES_H_
#define VELK2_PLATFORM_FILES_H_

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "velk2.h"

namespace velk2 {

// Stream open modes.
enum class OpenMode : uint32_t { kWrite = 1, kRead = 2, kAppend = 3 };

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

// Opens |path| with "wb", "rb" or "ab"; null on failure or for another mode.
FileHandle OpenFile(const char16_t* path, uint32_t mode);
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

}  // namespace velk2

#endif  // VELK2_PLATFORM_FILES_H_
