// Credentials for people: tags in the form a person types them, principals
// described by kind and fingerprint, owners and hashes. Every text is safe
// to print as one line (the readable forms escape what needs it).
#ifndef VELK2_TRUST_DESCRIBE_H_
#define VELK2_TRUST_DESCRIBE_H_

#include <string>
#include <string_view>

#include <vector>

#include "credentials/certificate.h"
#include "credentials/certificate_sequence.h"
#include "credentials/hash_value.h"
#include "sexp/object.h"
#include "trust/tool_api.h"

namespace velk2 {

// ReadableTag: the elements after the keyword of a (tag ...) list, as typed:
// (tag (pkg install)) gives "(pkg install)". Empty for null.
std::string ReadableTag(const SexpList* tag);
// The same for a tag held as canonical text; the text itself when it does not read.
std::string ReadableTagFromCanonical(std::string_view canonical);
// A principal: "rsa key <fingerprint>", "hash sha256 <hex>", "2 of 3: ...".
std::string DescribePrincipal(const SexpObject& principal);
// The SHA-256 of |object|'s canonical form in lowercase hex; empty when it
// cannot be computed.
std::string Fingerprint(const SexpObject& object);
// The owner text of an owner list (owner X), as it stands, or empty when
// the list has another shape.
std::string OwnerText(const SexpList* owner);
// An atom's bytes as they stand, or empty for null.
std::string AtomString(const SexpAtom* atom);
// "sha256:HEX" of a hash value, "?" when there is none.
std::string HashText(const HashValue* hash);
// Each certificate of a sequence as a person reads it.
std::vector<api::CertificateInfo> DescribeChain(const CertificateSequence& sequence);

}  // namespace velk2

#endif  // VELK2_TRUST_DESCRIBE_H_
