// The velk2 commands: the constant table (command_table.cc) names each
// command's runner; main() dispatches on the leading words.
#ifndef VELK2_TOOLS_VELK2_COMMANDS_H_
#define VELK2_TOOLS_VELK2_COMMANDS_H_

#include <span>
#include <string>
#include <vector>

namespace velk2::cli {

// Exit codes of every command.
enum ExitCode : int { kExitOk = 0, kExitFailure = 1, kExitUsage = 2 };

// A command's arguments: everything after its name(s).
using Args = std::vector<std::string>;

// One option of a command: "--name VALUE" (or a switch without a value),
// perhaps "-x" for short. The table of each command's options is the one
// source of its parsing, its usage line, its --help, the manual page and the
// completion, so they cannot disagree.
struct OptionSpec {
  const char* name;   // the long name without "--"
  char short_name;    // 0 when there is none
  const char* value;  // what the value is ("DIR"), nullptr for a switch
  bool repeated;      // may be given more than once
  bool required;      // shown without brackets in the usage line
  const char* help;   // one sentence
};

struct Command {
  const char* name;      // e.g. "message" or "key new"
  const char* operands;  // what follows the name besides options ("PKGDIR")
  const char* summary;   // what it does, for --help and the manual
  int (*run)(const Args& args);
  std::span<const OptionSpec> options;
};

// Every command, in --help order.
const std::span<const Command> Commands();
// The command named |name|, or nullptr.
const Command* FindCommandNamed(const std::string& name);
// "PKGDIR -s DIR [-t TEXT] [--jobs N] ...": the command's operands and
// options as its usage line shows them.
std::string Usage(const Command& command);

// The runners of the table.
int RunAclAdd(const Args& args);
int RunAclList(const Args& args);
int RunAuthorize(const Args& args);
int RunCertIssue(const Args& args);
int RunCertShow(const Args& args);
int RunCertVerify(const Args& args);
int RunCrlImport(const Args& args);
int RunCrlIssue(const Args& args);
int RunCrlShow(const Args& args);
int RunCrlVerify(const Args& args);
int RunCompare(const Args& args);
int RunHash(const Args& args);
int RunManifestShow(const Args& args);
int RunManifestSign(const Args& args);
int RunKeyNew(const Args& args);
int RunKeyShow(const Args& args);
int RunMessage(const Args& args);
int RunShow(const Args& args);
int RunTagCompare(const Args& args);
int RunTagIntersect(const Args& args);
int RunVerify(const Args& args);

// Prints "velk2 NAME: MESSAGE" on stderr and returns kExitUsage.
int UsageError(const char* name, const std::string& message);

}  // namespace velk2::cli

#endif  // VELK2_TOOLS_VELK2_COMMANDS_H_
