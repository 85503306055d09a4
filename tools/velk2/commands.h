// The velk2 command table. Each command file registers its commands with
// VELK2_COMMAND; main() dispatches on the first argument.
#ifndef VELK2_TOOLS_VELK2_COMMANDS_H_
#define VELK2_TOOLS_VELK2_COMMANDS_H_

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

// Adds a command to the table; used through VELK2_COMMAND.
bool RegisterCommand(const Command& command);
const std::vector<Command>& Commands();

// Prints "velk2 NAME: MESSAGE" on stderr and returns kExitUsage.
int UsageError(const char* name, const std::string& message);

}  // namespace velk2::cli

#define VELK2_COMMAND_CONCAT2(a, b) a##b
#define VELK2_COMMAND_CONCAT(a, b) VELK2_COMMAND_CONCAT2(a, b)
#define VELK2_COMMAND(name, usage, summary, fn)                                 \
  static const bool VELK2_COMMAND_CONCAT(velk2_command_registered_, __LINE__) = \
      ::velk2::cli::RegisterCommand({name, usage, summary, fn})

#endif  // VELK2_TOOLS_VELK2_COMMANDS_H_
