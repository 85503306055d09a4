// The exported manifest family: a context for one package directory, one
// manifest and one required tag; verification against the disk, comparison
// with another manifest, and the four result lists.
#include <algorithm>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "credentials/date.h"
#include "frame/boundary.h"
#include "frame/file_item.h"
#include "frame/paths.h"
#include "frame/text.h"
#include "manifest/body.h"
#include "manifest/cache.h"
#include "manifest/compare.h"
#include "manifest/context.h"
#include "manifest/package.h"
#include "manifest/read.h"
#include "manifest/rollback.h"
#include "sexp/reader.h"
#include "trust/certificate_store.h"
#include "velk2.h"

using namespace velk2;

static_assert(VELK2_ROLLBACK_PROTECT == kRollbackProtect &&
              VELK2_ROLLBACK_ALLOW_OLDER == kRollbackAllowOlder);

namespace {

ManifestContext* Checked(ManifestContext* handle) {
  return FromOpaque<ManifestContext>(handle);
}

}  // namespace

extern "C" {

VELK2_EXPORT VELK2_RESULT CreateManifestContext(ManifestContext** out,
                                                const char16_t* package_directory,
                                                const char16_t* manifest_path, const char* tag) {
  if (out == nullptr || *out != nullptr || package_directory == nullptr ||
      manifest_path == nullptr || tag == nullptr) {
    return VELK2_ERR_INVALID_PARAM;
  }
  return Guard([&]() -> Result {
    auto context = std::make_unique<ManifestContext>();
    context->package_directory = package_directory;
    context->manifest_path = manifest_path;
    const Result result = ReadTagText(tag, nullptr, &context->tag);
    if (result != VELK2_SUCCESS) return result;
    *out = context.release();
    return VELK2_SUCCESS;
  });
}

VELK2_EXPORT VELK2_RESULT CreateManifestContextA(ManifestContext** out,
                                                 const char* package_directory,
                                                 const char* manifest_path, const char* tag) {
  return WithWide(package_directory, [&](const char16_t* package) {
    return WithWide(manifest_path, [&](const char16_t* manifest) {
      return CreateManifestContext(out, package, manifest, tag);
    });
  });
}

VELK2_EXPORT VELK2_RESULT DeleteManifestContext(ManifestContext* handle) {
  if (handle == nullptr) return VELK2_SUCCESS;
  // Anything but a live context is refused rather than freed.
  std::unique_ptr<ManifestContext> owned(Checked(handle));
  return owned != nullptr ? VELK2_SUCCESS : VELK2_ERR_INVALID_PARAM;
}

VELK2_EXPORT VELK2_RESULT VerifyManifest(ManifestContext* handle, int64_t not_before,
                                         int64_t not_after) {
  if (handle == nullptr) return VELK2_ERR_PARAM_NULL;
  ManifestContext* context = Checked(handle);
  if (context == nullptr) return VELK2_ERR_INVALID_PARAM;
  return Guard([&] { return VerifyPackage(context, not_before, not_after); });
}

VELK2_EXPORT VELK2_RESULT CompareManifest(ManifestContext* handle, const char16_t* other) {
  if (handle == nullptr || other == nullptr) return VELK2_ERR_PARAM_NULL;
  ManifestContext* context = Checked(handle);
  if (context == nullptr) return VELK2_ERR_INVALID_PARAM;
  return Guard([&] { return ComparePackages(context, other); });
}

VELK2_EXPORT VELK2_RESULT CompareManifestA(ManifestContext* handle, const char* other) {
  return WithWide(other, [&](const char16_t* wide) { return CompareManifest(handle, wide); });
}

VELK2_EXPORT FileItem* GetValidEntries(ManifestContext* handle) {
  ManifestContext* context = Checked(handle);
  return context ? context->results[kResultValid].get() : nullptr;
}

VELK2_EXPORT FileItem* GetInvalidEntries(ManifestContext* handle) {
  ManifestContext* context = Checked(handle);
  return context ? context->results[kResultInvalid].get() : nullptr;
}

VELK2_EXPORT FileItem* GetMissingEntries(ManifestContext* handle) {
  ManifestContext* context = Checked(handle);
  return context ? context->results[kResultMissing].get() : nullptr;
}

VELK2_EXPORT FileItem* GetExtraEntries(ManifestContext* handle) {
  ManifestContext* context = Checked(handle);
  return context ? context->results[kResultExtra].get() : nullptr;
}

VELK2_EXPORT VELK2_RESULT SetIgnoredEntries(ManifestContext* handle, const FileItem* list) {
  if (handle == nullptr) return VELK2_ERR_PARAM_NULL;
  ManifestContext* context = Checked(handle);
  if (context == nullptr) return VELK2_ERR_INVALID_PARAM;
  context->ignored.reset();
  // Each copy goes to the front: the copy is in reverse order.
  for (const FileItem* item = list; item != nullptr; item = item->next) {
    if (item->wide_name == nullptr && item->name == nullptr) continue;
    FileItem* copy = FileItemCreate(item->wide_name, item->wide_name ? nullptr : item->name);
    if (copy == nullptr) return VELK2_ERR_MEM_ALLOC;
    copy->next = context->ignored.release();
    context->ignored.reset(copy);
  }
  return VELK2_SUCCESS;
}

VELK2_EXPORT void FailOnExtraEntries(ManifestContext* handle) {
  if (ManifestContext* context = Checked(handle)) context->fail_on_extra = true;
}

VELK2_EXPORT VELK2_RESULT SetExtraAclDirectory(ManifestContext* handle, const char16_t* directory) {
  if (handle == nullptr) return VELK2_ERR_PARAM_NULL;
  ManifestContext* context = Checked(handle);
  if (context == nullptr) return VELK2_ERR_INVALID_PARAM;
  return Guard([&]() -> Result {
    if (directory == nullptr) {
      context->extra_acl_directory.reset();
    } else {
      context->extra_acl_directory = directory;
    }
    return VELK2_SUCCESS;
  });
}

VELK2_EXPORT VELK2_RESULT SetExtraAclDirectoryA(ManifestContext* handle, const char* directory) {
  return WithWide(directory,
                  [&](const char16_t* wide) { return SetExtraAclDirectory(handle, wide); });
}

// An extension: the design hashes one file at a time, and that stays the
// default, so existing callers see no threads.
VELK2_EXPORT VELK2_RESULT SetHashThreads(ManifestContext* handle, uint32_t threads) {
  if (handle == nullptr) return VELK2_ERR_PARAM_NULL;
  ManifestContext* context = Checked(handle);
  if (context == nullptr) return VELK2_ERR_INVALID_PARAM;
  if (threads == 0) threads = std::max(1u, std::thread::hardware_concurrency());
  context->hash_threads = std::min<uint32_t>(threads, 64);
  return VELK2_SUCCESS;
}

// An extension: the design keeps no state between verifications, and that
// stays the default.
VELK2_EXPORT VELK2_RESULT SetRollbackProtection(ManifestContext* handle, uint32_t flags) {
  if (handle == nullptr) return VELK2_ERR_PARAM_NULL;
  ManifestContext* context = Checked(handle);
  if (context == nullptr) return VELK2_ERR_INVALID_PARAM;
  if ((flags & ~(VELK2_ROLLBACK_PROTECT | VELK2_ROLLBACK_ALLOW_OLDER)) != 0 ||
      flags == VELK2_ROLLBACK_ALLOW_OLDER) {
    return VELK2_ERR_INVALID_PARAM;
  }
  context->rollback_flags = flags;
  return VELK2_SUCCESS;
}

// An extension: the design never scans the package directory itself (the
// manifest usually lies there), and that stays the default.
VELK2_EXPORT VELK2_RESULT SetScanPackageRoot(ManifestContext* handle, uint32_t on) {
  if (handle == nullptr) return VELK2_ERR_PARAM_NULL;
  ManifestContext* context = Checked(handle);
  if (context == nullptr) return VELK2_ERR_INVALID_PARAM;
  context->scan_root = on != 0;
  return VELK2_SUCCESS;
}

// An extension: the design reads every file of every verification, and that
// stays the default.
VELK2_EXPORT VELK2_RESULT SetIncrementalCache(ManifestContext* handle, uint32_t on) {
  if (handle == nullptr) return VELK2_ERR_PARAM_NULL;
  ManifestContext* context = Checked(handle);
  if (context == nullptr) return VELK2_ERR_INVALID_PARAM;
  context->cache_flags = on != 0 ? kCacheUse : 0;
  return VELK2_SUCCESS;
}

VELK2_EXPORT int64_t GetTimeOfSigning(ManifestContext* handle) {
  ManifestContext* context = Checked(handle);
  return context != nullptr && context->time_of_signing ? ReadDate(context->time_of_signing.get())
                                                        : 0;
}

}  // extern "C"
