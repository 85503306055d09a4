#include "manifest/compare.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>

#include "credentials/hash_value.h"
#include "frame/paths.h"
#include "frame/text.h"
#include "platform/files.h"
#include "platform/utf.h"

namespace velk2 {

namespace {

std::u16string Join(const std::u16string& path, const std::u16string& name) {
  if (path.empty()) return name;
  std::u16string joined;
  joined.reserve(path.size() + 1 + name.size());
  joined.append(path).push_back(u'/');
  return joined.append(name);
}

CompareResult MakeResult(std::u16string path, uint32_t status, bool is_directory,
                         bool listed = true) {
  CompareResult result;
  result.path = std::move(path);
  result.status = status;
  result.is_directory = is_directory;
  result.listed = listed;
  return result;
}

// What stands on disk, for people: "file", "directory", "symlink", ...
const char* TypeName(mode_t mode) {
  if (S_ISREG(mode)) return "file";
  if (S_ISDIR(mode)) return "directory";
  if (S_ISLNK(mode)) return "symlink";
  if (S_ISFIFO(mode)) return "fifo";
  if (S_ISSOCK(mode)) return "socket";
  if (S_ISCHR(mode) || S_ISBLK(mode)) return "device";
  return "something else";
}

std::string OwnerText(uint32_t uid, uint32_t gid) {
  return std::to_string(uid) + ":" + std::to_string(gid);
}

// The differences between what |recorded| says of the entry's mode and
// owner and what |st| finds.
void CompareMetadata(const EntryAttributes& recorded, const struct stat& st, bool check_mode,
                     std::vector<Change>* changes) {
  if (check_mode && recorded.mode && (st.st_mode & 07777) != *recorded.mode) {
    changes->push_back({ChangeKind::kMode, ModeText(*recorded.mode), ModeText(st.st_mode)});
  }
  if (recorded.uid && recorded.gid && (st.st_uid != *recorded.uid || st.st_gid != *recorded.gid)) {
    changes->push_back({ChangeKind::kOwner, OwnerText(*recorded.uid, *recorded.gid),
                        OwnerText(st.st_uid, st.st_gid)});
  }
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

  // False, with |error| set, when the directory cannot be listed.
  bool Read(int fd) {
    const int copy = ::dup(fd);
    if (copy < 0) {
      error = errno;
      return false;
    }
    DIR* dir = ::fdopendir(copy);
    if (dir == nullptr) {
      error = errno;
      ::close(copy);
      return false;
    }
    errno = 0;
    while (const dirent* entry = ::readdir(dir)) {
      const std::string_view name = entry->d_name;
      if (name == "." || name == "..") continue;
      entries_.push_back({std::string(name), FileNameToWide(name), false, entry->d_type});
    }
    if (errno != 0) {
      error = errno;
      ::closedir(dir);
      return false;
    }
    ::closedir(dir);
    // Sorted without regard to case, names equal but for case side by side:
    // a lookup is a binary search to that run of names, no index to build.
    std::sort(entries_.begin(), entries_.end(),
              [](const Entry& a, const Entry& b) { return NameLess(a.wide, b.wide); });
    return true;
  }

  // Takes the directory to hold exactly the names |level| lists, as a cache
  // entry may vouch: nothing is read. Their types are not known. Entries are
  // then in the level's order, its files first, and claimed by TakeAt only;
  // the digest of their names is the one the entry must hold.
  EntryStamp Assume(const ManifestDirectory& level) {
    entries_.reserve(level.files.size() + level.directories.size());
    for (const ManifestFileEntry& file : level.files) {
      entries_.push_back({WideToFileName(file.name), file.name, false, DT_UNKNOWN});
    }
    for (const ManifestDirectory& directory : level.directories) {
      entries_.push_back({WideToFileName(directory.name), directory.name, false, DT_UNKNOWN});
    }
    std::vector<std::string_view> names;
    names.reserve(entries_.size());
    for (const Entry& entry : entries_) names.push_back(entry.name);
    return NamesStamp(names, level.files.size());
  }
  const Entry* TakeAt(size_t i) { return Take(&entries_[i]); }
  void Clear() { entries_.clear(); }

  // Whether every entry was claimed by its exact name, by |listed| names in all.
  bool ClaimedExactly(size_t listed) const {
    return folded_ == 0 && exact_ == entries_.size() && exact_ == listed;
  }

  // The on-disk entry of exactly the listed |name|, when there is one
  // unclaimed. Every listed name of a level claims its exact entry before
  // any claims by case, so "A.TXT" listed before "a.txt" never takes a.txt.
  const Entry* ClaimExact(const std::u16string& name) {
    auto [first, last] = SameButForCase(name);
    for (auto it = first; it != last; ++it) {
      if (!it->claimed && it->wide == name) {
        ++exact_;
        return Take(&*it);
      }
    }
    return nullptr;
  }
  // The first unclaimed entry equal to |name| but for case.
  const Entry* ClaimFolded(const std::u16string& name) {
    auto [first, last] = SameButForCase(name);
    for (auto it = first; it != last; ++it) {
      if (!it->claimed) {
        ++folded_;
        return Take(&*it);
      }
    }
    return nullptr;
  }

  const std::vector<Entry>& entries() const { return entries_; }
  int error = 0;  // why the directory could not be listed

 private:
  std::pair<std::vector<Entry>::iterator, std::vector<Entry>::iterator> SameButForCase(
      const std::u16string& name) {
    return std::equal_range(
        entries_.begin(), entries_.end(), name,
        [](const auto& a, const auto& b) { return CompareNoCase(Wide(a), Wide(b)) < 0; });
  }
  static const char16_t* Wide(const Entry& entry) { return entry.wide.c_str(); }
  static const char16_t* Wide(const std::u16string& name) { return name.c_str(); }

  static const Entry* Take(Entry* entry) {
    entry->claimed = true;
    return entry;
  }

  std::vector<Entry> entries_;
  size_t exact_ = 0, folded_ = 0;  // claims by exact name, by name but for case
};

// The hashing of the files a walk opens: inline with one thread, else on a
// small pool that works while the walk goes on. Each file's outcome goes to
// its own slot, so the results, their order and every status are the same
// whatever the number of threads.
class HashPool {
 public:
  struct Outcome {
    uint32_t status = VELK2_ENTRY_INVALID;
    bool changed = false;  // the file changed while it was read
    int read_error = 0;    // errno when it could not be read
    std::vector<Change> changes;
    // A regular file found Valid: what it was found as, for the cache.
    bool stamped = false;
    bool from_cache = false;  // the cache vouched for it: not read
    FileStamp stamp;
  };

