// Signing manifests: the body of a package directory (every regular file
// with its SHA-256, every directory), the object certificate that names the
// body's digest, signed by the signer, and the signer's chain.
#ifndef VELK2_TOOLS_ISSUING_MANIFEST_H_
#define VELK2_TOOLS_ISSUING_MANIFEST_H_

#include <cstdint>
#include <set>
#include <string>

#include "credentials/certificate_sequence.h"
#include "frame/ref.h"
#include "frame/result.h"
#include "sexp/object.h"
#include "tools/issuing/private_key.h"

namespace velk2::issuing {

struct ManifestRequest {
  std::string package;           // the package directory
  std::set<std::string> ignore;  // paths inside it, "/"-separated, left out
  Ref<SexpList> tag;             // (tag ...) of the object certificate
  int64_t time_of_signing = 0;
  Ref<CertificateSequence> chain;  // the signer's own certificate first
};

// MakeManifest writes the manifest of the package into |file| and the
// number of files and directories listed into |entries| (optional). Only
// regular files and directories can be listed: a symlink, FIFO, socket or
// device inside the package (unless ignored) is refused, as is a name that
// the readers refuse (holding "\"), with |problem| saying which and why
// (VELK2_ERR_INVALID_PARAM (2)); a chain whose first certificate is not for
// the signing key too. The manifest is read back by the library (signatures
// and digest) before it is handed out.
Result MakeManifest(const PrivateKey& key, const ManifestRequest& request, std::string* file,
                    size_t* entries, std::string* problem);

}  // namespace velk2::issuing

#endif  // VELK2_TOOLS_ISSUING_MANIFEST_H_
