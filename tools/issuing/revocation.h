// Issuing revocation lists: the list-body of revoked certificates and keys,
// the certificate whose subject is the body's hash and whose tag is the
// list's scope, and its signature, written as one list file.
#ifndef VELK2_TOOLS_ISSUING_REVOCATION_H_
#define VELK2_TOOLS_ISSUING_REVOCATION_H_

#include <cstdint>
#include <string>
#include <vector>

#include "frame/ref.h"
#include "frame/result.h"
#include "sexp/object.h"
#include "tools/issuing/private_key.h"

namespace velk2::issuing {

// One revoked thing: a certificate body or a public key, and when.
struct Revoked {
  Ref<SexpObject> thing;
  int64_t revoked_at = 0;
};

struct RevocationListRequest {
  Ref<SexpList> scope;  // (tag ...): the list's scope, the tag of its certificate
  std::vector<Revoked> certificates;
  std::vector<Revoked> keys;
  int64_t not_before = 0;  // the period the list covers
  int64_t not_after = 0;
};

// MakeRevocationList builds the list file signed by |key|:
// (8:sequence (3:crl (7:version 1:1) (5:list1 item...) (5:list2 item...))
// certificate signature), each item (4:item (4:hash 6:sha256 H) date) with H
// the digest of the thing's stored form, which is what the library matches.
// The file is read back by the library's reader before it is handed out.
// 2 without a scope or with a time that has no date; the builders' codes.
Result MakeRevocationList(const PrivateKey& key, const RevocationListRequest& request,
                          std::string* file);

}  // namespace velk2::issuing

#endif  // VELK2_TOOLS_ISSUING_REVOCATION_H_