  HashPool(unsigned threads, const Velk2Context* context, const FileProgress* on_file,
           HashCounters* counters, int64_t racy_margin)
      : context_(context),
        on_file_(on_file),
        counters_(counters),
        racy_margin_(racy_margin),
        threads_(std::max(threads, 1u)),
        // Every job waiting holds its directory open: 640 descriptors at
        // most, with a full batch, whatever the number of threads.
        limit_(std::clamp<size_t>(32 * threads_, 2 * kBatch, 512)) {
    // More than one thread: that many workers hash while the walk opens files.
    for (unsigned i = 0; threads > 1 && i < threads; ++i) workers_.emplace_back([this] { Work(); });
  }
  ~HashPool() { Finish(); }

  // Reads the directory's |entry| and hashes it against |file| into |out|,
  // unless |cached| (optional) vouches for it as it stands. With workers the
  // job waits in the walk's batch until Flush or until the batch is full:
  // the queue's lock is taken once a batch, and the workers woken once.
  void Submit(std::shared_ptr<const Descriptor> directory, const Listing::Entry* entry,
              const ManifestFileEntry* file, const CacheEntry* cached, Outcome* out) {
    Job job{std::move(directory), entry, file, cached, out};
    if (workers_.empty()) {
      Run(job, &block_);
      return;
    }
    batch_.push_back(std::move(job));
    if (batch_.size() >= kBatch) Flush();
  }

  // Hands the walk's batch to the workers.
  void Flush() {
    if (batch_.empty()) return;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      // A bounded queue (every job holds its directory open). A full queue
      // waits until it is half empty: one wake-up per many files, not per file.
      if (queue_.size() >= limit_) {
        walk_waits_ = true;
        space_.wait(lock, [this] { return queue_.size() <= limit_ / 2; });
        walk_waits_ = false;
      }
      for (Job& job : batch_) queue_.push_back(std::move(job));
      batch_.clear();
      if (idle_ == 0) return;
    }
    work_.notify_all();
  }

  // Waits until every file submitted is hashed.
  void Finish() {
    Flush();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      done_ = true;
    }
    work_.notify_all();
    for (std::thread& worker : workers_) worker.join();
    workers_.clear();
  }

 private:
  struct Job {
    std::shared_ptr<const Descriptor> directory;  // open until its last file is read
    const Listing::Entry* entry;                  // lives as long as the walk
    const ManifestFileEntry* file;
    const CacheEntry* cached;  // null: no entry of the cache to ask
    Outcome* out;
  };
  static constexpr size_t kBatch = 128;

