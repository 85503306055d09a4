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

// FailReading and FailWriting say that |path| could not be read or
// written: with the system's reason ("No such file or directory") when a
// system call stands in the way, and the result code.
int FailReading(int exit_code, const char* command, const std::string& path, Result code);
int FailWriting(int exit_code, const char* command, const std::string& path, Result code);
// FailReadingPublicKey says that no public key could be read from |path|,
// naming an encrypted private key as such (its public half is encrypted
// too), and a file of two private keys.
int FailReadingPublicKey(int exit_code, const char* command, const std::string& path, Result code);

bool FileExists(const std::string& path);

// PassphraseFileOption: the --passphrase-file option, with a warning when
// the file may be read by group or others (the passphrase is then theirs).
std::optional<std::string> PassphraseFileOption(const Options& options, const char* command);

// SaySkipped tells of an ACL file that did not load, and why.
void SaySkipped(const char* command, const api::SkippedFile& file);

// HintAtTag: when |result| says the key is not authorized and the tag text
// is not a list ("pkg install" for "(pkg install)"), one line on standard
// error says how a tag is written: bare words are read as the tag's own
// elements, which an ACL granting "(pkg install)" does not grant.
void HintAtTag(const char* command, const std::string& tag, Result result);

// QuietIfAsked: with --quiet, standard output goes nowhere; errors still
// reach standard error and the exit status answers.
void QuietIfAsked(const Options& options);

// Whether the command shows how its verdict came about (--explain or
// --json): only then does the library keep every step of the reduction,
// which a big ACL makes costly.
bool ShowsReasons(const Options& options);

// ReadDateOption reads the date of --|field| into |out| (left alone when the
// option is not given). Returns kExitOk, or prints the problem and returns
// kExitUsage.
int ReadDateOption(const Options& options, const char* command, const std::string& field,
                   int64_t* out);

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
// Global and Home directories; |from| says where it came from, for the
// message when it is not there. Returns kExitOk, or prints the problem and
// returns kExitUsage.
int UseStore(const char* command, const std::string& store, const std::string& from = "--store");

// What the configuration files give: lines "store = DIR", "tag = TEXT",
// "jobs = N" ("#" starts a comment).
struct Config {
  std::optional<std::string> store, tag;
  std::string store_from;  // the file that gave the store
  std::optional<unsigned> jobs;
  std::vector<std::string> files;  // the files read, in order
};
// LoadConfig reads $VELK2_CONFIG when it is set (that file, which must be
// there; set and empty: none), else /etc/velk2/velk2.conf and then the
// user's $XDG_CONFIG_HOME/velk2/velk2.conf (~/.config/...), whose settings
// win; a file that is not there is passed over. An unknown setting or a bad
// value is an error. Returns kExitOk, or prints the problem and returns
// kExitUsage.
int LoadConfig(const char* command, Config* out);
// ReadDefaults loads the configuration and chooses the store: --store,
// else $VELK2_STORE, else the configuration's, else /etc/velk2, saying
// which in |store_from|; config->tag becomes --tag when given. The store
// is then used (UseStore). Returns kExitOk, or prints the problem and
// returns kExitUsage.
int ReadDefaults(const Options& options, const char* command, Config* config, std::string* store,
                 std::string* store_from);
// ReadStoreAndTag: ReadDefaults for a command that asks about a tag, which
// must then come from --tag or the configuration, into |tag|.
int ReadStoreAndTag(const Options& options, const char* command, Config* config, std::string* store,
                    std::string* store_from, std::string* tag);

// ReadPeriodOptions reads --not-before and --not-after (and --any-time where
// the command offers it); without any, both are now. Returns kExitOk, or
// prints the problem and returns kExitUsage.
int ReadPeriodOptions(const Options& options, const char* command, api::Period* period);

}  // namespace velk2::cli

#endif  // VELK2_TOOLS_VELK2_SUPPORT_H_
