#include "manifest/compare.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "credentials/hash_value.h"
#include "frame/paths.h"
#include "frame/text.h"
#include "platform/utf.h"

namespace velk2 {

namespace {

// A descriptor closed when it goes out of scope.
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

std::u16string Join(const std::u16string& path, const std::u16string& name) {
  return BuildPath(path.empty() ? nullptr : path.c_str(), name.c_str());
}

std::u16string Folded(const std::u16string& name) {
  std::u16string folded = name;
  for (char16_t& c : folded) c = FoldAscii(c);
  return folded;
}

// One directory's entries, listed once, each claimed by at most one listed name.
class Listing {
 public:
  struct Entry {
    std::string name;  // as on disk
    std::u16string wide;
    bool claimed;
    unsigned char type;  // DT_REG, DT_DIR, ... or DT_UNKNOWN
  };

  // False when the directory cannot be listed.
  bool Read(int fd) {
    const int copy = ::dup(fd);
    if (copy < 0) return false;
    DIR* dir = ::fdopendir(copy);
    if (dir == nullptr) {
      ::close(copy);
      return false;
    }
    while (const dirent* entry = ::readdir(dir)) {
      const std::string_view name = entry->d_name;
      if (name == "." || name == "..") continue;
      entries_.push_back({std::string(name), Utf8ToUtf16(name), false, entry->d_type});
    }
    ::closedir(dir);
    std::sort(entries_.begin(), entries_.end(),
              [](const Entry& a, const Entry& b) { return NameLess(a.wide, b.wide); });
    for (size_t i = 0; i < entries_.size(); ++i) {
      exact_.emplace(entries_[i].wide, i);
      folded_.emplace(Folded(entries_[i].wide), i);
    }
    return true;
  }

  // The on-disk name for a listed |name|: the entry of exactly that name
  // when there is one, else the first unclaimed one equal but for case.
  const Entry* Claim(const std::u16string& name) {
    auto exact = exact_.find(name);
    if (exact != exact_.end() && !entries_[exact->second].claimed) return Take(exact->second);
    auto [first, last] = folded_.equal_range(Folded(name));
    size_t best = entries_.size();
    for (auto it = first; it != last; ++it) {
      if (!entries_[it->second].claimed) best = std::min(best, it->second);
    }
    return best < entries_.size() ? Take(best) : nullptr;
  }

  const std::vector<Entry>& entries() const { return entries_; }

 private:
  const Entry* Take(size_t index) {
    entries_[index].claimed = true;
    return &entries_[index];
  }

  std::vector<Entry> entries_;
  std::unordered_map<std::u16string, size_t> exact_;
  std::unordered_multimap<std::u16string, size_t> folded_;
};

class DiskWalk {
 public:
  DiskWalk(CompareResults* results, const Velk2Context* context, const FileProgress* on_file)
      : results_(results), context_(context), on_file_(on_file) {}

