// Helpers shared by the commands: reporting failures, files, keys.
#ifndef VELK2_TOOLS_VELK2_SUPPORT_H_
#define VELK2_TOOLS_VELK2_SUPPORT_H_

#include <cstdint>
#include <optional>
#include <string>

#include "frame/ref.h"
#include "frame/result.h"
#include "sexp/object.h"
#include "tools/issuing/issuer.h"
#include "tools/velk2/options.h"

namespace velk2::cli {

// Prints "velk2 COMMAND: MESSAGE" on stderr and returns |exit_code|.
int Fail(int exit_code, const char* command, const std::string& message);
// The same with the result code and its message appended.
int FailWith(int exit_code, const char* command, const std::string& message, Result code);

bool FileExists(const std::string& path);

// Whether the command shows how its verdict came about (--explain or
// --json): only then are every step of the reduction and the ACL's entries
// kept, which a big ACL makes costly.
bool ShowsReasons(const Options& options);

// What `key show` prints of a key.
struct KeyInfo {
  std::string type;  // "rsa" or "dsa"
  uint32_t bits = 0;
  std::string fingerprint;  // SHA-256 of the canonical public key, hex
};
// LoadPublicKey reads a public key: a canonical .pub file that the library's
// key reader accepts (nothing may follow the key), or the public half of a
// .pem private key. The reader's or the key's code when it is not one.
Result LoadPublicKey(const std::string& path, Ref<SexpList>* out);
Result ReadKeyInfo(const std::string& path, KeyInfo* info);

// ReadGrantOptions fills |grant| from --propagate, --tag (required),
// --not-before, --not-after and --comment. Returns kExitOk, or prints the
// problem and returns kExitUsage.
int ReadGrantOptions(const Options& options, const char* command, issuing::GrantFields* grant);
// ReadSubjectOption reads the principal named by exactly one of --subject
// FILE.pub (a key) and --subject-hash FILE (the SHA-256 hash principal of the
// file's canonical contents). Returns kExitOk, or prints the problem and
// returns kExitUsage.
int ReadSubjectOption(const Options& options, const char* command, Ref<SexpObject>* subject);

// UseStore makes |store| (the directory of acl/ and cert/) the library's
// Global and Home directories. Returns kExitOk, or prints the problem and
// returns kExitUsage.
int UseStore(const char* command, const std::string& store);

// The period a verdict command asks about.
struct Period {
  std::optional<int64_t> not_before, not_after;
  bool at_now = false;    // none was given: the question is about now
  bool any_time = false;  // --any-time: no period at all
};
// ReadPeriodOptions reads --not-before and --not-after (and --any-time where
// the command offers it); without any, both are now. Returns kExitOk, or
// prints the problem and returns kExitUsage.
int ReadPeriodOptions(const Options& options, const char* command, Period* period);

}  // namespace velk2::cli

#endif  // VELK2_TOOLS_VELK2_SUPPORT_H_
