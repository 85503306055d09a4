// Comparing a manifest's file tree with the package on disk, or with the
// tree of a second manifest. Every path met is classified, in the order it
// is met, as valid, invalid, missing or extra.
#ifndef VELK2_MANIFEST_COMPARE_H_
#define VELK2_MANIFEST_COMPARE_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "frame/context.h"
#include "frame/result.h"
#include "manifest/body.h"
#include "manifest/cache.h"
#include "manifest/patterns.h"
#include "platform/progress.h"
#include "velk2.h"

namespace velk2 {

// What differs between what an entry records and what was found.
enum class ChangeKind {
  kType,        // a file, a directory, a symlink or something else where another was listed
  kContent,     // the SHA-256 of a file's bytes
  kSize,        // a file's size
  kMode,        // the permission bits, setuid, setgid and sticky included
  kOwner,       // the owner and group ids, "uid:gid"
  kLinkTarget,  // where a symbolic link points
};
// "type", "content", "size", "mode", "owner", "link target".
const char* ChangeKindName(ChangeKind kind);
struct Change {
  ChangeKind kind;
  std::string expected, found;  // as the reports print them: hex digests, octal modes, ...
};

struct CompareResult {
  std::u16string path;
  uint32_t status = 0;  // one VELK2_ENTRY_* bit
  bool is_directory = false;
  bool listed = true;           // false for an entry found on disk only
  bool changed_during = false;  // a file that changed while it was read
  bool from_cache = false;      // a Valid file the cache vouched for, not read
  // A listed file's digest, as its manifest states it (for a reader that
  // pairs missing and extra files).
  bool has_digest = false;
  std::array<uint8_t, 32> digest{};
  // What differs, for an Invalid entry that was found and read.
  std::vector<Change> changes;
  // The system's error (errno) when the entry, or the directory it lies in,
  // could not be read or listed: it is then Invalid (or Missing, below a
  // directory that cannot be listed) without being judged.
  int read_error = 0;
};
using CompareResults = std::vector<CompareResult>;

// CompareWithDisk compares |root| (its path the package directory) with the
// disk and appends what it finds. A file is Valid when its SHA-256 is the
// listed one, Invalid when not or when it cannot be read, Missing when it is
// not there; a directory is Valid when everything below it is, else Invalid
// (a listed directory that is missing too). Inside every listed directory,
// but not in the package directory itself, unlisted entries are Extra.
//
// Linux decisions:
// - names are matched to a directory's entries without regard to ASCII case
//   (the file systems manifests were made for ignore case); an entry of
//   exactly the listed name is preferred, and an entry that no listed name
//   claimed is Extra, so "A.txt" beside a listed "a.txt" never hides;
// - nothing inside the package is followed or blocked on: each directory is
//   opened relative to its parent's descriptor with O_NOFOLLOW, each file
//   too, and only a regular file is read. A symlink, FIFO, socket or device
//   where a file or directory is listed is Invalid; an unlisted one is
//   Extra. A directory swapped for a symlink while the walk runs fails to
//   open instead of redirecting a read outside the package. The package
//   directory itself is the caller's to name and may be a symlink.
// Each directory is listed once and each file hashed once. The code: 22 when
// anything is Invalid, else 5 when anything is Missing, else 74 when
// anything is Extra, else 0.
// How the disk is read: |threads| hash files while the walk goes on (1: the
// walk hashes each file itself); the results are the same for any number.
// |on_file| (optional) hears of every file read, with its size, one call at
// a time; |counters| (optional) count the bytes and files as they are read. A file whose size,
// times or inode change while it is read is Invalid, with changed_during set (an extension: one
// read has no digest).
//
// What an entry records is checked too, never by following a link: a
// symlink entry is Invalid unless a symlink with the listed target is there;
// a listed size, mode (permission bits with setuid, setgid and sticky) or
// owner that differs makes the entry Invalid; each difference is one of its
// changes.
using FileProgress = std::function<void(uint64_t bytes)>;

// What a walk learnt for the cache (files in the order met, then
// directories): each entry either the cache's own, carried over as it
// stands, or made anew. A run that carries
// everything over builds no copy of it.
class CacheRecord {
 public:
  void Carry(const CacheEntry* entry) { order_.push_back({entry, 0}); }
  // An entry the cache cannot hold (its path too long) is nothing new.
  void Add(CacheEntry entry) {
    if (!CacheablePath(entry.path)) return;
    order_.push_back({nullptr, fresh_.size()});
    fresh_.push_back(std::move(entry));
  }
  // |other|'s entries after these.
  void Append(CacheRecord&& other);
  void Reserve(size_t entries) { order_.reserve(order_.size() + entries); }
  size_t size() const { return order_.size(); }
  bool any_new() const { return !fresh_.empty(); }
  // The entries, in order.
  std::vector<CacheEntry> Entries() const;

 private:
  std::vector<std::pair<const CacheEntry*, size_t>> order_;  // carried, else index in fresh_
  std::vector<CacheEntry> fresh_;
};

struct DiskOptions {
  unsigned threads = 1;
  const FileProgress* on_file = nullptr;
  HashCounters* counters = nullptr;
  // The package directory itself is scanned for extra entries too, but for
  // |root_exception| (the manifest's own name when it lies there).
  bool scan_root = false;
  std::u16string root_exception;
  // Entries these patterns match (paths relative to the package) are left
  // out, listed or not.
  const IgnorePatterns* patterns = nullptr;
  // Incremental verification (manifest/cache.h): a regular file whose entry
  // in |cache| vouches for it as it stands is Valid without being read.
  // |recorded| (optional) receives an entry, dated |started| unless the
  // cache's own was kept, for every regular file found Valid that is not
  // racy; |started|: the moment the walk began, in the cache's clock.
  // A directory whose entry vouches for its listing is not listed; every
  // directory listed whose entries are exactly the listed names is recorded
  // too. |trusted_listings| (optional) counts up each directory not listed.
  const PackageCache* cache = nullptr;
  CacheRecord* recorded = nullptr;
  size_t* trusted_listings = nullptr;
  int64_t started = 0;
  int64_t racy_margin = kRacyMargin;
};
Result CompareWithDisk(const ManifestDirectory& root, CompareResults* results,
                       const Velk2Context* context, const DiskOptions& options = {});

// CompareDirectories compares manifest A (the context's) with manifest B,
// both roots without a path: a file in both is Valid when the digests agree,
// else Invalid; one in A only is Missing, in B only Extra; a directory in one
// only is reported with everything below it. The code as above.
// What both record of an entry is compared too (link, size, mode, owner).
// |patterns| (optional) leave entries out of both, as on disk.
Result CompareDirectories(const ManifestDirectory& a, const ManifestDirectory& b,
                          CompareResults* results, const IgnorePatterns* patterns = nullptr);

// The code of results [first, end): 22, else 5, else 74, else 0.
Result SummaryCode(const CompareResults& results, size_t first = 0, size_t end = SIZE_MAX);

}  // namespace velk2

#endif  // VELK2_MANIFEST_COMPARE_H_
