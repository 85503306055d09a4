// The cache of incremental verification: what a verification that succeeded
// learnt of each regular file and directory of a package, so that the next
// verification may take a file it finds exactly as it was then for valid
// without reading it, and a directory's listing without listing it.
//
// An entry vouches for one file, and only while all of these are what they
// were when the file was read and found to match its manifest entry: the
// device, inode, size, modification and change times (nanoseconds), the mode
// (type and permission bits) and owner, and the manifest entry itself (its
// digest and what it records of size, mode and owner). Anything else is read
// and hashed as without a cache. A symbolic link is never taken from the
// cache: reading its target is as cheap as a look at it.
//
// A directory's entry vouches for its listing: the names in it are exactly
// those its manifest level lists, while the directory's device, inode, size,
// modification and change times, mode and owner are what they were when it
// was listed, and the level lists the same names (the entry's digest is the
// SHA-256 of them). Creating, removing or renaming anything in a directory
// sets its modification and change times; putting them back sets the change
// time again. Only a directory whose every entry a listed name claimed by its
// exact name is recorded, so a vouched-for listing has no extra entry to miss.
//
// Racy entries: a file whose modification or change time is not older than
// the moment the verification that read it began, less a margin for the
// file system's timestamp granularity, could be rewritten again within the
// same timestamp and look unchanged. Such a file is never recorded, and an
// entry is never trusted for one; it is read again.
//
// The cache lives in the Global store's "cache" directory, which only its
// owner may write (mode 0700, made on first use; one that is writable by
// group or others, or owned by someone else, is refused and not used). Each
// package has one file there, named after the SHA-256 of its key (the
// absolute package directory and manifest path):
//
//   magic "velk2ic\n", version u32 (1), reserved u32 (0), written i64 (ns),
//   key (u32 length, bytes), count u32, then per entry:
//     path (u16 length, bytes: below the package, "/" between names),
//     device u64, inode u64, size u64, mtime i64, ctime i64 (ns),
//     mode u32, uid u32, gid u32,
//     digest length u8, digest 32 bytes, recorded u8 (1 size, 2 mode,
//     4 owner), size u64, mode u32, uid u32, gid u32 (a directory's: the
//     SHA-256 of the names, nothing recorded, zeros),
//     hashed-at i64 (ns: when the verification that read the file, or
//     listed the directory, began);
//   then the SHA-256 of everything before it.
// Integers are little-endian. A file that is not exactly that (another
// version, another key, truncated, a wrong checksum, a count or a length past
// the limits) is ignored and rewritten by the next verification that
// succeeds, never trusted in part.
//
// Files are written whole (a temporary file, synced, renamed, the directory
// synced) under the Global store's lock, and only after a verification that
// succeeded; a crash leaves the old file or none. The directory is bounded:
// beyond kMaxCacheBytes the files used longest ago go first (a file's
// modification time: when it was written, or last found to hold everything).
#ifndef VELK2_MANIFEST_CACHE_H_
#define VELK2_MANIFEST_CACHE_H_

#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "frame/context.h"
#include "frame/result.h"
#include "manifest/body.h"

namespace velk2 {

// The flags of a context's incremental verification (SetIncrementalCache).
constexpr uint32_t kCacheUse = 1;     // trust the cache, and write it after success
constexpr uint32_t kCacheForget = 2;  // forget the package's entries first

// Timestamps within this much of the moment a file was read make it racy:
// two seconds covers the coarsest common granularity (FAT's).
constexpr int64_t kRacyMargin = 2'000'000'000;
// Every package's file together; one package's entries.
constexpr uint64_t kMaxCacheBytes = 256ull << 20;
// The longest path below the package an entry holds: a file or directory
// with a longer one is read every time.
constexpr uint32_t kMaxCachePath = 4096;
// Whether an entry may hold |path|, as a walk makes it: 1 to kMaxCachePath
// bytes, names joined by "/", none empty, "." or "..", no NUL. The reader
// refuses a file with any other, so no writer records one.
bool CacheablePath(std::string_view path);
constexpr uint32_t kMaxCacheEntries = 1u << 21;

// What the cache compares of a file on disk.
struct FileStamp {
  uint64_t device = 0, inode = 0, size = 0;
  int64_t mtime = 0, ctime = 0;  // ns since 1970
  uint32_t mode = 0;             // type and permission bits
  uint32_t uid = 0, gid = 0;
  bool operator==(const FileStamp&) const = default;
};
FileStamp FileStampOf(const struct stat& st);

// What the cache compares of the manifest entry a file was checked against.
struct EntryStamp {
  uint32_t digest_length = 0;
  std::array<uint8_t, 32> digest{};
  uint8_t recorded = 0;  // kStampSize | kStampMode | kStampOwner
  uint64_t size = 0;
  uint32_t mode = 0, uid = 0, gid = 0;
  bool operator==(const EntryStamp&) const = default;
};
constexpr uint8_t kStampSize = 1, kStampMode = 2, kStampOwner = 4;
EntryStamp EntryStampOf(const ManifestFileEntry& entry);

struct CacheEntry {
  std::string path;  // below the package, "/" between names
  FileStamp file;
  EntryStamp entry;
  int64_t hashed_at = 0;  // ns: when the verification that read the file began
};

// Whether |file| is racy against |hashed_at|: its modification or change
// time lies no more than |margin| ns before it, or after it.
bool Racy(const FileStamp& file, int64_t hashed_at, int64_t margin);

// Whether |cached| vouches for the regular file now stamped |found| and
// listed as |listed|: everything is as it was, and the file is not racy.
bool CacheVouches(const CacheEntry& cached, const FileStamp& found, const EntryStamp& listed,
                  int64_t margin);

// What a directory's entry compares of its manifest level: the SHA-256 of
// the names it lists, its |files| files' first, then its directories', as
// bytes. Nothing recorded when it cannot be computed.
EntryStamp NamesStamp(const std::vector<std::string_view>& names, size_t files);
EntryStamp NamesStampOf(const ManifestDirectory& level);
// Whether |cached| vouches for the listing of the directory now stamped
// |found| whose level's names are |names|.
bool CacheVouchesListing(const CacheEntry& cached, const FileStamp& found, const EntryStamp& names,
                         int64_t margin);

// How a verification uses the cache; the defaults but for tests.
struct CacheSettings {
  // ns since 1970; empty: the real-time clock. The clock the entries are
  // dated by, so racy files can be tested without waiting.
  std::function<int64_t()> clock;
  int64_t racy_margin = kRacyMargin;
  uint64_t max_bytes = kMaxCacheBytes;
  uint32_t max_entries = kMaxCacheEntries;
  // The cache directory; empty: the Global store's "cache".
  std::string directory;
  // Called between writing the new file and renaming it into place (tests
  // stop there as a crash would).
  std::function<void(const std::string& temporary)> before_rename;
};
int64_t CacheNow(const CacheSettings& settings);

// A package's cache as read: looked up by path, by any number of threads,
// while a walk runs.
class PackageCache {
 public:
  PackageCache() = default;
  // Moved, never copied: the index points into the entries.
  PackageCache(PackageCache&&) = default;
  PackageCache& operator=(PackageCache&&) = default;
  PackageCache(const PackageCache&) = delete;
  PackageCache& operator=(const PackageCache&) = delete;