  // Whether the job's cache entry vouches for its file as it stands: then
  // the outcome holds it, Valid, and it is not read. One look at it, never
  // an open: a file the cache vouches for costs what a stat costs. The
  // symlink is looked at, never followed; anything but the regular file the
  // entry describes is read as without a cache.
  bool Vouch(const Job& job) {
    const ManifestFileEntry& file = *job.file;
    Outcome* out = job.out;
    struct stat st;
    if (file.attributes.link ||
        ::fstatat(job.directory->get(), job.entry->name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      return false;
    }
    const FileStamp found = FileStampOf(st);
    if (!CacheVouches(*job.cached, found, EntryStampOf(file), racy_margin_)) return false;
    // The entry was made only for a file that matched the same manifest
    // entry; what the entry records of mode and owner is checked again all
    // the same, as cheap as it is.
    std::vector<Change> changes;
    CompareMetadata(file.attributes, st, true, &changes);
    if (!changes.empty()) return false;
    out->status = VELK2_ENTRY_VALID;
    out->stamped = true;
    out->from_cache = true;
    out->stamp = found;
    if (counters_ != nullptr) counters_->files.fetch_add(1, std::memory_order_relaxed);
    return true;
  }

  void Work() {
    std::vector<uint8_t> block;
    std::vector<Job> batch;
    for (;;) {
      bool wake_walk = false;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!done_ && queue_.empty()) {
          ++idle_;
          work_.wait(lock, [this] { return done_ || !queue_.empty(); });
          --idle_;
        }
        if (queue_.empty()) return;
        // Small files go in batches, so the queue's lock is not the cost; a
        // share of what waits, so a few big files still spread over every worker.
        const size_t take = std::clamp<size_t>(queue_.size() / (2 * threads_), 1, 16);
        while (!queue_.empty() && batch.size() < take) {
          batch.push_back(std::move(queue_.front()));
          queue_.pop_front();
        }
        wake_walk = walk_waits_ && queue_.size() <= limit_ / 2;
      }
      if (wake_walk) space_.notify_one();
      for (Job& job : batch) Run(job, &block);
      batch.clear();  // the directories close as their last files are done
    }
  }

  void Run(const Job& job, std::vector<uint8_t>* block) {
    if (job.cached != nullptr && Vouch(job)) return;
    job.out->status = Read(job, block);
  }

  // The file's status. Only what the directory says is a regular file is
  // opened without a look first: a device is never touched, a FIFO never
  // waited on, a symlink never followed (a symlink entry's target is read,
  // never what it points to).
  uint32_t Read(const Job& job, std::vector<uint8_t>* block) {
    const int directory = job.directory->get();
    const char* name = job.entry->name.c_str();
    const EntryAttributes& recorded = job.file->attributes;
    std::vector<Change>& changes = job.out->changes;
    struct stat before;
    if (recorded.link || job.entry->type != DT_REG) {
      if (::fstatat(directory, name, &before, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT) return VELK2_ENTRY_MISSING;
        job.out->read_error = errno;
        return VELK2_ENTRY_INVALID;
      }
      if (recorded.link) return ReadLink(job, before);
      if (!S_ISREG(before.st_mode)) {
        changes.push_back({ChangeKind::kType, "file", TypeName(before.st_mode)});
        return VELK2_ENTRY_INVALID;
      }
    }
    const Descriptor opened(
        ::openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (opened.get() < 0) {
      if (errno == ENOENT) return VELK2_ENTRY_MISSING;
      if (errno == ELOOP) {
        changes.push_back({ChangeKind::kType, "file", "symlink"});
      } else {
        job.out->read_error = errno;
        // What cannot be read may still show a changed mode or owner.
        if (::fstatat(directory, name, &before, AT_SYMLINK_NOFOLLOW) == 0) {
          CompareMetadata(recorded, before, S_ISREG(before.st_mode), &changes);
        }
      }
      return VELK2_ENTRY_INVALID;
    }
    // What was opened may have been swapped in after the look.
    if (::fstat(opened.get(), &before) != 0) {
      job.out->read_error = errno;
      return VELK2_ENTRY_INVALID;
    }
    if (!S_ISREG(before.st_mode)) {
      changes.push_back({ChangeKind::kType, "file", TypeName(before.st_mode)});
      return VELK2_ENTRY_INVALID;
    }
    uint8_t digest[32];
    Result hashed = VELK2_FAILURE;
    try {
      hashed = HashDescriptor(opened.get(), digest, context_, block, before.st_size, counters_);
    } catch (const std::bad_alloc&) {
      hashed = VELK2_ERR_MEM_ALLOC;
    }
    if (hashed == VELK2_ERR_READ_FILE) job.out->read_error = errno != 0 ? errno : EIO;
    if (counters_ != nullptr) counters_->files.fetch_add(1, std::memory_order_relaxed);
    if (on_file_ != nullptr && *on_file_) {
      std::lock_guard<std::mutex> lock(progress_mutex_);
      (*on_file_)(static_cast<uint64_t>(before.st_size));
    }
    // A file rewritten while it was read has no one digest: never valid.
    struct stat after;
    job.out->changed = ::fstat(opened.get(), &after) != 0 || Changed(before, after);
    // The digest decides; a recorded size that differs too says more of
    // what happened (a size alone never fails a file: the design compares
    // digests, and another writer's second atom may hold another number).
    if (hashed == VELK2_SUCCESS && !job.out->changed &&
        (job.file->digest_length != sizeof digest ||
         std::memcmp(digest, job.file->digest.data(), sizeof digest) != 0)) {
      if (recorded.size && *recorded.size != static_cast<uint64_t>(before.st_size)) {
        changes.push_back({ChangeKind::kSize, std::to_string(*recorded.size),
                           std::to_string(static_cast<uint64_t>(before.st_size))});
      }
      changes.push_back({ChangeKind::kContent,
                         HexString(job.file->digest.data(), job.file->digest_length),
                         HexString(digest, sizeof digest)});
    }
    CompareMetadata(recorded, before, true, &changes);
    if (hashed != VELK2_SUCCESS || job.out->changed || !changes.empty()) {
      return VELK2_ENTRY_INVALID;
    }
    job.out->stamped = true;
    job.out->stamp = FileStampOf(before);
    return VELK2_ENTRY_VALID;
  }

  // A symlink entry: the link itself, its target text hashed, never followed.
  uint32_t ReadLink(const Job& job, const struct stat& st) {
    const EntryAttributes& recorded = job.file->attributes;
    std::vector<Change>& changes = job.out->changes;
    if (!S_ISLNK(st.st_mode)) {
      changes.push_back({ChangeKind::kType, "symlink", TypeName(st.st_mode)});
      return VELK2_ENTRY_INVALID;
    }
    std::string target(static_cast<size_t>(st.st_size > 0 ? st.st_size : 0) + 1, '\0');
    const ssize_t length =
        ::readlinkat(job.directory->get(), job.entry->name.c_str(), target.data(), target.size());
    if (length < 0) {
      job.out->read_error = errno;
      return VELK2_ENTRY_INVALID;
    }
    target.resize(static_cast<size_t>(length));
    uint8_t digest[32];
    if (HashBytes(target, digest, context_) != VELK2_SUCCESS) return VELK2_ENTRY_INVALID;
    if (job.file->digest_length != sizeof digest ||
        std::memcmp(digest, job.file->digest.data(), sizeof digest) != 0) {
      changes.push_back({ChangeKind::kLinkTarget, recorded.target, target});
    }
    CompareMetadata(recorded, st, false, &changes);
    return changes.empty() ? VELK2_ENTRY_VALID : VELK2_ENTRY_INVALID;
  }

  static bool Changed(const struct stat& a, const struct stat& b) {
    return a.st_size != b.st_size || a.st_ino != b.st_ino || a.st_dev != b.st_dev ||
           a.st_mtim.tv_sec != b.st_mtim.tv_sec || a.st_mtim.tv_nsec != b.st_mtim.tv_nsec ||
           a.st_ctim.tv_sec != b.st_ctim.tv_sec || a.st_ctim.tv_nsec != b.st_ctim.tv_nsec;
  }

  const Velk2Context* context_;
  const FileProgress* on_file_;
  HashCounters* counters_;
  const int64_t racy_margin_;
  const size_t threads_;
  const size_t limit_;
  std::vector<uint8_t> block_;  // the inline path's read buffer
  std::vector<std::thread> workers_;
  std::mutex mutex_, progress_mutex_;
  std::condition_variable work_, space_;
  std::deque<Job> queue_;
  std::vector<Job> batch_;   // the walk's, not yet queued
  size_t idle_ = 0;          // workers waiting for work
  bool walk_waits_ = false;  // the walk waits for room in the queue
  bool done_ = false;
};

