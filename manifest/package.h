// What the manifest exports do with a context: verify the package against
// its manifest, or compare two manifests; the results go to the context's
// four lists, or, for a caller that takes them in the order found
// (|found|), to it alone: the lists are then left empty.
#ifndef VELK2_MANIFEST_PACKAGE_H_
#define VELK2_MANIFEST_PACKAGE_H_

#include <cstdint>

#include "frame/result.h"
#include "manifest/compare.h"
#include "manifest/context.h"
#include "manifest/read.h"

namespace velk2 {

// The context's result lists, in order.
enum ResultList { kResultValid, kResultInvalid, kResultMissing, kResultExtra };

// VerifyPackage: the four lists emptied; ReadManifest verifying (its code
// when it fails); rollback protection when the context asks for it
// (CheckRollback's codes); then the body against the package directory,
// with the context's ignored entries, refilling the lists (each in the
// reverse order of discovery) unless |found| takes the results. 22, 5, 74
// (0 unless the context fails on extra entries), 0; after 0, the rollback
// record is brought up to date.
Result VerifyPackage(ManifestContext* context, int64_t not_before, int64_t not_after,
                     ManifestReport* report = nullptr, CompareResults* found = nullptr);

// ComparePackages: both manifests read (their digests checked, not their
// signers), their bodies compared; results are added to the lists. 22, 5,
// 74 or 0, an extra entry always counting.
Result ComparePackages(ManifestContext* context, const char16_t* other_path,
                       CompareResults* found = nullptr);

}  // namespace velk2

#endif  // VELK2_MANIFEST_PACKAGE_H_
