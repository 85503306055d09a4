// The manifest context: the handle of the exported manifest family, made for
// one package directory, one manifest file and one required tag.
#ifndef VELK2_MANIFEST_CONTEXT_H_
#define VELK2_MANIFEST_CONTEXT_H_

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "frame/boundary.h"
#include "frame/context.h"
#include "frame/ref.h"
#include "manifest/cache.h"
#include "sexp/object.h"
#include "velk2.h"

namespace velk2 {

struct FileItemListFree {
  void operator()(FileItem* list) const { FreeFileItemList(list); }
};
// A list of file items owned by whoever holds it.
using FileItemList = std::unique_ptr<FileItem, FileItemListFree>;

}  // namespace velk2

struct ManifestContext : velk2::Tagged<velk2::ClassTag::kManifestContext> {
  Velk2Context* library_context = nullptr;  // not owned; null for the exported constructor
  std::u16string package_directory;
  std::u16string manifest_path;
  velk2::Ref<velk2::SexpList> tag;  // (tag ...)
  bool fail_on_extra = false;
  uint32_t hash_threads = 1;    // SetHashThreads: files hashed while the walk goes on
  uint32_t rollback_flags = 0;  // SetRollbackProtection: kRollbackProtect, kRollbackAllowOlder
  bool scan_root = false;       // SetScanPackageRoot: the package directory is scanned too
  uint32_t cache_flags = 0;     // SetIncrementalCache: kCacheUse, kCacheForget
  // How the cache is kept; null: as it is by default (tests set a clock).
  std::shared_ptr<const velk2::CacheSettings> cache_settings;
  // Ignore patterns beyond those the manifest records (the tool's --ignore).
  std::vector<std::string> patterns;
  std::optional<std::u16string> extra_acl_directory;
  // The results: valid, invalid, missing, extra.
  velk2::FileItemList results[4];
  velk2::FileItemList ignored;
  // What the cache did in the last verification.
  velk2::CacheReport cache_report;
  // Set by each successful read of the manifest's header.
  velk2::Ref<velk2::SexpList> version;
  velk2::Ref<velk2::SexpList> type;
  velk2::Ref<velk2::SexpAtom> time_of_signing;
};

#endif  // VELK2_MANIFEST_CONTEXT_H_