class DiskWalk {
  // For the cache: a file's path below the package, and its entry.
  struct PendingEntry {
    std::string path;
    const ManifestFileEntry* file;
    const CacheEntry* cached;  // the cache's entry for the path, if any
  };

 public:
  DiskWalk(CompareResults* results, const Velk2Context* context, const DiskOptions& options)
      : results_(results),
        options_(options),
        pool_(options.threads, context, options.on_file, options.counters, options.racy_margin) {}

  // The walk, then the statuses that wait for hashing: files, then each
  // directory from the records below it (they all precede it).
  Result Run(const ManifestDirectory& root, std::shared_ptr<const Descriptor> package) {
    const size_t first = results_->size();
    Level(root, std::move(package), 0, std::string(), 0, nullptr);
    pool_.Finish();
    if (options_.recorded != nullptr) options_.recorded->Reserve(files_.size());
    for (size_t i = 0; i < files_.size(); ++i) {
      const auto& [record, outcome] = files_[i];
      CompareResult& found = (*results_)[record];
      found.status = outcome->status;
      found.changed_during = outcome->changed;
      found.from_cache = outcome->from_cache;
      if (outcome->read_error != 0) found.read_error = outcome->read_error;
      found.changes = std::move(outcome->changes);
      if (options_.recorded != nullptr && found.status == VELK2_ENTRY_VALID && outcome->stamped) {
        Remember(cached_[i], outcome);
      }
    }
    if (options_.recorded != nullptr) options_.recorded->Append(std::move(listed_));
    for (const auto& [record, begin] : directories_) {
      CompareResult& found = (*results_)[record];
      const Result code = SummaryCode(*results_, begin, record);
      found.status = code == VELK2_SUCCESS           ? VELK2_ENTRY_VALID
                     : code == VELK2_ERR_FILE_OPEN   ? VELK2_ENTRY_MISSING
                     : code == VELK2_ERR_EXTRA_FILES ? VELK2_ENTRY_EXTRA
                                                     : VELK2_ENTRY_INVALID;
      // A directory whose own mode, owner or type differs is changed itself.
      if (!found.changes.empty() || found.read_error != 0) found.status = VELK2_ENTRY_INVALID;
    }
    return SummaryCode(*results_, first);
  }

