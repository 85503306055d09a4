#include "manifest/package.h"

#include <algorithm>
#include <filesystem>
#include <future>
#include <system_error>
#include <utility>
#include <vector>

#include "credentials/date.h"
#include "frame/file_item.h"
#include "frame/paths.h"
#include "manifest/body.h"
#include "manifest/cache.h"
#include "manifest/patterns.h"
#include "manifest/rollback.h"
#include "platform/utf.h"
#include "sexp/reader.h"
#include "trust/certificate_store.h"

namespace velk2 {

namespace {

// The ignored entries as paths: joined to |base| when it is given.
std::vector<std::u16string> IgnoredPaths(const ManifestContext& context, const char16_t* base) {
  std::vector<std::u16string> paths;
  for (const FileItem* item = context.ignored.get(); item != nullptr; item = item->next) {
    if (item->wide_name == nullptr) continue;
    paths.push_back(base != nullptr ? BuildPath(base, item->wide_name) : item->wide_name);
  }
  std::sort(paths.begin(), paths.end(), NameLess);
  return paths;
}

// Puts every result at the front of the list of its status, so each list
// holds its paths in the reverse order of discovery. The code of them all.
Result CollectResults(const CompareResults& results, ManifestContext* context) {
  for (const CompareResult& found : results) {
    int list = -1;
    switch (found.status) {
      case VELK2_ENTRY_VALID:
        list = kResultValid;
        break;
      case VELK2_ENTRY_INVALID:
        list = kResultInvalid;
        break;
      case VELK2_ENTRY_MISSING:
        list = kResultMissing;
        break;
      case VELK2_ENTRY_EXTRA:
        list = kResultExtra;
        break;
      default:
        continue;
    }
    // The narrow name holds the path's bytes as they are on disk, even
    // those that are no UTF-8: a caller can open what it is told about.
    const std::string narrow = WideToFileName(found.path);
    FileItem* item = FileItemCreate(found.path.c_str(), narrow.c_str());
    if (item == nullptr) return VELK2_ERR_MEM_ALLOC;
    item->is_directory = found.is_directory ? 1 : 0;
    item->next = context->results[list].release();
    context->results[list].reset(item);
  }
  return SummaryCode(results);
}

// The patterns a comparison honours: those the manifest was signed with and
// those the caller adds. A pattern that does not read is passed over (the
// toolkit writes none; the tool refuses them before asking).
void PatternsOf(const ManifestContext& context, IgnorePatterns* patterns) {
  for (const std::string& pattern : ReadHeaderAttributes(context.version.get()).ignore) {
    (void)patterns->Add(pattern);
  }
  for (const std::string& pattern : context.patterns) (void)patterns->Add(pattern);
}

// The manifest's own name when it lies directly in the package directory:
// a scan of the package directory never calls it extra.
std::u16string ManifestNameInPackage(const ManifestContext& context) {
  namespace fs = std::filesystem;
  std::error_code error;
  const fs::path manifest = WideToFileName(context.manifest_path);
  const fs::path package = WideToFileName(context.package_directory);
  if (!fs::equivalent(manifest.parent_path().empty() ? fs::path(".") : manifest.parent_path(),
                      package, error) ||
      error) {
    return std::u16string();
  }
  return FileNameToWide(manifest.filename().string());
}

// The files |level| lists, below it too, and the sizes they record.
void CountFiles(const ManifestDirectory& level, size_t* files, uint64_t* bytes) {
  *files += level.files.size();
  for (const ManifestFileEntry& file : level.files) {
    if (!file.attributes.link) *bytes += file.attributes.size.value_or(0);
  }
  for (const ManifestDirectory& directory : level.directories) {
    CountFiles(directory, files, bytes);
  }
}

// Incremental verification around one comparison with the disk: the
// package's cache read before it (unless forgotten), written after it when
// the whole verification succeeded and the cache now says anything new.
class IncrementalRun {
 public:
  explicit IncrementalRun(ManifestContext* context)
      : context_(context),
        settings_(context->cache_settings ? *context->cache_settings : CacheSettings()) {}

  // Forgets the package's entries when asked, else starts reading them on
  // a thread of their own while the manifest is read and verified: the
  // cache does not depend on the manifest, and is trusted only once the
  // manifest is.
  void Start() {
    CacheReport& report = context_->cache_report;
    report = CacheReport{};
    const uint32_t flags = context_->cache_flags;
    if ((flags & (kCacheUse | kCacheForget)) == 0) return;
    report.enabled = (flags & kCacheUse) != 0;
    located_ = LocateCache(context_->package_directory, context_->manifest_path, settings_,
                           &location_, &report.problem);
    if (!located_) return;
    report.directory = location_.directory;
    if ((flags & kCacheForget) != 0) {
      ForgetCache(location_, &report);
      return;
    }
    if (!report.enabled) return;
    auto load = [this] { LoadCache(location_, settings_, &cache_, &loaded_); };
    try {
      loading_ = std::async(std::launch::async, load);
    } catch (const std::system_error&) {
      load();  // no thread to be had: read it here
    }
  }