  // The entry of |path|, or null. |next| (optional) is where the caller's
  // last lookup left off: entries are written in the order a walk meets
  // the files, so a walk finds each where the last one ended, in the
  // bytes it has just read.
  const CacheEntry* Find(std::string_view path, size_t* next = nullptr) const;
  size_t size() const { return entries_.size(); }
  const std::vector<CacheEntry>& entries() const { return entries_; }
  int64_t written() const { return written_; }

 private:
  friend Result ParseCache(std::string_view bytes, std::string_view key, uint32_t max_entries,
                           PackageCache* out);
  std::vector<CacheEntry> entries_;
  std::unordered_map<std::string_view, size_t> index_;  // into entries_' paths
  int64_t written_ = 0;
};

// CacheFileBytes: the cache file of |key| holding |entries|, written at
// |written|.
std::string CacheFileBytes(std::string_view key, int64_t written,
                           const std::vector<CacheEntry>& entries);
// ParseCache reads a cache file of |key|. VELK2_ERR_PARSE_FILE (9) when it is
// anything but one well-formed file of that key with at most |max_entries|
// entries; |out| is then empty.
Result ParseCache(std::string_view bytes, std::string_view key, uint32_t max_entries,
                  PackageCache* out);

// What the cache did in one verification.
struct CacheReport {
  bool enabled = false;
  bool loaded = false;     // a cache file was read and used
  bool forgotten = false;  // the package's entries were forgotten first
  bool written = false;    // the cache file now holds this verification's entries
  size_t trusted = 0;      // files taken for valid without being read
  size_t listings = 0;     // directories whose listing was taken without reading it
  size_t recorded = 0;     // entries the cache now holds for the package
  std::string directory;
  std::string problem;  // why the cache was not read, or not written
  // The file that was read (device, inode, modification time in ns): a
  // writer that finds another in its place (forgotten or rewritten since)
  // keeps none of the entries it carried over from it.
  std::array<int64_t, 3> loaded_file{};
};

// The package's cache: the directory, the key and the file's name.
struct CacheLocation {
  std::string directory;
  std::string key;
  std::string file;  // directory/HEX.cache
};
// LocateCache: where |package_directory| with |manifest_path| keeps its
// cache. False, with |problem| set, without a store or when either path
// cannot be made absolute.
bool LocateCache(const std::u16string& package_directory, const std::u16string& manifest_path,
                 const CacheSettings& settings, CacheLocation* out, std::string* problem);

// LoadCache reads the package's cache into |out|. Never fails: a missing,
// refused or broken cache leaves |out| empty, with the reason in the report
// (nothing for a cache not written yet).
void LoadCache(const CacheLocation& location, const CacheSettings& settings, PackageCache* out,
               CacheReport* report);

// SaveCache writes |entries| as the package's cache (at most max_entries of
// them, none whose path a reader would refuse), then drops the files
// written longest ago while the directory holds more than max_bytes. When
// the file |loaded| read is no longer there as it was, only the entries
// hashed since |started| are written: what was carried over may have been
// forgotten meanwhile. Under the store's lock; never fails the
// verification: what went wrong is the report's problem.
void SaveCache(const CacheLocation& location, const CacheSettings& settings,
               const std::vector<CacheEntry>& entries, const CacheReport& loaded, int64_t started,
               CacheReport* report);

// TouchCache marks the package's cache file used now (by the settings'
// clock), after a verification that found it held everything and wrote
// nothing: the bound drops it after the files used longer ago.
void TouchCache(const CacheLocation& location, const CacheSettings& settings);

// ForgetCache removes the package's cache file, under the store's lock,
// from the cache directory only when it may be used.
void ForgetCache(const CacheLocation& location, CacheReport* report);

}  // namespace velk2

#endif  // VELK2_MANIFEST_CACHE_H_