 private:
  // Whether the patterns leave out |name| of the directory at |relative|;
  // the path is put together only when there are patterns to match.
  bool Patterned(const std::string& relative, const std::string& name, bool directory) const {
    return options_.patterns != nullptr && !options_.patterns->empty() &&
           options_.patterns->Matches(Below(relative, name), directory);
  }
  bool Patterned(const std::string& relative, const std::u16string& name, bool directory) const {
    return options_.patterns != nullptr && !options_.patterns->empty() &&
           options_.patterns->Matches(Below(relative, WideToFileName(name)), directory);
  }

  static std::string Below(const std::string& relative, const std::string& name) {
    return relative.empty() ? name : relative + "/" + name;
  }

  // Records |level| as compared with the directory open as |fd| (-1: it
  // could not be opened, for the reason |open_error|); |relative| is its
  // path below the package, as bytes; |stamp|: the directory as it was
  // opened, before it is listed (null for the package directory).
  void Level(const ManifestDirectory& level, std::shared_ptr<const Descriptor> open_directory,
             int depth, const std::string& relative, int open_error, const struct stat* stamp) {
    const int fd = open_directory->get();
    // The listing outlives the pool's jobs, which point into it.
    listings_.emplace_back();
    Listing& listing = listings_.back();
    const CacheEntry* vouched =
        fd >= 0 ? VouchedListing(level, relative, stamp, &listing) : nullptr;
    const bool listed = fd >= 0 && (vouched != nullptr || listing.Read(fd));
    // Why nothing below can be seen, when it cannot: named on every entry.
    const int unreadable = listed ? 0 : fd >= 0 ? listing.error : open_error;

    // What each listed name finds on disk: exact names first, then by case.
    // Entries the patterns leave out are passed over like ignored names.
    std::vector<bool> files_out(level.files.size()), directories_out(level.directories.size());
    for (size_t i = 0; i < level.files.size(); ++i) {
      files_out[i] =
          level.IsIgnored(level.files[i].name) || Patterned(relative, level.files[i].name, false);
    }
    for (size_t i = 0; i < level.directories.size(); ++i) {
      directories_out[i] = level.IsIgnored(level.directories[i].name) ||
                           Patterned(relative, level.directories[i].name, true);
    }
    std::vector<const Listing::Entry*> files(level.files.size()),
        directories(level.directories.size());
    if (vouched != nullptr) {
      for (size_t i = 0; i < level.files.size(); ++i) {
        if (!files_out[i]) files[i] = listing.TakeAt(i);
      }
      for (size_t i = 0; i < level.directories.size(); ++i) {
        if (!directories_out[i]) directories[i] = listing.TakeAt(level.files.size() + i);
      }
    } else if (listed) {
      for (bool exact : {true, false}) {
        for (size_t i = 0; i < level.files.size(); ++i) {
          if (files[i] != nullptr || files_out[i]) continue;
          const std::u16string& name = level.files[i].name;
          files[i] = exact ? listing.ClaimExact(name) : listing.ClaimFolded(name);
        }
        for (size_t i = 0; i < level.directories.size(); ++i) {
          if (directories[i] != nullptr || directories_out[i]) continue;
          const std::u16string& name = level.directories[i].name;
          directories[i] = exact ? listing.ClaimExact(name) : listing.ClaimFolded(name);
        }
      }
    }

    if (vouched != nullptr) {
      listed_.Carry(vouched);
      if (options_.trusted_listings != nullptr) ++*options_.trusted_listings;
    } else if (listed && stamp != nullptr) {
      RememberListing(level, listing, relative, *stamp);
    }

    for (size_t i = 0; i < level.files.size(); ++i) {
      const ManifestFileEntry& file = level.files[i];
      if (files_out[i]) continue;
      Record(Join(level.path, file.name), VELK2_ENTRY_MISSING, false);
      results_->back().has_digest = true;
      results_->back().digest = file.digest;
      results_->back().read_error = unreadable;
      if (files[i] != nullptr) SubmitFile(open_directory, *files[i], file, relative);
    }

    for (size_t i = 0; i < level.directories.size(); ++i) {
      const ManifestDirectory& directory = level.directories[i];
      if (directories_out[i]) continue;
      const Listing::Entry* on_disk = directories[i];
      std::vector<Change> changes;
      int error = unreadable;
      int child_fd = -1;
      struct stat st;
      bool stamped = false;
      if (on_disk != nullptr) {
        child_fd =
            ::openat(fd, on_disk->name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (child_fd >= 0 && ::fstat(child_fd, &st) == 0) {
          stamped = true;
          CompareMetadata(directory.attributes, st, true, &changes);
        } else if (child_fd < 0) {
          error = errno;
          // Something else than a directory stands there: say what. A
          // directory that cannot be opened still shows its mode and owner.
          if (::fstatat(fd, on_disk->name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
            if (S_ISDIR(st.st_mode)) {
              CompareMetadata(directory.attributes, st, true, &changes);
            } else {
              changes.push_back({ChangeKind::kType, "directory", TypeName(st.st_mode)});
              error = 0;
            }
          }
        }
      }
      const size_t begin = results_->size();
      Level(directory, std::make_shared<const Descriptor>(child_fd), depth + 1,
            Below(relative, WideToFileName(directory.name)), error, stamped ? &st : nullptr);
      directories_.emplace_back(results_->size(), begin);
      Record(directory.path, VELK2_ENTRY_INVALID, true);
      results_->back().changes = std::move(changes);
      if (child_fd < 0 && on_disk != nullptr) results_->back().read_error = error;
    }

    // The package directory itself is not scanned unless asked: what lies
    // beside the listed tree there (the manifest file, for one) is not the
    // package's, as the design has it; the tool asks, and passes over the
    // manifest itself.
    if (depth > 0 || options_.scan_root) {
      if (!listed) {
        if (depth > 0) {
          Record(level.path, VELK2_ENTRY_INVALID, true);
          results_->back().read_error = unreadable;
        }
      } else {
        for (const Listing::Entry& entry : listing.entries()) {
          if (entry.claimed || level.IsIgnored(entry.wide)) continue;
          if (depth == 0 && entry.wide == options_.root_exception) continue;
          struct stat st;
          const bool is_directory =
              ::fstatat(fd, entry.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
              S_ISDIR(st.st_mode);
          if (Patterned(relative, entry.name, is_directory)) continue;
          Record(Join(level.path, entry.wide), VELK2_ENTRY_EXTRA, is_directory, false);
        }
      }
    }
  }

  // The cache's entry for the directory |level| at |relative|, stamped
  // |stamp|, when it vouches for its listing as it stands: |listing| then
  // holds the level's names. Else null, |listing| empty.
  const CacheEntry* VouchedListing(const ManifestDirectory& level, const std::string& relative,
                                   const struct stat* stamp, Listing* listing) const {
    if (options_.cache == nullptr || stamp == nullptr || relative.empty()) return nullptr;
    const CacheEntry* cached = options_.cache->Find(relative);
    const FileStamp found = FileStampOf(*stamp);
    // The stamp first: the level's names are put together only for a
    // directory that may still be as it was.
    if (cached == nullptr || !(cached->file == found)) return nullptr;
    if (CacheVouchesListing(*cached, found, listing->Assume(level), options_.racy_margin)) {
      return cached;
    }
    listing->Clear();
    return nullptr;
  }

  // The cache entry of a directory just listed, when every entry in it is
  // a listed name exactly and it is not racy: the next walk need not list it.
  void RememberListing(const ManifestDirectory& level, const Listing& listing,
                       const std::string& relative, const struct stat& stamp) {
    if (options_.recorded == nullptr || relative.empty() ||
        !listing.ClaimedExactly(level.files.size() + level.directories.size())) {
      return;
    }
    const FileStamp found = FileStampOf(stamp);
    if (Racy(found, options_.started, options_.racy_margin)) return;
    const EntryStamp names = NamesStampOf(level);
    if (names.digest_length == 0) return;
    listed_.Add({relative, found, names, options_.started});
  }

  // Hands the file of the record just made to the pool; |relative| is its
  // directory's path below the package.
  void SubmitFile(const std::shared_ptr<const Descriptor>& directory, const Listing::Entry& entry,
                  const ManifestFileEntry& file, const std::string& relative) {
    HashPool::Outcome* outcome = NewOutcome();
    files_.emplace_back(results_->size() - 1, outcome);
    const CacheEntry* cached = nullptr;
    if (options_.cache != nullptr || options_.recorded != nullptr) {
      // The name as on disk is the listed one when it was claimed exactly.
      std::string path =
          Below(relative, entry.wide == file.name ? entry.name : WideToFileName(file.name));
      if (options_.cache != nullptr) cached = options_.cache->Find(path, &cache_next_);
      cached_.push_back({std::move(path), &file, cached});
    }
    pool_.Submit(directory, &entry, &file, cached, outcome);
  }

  HashPool::Outcome* NewOutcome() {
    constexpr size_t kBlock = 1024;
    if (outcomes_.empty() || outcomes_used_ == kBlock) {
      outcomes_.push_back(std::make_unique<HashPool::Outcome[]>(kBlock));
      outcomes_used_ = 0;
    }
    return &outcomes_.back()[outcomes_used_++];
  }

  // The cache entry of a file found Valid, unless it is racy: then it is
  // read again next time, recorded only once its times lie in the past.
  void Remember(PendingEntry& pending, const HashPool::Outcome* outcome) {
    // What the cache vouched for is its entry exactly: stamp, manifest
    // entry and the time it was read.
    if (outcome->from_cache) {
      options_.recorded->Carry(pending.cached);
      return;
    }
    if (!S_ISREG(outcome->stamp.mode) ||
        Racy(outcome->stamp, options_.started, options_.racy_margin)) {
      return;
    }
    options_.recorded->Add(
        {std::move(pending.path), outcome->stamp, EntryStampOf(*pending.file), options_.started});
  }

  void Record(std::u16string path, uint32_t status, bool is_directory, bool listed = true) {
    results_->push_back(MakeResult(std::move(path), status, is_directory, listed));
  }

  CompareResults* results_;
  const DiskOptions& options_;
  std::deque<Listing> listings_;  // every directory's, until the walk ends
  // Stable slots, written by the pool: blocks that never move.
  std::vector<std::unique_ptr<HashPool::Outcome[]>> outcomes_;
  size_t outcomes_used_ = 0;                                  // in the last block
  std::vector<std::pair<size_t, HashPool::Outcome*>> files_;  // record -> its outcome
  std::vector<std::pair<size_t, size_t>> directories_;        // record -> its first child record
  std::vector<PendingEntry> cached_;  // beside files_, when the cache is used
  CacheRecord listed_;                // directories' entries, recorded after the files'
  size_t cache_next_ = 0;             // where the last lookup in the cache left off
  HashPool pool_;
};

// Records |directory| and everything below it with |status|, but for what
// |patterns| leave out (|relative|: the directory's path below the package).
void RecordSubtree(const ManifestDirectory& directory, uint32_t status, const std::string& relative,
                   const IgnorePatterns* patterns, CompareResults* results) {
  const bool listed = status != VELK2_ENTRY_EXTRA;  // in the first manifest
  results->push_back(MakeResult(directory.path, status, true, listed));
  for (const ManifestFileEntry& file : directory.files) {
    const std::string path = relative + "/" + WideToFileName(file.name);
    if (patterns != nullptr && patterns->Matches(path, false)) continue;
    results->push_back(MakeResult(Join(directory.path, file.name), status, false, listed));
    results->back().has_digest = true;
    results->back().digest = file.digest;
  }
  for (const ManifestDirectory& child : directory.directories) {
    const std::string path = relative + "/" + WideToFileName(child.name);
    if (patterns != nullptr && patterns->Matches(path, true)) continue;
    RecordSubtree(child, status, path, patterns, results);
  }
}

int CompareNames(const std::u16string& a, const std::u16string& b) {
  return CompareNoCase(a.c_str(), b.c_str());
}

// What two manifests say differently of one file.
std::vector<Change> FileChanges(const ManifestFileEntry& x, const ManifestFileEntry& y) {
  std::vector<Change> changes;
  const EntryAttributes &a = x.attributes, &b = y.attributes;
  if (a.link != b.link) {
    changes.push_back(
        {ChangeKind::kType, a.link ? "symlink" : "file", b.link ? "symlink" : "file"});
    return changes;
  }
  if (x.digest_length != y.digest_length || x.digest != y.digest) {
    if (a.link) {
      changes.push_back({ChangeKind::kLinkTarget, a.target, b.target});
    } else {
      // As against the disk: the size when both record one, then the content.
      if (a.size && b.size && *a.size != *b.size) {
        changes.push_back({ChangeKind::kSize, std::to_string(*a.size), std::to_string(*b.size)});
      }
      changes.push_back({ChangeKind::kContent, HexString(x.digest.data(), x.digest_length),
                         HexString(y.digest.data(), y.digest_length)});
    }
  }
  if (!a.link && a.mode && b.mode && *a.mode != *b.mode) {
    changes.push_back({ChangeKind::kMode, ModeText(*a.mode), ModeText(*b.mode)});
  }
  if (a.uid && b.uid && (*a.uid != *b.uid || *a.gid != *b.gid)) {
    changes.push_back({ChangeKind::kOwner, OwnerText(*a.uid, *a.gid), OwnerText(*b.uid, *b.gid)});
  }
  return changes;
}

size_t ListedEntries(const ManifestDirectory& level) {
  size_t count = level.files.size() + level.directories.size();
  for (const ManifestDirectory& directory : level.directories) count += ListedEntries(directory);
  return count;
}

Result CompareLevels(const ManifestDirectory& a, const ManifestDirectory& b,
                     const std::string& relative, const IgnorePatterns* patterns,
                     CompareResults* results) {
  const size_t first = results->size();
  auto out = [&](const std::u16string& name, bool directory) {
    return patterns != nullptr &&
           patterns->Matches(
               relative.empty() ? WideToFileName(name) : relative + "/" + WideToFileName(name),
               directory);
  };
  auto below = [&](const std::u16string& name) {
    return relative.empty() ? WideToFileName(name) : relative + "/" + WideToFileName(name);
  };
  size_t i = 0, j = 0;
  while (i < a.files.size() || j < b.files.size()) {
    const int order = i == a.files.size()   ? 1
                      : j == b.files.size() ? -1
                                            : CompareNames(a.files[i].name, b.files[j].name);
    if (order == 0) {
      const ManifestFileEntry& x = a.files[i++];
      const ManifestFileEntry& y = b.files[j++];
      if (a.IsIgnored(x.name) || out(x.name, false)) continue;
      std::vector<Change> changes = FileChanges(x, y);
      results->push_back(MakeResult(
          Join(a.path, x.name), changes.empty() ? VELK2_ENTRY_VALID : VELK2_ENTRY_INVALID, false));
      results->back().has_digest = true;
      results->back().digest = x.digest;
      results->back().changes = std::move(changes);
    } else if (order < 0) {
      const ManifestFileEntry& x = a.files[i++];
      if (!a.IsIgnored(x.name) && !out(x.name, false)) {
        results->push_back(MakeResult(Join(a.path, x.name), VELK2_ENTRY_MISSING, false));
        results->back().has_digest = true;
        results->back().digest = x.digest;
      }
    } else {
      const ManifestFileEntry& y = b.files[j++];
      if (!b.IsIgnored(y.name) && !out(y.name, false)) {
        results->push_back(MakeResult(Join(a.path, y.name), VELK2_ENTRY_EXTRA, false, false));
        results->back().has_digest = true;
        results->back().digest = y.digest;
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
      if (a.IsIgnored(x.name) || out(x.name, true)) continue;
      const Result code = CompareLevels(x, y, below(x.name), patterns, results);
      std::vector<Change> changes;
      if (x.attributes.mode && y.attributes.mode && *x.attributes.mode != *y.attributes.mode) {
        changes.push_back(
            {ChangeKind::kMode, ModeText(*x.attributes.mode), ModeText(*y.attributes.mode)});
      }
      if (x.attributes.uid && y.attributes.uid &&
          (*x.attributes.uid != *y.attributes.uid || *x.attributes.gid != *y.attributes.gid)) {
        changes.push_back({ChangeKind::kOwner, OwnerText(*x.attributes.uid, *x.attributes.gid),
                           OwnerText(*y.attributes.uid, *y.attributes.gid)});
      }
      results->push_back(MakeResult(
          x.path,
          code == VELK2_SUCCESS && changes.empty() ? VELK2_ENTRY_VALID : VELK2_ENTRY_INVALID,
          true));
      results->back().changes = std::move(changes);
    } else if (order < 0) {
      const ManifestDirectory& x = a.directories[i++];
      if (!a.IsIgnored(x.name) && !out(x.name, true)) {
        RecordSubtree(x, VELK2_ENTRY_MISSING, below(x.name), patterns, results);
      }
    } else {
      const ManifestDirectory& y = b.directories[j++];
      if (!b.IsIgnored(y.name) && !out(y.name, true)) {
        RecordSubtree(y, VELK2_ENTRY_EXTRA, below(y.name), patterns, results);
      }
    }
  }
  return SummaryCode(*results, first);
}

}  // namespace

void CacheRecord::Append(CacheRecord&& other) {
  for (const auto& [carried, fresh] : other.order_) {
    if (carried != nullptr) {
      Carry(carried);
    } else {
      Add(std::move(other.fresh_[fresh]));
    }
  }
}

std::vector<CacheEntry> CacheRecord::Entries() const {
  std::vector<CacheEntry> entries;
  entries.reserve(order_.size());
  for (const auto& [carried, fresh] : order_) {
    entries.push_back(carried != nullptr ? *carried : fresh_[fresh]);
  }
  return entries;
}

const char* ChangeKindName(ChangeKind kind) {
  switch (kind) {
    case ChangeKind::kType:
      return "type";
    case ChangeKind::kContent:
      return "content";
    case ChangeKind::kSize:
      return "size";
    case ChangeKind::kMode:
      return "mode";
    case ChangeKind::kOwner:
      return "owner";
    case ChangeKind::kLinkTarget:
      break;
  }
  return "link target";
}

Result SummaryCode(const CompareResults& results, size_t first, size_t end) {
  uint32_t seen = 0;
  for (size_t i = first; i < std::min(end, results.size()); ++i) seen |= results[i].status;
  if (seen & VELK2_ENTRY_INVALID) return VELK2_ERR_HASH_MISMATCH;
  if (seen & VELK2_ENTRY_MISSING) return VELK2_ERR_FILE_NOT_FOUND;
  if (seen & VELK2_ENTRY_EXTRA) return VELK2_ERR_EXTRA_FILES;
  return VELK2_SUCCESS;
}

Result CompareWithDisk(const ManifestDirectory& root, CompareResults* results,
                       const Velk2Context* context, const DiskOptions& options) {
  if (results == nullptr) return VELK2_ERR_PARAM_NULL;
  // One record a listed entry, made in place: a big tree's records are not
  // moved again and again as they grow.
  results->reserve(results->size() + ListedEntries(root) + 1);
  const std::string path = Utf16ToUtf8(root.path);
  auto package =
      std::make_shared<const Descriptor>(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return DiskWalk(results, context, options).Run(root, std::move(package));
}

Result CompareDirectories(const ManifestDirectory& a, const ManifestDirectory& b,
                          CompareResults* results, const IgnorePatterns* patterns) {
  if (results == nullptr) return VELK2_ERR_PARAM_NULL;
  return CompareLevels(a, b, std::string(), patterns, results);
}

}  // namespace velk2
