// Helpers shared by the commands: reporting failures, options, the store.
#ifndef VELK2_TOOLS_VELK2_SUPPORT_H_
#define VELK2_TOOLS_VELK2_SUPPORT_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/issuing/issuer.h"
#include "tools/velk2/options.h"
#include "trust/tool_api.h"
#include "velk2.h"

namespace velk2::cli {

using Result = api::Result;

// Prints "velk2 COMMAND: MESSAGE" on stderr and returns |exit_code|.
int Fail(int exit_code, const char* command, const std::string& message);
// The same with the result code and its message appended.
int FailWith(int exit_code, const char* command, const std::string& message, Result code);

bool FileExists(const std::string& path);

// Whether the command shows how its verdict came about (--explain or
// --json): only then does the library keep every step of the reduction,
// which a big ACL makes costly.
bool ShowsReasons(const Options& options);

// ReadPatterns: the ignore patterns of --ignore and of the files named by
// --ignore-from (one a line; empty lines and lines starting with "#" are
// passed over). Returns kExitOk, or prints the problem and returns
// kExitUsage.
int ReadPatterns(const Options& options, const char* command, std::vector<std::string>* out);

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

// ReadPeriodOptions reads --not-before and --not-after (and --any-time where
// the command offers it); without any, both are now. Returns kExitOk, or
// prints the problem and returns kExitUsage.
int ReadPeriodOptions(const Options& options, const char* command, api::Period* period);

}  // namespace velk2::cli

#endif  // VELK2_TOOLS_VELK2_SUPPORT_H_
