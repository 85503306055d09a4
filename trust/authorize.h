// The authorization query: does this key, through this chain of
// certificates, hold this tag under this ACL during this period? It is the
// one door between the library's objects and the authorization engine: each
// object is written as canonical text, the engine reduces the texts and
// prints the reduced ACL, and the first entry's tag is read back with the
// ACL reader and compared with the requested tag.
#ifndef VELK2_TRUST_AUTHORIZE_H_
#define VELK2_TRUST_AUTHORIZE_H_

#include <string>

#include "engine/reduce.h"
#include "frame/context.h"
#include "frame/result.h"
#include "sexp/object.h"

namespace velk2 {

// ConvertToEngine writes |object|'s canonical form (display hints left out)
// into |*text|, the form the engine parses. VELK2_ERR_PARAM_NULL (38) for a
// null object or text; the writer's codes (29 for lists nested too deep);
// VELK2_ERR_MEM_ALLOC (3).
Result ConvertToEngine(const SexpList* object, std::string* text);

// AuthorizeKey asks whether |subject_key| holds |requested_tag| under |acl|
// (a list "acl" of entries) through the certificates of |sequence| (a list
// "sequence" of certificates, nested sequences allowed), within |validity|
// (a "valid" list with optional "not-before" and "not-after", or null for no
// date limit). Only the crypto word of |context| (may be null) is used.
//
// Returns 0 when the first entry of the reduced ACL grants the requested
// tag; VELK2_ERR_INVALID_PARAM (2) for a null |acl|, |sequence| or
// |subject_key|, before any engine work; VELK2_ERR_NOT_AUTHORIZED (31) when
// no entry survives the reduction; VELK2_ERR_NOT_GRANTED (67) when the first
// entry's tag does not imply the requested tag (only the first entry
// decides, deliberately); the writer's codes for an object that cannot be
// written; the reader's codes when the first entry's tag cannot be read
// back; 3 for memory. The engine's failures come back unchanged, as their
// 32-bit values: 16386 when the engine cannot start, and the parser's and
// the reduction's negative SPKI_ERR_* codes (the library's message lookup
// gives "VELK_UNKNOWN_ERROR" for those). The caller's objects are never
// changed; everything the query makes is freed on every path.
//
// With a null |requested_tag| the reduction runs without a tag limit, and
// the final check then fails with 2 instead of being skipped: the callers
// always ask for a tag, and a forgotten one must never read as "authorized
// for whatever the ACL reaches".
//
// |trace| (optional) receives the reduction's story for people;
// |reduced_acl| (optional) the printed reduced ACL, "(3:acl)" when empty.
Result AuthorizeKey(Velk2Context* context, const SexpList* acl, const SexpList* sequence,
                    const SexpList* subject_key, const SexpList* requested_tag,
                    const SexpList* validity, engine::ReductionTrace* trace = nullptr,
                    std::string* reduced_acl = nullptr);

// IsEngineResult: whether |result| is a status the authorization engine gave
// (passed through AuthorizeKey as its 32-bit value). IsUndecided: whether it
// is an engine status or a crypto-library status, which the library passes
// through too: the question could not be answered, which is not the answer
// no. Every caller that must tell "no" from "could not say" asks these.
bool IsEngineResult(Result result);
bool IsUndecided(Result result);

namespace trust_internal {
// AuthorizeKey's steps without its Guard, for the verification pipeline,
// which runs under its own.
Result Authorize(Velk2Context* context, const SexpList* acl, const SexpList* sequence,
                 const SexpList* subject_key, const SexpList* requested_tag,
                 const SexpList* validity, engine::ReductionTrace* trace, std::string* reduced_acl);
}  // namespace trust_internal

// TagGranted: true when |granted_tag| authorises everything |requested_tag|
// asks for. A null granted tag gives false; two tags with the same canonical
// form give true without starting the engine; otherwise the engine
// intersects the two and the answer is whether the intersection equals the
// requested tag. A tag that cannot be written is treated as missing.
bool TagGranted(const SexpList* requested_tag, const SexpList* granted_tag);

// FitsTheEngine: whether a credential (an ACL entry or a certificate) is
// nested shallowly enough for the authorization engine, which meets it one
// level down, inside (acl ...) or (sequence ...). The readers take more, so
// an entry the engine refuses would make every question against its
// directory fail.
bool FitsTheEngine(const SexpObject& credential);

}  // namespace velk2

#endif  // VELK2_TRUST_AUTHORIZE_H_
