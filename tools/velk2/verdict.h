// The verdict of a verification for people and for programs: what was asked,
// what was loaded, what the library answered and, from the reduction's own
// story, why. Every verdict command fills a Story and prints it here, as text
// (with --explain, the reasons) or as one JSON object.
#ifndef VELK2_TOOLS_VELK2_VERDICT_H_
#define VELK2_TOOLS_VELK2_VERDICT_H_

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "trust/revocation.h"
#include "trust/verification.h"
#include "credentials/certificate_sequence.h"
#include "engine/reduce.h"
#include "frame/result.h"
#include "sexp/object.h"

namespace velk2::cli {

// A grant as its file states it, before the reduction narrows it.
struct Stated {
  std::string tag;  // readable
  std::string not_before, not_after;
};

struct AclFile {
  std::string file;  // base name, escaped
  std::string subject;
  bool propagate = false;
  Stated stated;
};

struct CertificateInfo {
  int number = 0;  // 1-based position in the file
  std::string owner;
  std::string issuer;
  std::string subject;  // empty for a k-of-n subject
  bool propagate = false;
  Stated stated;
  std::string revocation_scope;  // readable; empty when it names no lists
};

struct Skipped {
  std::string file;
  Result code;
};

struct Story {
  // The question.
  std::string key_file;
  std::string key;  // fingerprint
  std::string tag;  // readable
  std::string not_before, not_after;
  bool at_now = false;    // no period given: the question is about now
  bool any_time = false;  // no period at all
  // What was loaded.
  std::string acl_dir, certs_file;
  std::vector<AclFile> acl;
  std::vector<CertificateInfo> certificates;
  std::vector<Skipped> skipped;
  std::map<std::string, std::string> names;  // fingerprint -> what people call it
  // The answer.
  SequenceVerdict verdict;
  // What the revocation stage found, one per certificate (when it ran). A
  // manifest's check leaves such certificates out of the chain instead of
  // failing (|left_out_by_revocation|), and the authorization decides.
  std::vector<RevocationFinding> revocation;
  bool left_out_by_revocation = false;
  engine::ReductionTrace trace;
  bool reduced = false;  // the reduction ran to its end
};

// The last component of a path, escaped for display.
std::string BaseName(const std::string& path);
// The owner text of an owner list (owner X), escaped for display, or empty.
std::string OwnerText(const SexpList* owner);

// Describe fills the story's ACL, certificates and names from what was
// loaded: the ACL entries (with their files), the certificates of
// |sequence| and the key asked about (named by |key_file|). Without
// |with_acl| the ACL's entries are left out (only an explanation or the JSON
// report shows them, and a big ACL makes them costly): ShowsReasons says.
void Describe(Story* story, const SexpList& acl, const CertificateSequence& sequence,
              const SexpObject& key, bool with_acl);

// The text verdict: "result:" and "authorized:" lines, and with |explain|
// the question, the reduced ACL, how it came about, why not, what was left
// out. Nothing when the verification ended before the authorization stage.
std::string VerdictText(const Story& story, bool explain);

// The same as one JSON object, and that object as one line of text (bytes
// that are not UTF-8 replaced, never thrown over).
nlohmann::ordered_json VerdictJson(const Story& story);
std::string VerdictJsonText(const Story& story);

// "certificate N of FILE (owner X)": the certificate that ended an earlier stage.
std::string FailedCertificate(const Story& story);
// What the revocation check found about certificate |index| (0-based): "revoked
// by LIST on DATE", "its subject key is revoked by LIST on DATE", or that no
// current list speaks for it; empty when it was not revoked.
std::string RevocationText(const Story& story, size_t index);
// For a manifest whose chain lost certificates to revocation and that was
// then not authorized: "certificate N of FILE (owner X) was left out of the
// chain: WHY", one per such certificate joined with "; ". Empty otherwise.
// The result code stays the authorization's (a missing second certificate
// fails the order check), but this, not the code's name, is what happened.
std::string RevocationCause(const Story& story);
// Why a stage before the authorization ended the verification: which
// certificate, and what about it (its signature; the list that revoked it and
// when; that no list speaks for it). Empty when the authorization answered.
std::string StageFailureText(const Story& story);

}  // namespace velk2::cli

#endif  // VELK2_TOOLS_VELK2_VERDICT_H_
