#include "platform/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "platform/utf.h"

namespace velk2 {
namespace {

// The lossless conversion, so that a name read from a directory opens the
// very file it came from, whatever its bytes.
std::string NativePath(const char16_t* path) {
  return WideToFileName(std::u16string_view(path));
}

char16_t Fold(char16_t c) {
  return (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c + 32) : c;
}

// Names sort with ASCII letters folded, then bytewise, so that the order of a
// directory's files is the same on every machine.
bool NameLess(const DirectoryEntry& a, const DirectoryEntry& b) {
  const std::u16string& x = a.name;
  const std::u16string& y = b.name;
  size_t n = std::min(x.size(), y.size());
  for (size_t i = 0; i < n; ++i) {
    char16_t fx = Fold(x[i]), fy = Fold(y[i]);
    if (fx != fy) return fx < fy;
  }
  if (x.size() != y.size()) return x.size() < y.size();
  return x < y;
}

}  // namespace

FileHandle OpenFile(const char16_t* path, uint32_t mode) {
  if (path == nullptr) return nullptr;
  int flags;
  const char* m;
  switch (static_cast<OpenMode>(mode)) {
    case OpenMode::kWrite:
      flags = O_WRONLY | O_CREAT | O_TRUNC;
      m = "wb";
      break;
    case OpenMode::kRead:
      flags = O_RDONLY;
      m = "rb";
      break;
    case OpenMode::kAppend:
      flags = O_WRONLY | O_CREAT | O_APPEND;
      m = "ab";
      break;
    default:
      return nullptr;
  }
  // Opened without blocking: a FIFO or device in place of a credential file
  // would otherwise hang the open (or the first read) for ever.
  const int fd = ::open(NativePath(path).c_str(), flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
  if (fd < 0) return nullptr;
  // Only a regular file is read or written: checked on the opened descriptor,
  // so the name cannot be swapped between the check and the use.
  struct stat st;
  const int status = ::fcntl(fd, F_GETFL);
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || status < 0 ||
      ::fcntl(fd, F_SETFL, status & ~O_NONBLOCK) != 0) {
    ::close(fd);
    return nullptr;
  }
  std::FILE* stream = ::fdopen(fd, m);
  if (stream == nullptr) ::close(fd);
  return FileHandle(stream);
}

int64_t OpenFileSize(std::FILE* stream) {
  struct stat st;
  if (stream == nullptr || ::fstat(::fileno(stream), &st) != 0) return -1;
  return static_cast<int64_t>(st.st_size);
}

VELK2_RESULT ReadWholeFile(const char16_t* path, uint64_t max_size, std::vector<uint8_t>* bytes) {
  bytes->clear();
  FileHandle file = OpenFile(path, static_cast<uint32_t>(OpenMode::kRead));
  if (file == nullptr) return VELK2_ERR_FILE_OPEN;
  // The size of what was opened counts: the name may have changed meanwhile.
  const int64_t size = OpenFileSize(file.get());
  if (size < 0) return VELK2_ERR_FILE_OPEN;
  if (static_cast<uint64_t>(size) > max_size) return VELK2_ERR_MEM_ALLOC;
  try {
    bytes->resize(static_cast<size_t>(size));
  } catch (const std::bad_alloc&) {
    return VELK2_ERR_MEM_ALLOC;
  }
  if (ReadBytes(file.get(), bytes->data(), bytes->size()) != bytes->size()) {
    bytes->clear();
    return VELK2_ERR_FILE_OPEN;
  }
  return VELK2_SUCCESS;
}

size_t ReadBytes(std::FILE* stream, void* buffer, size_t count) {
  if (stream == nullptr || buffer == nullptr) return 0;
  return std::fread(buffer, 1, count, stream);
}

size_t WriteBytes(std::FILE* stream, const void* buffer, size_t count) {
  if (stream == nullptr || (buffer == nullptr && count != 0)) return 0;
  if (count == 0) return 0;
  return std::fwrite(buffer, 1, count, stream);
}

int StatFile(const char16_t* path, FileStatus* status) {
  if (path == nullptr || *path == 0) return 1;
  struct stat st;
  if (::stat(NativePath(path).c_str(), &st) != 0) return 1;
  if (status != nullptr) {
    status->size = static_cast<uint32_t>(st.st_size & 0xFFFFFFFFu);
    status->mode = S_ISDIR(st.st_mode) ? kStatDirectory : 0;
  }
  return 0;
}

VELK2_RESULT EnsureDirectory(const char16_t* path) {
  if (path == nullptr || *path == 0) return VELK2_ERR_FILE_OPEN;
  std::string native = NativePath(path);
  struct stat st;
  if (::stat(native.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return VELK2_SUCCESS;
  if (::mkdir(native.c_str(), 0755) == 0) return VELK2_SUCCESS;
  // Another process may have made it in between.
  if (errno == EEXIST && ::stat(native.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    return VELK2_SUCCESS;
  }
  return VELK2_ERR_FILE_OPEN;
}

bool ListDirectory(const char16_t* directory, std::vector<DirectoryEntry>* entries) {
  entries->clear();
  if (directory == nullptr) return false;
  std::string native = NativePath(directory);
  if (native.empty()) native.push_back('.');
  DIR* dir = ::opendir(native.c_str());
  if (dir == nullptr) return false;
  while (const dirent* e = ::readdir(dir)) {
    std::string_view name(e->d_name);
    if (name == "." || name == "..") continue;
    DirectoryEntry entry;
    entry.name = Utf8ToUtf16(name);
    bool is_dir = false;
    if (e->d_type == DT_DIR) {
      is_dir = true;
    } else if (e->d_type == DT_UNKNOWN || e->d_type == DT_LNK) {
      struct stat st;
      std::string full = native;  // appended piecewise: g++ 12 -O3 misreads a + chain
      full.push_back('/');
      full.append(name);
      is_dir = ::stat(full.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    }
    entry.is_directory = is_dir;
    entries->push_back(std::move(entry));
  }
  ::closedir(dir);
  std::sort(entries->begin(), entries->end(), NameLess);
  return true;
}

namespace {

// Syncs the directory holding |path|, so that a rename in it is on disk.
void SyncDirectoryOf(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  const std::string directory = slash == std::string::npos ? "."
                                : slash == 0               ? "/"
                                                           : path.substr(0, slash);
  const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  (void)::fsync(fd);
  ::close(fd);
}

}  // namespace

VELK2_RESULT WriteFileAtomically(const std::string& path, const std::string& bytes, unsigned mode,
                                 bool overwrite) {
  struct stat st;
  if (!overwrite && ::lstat(path.c_str(), &st) == 0) return VELK2_ERR_PARAM_NOT_NULL;
  std::string temp = path + ".tmp-XXXXXX";
  const int fd = ::mkstemp(temp.data());
  if (fd < 0) return VELK2_ERR_WRITE_FILE;
  bool ok = ::fchmod(fd, mode) == 0;
  size_t done = 0;
  while (ok && done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ok = false;
    } else {
      done += static_cast<size_t>(n);
    }
  }
  ok = ok && ::fsync(fd) == 0;
  ok = (::close(fd) == 0) && ok;
  if (ok && !overwrite) {
    // link() fails when the name appeared meanwhile: never replace another file.
    ok = ::link(temp.c_str(), path.c_str()) == 0;
    const int link_error = errno;
    ::unlink(temp.c_str());
    if (ok) {
      SyncDirectoryOf(path);
      return VELK2_SUCCESS;
    }
    return link_error == EEXIST ? VELK2_ERR_PARAM_NOT_NULL : VELK2_ERR_WRITE_FILE;
  }
  if (ok) ok = ::rename(temp.c_str(), path.c_str()) == 0;
  if (!ok) {
    ::unlink(temp.c_str());
    return VELK2_ERR_WRITE_FILE;
  }
  SyncDirectoryOf(path);
  return VELK2_SUCCESS;
}

VELK2_RESULT FileLock::Acquire(const std::string& path) {
  if (fd_ >= 0) return VELK2_ERR_INVALID_DATA;
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
  if (fd < 0) return VELK2_ERR_WRITE_FILE;
  struct stat st;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    return VELK2_ERR_WRITE_FILE;
  }
  int locked;
  do {
    locked = ::flock(fd, LOCK_EX);
  } while (locked != 0 && errno == EINTR);
  if (locked != 0) {
    ::close(fd);
    return VELK2_ERR_WRITE_FILE;
  }
  fd_ = fd;
  return VELK2_SUCCESS;
}

void FileLock::Release() {
  if (fd_ < 0) return;
  ::close(fd_);  // closing the last descriptor releases the lock
  fd_ = -1;
}

bool Writable(const std::string& directory) {
  return ::access(directory.c_str(), W_OK | X_OK) == 0;
}

}  // namespace velk2
