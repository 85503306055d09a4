// Rollback protection: the store remembers, for each package, the newest
// time of signing of a manifest that verified in full for it, and refuses a
// validly signed manifest older than that (an attacker who kept version 1
// must not be able to install it over version 2), or one dated more than
// five minutes ahead (a signer cannot pick the instant at which its chain
// is judged, nor push the record past every honest manifest).
//
// The same package: the name that the manifest's signed header records, or,
// for a manifest without one, the package directory's absolute path; with
// either, the tag asked about (a signer trusted for another tag cannot move
// the record). A named package's directory is recorded too, so an old
// manifest without a name cannot come back there. Records live in the
// Global store's "rollback" directory, one file per identity, named after
// the SHA-256 of its canonical form:
//
//   (8:rollback (7:package (4:name NAME) (3:tag ...)) (15:time-of-signing DATE))
//
// They are written whole, under the store's lock, and never backwards.
#ifndef VELK2_MANIFEST_ROLLBACK_H_
#define VELK2_MANIFEST_ROLLBACK_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "frame/result.h"
#include "manifest/context.h"
#include "sexp/object.h"

namespace velk2 {

// The rollback flags of a context (SetRollbackProtection).
constexpr uint32_t kRollbackProtect = 1;     // check, and record after success
constexpr uint32_t kRollbackAllowOlder = 2;  // an older manifest is not refused

// How far ahead of the clock a time of signing may lie.
constexpr int64_t kRollbackFutureSlack = 300;

// What a manifest's header says beyond the designed fields: the second atom
// of its version list may hold the canonical text
//   (5:velk2 (4:name NAME) (6:ignore PATTERN...))
// where older manifests hold a plain word.
struct HeaderAttributes {
  std::string name;  // empty: none recorded
  // The ignore patterns the package was signed with (manifest/patterns.h):
  // what they match is not part of the package, on disk or in the tree.
  std::vector<std::string> ignore;
};

// ReadHeaderAttributes reads the attributes of a version list ("version" "1"
// second); a second atom that is not such a list carries none, and elements
// it does not know are passed over.
HeaderAttributes ReadHeaderAttributes(const SexpList* version);
// HeaderAttributeText: the second atom that records |attributes|.
std::string HeaderAttributeText(const HeaderAttributes& attributes);
// A name a manifest may record: 1 to 255 bytes of UTF-8, no control
// characters, no "/" at either end.
bool ValidPackageName(const std::string& name);

// What rollback protection did in one verification.
struct RollbackReport {
  bool checked = false;  // protection was on and the manifest verified
  std::string package;   // the name, or the directory
  bool named = false;    // identified by a recorded name
  int64_t time_of_signing = 0;
  std::optional<int64_t> recorded;  // the newest time recorded before
  bool older = false;               // refused as older than |recorded|
  bool future = false;              // refused as dated ahead of the clock
  bool malformed = false;           // refused: the time of signing is no well-formed date
  bool allowed_older = false;       // older, and admitted (kRollbackAllowOlder)
  std::string identity;  // canonical: (package (name NAME) TAG) or (package (path DIR) TAG)
  std::string record_path;
  // A named package's directory, recorded too.
  std::string directory_identity;
  std::string directory_record_path;
  // Recording after success:
  bool written = false;    // the records now hold this time of signing, or a later one
  bool read_only = false;  // the store cannot be written: checked only
  Result write_result = VELK2_SUCCESS;
};

// CheckRollback: nothing, 0, unless the context's rollback protection is
// on; then VELK2_ERR_TIME_STAMP (34) for a time of signing that is no
// well-formed date or lies more than
// kRollbackFutureSlack seconds ahead of |now| or (unless kRollbackAllowOlder)
// older than the package's record, VELK2_ERR_READ_FILE (10) when the record
// is there but cannot be read (it is never silently passed over). The
// context's manifest must have been read.
Result CheckRollback(const ManifestContext& context, int64_t now, RollbackReport* report);

// RecordRollback, after a verification that succeeded in full with
// protection on: under the store's lock, the record is read again and
// replaced when this time of signing is newer. A store that this process
// cannot write is left alone (read_only); other failures are in
// write_result. Never fails the verification.
void RecordRollback(RollbackReport* report);

}  // namespace velk2

#endif  // VELK2_MANIFEST_ROLLBACK_H_
