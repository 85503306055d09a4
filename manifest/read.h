// Reading and verifying a manifest file:
//
//   (8:manifest (7:version "1" any) (4:type "plain")
//     (15:signature-block (15:time-of-signing date) cert sig cert sig ...)
//     (3:crl list ...)
//     (4:body ...))
//
// The first certificate is the object certificate: its subject is the hash
// of the version, type and time-of-signing lists (canonical) followed by the
// body's bytes as they stand. The following certificates lead from its
// signer up towards the ACL.
#ifndef VELK2_MANIFEST_READ_H_
#define VELK2_MANIFEST_READ_H_

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "credentials/certificate_sequence.h"
#include "engine/reduce.h"
#include "frame/result.h"
#include "manifest/context.h"
#include "manifest/rollback.h"
#include "platform/progress.h"
#include "trust/revocation.h"

namespace velk2 {

// Manifests grow with their package (10,000 files make about 700 KB), so
// they are read up to 256 MiB, a million files, rather than the 1 MiB of
// credential files.
constexpr uint64_t kMaxManifestFileSize = 256u << 20;

// The revocation lists of a manifest that a verification consults: the
// first so many (a package ships a few, one per scope of its chain).
constexpr size_t kMaxEmbeddedLists = 256;

// The file as read, and where its body lies.
struct ManifestFile {
  std::vector<uint8_t> bytes;
  size_t body_begin = 0;
  size_t body_end = 0;
  std::string_view body() const {
    return std::string_view(reinterpret_cast<const char*>(bytes.data()) + body_begin,
                            body_end - body_begin);
  }
};

// What a verification found, for a caller that explains it (optional).
struct ManifestReport {
  bool is_manifest = false;        // its header read: a file of another kind never does
  bool verified = false;           // every check of the manifest itself held
  Ref<CertificateSequence> chain;  // the certificates as read, in order
  // Per certificate of the chain: what the revocation check found; any
  // state but kNotRevoked left it out of the signing sequence.
  std::vector<RevocationFinding> revocation;
  RevocationLists embedded_lists;  // the manifest's own lists, as read
  // The answer of steps 9 and 10 (the order check and the authorization
  // query) when they ran; VELK2_FAILURE when they did not.
  Result authorization = VELK2_FAILURE;
  size_t lists_from_store = 0;  // the store's lists that the ACL names, consulted
  Ref<SexpList> acl;            // the ACL asked
  // The ACL files that did not load, with why, as they were met.
  std::vector<std::pair<std::u16string, Result>> acl_skipped;
  Ref<SexpList> key;        // the manifest's hash principal
  RollbackReport rollback;  // what rollback protection checked and recorded
  engine::ReductionTrace* trace = nullptr;
  std::string* reduced_acl = nullptr;
  // The certificate of |chain| behind each certificate of the signing
  // sequence put to the authorization query, in order.
  std::vector<size_t> signing_certificates;
  // For a caller that shows progress: the files the manifest lists (set,
  // and told to |on_start|, before the disk is read) and a call after every
  // file read.
  size_t files_listed = 0;
  uint64_t bytes_listed = 0;  // the sizes the entries record (0: none records one)
  std::function<void(size_t files, uint64_t bytes)> on_start;
  HashCounters* counters = nullptr;  // bytes and files read, as they are read
  std::function<void(uint64_t bytes)> on_file;
};

// ReadManifest reads the context's manifest and, with |verify|, verifies it;
// the first failing step's code is the result:
//  1. VELK2_ERR_OPEN_MANIFEST_FILE (19) when the file cannot be read whole;
//  2. the header: VELK2_ERR_MANIFEST_VERSION (56), VELK2_ERR_MANIFEST_TYPE (57),
//     the literals' codes;
//  3-4. every certificate and its signature, checked as they are read (in
//     both modes): VELK2_ERR_NOT_OBJECT_CERT (71) when the first
//     certificate's subject is not a hash; VerifySignature's codes; at least
//     two pairs;
//  5. the manifest's revocation lists (a list that does not read fails);
//  with |verify|:
//  6. the period: the times given (0 = not given), else the time of signing;
//  7. the ACL of the Global store and the context's extra directory;
//  8. certificates that a list revokes, or that ask for a list none
//     clears, are left out of the chain (the authorization decides); the
//     lists are the store's that the ACL names and the manifest's own;
//  9. the signing sequence: the second certificate must name the object
//     certificate's issuer as its subject (VELK2_ERR_SIGNING_CERT_ORDER (36))
//     and is used as if it allowed delegation;
//  10. AuthorizeKey for the manifest's hash principal and the context's tag
//     (31, 67, engine statuses);
//  and in both modes:
//  11. the digest: VELK2_ERR_HASH_MATCH (32) when it is not the object
//     certificate's subject;
//  12-13. the final ")".
// On success |file| holds the bytes and the body's place. The context's
// version, type and time of signing are replaced by each header read.
Result ReadManifest(ManifestContext* context, bool verify, int64_t not_before, int64_t not_after,
                    ManifestFile* file, ManifestReport* report = nullptr);
// The same over manifest bytes already in memory (the context's path unused).
Result ReadManifestBytes(ManifestContext* context, std::vector<uint8_t> bytes, bool verify,
                         int64_t not_before, int64_t not_after, ManifestFile* file,
                         ManifestReport* report = nullptr);

}  // namespace velk2

#endif  // VELK2_MANIFEST_READ_H_
