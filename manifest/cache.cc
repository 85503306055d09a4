#include "manifest/cache.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <utility>

#include "credentials/hash_value.h"
#include "frame/paths.h"
#include "platform/cursor.h"
#include "platform/files.h"
#include "platform/utf.h"

namespace velk2 {
namespace {

constexpr std::string_view kMagic = "velk2ic\n";
constexpr uint32_t kVersion = 1;
constexpr size_t kDigestSize = 32;
constexpr std::string_view kSuffix = ".cache";
// A temporary file of a writer that did not finish: NAME.cache.tmp-XXXXXX.
constexpr std::string_view kTemporary = ".tmp-";
// A key is two absolute paths.
constexpr uint32_t kMaxKey = 2 * 4096 + 1;
// The bytes of an entry beyond its path.
constexpr size_t kFixedEntry = 2 + 3 * 8 + 2 * 8 + 3 * 4 + 1 + kDigestSize + 1 + 8 + 3 * 4 + 8;

constexpr int64_t kBillion = 1'000'000'000;  // nanoseconds a second

// Times past what 64 bits of nanoseconds hold (after 2262, before 1677)
// are all the same, the first or last there is: never a number that wrapped.
int64_t Nanoseconds(const struct timespec& time) {
  if (time.tv_sec > INT64_MAX / kBillion - 1) return INT64_MAX;
  if (time.tv_sec < INT64_MIN / kBillion + 1) return INT64_MIN;
  return static_cast<int64_t>(time.tv_sec) * kBillion + time.tv_nsec;
}

void PutInteger(std::string* out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out->push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
}
void PutBytes(std::string* out, std::string_view bytes, int length_bytes) {
  PutInteger(out, bytes.size(), length_bytes);
  out->append(bytes);
}

// Reads of little-endian integers through the cursor: each fails, not
// moving, when fewer bytes are left.
bool GetInteger(ByteCursor* cursor, int bytes, uint64_t* value) {
  const uint8_t* at = nullptr;
  if (!cursor->Take(static_cast<size_t>(bytes), &at)) return false;
  *value = 0;
  for (int i = bytes - 1; i >= 0; --i) *value = (*value << 8) | at[i];
  return true;
}
bool Get64(ByteCursor* cursor, uint64_t* value) {
  return GetInteger(cursor, 8, value);
}
bool GetSigned(ByteCursor* cursor, int64_t* value) {
  uint64_t bits;
  if (!GetInteger(cursor, 8, &bits)) return false;
  *value = static_cast<int64_t>(bits);
  return true;
}
bool Get32(ByteCursor* cursor, uint32_t* value) {
  uint64_t bits;
  if (!GetInteger(cursor, 4, &bits)) return false;
  *value = static_cast<uint32_t>(bits);
  return true;
}
bool Get8(ByteCursor* cursor, uint8_t* value) {
  uint64_t bits;
  if (!GetInteger(cursor, 1, &bits)) return false;
  *value = static_cast<uint8_t>(bits);
  return true;
}

void PutEntry(std::string* out, const CacheEntry& entry) {
  PutBytes(out, entry.path, 2);
  const FileStamp& f = entry.file;
  PutInteger(out, f.device, 8);
  PutInteger(out, f.inode, 8);
  PutInteger(out, f.size, 8);
  PutInteger(out, static_cast<uint64_t>(f.mtime), 8);
  PutInteger(out, static_cast<uint64_t>(f.ctime), 8);
  PutInteger(out, f.mode, 4);
  PutInteger(out, f.uid, 4);
  PutInteger(out, f.gid, 4);
  const EntryStamp& e = entry.entry;
  PutInteger(out, e.digest_length, 1);
  out->append(reinterpret_cast<const char*>(e.digest.data()), e.digest.size());
  PutInteger(out, e.recorded, 1);
  PutInteger(out, e.size, 8);
  PutInteger(out, e.mode, 4);
  PutInteger(out, e.uid, 4);
  PutInteger(out, e.gid, 4);
  PutInteger(out, static_cast<uint64_t>(entry.hashed_at), 8);
}

// One entry; false for anything a writer of this version does not write.
bool GetEntry(ByteCursor* cursor, int64_t written, CacheEntry* entry) {
  uint64_t length;
  const uint8_t* bytes = nullptr;
  if (!GetInteger(cursor, 2, &length) || length == 0 || length > kMaxCachePath ||
      !cursor->Take(length, &bytes)) {
    return false;
  }
  entry->path.assign(reinterpret_cast<const char*>(bytes), length);
  if (!CacheablePath(entry->path)) return false;
  FileStamp& f = entry->file;
  EntryStamp& e = entry->entry;
  uint8_t digest_length = 0;
  const uint8_t* digest = nullptr;
  if (!Get64(cursor, &f.device) || !Get64(cursor, &f.inode) || !Get64(cursor, &f.size) ||
      !GetSigned(cursor, &f.mtime) || !GetSigned(cursor, &f.ctime) || !Get32(cursor, &f.mode) ||
      !Get32(cursor, &f.uid) || !Get32(cursor, &f.gid) || !Get8(cursor, &digest_length) ||
      !cursor->Take(kDigestSize, &digest) || !Get8(cursor, &e.recorded) ||
      !Get64(cursor, &e.size) || !Get32(cursor, &e.mode) || !Get32(cursor, &e.uid) ||
      !Get32(cursor, &e.gid) || !GetSigned(cursor, &entry->hashed_at)) {
    return false;
  }
  e.digest_length = digest_length;
  std::memcpy(e.digest.data(), digest, kDigestSize);
  // Only what a writer records: a file read after 1970 and before the cache
  // was written, a mode of no more bits than a mode has, a SHA-256; a
  // regular file with the fields not recorded zero, or a directory with the
  // digest of its names and nothing else recorded.
  if (entry->hashed_at < 0 || entry->hashed_at > written || f.mode > 0177777 ||
      digest_length != kDigestSize) {
    return false;
  }
  if (S_ISDIR(f.mode)) {
    return e.recorded == 0 && e.size == 0 && e.mode == 0 && e.uid == 0 && e.gid == 0;
  }
  if (!S_ISREG(f.mode) || (e.recorded & ~(kStampSize | kStampMode | kStampOwner)) != 0 ||
      (!(e.recorded & kStampSize) && e.size != 0) || (!(e.recorded & kStampMode) && e.mode != 0) ||
      (!(e.recorded & kStampOwner) && (e.uid != 0 || e.gid != 0))) {
    return false;
  }
  return true;
}

bool Sha256(std::string_view bytes, uint8_t (&digest)[32]) {
  return HashBytes(bytes, digest) == VELK2_SUCCESS;
}

std::string Absolute(const std::u16string& wide) {
  const std::string path = WideToFileName(wide);
  if (path.empty()) return std::string();
  if (char* resolved = ::realpath(path.c_str(), nullptr)) {
    std::string absolute = resolved;
    std::free(resolved);
    return absolute;
  }
  return std::string();
}

// Why the directory open as |fd| may not hold a cache; empty when it may.
std::string Refusal(int fd) {
  struct stat st;
  if (::fstat(fd, &st) != 0) return std::string("cannot look at it: ") + std::strerror(errno);
  if (!S_ISDIR(st.st_mode)) return "not a directory";
  if (st.st_uid != ::geteuid()) return "owned by uid " + std::to_string(st.st_uid);
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) return "writable by group or others";
  return std::string();
}

// The cache directory open for use; -1 with |problem| set when it is not
// there (|problem| empty) or may not be used.
int OpenDirectory(const std::string& directory, std::string* problem) {
  problem->clear();
  const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    if (errno != ENOENT) {
      *problem = "the cache directory " + directory + " cannot be used: " + std::strerror(errno);
    }
    return -1;
  }
  const std::string refusal = Refusal(fd);
  if (!refusal.empty()) {
    ::close(fd);
    *problem = "the cache directory " + directory + " is refused: " + refusal;
    return -1;
  }
  return fd;
}