  // Hands the comparison what it needs of the cache, once it is read.
  void Before(DiskOptions* options) {
    CacheReport& report = context_->cache_report;
    if (loading_.valid()) loading_.get();
    if (loaded_.loaded || !loaded_.problem.empty()) {
      report.loaded = loaded_.loaded;
      report.problem = loaded_.problem;
    }
    if (!report.enabled || !located_) return;
    options->cache = cache_.size() > 0 ? &cache_ : nullptr;
    options->recorded = &recorded_;
    options->trusted_listings = &context_->cache_report.listings;
    options->started = started_ = CacheNow(settings_);
    options->racy_margin = settings_.racy_margin;
  }

  void After(const CompareResults& results, Result result) {
    CacheReport& report = context_->cache_report;
    for (const CompareResult& found : results) report.trusted += found.from_cache ? 1 : 0;
    if (!report.enabled || !located_) return;
    // Nothing is recorded of a package that did not verify.
    if (result != VELK2_SUCCESS) return;
    // Every entry was the cache's own and none went: the file holds them.
    if (report.loaded && !recorded_.any_new() && recorded_.size() == cache_.size()) {
      report.recorded = recorded_.size();
      TouchCache(location_, settings_);
      return;
    }
    SaveCache(location_, settings_, recorded_.Entries(), loaded_, started_, &report);
  }

 private:
  ManifestContext* context_;
  const CacheSettings settings_;
  bool located_ = false;
  CacheLocation location_;
  PackageCache cache_;
  CacheReport loaded_;  // what reading the cache found
  std::future<void> loading_;
  CacheRecord recorded_;
  int64_t started_ = 0;  // when the comparison with the disk began
};

}  // namespace

Result VerifyPackage(ManifestContext* context, int64_t not_before, int64_t not_after,
                     ManifestReport* report, CompareResults* found) {
  // The lists are emptied before anything else, departing from the designed
  // order (read, then empty): a failed verification must never leave a
  // caller the "valid" entries of an earlier one.
  for (FileItemList& list : context->results) list.reset();
  IncrementalRun incremental(context);
  incremental.Start();
  ManifestFile file;
  Result result = ReadManifest(context, true, not_before, not_after, &file, report);
  if (result != VELK2_SUCCESS) return result;
  const std::vector<std::u16string> ignored =
      IgnoredPaths(*context, context->package_directory.c_str());
  ManifestDirectory root;
  root.path = context->package_directory;
  result = ReadManifestBody(&root, file.body(), &ignored);
  if (result != VELK2_SUCCESS) return result;
  // A body that reads is the last check of the manifest itself.
  if (report != nullptr) report->verified = true;
  RollbackReport local_rollback;
  RollbackReport* rollback = report != nullptr ? &report->rollback : &local_rollback;
  result = CheckRollback(*context, CurrentTime(), rollback);
  if (result != VELK2_SUCCESS) return result;
  CompareResults results;
  if (report != nullptr) {
    CountFiles(root, &report->files_listed, &report->bytes_listed);
    if (report->on_start) report->on_start(report->files_listed, report->bytes_listed);
  }
  IgnorePatterns patterns;
  PatternsOf(*context, &patterns);
  DiskOptions options;
  options.threads = context->hash_threads;
  options.on_file = report != nullptr ? &report->on_file : nullptr;
  options.counters = report != nullptr ? report->counters : nullptr;
  options.patterns = patterns.empty() ? nullptr : &patterns;
  options.scan_root = context->scan_root;
  options.root_exception = ManifestNameInPackage(*context);
  incremental.Before(&options);
  (void)CompareWithDisk(root, &results, context->library_context, options);
  result = found != nullptr ? SummaryCode(results) : CollectResults(results, context);
  if (result == VELK2_ERR_EXTRA_FILES && !context->fail_on_extra) result = VELK2_SUCCESS;
  incremental.After(results, result);
  if (found != nullptr) *found = std::move(results);
  if (result == VELK2_SUCCESS) RecordRollback(rollback);
  return result;
}

Result ComparePackages(ManifestContext* context, const char16_t* other_path,
                       CompareResults* found) {
  ManifestFile a, b;
  Result result = ReadManifest(context, false, 0, 0, &a);
  if (result != VELK2_SUCCESS) return result;
  // The other manifest is read under a context of its own.
  ManifestContext other;
  other.library_context = context->library_context;
  other.package_directory = context->package_directory;
  other.manifest_path = other_path;
  result = ReadTagText("(null)", context->library_context, &other.tag);
  if (result == VELK2_SUCCESS) result = ReadManifest(&other, false, 0, 0, &b);
  if (result != VELK2_SUCCESS) return result;
  const std::vector<std::u16string> ignored = IgnoredPaths(*context, nullptr);
  ManifestDirectory root_a, root_b;
  result = ReadManifestBody(&root_a, a.body(), &ignored);
  if (result == VELK2_SUCCESS) result = ReadManifestBody(&root_b, b.body(), &ignored);
  if (result != VELK2_SUCCESS) return result;
  IgnorePatterns patterns;
  PatternsOf(*context, &patterns);
  CompareResults results;
  (void)CompareDirectories(root_a, root_b, &results, patterns.empty() ? nullptr : &patterns);
  result = found != nullptr ? SummaryCode(results) : CollectResults(results, context);
  if (found != nullptr) *found = std::move(results);
  return result;
}

}  // namespace velk2
