// The manual page and the bash completion of velk2, made from the same
// command table that prints --help, so that the three never disagree.
#ifndef VELK2_TOOLS_VELK2_DOCS_H_
#define VELK2_TOOLS_VELK2_DOCS_H_

#include <string>

namespace velk2::cli {

struct Command;

// "velk2 NAME --help": the usage line, what the command does and one entry
// per option, wrapped to 80 columns.
std::string CommandHelp(const Command& command);
// velk2(1) in roff.
std::string ManualPage();
// A bash completion script for commands, their words and their options.
std::string BashCompletion();

}  // namespace velk2::cli

#endif  // VELK2_TOOLS_VELK2_DOCS_H_