std::string FileName(const CacheLocation& location) {
  const size_t slash = location.file.find_last_of('/');
  return slash == std::string::npos ? location.file : location.file.substr(slash + 1);
}

bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

// Writes |bytes| as |name| in the directory open as |directory|: a
// temporary file beside it, synced, renamed over it, the directory synced;
// a crash at any point leaves the old file or the new one. Relative to the
// descriptor whose owner and mode were checked, so a directory swapped
// meanwhile is never written into.
Result WriteInDirectory(int directory, const std::string& name, std::string_view bytes,
                        const CacheSettings& settings) {
  std::string temporary;
  int fd = -1;
  for (int attempt = 0; attempt < 16 && fd < 0; ++attempt) {
    uint8_t random[6];
    if (::getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
      return VELK2_ERR_WRITE_FILE;
    }
    temporary = name + std::string(kTemporary) + HexString(random, sizeof random);
    fd = ::openat(directory, temporary.c_str(),
                  O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0 && errno != EEXIST) return VELK2_ERR_WRITE_FILE;
  }
  if (fd < 0) return VELK2_ERR_WRITE_FILE;
  bool ok = WriteAll(fd, bytes) && ::fsync(fd) == 0;
  ok = ::close(fd) == 0 && ok;
  if (ok && settings.before_rename) settings.before_rename(temporary);
  if (ok) ok = ::renameat(directory, temporary.c_str(), directory, name.c_str()) == 0;
  if (!ok) {
    ::unlinkat(directory, temporary.c_str(), 0);
    return VELK2_ERR_WRITE_FILE;
  }
  (void)::fsync(directory);
  return VELK2_SUCCESS;
}

