// Helpers of the ACL and authorization commands: readable one-line forms of
// tags and principals, fingerprints, JSON strings and status messages.
#ifndef VELK2_TOOLS_VELK2_SUPPORT_ACL_H_
#define VELK2_TOOLS_VELK2_SUPPORT_ACL_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "frame/result.h"
#include "sexp/object.h"

namespace velk2::cli {

// ReadableTag: the elements after the keyword of a (tag ...) list, as typed
// with --tag: (tag (pkg install)) gives "(pkg install)". "(none)" for null.
std::string ReadableTag(const SexpList* tag);
// The same for a tag held as canonical text; the text itself when it does not read.
std::string ReadableTagFromCanonical(std::string_view canonical);

// The SHA-256 of |object|'s canonical form in lowercase hex: what `key show`
// prints as a key's fingerprint. Empty when it cannot be computed.
std::string Fingerprint(const SexpObject& object);
// The fingerprint the authorization engine gives a principal: a key's own
// fingerprint; for a SHA-256 hash principal the hashed value itself (it stands
// for the key of that fingerprint); for another hash the fingerprint of the
// key among |known_keys| that it names, else that of the hash list.
std::string PrincipalFingerprint(const SexpObject& principal,
                                 const std::vector<const SexpObject*>& known_keys);
// A principal for people: "key <fingerprint>", "hash sha256 <hex>",
// "2 of 3 keys: <fingerprint>, ...".
std::string DescribePrincipal(const SexpObject& principal);

// A date atom's text, escaped for display (it comes from a file), or empty
// for null.
std::string AtomText(const SexpAtom* atom);
// A JSON string literal (quotes included) of UTF-8 |text|; control bytes and
// bytes that are not UTF-8 are escaped.
std::string JsonString(std::string_view text);

// The message of a status the library or the engine returned (MessageOf),
// and a sentence for the engine's start-up failure, which has no text.
std::string StatusMessage(Result code);
// "CODE MESSAGE" with the code printed signed.
std::string StatusText(Result code);

}  // namespace velk2::cli

#endif  // VELK2_TOOLS_VELK2_SUPPORT_ACL_H_
