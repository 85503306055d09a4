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

  // The on-disk entry of exactly the listed |name|, when there is one
  // unclaimed. Every listed name of a level claims its exact entry before
  // any claims by case, so "A.TXT" listed before "a.txt" never takes a.txt.
  const Entry* ClaimExact(const std::u16string& name) {
    auto exact = exact_.find(name);
    return exact != exact_.end() && !entries_[exact->second].claimed ? Take(exact->second)
                                                                     : nullptr;
  }
  // The first unclaimed entry equal to |name| but for case.
  const Entry* ClaimFolded(const std::u16string& name) {
    auto [first, last] = folded_.equal_range(Folded(name));
    size_t best = entries_.size();
    for (auto it = first; it != last; ++it) {
      if (!entries_[it->second].claimed) best = std::min(best, it->second);
    }
    return best < entries_.size() ? Take(best) : nullptr;
  }

  const std::vector<Entry>& entries() const { return entries_; }
  // Frees the name index once every listed name has been claimed.
  void DropIndex() {
    exact_ = {};
    folded_ = {};
  }

 private:
  const Entry* Take(size_t index) {
    entries_[index].claimed = true;
    return &entries_[index];
  }

  std::vector<Entry> entries_;
  std::unordered_map<std::u16string, size_t> exact_;
  std::unordered_multimap<std::u16string, size_t> folded_;
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
  };

  HashPool(unsigned threads, const Velk2Context* context, const FileProgress* on_file)
      : context_(context),
        on_file_(on_file),
        threads_(std::max(threads, 1u)),
        limit_(32 * threads_) {
    // More than one thread: that many workers hash while the walk opens files.
    for (unsigned i = 0; threads > 1 && i < threads; ++i) workers_.emplace_back([this] { Work(); });
  }
  ~HashPool() { Finish(); }

  // Reads the directory's |entry| and hashes it against |file| into |out|.
  void Submit(std::shared_ptr<const Descriptor> directory, const Listing::Entry* entry,
              const ManifestFileEntry* file, Outcome* out) {
    Job job{std::move(directory), entry, file, out};
    if (workers_.empty()) {
      Run(job, &block_);
      return;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    // A bounded queue (every job holds its directory open). A full queue
    // waits until it is half empty: one wake-up per many files, not per file.
    if (queue_.size() >= limit_) {
      walk_waits_ = true;
      space_.wait(lock, [this] { return queue_.size() <= limit_ / 2; });
      walk_waits_ = false;
    }
    queue_.push_back(std::move(job));
    if (idle_ > 0) work_.notify_one();
  }

  // Waits until every file submitted is hashed.
  void Finish() {
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
    Outcome* out;
  };

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

  void Run(const Job& job, std::vector<uint8_t>* block) { job.out->status = Read(job, block); }

  // The file's status. Only what the directory says is a regular file is
  // opened without a look first: a device is never touched, a FIFO never
  // waited on, a symlink never followed.
  uint32_t Read(const Job& job, std::vector<uint8_t>* block) {
    const int directory = job.directory->get();
    const char* name = job.entry->name.c_str();
    struct stat before;
    if (job.entry->type != DT_REG) {
      if (::fstatat(directory, name, &before, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT ? VELK2_ENTRY_MISSING : VELK2_ENTRY_INVALID;
      }
      if (!S_ISREG(before.st_mode)) return VELK2_ENTRY_INVALID;
    }
    const Descriptor opened(
        ::openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (opened.get() < 0) return errno == ENOENT ? VELK2_ENTRY_MISSING : VELK2_ENTRY_INVALID;
    // What was opened may have been swapped in after the look.
    if (::fstat(opened.get(), &before) != 0 || !S_ISREG(before.st_mode)) {
      return VELK2_ENTRY_INVALID;
    }
    uint8_t digest[32];
    Result hashed = VELK2_FAILURE;
    try {
      hashed = HashDescriptor(opened.get(), digest, context_, block, before.st_size);
    } catch (const std::bad_alloc&) {
      hashed = VELK2_ERR_MEM_ALLOC;
    }
    if (on_file_ != nullptr && *on_file_) {
      std::lock_guard<std::mutex> lock(progress_mutex_);
      (*on_file_)(static_cast<uint64_t>(before.st_size));
    }
    // A file rewritten while it was read has no one digest: never valid.
    struct stat after;
    job.out->changed = ::fstat(opened.get(), &after) != 0 || Changed(before, after);
    return hashed == VELK2_SUCCESS && !job.out->changed &&
                   job.file->digest_length == sizeof digest &&
                   std::memcmp(digest, job.file->digest.data(), sizeof digest) == 0
               ? VELK2_ENTRY_VALID
               : VELK2_ENTRY_INVALID;
  }

  static bool Changed(const struct stat& a, const struct stat& b) {
    return a.st_size != b.st_size || a.st_ino != b.st_ino || a.st_dev != b.st_dev ||
           a.st_mtim.tv_sec != b.st_mtim.tv_sec || a.st_mtim.tv_nsec != b.st_mtim.tv_nsec ||
           a.st_ctim.tv_sec != b.st_ctim.tv_sec || a.st_ctim.tv_nsec != b.st_ctim.tv_nsec;
  }

  const Velk2Context* context_;
  const FileProgress* on_file_;
  const size_t threads_;
  const size_t limit_;
  std::vector<uint8_t> block_;  // the inline path's read buffer
  std::vector<std::thread> workers_;
  std::mutex mutex_, progress_mutex_;
  std::condition_variable work_, space_;
  std::deque<Job> queue_;
  size_t idle_ = 0;          // workers waiting for work
  bool walk_waits_ = false;  // the walk waits for room in the queue
  bool done_ = false;
};

class DiskWalk {
 public:
  DiskWalk(CompareResults* results, const Velk2Context* context, const DiskOptions& options)
      : results_(results), pool_(options.threads, context, options.on_file) {}

  // The walk, then the statuses that wait for hashing: files, then each
  // directory from the records below it (they all precede it).
  Result Run(const ManifestDirectory& root, std::shared_ptr<const Descriptor> package) {
    const size_t first = results_->size();
    Level(root, std::move(package), 0);
    pool_.Finish();
    for (const auto& [record, outcome] : files_) {
      (*results_)[record].status = outcome->status;
      (*results_)[record].changed_during = outcome->changed;
    }
    for (const auto& [record, begin] : directories_) {
      const Result code = SummaryCode(*results_, begin, record);
      (*results_)[record].status = code == VELK2_SUCCESS           ? VELK2_ENTRY_VALID
                                   : code == VELK2_ERR_FILE_OPEN   ? VELK2_ENTRY_MISSING
                                   : code == VELK2_ERR_EXTRA_FILES ? VELK2_ENTRY_EXTRA
                                                                   : VELK2_ENTRY_INVALID;
    }
    return SummaryCode(*results_, first);
  }

 private:
  // Records |level| as compared with the directory open as |fd| (-1: it
  // could not be opened).
  void Level(const ManifestDirectory& level, std::shared_ptr<const Descriptor> open_directory,
             int depth) {
    const int fd = open_directory->get();
    // The listing outlives the pool's jobs, which point into it.
    listings_.emplace_back();
    Listing& listing = listings_.back();
    const bool listed = fd >= 0 && listing.Read(fd);

    // What each listed name finds on disk: exact names first, then by case.
    std::vector<const Listing::Entry*> files(level.files.size()),
        directories(level.directories.size());
    if (listed) {
      for (bool exact : {true, false}) {
        for (size_t i = 0; i < level.files.size(); ++i) {
          const std::u16string& name = level.files[i].name;
          if (files[i] != nullptr || level.IsIgnored(name)) continue;
          files[i] = exact ? listing.ClaimExact(name) : listing.ClaimFolded(name);
        }
        for (size_t i = 0; i < level.directories.size(); ++i) {
          const std::u16string& name = level.directories[i].name;
          if (directories[i] != nullptr || level.IsIgnored(name)) continue;
          directories[i] = exact ? listing.ClaimExact(name) : listing.ClaimFolded(name);
        }
      }
    }

    for (size_t i = 0; i < level.files.size(); ++i) {
      const ManifestFileEntry& file = level.files[i];
      if (level.IsIgnored(file.name)) continue;
      Record(Join(level.path, file.name), VELK2_ENTRY_MISSING, false);
      results_->back().has_digest = true;
      results_->back().digest = file.digest;
      if (files[i] != nullptr) SubmitFile(open_directory, *files[i], file);
    }

    for (size_t i = 0; i < level.directories.size(); ++i) {
      const ManifestDirectory& directory = level.directories[i];
      if (level.IsIgnored(directory.name)) continue;
      const Listing::Entry* on_disk = directories[i];
      auto child = std::make_shared<const Descriptor>(
          on_disk
              ? ::openat(fd, on_disk->name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)
              : -1);
      const size_t begin = results_->size();
      Level(directory, std::move(child), depth + 1);
      directories_.emplace_back(results_->size(), begin);
      Record(directory.path, VELK2_ENTRY_INVALID, true);
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
    listing.DropIndex();
  }

  // Hands the file of the record just made to the pool.
  void SubmitFile(const std::shared_ptr<const Descriptor>& directory, const Listing::Entry& entry,
                  const ManifestFileEntry& file) {
    outcomes_.emplace_back();
    files_.emplace_back(results_->size() - 1, &outcomes_.back());
    pool_.Submit(directory, &entry, &file, &outcomes_.back());
  }

  void Record(std::u16string path, uint32_t status, bool is_directory, bool listed = true) {
    results_->push_back({std::move(path), status, is_directory, listed});
  }

  CompareResults* results_;
  std::deque<Listing> listings_;            // every directory's, until the walk ends
  std::deque<HashPool::Outcome> outcomes_;  // stable slots, written by the pool
  std::vector<std::pair<size_t, HashPool::Outcome*>> files_;  // record -> its outcome
  std::vector<std::pair<size_t, size_t>> directories_;        // record -> its first child record
  HashPool pool_;
};

// Records |directory| and everything below it with |status|.
void RecordSubtree(const ManifestDirectory& directory, uint32_t status, CompareResults* results) {
  const bool listed = status != VELK2_ENTRY_EXTRA;  // in the first manifest
  results->push_back({directory.path, status, true, listed});
  for (const ManifestFileEntry& file : directory.files) {
    results->push_back({Join(directory.path, file.name), status, false, listed});
    results->back().has_digest = true;
    results->back().digest = file.digest;
  }
  for (const ManifestDirectory& child : directory.directories) {
    RecordSubtree(child, status, results);
  }
}

int CompareNames(const std::u16string& a, const std::u16string& b) {
  return CompareNoCase(a.c_str(), b.c_str());
}

}  // namespace

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
  const std::string path = Utf16ToUtf8(root.path);
  auto package =
      std::make_shared<const Descriptor>(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return DiskWalk(results, context, options).Run(root, std::move(package));
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
      results->back().has_digest = true;
      results->back().digest = x.digest;
    } else if (order < 0) {
      const ManifestFileEntry& x = a.files[i++];
      if (!a.IsIgnored(x.name)) {
        results->push_back({Join(a.path, x.name), VELK2_ENTRY_MISSING, false});
        results->back().has_digest = true;
        results->back().digest = x.digest;
      }
    } else {
      const ManifestFileEntry& y = b.files[j++];
      if (!b.IsIgnored(y.name)) {
        results->push_back({Join(a.path, y.name), VELK2_ENTRY_EXTRA, false, false});
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