  // Compares |level| with the directory open as |fd| (-1: it could not be
  // opened); the level's code.
  Result Level(const ManifestDirectory& level, int fd, int depth) {
    const size_t first = results_->size();
    Listing listing;
    const bool listed = fd >= 0 && listing.Read(fd);

    for (const ManifestFileEntry& file : level.files) {
      if (level.IsIgnored(file.name)) continue;
      const Listing::Entry* on_disk = listed ? listing.Claim(file.name) : nullptr;
      const uint32_t status = on_disk ? FileStatus(fd, *on_disk, file) : VELK2_ENTRY_MISSING;
      Record(Join(level.path, file.name), status, false);
    }

    for (const ManifestDirectory& directory : level.directories) {
      if (level.IsIgnored(directory.name)) continue;
      const Listing::Entry* on_disk = listed ? listing.Claim(directory.name) : nullptr;
      const Descriptor child(on_disk ? ::openat(fd, on_disk->name.c_str(),
                                                O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)
                                     : -1);
      const Result code = Level(directory, child.get(), depth + 1);
      const uint32_t status = code == VELK2_SUCCESS           ? VELK2_ENTRY_VALID
                              : code == VELK2_ERR_FILE_OPEN   ? VELK2_ENTRY_MISSING
                              : code == VELK2_ERR_EXTRA_FILES ? VELK2_ENTRY_EXTRA
                                                              : VELK2_ENTRY_INVALID;
      Record(directory.path, status, true);
    }

    // The package directory itself is never scanned: what lies beside the
    // listed tree there (the manifest file, for one) is not the package's.
    if (depth > 0) {
      if (!listed) {
        Record(level.path, VELK2_ENTRY_INVALID, true);
      } else {
        for (const Listing::Entry& entry : listing.entries()) {
          if (entry.claimed || level.IsIgnored(entry.wide)) continue;
          struct stat st;
          const bool is_directory =
              ::fstatat(fd, entry.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
              S_ISDIR(st.st_mode);
          Record(Join(level.path, entry.wide), VELK2_ENTRY_EXTRA, is_directory, false);
        }
      }
    }
    return SummaryCode(*results_, first);
  }

 private:
  uint32_t FileStatus(int fd, const Listing::Entry& entry, const ManifestFileEntry& file) {
    // Only what the directory says is a regular file is opened: a device is
    // never touched, a FIFO never waited on, a symlink never followed.
    const std::string& name = entry.name;
    struct stat st;
    if (entry.type != DT_REG) {
      if (::fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? VELK2_ENTRY_MISSING : VELK2_ENTRY_INVALID;
      }
      if (!S_ISREG(st.st_mode)) return VELK2_ENTRY_INVALID;
    }
    const Descriptor opened(
        ::openat(fd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (opened.get() < 0) return errno == ENOENT ? VELK2_ENTRY_MISSING : VELK2_ENTRY_INVALID;
    // What was opened may have been swapped in after the check.
    if (::fstat(opened.get(), &st) != 0 || !S_ISREG(st.st_mode)) return VELK2_ENTRY_INVALID;
    uint8_t digest[32];
    const Result hashed = HashDescriptor(opened.get(), digest, context_, &block_, st.st_size);
    if (on_file_ != nullptr && *on_file_) (*on_file_)(static_cast<uint64_t>(st.st_size));
    if (hashed != VELK2_SUCCESS) return VELK2_ENTRY_INVALID;
    return file.digest_length == sizeof digest &&
                   std::memcmp(digest, file.digest.data(), sizeof digest) == 0
               ? VELK2_ENTRY_VALID
               : VELK2_ENTRY_INVALID;
  }

  void Record(std::u16string path, uint32_t status, bool is_directory, bool listed = true) {
    results_->push_back({std::move(path), status, is_directory, listed});
  }

  CompareResults* results_;
  const Velk2Context* context_;
  const FileProgress* on_file_;
  std::vector<uint8_t> block_;  // the read buffer, kept from file to file
};

// Records |directory| and everything below it with |status|.
void RecordSubtree(const ManifestDirectory& directory, uint32_t status, CompareResults* results) {
  const bool listed = status != VELK2_ENTRY_EXTRA;  // in the first manifest
  results->push_back({directory.path, status, true, listed});
  for (const ManifestFileEntry& file : directory.files) {
    results->push_back({Join(directory.path, file.name), status, false, listed});
  }
  for (const ManifestDirectory& child : directory.directories) {
    RecordSubtree(child, status, results);
  }
}

int CompareNames(const std::u16string& a, const std::u16string& b) {
  return CompareNoCase(a.c_str(), b.c_str());
}

}  // namespace

Result SummaryCode(const CompareResults& results, size_t first) {
  uint32_t seen = 0;
  for (size_t i = first; i < results.size(); ++i) seen |= results[i].status;
  if (seen & VELK2_ENTRY_INVALID) return VELK2_ERR_HASH_MISMATCH;
  if (seen & VELK2_ENTRY_MISSING) return VELK2_ERR_FILE_NOT_FOUND;
  if (seen & VELK2_ENTRY_EXTRA) return VELK2_ERR_EXTRA_FILES;
  return VELK2_SUCCESS;
}

Result CompareWithDisk(const ManifestDirectory& root, CompareResults* results,
                       const Velk2Context* context, const FileProgress* on_file) {
  if (results == nullptr) return VELK2_ERR_PARAM_NULL;
  const std::string path = Utf16ToUtf8(root.path);
  const Descriptor package(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return DiskWalk(results, context, on_file).Level(root, package.get(), 0);
}

Result CompareDirectories(const ManifestDirectory& a, const ManifestDirectory& b,
                          CompareResults* results) {
  if (results == nullptr) return VELK2_ERR_PARAM_NULL;
  const size_t first = results->size();
  size_t i = 0, j = 0;
  while (i < a.files.size() || j < b.files.size()) {
    const int order = i == a.files.size()   ? 1
                      : j == b.files.size() ? -1
                                            : CompareNames(a.files[i].name, b.files[j].name);
    if (order == 0) {
      const ManifestFileEntry& x = a.files[i++];
      const ManifestFileEntry& y = b.files[j++];
      if (a.IsIgnored(x.name)) continue;
      const bool same = x.digest_length == y.digest_length && x.digest == y.digest;
      results->push_back(
          {Join(a.path, x.name), same ? VELK2_ENTRY_VALID : VELK2_ENTRY_INVALID, false});
    } else if (order < 0) {
      const ManifestFileEntry& x = a.files[i++];
      if (!a.IsIgnored(x.name))
        results->push_back({Join(a.path, x.name), VELK2_ENTRY_MISSING, false});
    } else {
      const ManifestFileEntry& y = b.files[j++];
      if (!b.IsIgnored(y.name)) {
        results->push_back({Join(a.path, y.name), VELK2_ENTRY_EXTRA, false, false});
      }
    }
  }
  i = j = 0;
  while (i < a.directories.size() || j < b.directories.size()) {
    const int order = i == a.directories.size() ? 1
                      : j == b.directories.size()
                          ? -1
                          : CompareNames(a.directories[i].name, b.directories[j].name);
    if (order == 0) {
      const ManifestDirectory& x = a.directories[i++];
      const ManifestDirectory& y = b.directories[j++];
      if (a.IsIgnored(x.name)) continue;
      const Result code = CompareDirectories(x, y, results);
      results->push_back(
          {x.path, code == VELK2_SUCCESS ? VELK2_ENTRY_VALID : VELK2_ENTRY_INVALID, true});
    } else if (order < 0) {
      const ManifestDirectory& x = a.directories[i++];
      if (!a.IsIgnored(x.name)) RecordSubtree(x, VELK2_ENTRY_MISSING, results);
    } else {
      const ManifestDirectory& y = b.directories[j++];
      if (!b.IsIgnored(y.name)) RecordSubtree(y, VELK2_ENTRY_EXTRA, results);
    }
  }
  return SummaryCode(*results, first);
}

}  // namespace velk2
