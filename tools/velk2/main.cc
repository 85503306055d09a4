// velk2: the command-line face of the library. Data goes to stdout, messages
// to stderr; exit 0 on success, 1 when the answer is no, 2 on usage or I/O error.
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <string>

#include "platform/utf.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/docs.h"
#include "velk2.h"

namespace velk2::cli {
namespace {

void PrintHelp(std::FILE* out) {
  std::fprintf(out,
               "usage: velk2 COMMAND [ARGS...]\n\n"
               "Decides whether signed packages and SPKI credentials may be trusted.\n\n"
               "commands:\n");
  for (const Command& c : Commands()) {
    std::fprintf(out, "  velk2 %s %s\n", c.name, Usage(c).c_str());
  }
  std::fprintf(out,
               "\n  velk2 COMMAND --help prints what a command does and each of its options.\n"
               "  velk2 --version\n      print the library version\n"
               "  velk2 --help\n      print this help\n"
               "  velk2 --manpage, velk2 --bash-completion\n"
               "      print the manual page (roff) or the bash completion script\n\n"
               "exit status: 0 success, 1 failure or not verified, 2 usage or input error\n");
}

// Prints the usage of every command whose first word is |family|; false when
// there is none.
bool PrintFamily(std::FILE* out, const char* family) {
  std::string prefix = std::string(family) + " ";
  bool found = false;
  for (const Command& c : Commands()) {
    if (std::string(c.name).rfind(prefix, 0) != 0) continue;
    std::fprintf(out, "usage: velk2 %s %s\n      %s\n", c.name, Usage(c).c_str(), c.summary);
    found = true;
  }
  return found;
}

// The longest registered name that matches the leading words of argv.
const Command* FindCommand(int argc, char** argv, int* words_used) {
  const Command* best = nullptr;
  size_t best_words = 0;
  for (const Command& c : Commands()) {
    std::string name = c.name;
    size_t words = 1;
    for (char ch : name) words += ch == ' ';
    if (words > static_cast<size_t>(argc - 1) || words < best_words) continue;
    std::string joined = argv[1];
    for (size_t i = 1; i < words; ++i) joined += std::string(" ") + argv[1 + i];
    if (joined == name && words > best_words) {
      best = &c;
      best_words = words;
    }
  }
  *words_used = static_cast<int>(best_words);
  return best;
}

int Run(int argc, char** argv) {
  if (argc < 2) {
    PrintHelp(stderr);
    return kExitUsage;
  }
  if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0 ||
      std::strcmp(argv[1], "help") == 0) {
    PrintHelp(stdout);
    return kExitOk;
  }
  // The manual page and the completion come from the table --help prints.
  if (std::strcmp(argv[1], "--manpage") == 0) {
    std::fputs(ManualPage().c_str(), stdout);
    return kExitOk;
  }
  if (std::strcmp(argv[1], "--bash-completion") == 0) {
    std::fputs(BashCompletion().c_str(), stdout);
    return kExitOk;
  }
  if (std::strcmp(argv[1], "--version") == 0) {
    int32_t number = Velk2VersionNumber();
    std::printf("velk2 %d.%d.%d %s\n", number / 10000, number / 100 % 100, number % 100,
                Velk2VersionExtraA());
    return kExitOk;
  }
  int words = 0;
  const Command* command = FindCommand(argc, argv, &words);
  if (command == nullptr) {
    // "velk2 key" or "velk2 tag --help": the family's commands.
    bool help =
        argc > 2 && (std::strcmp(argv[2], "--help") == 0 || std::strcmp(argv[2], "-h") == 0);
    if (PrintFamily(help ? stdout : stderr, argv[1])) return help ? kExitOk : kExitUsage;
    std::fprintf(stderr, "velk2: unknown command '%s' (see velk2 --help)\n",
                 EscapeForDisplay(argv[1]).c_str());
    return kExitUsage;
  }
  Args args(argv + 1 + words, argv + argc);
  for (const std::string& a : args) {
    if (a == "--") break;
    if (a == "--help" || a == "-h") {
      std::fputs(CommandHelp(*command).c_str(), stdout);
      return kExitOk;
    }
  }
  return command->run(args);
}

}  // namespace
}  // namespace velk2::cli

// The tool's one boundary: nothing thrown inside a command ends the process
// without a message and the usage/error exit code.
int main(int argc, char** argv) {
  try {
    return velk2::cli::Run(argc, argv);
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "velk2: out of memory\n");
  } catch (const std::exception& e) {
    std::fprintf(stderr, "velk2: %s\n", e.what());
  }
  return velk2::cli::kExitUsage;
}