// Keeps the directory within |max_bytes|: the cache files used longest ago
// go first (by modification time), never |keep|. Temporary files are
// leftovers of writers that did not finish (every writer holds the lock):
// they go too.
void Prune(int directory, const std::string& keep, uint64_t max_bytes) {
  const int copy = ::dup(directory);
  if (copy < 0) return;
  DIR* listing = ::fdopendir(copy);
  if (listing == nullptr) {
    ::close(copy);
    return;
  }
  struct File {
    std::string name;
    int64_t used;  // modification time, ns
    uint64_t size;
  };
  std::vector<File> files;
  uint64_t total = 0;
  while (const dirent* entry = ::readdir(listing)) {
    const std::string name = entry->d_name;
    struct stat st;
    if (name.find(kTemporary) != std::string::npos) {
      ::unlinkat(directory, name.c_str(), 0);
      continue;
    }
    if (name.size() <= kSuffix.size() ||
        name.compare(name.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0 ||
        ::fstatat(directory, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      continue;
    }
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    total += size;
    if (name != keep) files.push_back({name, Nanoseconds(st.st_mtim), size});
  }
  ::closedir(listing);
  std::sort(files.begin(), files.end(),
            [](const File& a, const File& b) { return a.used < b.used; });
  for (const File& file : files) {
    if (total <= max_bytes) break;
    if (::unlinkat(directory, file.name.c_str(), 0) == 0) total -= file.size;
  }
}

}  // namespace

bool CacheablePath(std::string_view path) {
  if (path.empty() || path.size() > kMaxCachePath) return false;
  size_t start = 0;
  while (start <= path.size()) {
    const size_t end = std::min(path.find('/', start), path.size());
    const std::string_view name = path.substr(start, end - start);
    if (name.empty() || name == "." || name == ".." || name.find('\0') != std::string_view::npos) {
      return false;
    }
    start = end + 1;
  }
  return true;
}

FileStamp FileStampOf(const struct stat& st) {
  FileStamp stamp;
  stamp.device = static_cast<uint64_t>(st.st_dev);
  stamp.inode = static_cast<uint64_t>(st.st_ino);
  stamp.size = static_cast<uint64_t>(st.st_size);
  stamp.mtime = Nanoseconds(st.st_mtim);
  stamp.ctime = Nanoseconds(st.st_ctim);
  stamp.mode = st.st_mode;
  stamp.uid = st.st_uid;
  stamp.gid = st.st_gid;
  return stamp;
}

EntryStamp EntryStampOf(const ManifestFileEntry& entry) {
  EntryStamp stamp;
  stamp.digest_length = entry.digest_length;
  stamp.digest = entry.digest;
  const EntryAttributes& attributes = entry.attributes;
  if (attributes.size) {
    stamp.recorded |= kStampSize;
    stamp.size = *attributes.size;
  }
  if (attributes.mode) {
    stamp.recorded |= kStampMode;
    stamp.mode = *attributes.mode;
  }
  if (attributes.uid && attributes.gid) {
    stamp.recorded |= kStampOwner;
    stamp.uid = *attributes.uid;
    stamp.gid = *attributes.gid;
  }
  return stamp;
}

bool Racy(const FileStamp& file, int64_t hashed_at, int64_t margin) {
  const int64_t limit = hashed_at < INT64_MIN + margin ? INT64_MIN : hashed_at - margin;
  return file.mtime >= limit || file.ctime >= limit;
}

bool CacheVouches(const CacheEntry& cached, const FileStamp& found, const EntryStamp& listed,
                  int64_t margin) {
  return S_ISREG(found.mode) && cached.file == found && cached.entry == listed &&
         !Racy(found, cached.hashed_at, margin);
}

EntryStamp NamesStamp(const std::vector<std::string_view>& names, size_t files) {
  // Each name's bytes end with a NUL, which no name holds; the files' and
  // the directories' are told apart by a "/" between them.
  std::string bytes;
  for (size_t i = 0; i < names.size(); ++i) {
    if (i == files) bytes.push_back('/');
    bytes.append(names[i]).push_back('\0');
  }
  if (files == names.size()) bytes.push_back('/');
  EntryStamp stamp;
  uint8_t digest[32];
  if (!Sha256(bytes, digest)) return stamp;
  std::memcpy(stamp.digest.data(), digest, sizeof digest);
  stamp.digest_length = sizeof digest;
  return stamp;
}

EntryStamp NamesStampOf(const ManifestDirectory& level) {
  std::vector<std::string> names;
  names.reserve(level.files.size() + level.directories.size());
  for (const ManifestFileEntry& file : level.files) names.push_back(WideToFileName(file.name));
  for (const ManifestDirectory& directory : level.directories) {
    names.push_back(WideToFileName(directory.name));
  }
  return NamesStamp(std::vector<std::string_view>(names.begin(), names.end()), level.files.size());
}

bool CacheVouchesListing(const CacheEntry& cached, const FileStamp& found, const EntryStamp& names,
                         int64_t margin) {
  return S_ISDIR(found.mode) && names.digest_length == kDigestSize && cached.file == found &&
         cached.entry == names && !Racy(found, cached.hashed_at, margin);
}

int64_t CacheNow(const CacheSettings& settings) {
  if (settings.clock) return settings.clock();
  struct timespec now;
  ::clock_gettime(CLOCK_REALTIME, &now);
  return Nanoseconds(now);
}

const CacheEntry* PackageCache::Find(std::string_view path, size_t* next) const {
  if (next != nullptr && *next < entries_.size() && entries_[*next].path == path) {
    return &entries_[(*next)++];
  }
  auto found = index_.find(path);
  if (found == index_.end()) return nullptr;
  if (next != nullptr) *next = found->second + 1;
  return &entries_[found->second];
}

std::string CacheFileBytes(std::string_view key, int64_t written,
                           const std::vector<CacheEntry>& entries) {
  std::string out;
  size_t size = kMagic.size() + 4 + 4 + 8 + 4 + key.size() + 4 + kDigestSize;
  for (const CacheEntry& entry : entries) size += kFixedEntry + entry.path.size();
  out.reserve(size);
  out.append(kMagic);
  PutInteger(&out, kVersion, 4);
  PutInteger(&out, 0, 4);
  PutInteger(&out, static_cast<uint64_t>(written), 8);
  PutBytes(&out, key, 4);
  PutInteger(&out, entries.size(), 4);
  for (const CacheEntry& entry : entries) PutEntry(&out, entry);
  uint8_t digest[32] = {};
  (void)Sha256(out, digest);
  out.append(reinterpret_cast<const char*>(digest), sizeof digest);
  return out;
}

Result ParseCache(std::string_view bytes, std::string_view key, uint32_t max_entries,
                  PackageCache* out) {
  *out = PackageCache();
  // The checksum first: nothing of a file that was cut short or changed
  // after it was written is looked at.
  uint8_t digest[32];
  if (bytes.size() < kMagic.size() + kDigestSize ||
      !Sha256(bytes.substr(0, bytes.size() - kDigestSize), digest) ||
      std::memcmp(digest, bytes.data() + bytes.size() - kDigestSize, kDigestSize) != 0) {
    return VELK2_ERR_PARSE_FILE;
  }
  ByteCursor cursor(bytes.data(), bytes.size() - kDigestSize);
  uint32_t version = 0, reserved = 0, key_length = 0, count = 0;
  int64_t written = 0;
  const uint8_t* key_bytes = nullptr;
  if (!cursor.Match(kMagic) || !Get32(&cursor, &version) || version != kVersion ||
      !Get32(&cursor, &reserved) || reserved != 0 || !GetSigned(&cursor, &written) ||
      !Get32(&cursor, &key_length) || key_length > kMaxKey ||
      !cursor.Take(key_length, &key_bytes) ||
      std::string_view(reinterpret_cast<const char*>(key_bytes), key_length) != key ||
      !Get32(&cursor, &count) || count > max_entries ||
      // Every entry takes more than its fixed part: a count that the bytes
      // cannot hold is refused before anything is allocated for it.
      count > cursor.remaining() / (kFixedEntry + 1)) {
    return VELK2_ERR_PARSE_FILE;
  }
  PackageCache cache;
  cache.written_ = written;
  cache.entries_.resize(count);
  for (CacheEntry& entry : cache.entries_) {
    if (!GetEntry(&cursor, written, &entry)) return VELK2_ERR_PARSE_FILE;
  }
  if (!cursor.at_end()) return VELK2_ERR_PARSE_FILE;
  cache.index_.reserve(count);
  for (size_t i = 0; i < cache.entries_.size(); ++i) {
    // Two entries for one path: not a file this writer made.
    if (!cache.index_.emplace(cache.entries_[i].path, i).second) return VELK2_ERR_PARSE_FILE;
  }
  *out = std::move(cache);
  return VELK2_SUCCESS;
}

bool LocateCache(const std::u16string& package_directory, const std::u16string& manifest_path,
                 const CacheSettings& settings, CacheLocation* out, std::string* problem) {
  *out = CacheLocation{};
  out->directory = settings.directory;
  if (out->directory.empty()) {
    const std::u16string store = GlobalDirectory();
    if (store.empty()) {
      *problem = "no store to keep a cache in";
      return false;
    }
    out->directory = Utf16ToUtf8(StoreDirectory(u"cache", kStoreGlobal));
  }
  const std::string package = Absolute(package_directory);
  const std::string manifest = Absolute(manifest_path);
  if (package.empty() || manifest.empty()) {
    *problem = "the package or its manifest has no absolute path";
    return false;
  }
  // Paths hold no NUL: the two are told apart.
  out->key = package + std::string(1, '\0') + manifest;
  uint8_t digest[32];
  if (out->key.size() > kMaxKey || !Sha256(out->key, digest)) {
    *problem = "the package's path is too long for the cache";
    return false;
  }
  out->file = out->directory + "/" + HexString(digest, sizeof digest) + std::string(kSuffix);
  return true;
}

void LoadCache(const CacheLocation& location, const CacheSettings& settings, PackageCache* out,
               CacheReport* report) {
  *out = PackageCache();
  report->directory = location.directory;
  std::string problem;
  const Descriptor directory(OpenDirectory(location.directory, &problem));
  if (directory.get() < 0) {
    report->problem = problem;
    return;
  }
  const std::string name = FileName(location);
  const Descriptor file(::openat(directory.get(), name.c_str(),
                                 O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (file.get() < 0) {
    if (errno != ENOENT) report->problem = std::string("cannot read it: ") + std::strerror(errno);
    return;
  }
  struct stat st;
  if (::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != ::geteuid() ||
      (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    report->problem =
        "the package's cache file is refused: not a regular file of ours, or "
        "writable by group or others";
    return;
  }
  if (static_cast<uint64_t>(st.st_size) > settings.max_bytes) {
    report->problem = "the package's cache file is too large: ignored";
    return;
  }
  report->loaded_file = {static_cast<int64_t>(st.st_dev), static_cast<int64_t>(st.st_ino),
                         Nanoseconds(st.st_mtim)};
  std::string bytes(static_cast<size_t>(st.st_size), '\0');
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::read(file.get(), bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  if (done != bytes.size() ||
      ParseCache(bytes, location.key, settings.max_entries, out) != VELK2_SUCCESS) {
    *out = PackageCache();
    report->problem = "the package's cache file is damaged or not ours: ignored";
    return;
  }
  report->loaded = true;
}

void SaveCache(const CacheLocation& location, const CacheSettings& settings,
               const std::vector<CacheEntry>& all_entries, const CacheReport& loaded,
               int64_t started, CacheReport* report) {
  report->directory = location.directory;
  FileLock lock;
  if (LockGlobalStore(&lock) != VELK2_SUCCESS) {
    report->problem = "not written: the store cannot be locked";
    return;
  }
  if (::mkdir(location.directory.c_str(), 0700) != 0 && errno != EEXIST) {
    report->problem = "not written: the cache directory " + location.directory +
                      " cannot be made: " + std::strerror(errno);
    return;
  }
  std::string problem;
  const Descriptor directory(OpenDirectory(location.directory, &problem));
  if (directory.get() < 0) {
    report->problem = "not written: " + problem;
    return;
  }
  const std::string name = FileName(location);
  struct stat now;
  const bool same_file =
      loaded.loaded && ::fstatat(directory.get(), name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
      loaded.loaded_file == std::array<int64_t, 3>{static_cast<int64_t>(now.st_dev),
                                                   static_cast<int64_t>(now.st_ino),
                                                   Nanoseconds(now.st_mtim)};
  std::vector<CacheEntry> entries;
  entries.reserve(all_entries.size());
  for (const CacheEntry& entry : all_entries) {
    // A path the reader refuses would make the whole file unreadable.
    if (!CacheablePath(entry.path)) continue;
    if (loaded.loaded && !same_file && entry.hashed_at < started) continue;
    entries.push_back(entry);
  }
  entries.resize(std::min<size_t>(entries.size(), settings.max_entries));
  // A clock set back since an entry was made must not make the file one
  // that no reader takes: it is dated no earlier than its entries.
  int64_t written = CacheNow(settings);
  for (const CacheEntry& entry : entries) written = std::max(written, entry.hashed_at);
  const std::string bytes = CacheFileBytes(location.key, written, entries);
  if (bytes.size() > settings.max_bytes) {
    ::unlinkat(directory.get(), name.c_str(), 0);
    report->problem = "not written: the package's entries exceed the cache's size";
    return;
  }
  if (WriteInDirectory(directory.get(), name, bytes, settings) != VELK2_SUCCESS) {
    report->problem = "not written: the cache file cannot be written";
    return;
  }
  report->written = true;
  report->recorded = entries.size();
  Prune(directory.get(), name, settings.max_bytes);
}

void TouchCache(const CacheLocation& location, const CacheSettings& settings) {
  std::string problem;
  const Descriptor directory(OpenDirectory(location.directory, &problem));
  if (directory.get() < 0) return;
  const int64_t now = CacheNow(settings);
  const struct timespec times[2] = {{0, UTIME_OMIT}, {now / kBillion, now % kBillion}};
  (void)::utimensat(directory.get(), FileName(location).c_str(), times, AT_SYMLINK_NOFOLLOW);
}

void ForgetCache(const CacheLocation& location, CacheReport* report) {
  FileLock lock;
  if (LockGlobalStore(&lock) != VELK2_SUCCESS) {
    report->problem = "not forgotten: the store cannot be locked";
    return;
  }
  std::string problem;
  const Descriptor directory(OpenDirectory(location.directory, &problem));
  if (directory.get() < 0) {
    // No directory: nothing to forget; one that may not be used is left alone.
    if (problem.empty()) {
      report->forgotten = true;
    } else {
      report->problem = "not forgotten: " + problem;
    }
    return;
  }
  if (::unlinkat(directory.get(), FileName(location).c_str(), 0) == 0 || errno == ENOENT) {
    report->forgotten = true;
  } else {
    report->problem = "not forgotten: " + std::string(std::strerror(errno));
  }
}

}  // namespace velk2
