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

struct Command {
  const char* name;     // e.g. "message" or "key new"
  const char* usage;    // argument synopsis
  const char* summary;  // one line for --help
  int (*run)(const Args& args);
};

// Every command, in --help order.
const std::span<const Command> Commands();

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
