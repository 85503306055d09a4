// Signing manifests: the body of a package directory (every regular file
// with its SHA-256, every directory), the object certificate that names the
// body's digest, signed by the signer, and the signer's chain.
#ifndef VELK2_TOOLS_ISSUING_MANIFEST_H_
#define VELK2_TOOLS_ISSUING_MANIFEST_H_

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "credentials/certificate_sequence.h"
#include "frame/ref.h"
#include "frame/result.h"
#include "platform/progress.h"
#include "sexp/object.h"
#include "tools/issuing/private_key.h"

namespace velk2::issuing {

struct ManifestRequest {
  std::string package;           // the package directory
  std::set<std::string> ignore;  // exact paths inside it, "/"-separated, left out (the manifest)
  // Ignore patterns (manifest/patterns.h): what they match is left out, and
  // they are recorded in the signed header, so verifying honours them too.
  std::vector<std::string> patterns;
  bool owners = false;  // record every entry's owner and group ids
  Ref<SexpList> tag;    // (tag ...) of the object certificate
  int64_t time_of_signing = 0;
  Ref<CertificateSequence> chain;  // the signer's own certificate first
  std::string name;  // the package's name, recorded in the signed header; may be empty
  // Revocation lists shipped with the manifest, each a list file's bytes;
  // they lie outside the signed digest (each list is signed by its issuer).
  std::vector<std::string> lists;
  HashCounters* counters = nullptr;  // advanced as files are hashed (optional)
};

// MakeManifest writes the manifest of the package into |file| and the
// number of files, symlinks and directories listed into |entries|
// (optional). Each entry records its size and mode (and, with |owners|, its
// owner); a symlink is recorded as a link whose digest covers its target
// text. A FIFO, socket or device inside the package (unless ignored) is
// refused, as is a name that the readers refuse (holding "\"), with
// |problem| saying which and why (VELK2_ERR_INVALID_PARAM (2)); a chain whose
// first certificate is not for the signing key too, a name that
// ValidPackageName refuses, a pattern that does not read, and a list that
// does not read as a revocation list. The manifest is read back by the library (signatures
// and digest) before it is handed out.
Result MakeManifest(const PrivateKey& key, const ManifestRequest& request, std::string* file,
                    size_t* entries, std::string* problem);

// What the Global store offers for one revocation scope that a chain's
// certificates name.
struct ScopeList {
  std::string scope;            // the readable tag text, such as "(revoke pkg)"
  size_t certificate = 0;       // 0-based: the first certificate of the chain naming it
  std::string list_path;        // the stored list's file; empty when the scope names none
  Result code = VELK2_SUCCESS;  // 0 when the list is current; else why not (5: no file)
  std::string bytes;            // the list file, when current
};

// StoreListsForChain finds, for every scope that a certificate of |chain|
// names (each once, in chain order), the Global store's list of that scope
// and whether it is current at |at|: verified against the store's ACL
// (its codes; 54 when no ACL loads) and not over by then (51). 3 for
// memory, else 0.
Result StoreListsForChain(const CertificateSequence& chain, int64_t at,
                          std::vector<ScopeList>* out);

// ReadChainFile reads the signer's chain: a certificate file, its own
// certificate first. The reader's codes.
Result ReadChainFile(const std::string& path, Ref<CertificateSequence>* out);
// ReadListFile reads a revocation list to ship with a manifest, as its
// stored form. The reader's codes.
Result ReadListFile(const std::string& path, std::string* bytes);

}  // namespace velk2::issuing

#endif  // VELK2_TOOLS_ISSUING_MANIFEST_H_
