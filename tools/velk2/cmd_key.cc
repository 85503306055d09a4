// velk2 key new / key show: key pairs for the issuing toolkit.
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>

#include "platform/utf.h"
#include "tools/issuing/issuer.h"
#include "tools/issuing/private_key.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/options.h"
#include "tools/velk2/support.h"

namespace velk2::cli {
namespace {

using issuing::KeyType;
using issuing::PrivateKey;

// The terminal as it was before echo went off, put back by a signal that
// ends the process while a passphrase is typed.
struct termios saved_terminal;
volatile std::sig_atomic_t echo_off = 0;

extern "C" void RestoreTerminalAndExit(int signal_number) {
  if (echo_off) ::tcsetattr(STDIN_FILENO, TCSANOW, &saved_terminal);
  std::signal(signal_number, SIG_DFL);
  std::raise(signal_number);
}

// Reads one line typed on the terminal on standard input, not echoed.
// False at the end of input or on a read error.
bool ReadHiddenLine(const char* prompt, std::string* line) {
  // Echo goes off before the prompt shows: nothing typed after it is seen.
  struct termios quiet = saved_terminal;
  quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  quiet.c_lflag |= ECHONL;
  echo_off = 1;
  ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
  std::fputs(prompt, stderr);
  std::fflush(stderr);
  bool ended = false;
  line->clear();
  for (;;) {
    char c = 0;
    const ssize_t n = ::read(STDIN_FILENO, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (c == '\n') {
      ended = true;
      break;
    }
    line->push_back(c);
  }
  ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_terminal);
  echo_off = 0;
  return ended;
}

// AskPassphrase asks for the passphrase of a new key twice on the terminal.
// Returns kExitOk, or prints the problem and returns kExitUsage.
int AskPassphrase(const char* command, std::string* passphrase) {
  if (!::isatty(STDIN_FILENO) || ::tcgetattr(STDIN_FILENO, &saved_terminal) != 0) {
    return Fail(kExitUsage, command,
                "--encrypt asks for the passphrase on a terminal and standard input is not one: "
                "give --passphrase-file FILE");
  }
  constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
  constexpr size_t kCount = std::size(kSignals);
  struct sigaction restore {
  }, before[kCount];
  restore.sa_handler = RestoreTerminalAndExit;
  sigemptyset(&restore.sa_mask);
  for (size_t i = 0; i < kCount; ++i) {
    // A signal the caller ignores stays ignored.
    ::sigaction(kSignals[i], nullptr, &before[i]);
    if (before[i].sa_handler != SIG_IGN) ::sigaction(kSignals[i], &restore, nullptr);
  }
  std::string again;
  int exit = kExitOk;
  if (!ReadHiddenLine("passphrase: ", passphrase) ||
      !ReadHiddenLine("the passphrase again: ", &again)) {
    exit = Fail(kExitUsage, command, "no passphrase was typed");
  } else if (passphrase->empty()) {
    exit = Fail(kExitUsage, command, "an empty passphrase protects nothing");
  } else if (*passphrase != again) {
    exit = Fail(kExitUsage, command, "the two passphrases differ");
  }
  for (size_t i = 0; i < kCount; ++i) ::sigaction(kSignals[i], &before[i], nullptr);
  issuing::Wipe(&again);
  if (exit != kExitOk) issuing::Wipe(passphrase);
  return exit;
}

// The --bits of a key of |type|. Returns kExitOk, or prints the problem and
// returns kExitUsage.
int ReadBits(const Options& options, const char* command, const std::string& type, int* bits) {
  *bits = 2048;
  std::optional<std::string> b = options.Get("bits");
  if (!b) return kExitOk;
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(b->c_str(), &end, 10);
  const bool number = !b->empty() && *end == 0 && errno == 0;
  if (type == "rsa" && (!number || value < 2048 || value > 16384)) {
    return UsageError(command, "--bits of an RSA key is a number from 2048 to 16384");
  }
  if (type == "dsa") {
    if (!number || (value != 2048 && value != 1024)) {
      return UsageError(command, "--bits of a DSA key is 2048 (or 1024, which is weak)");
    }
    if (value == 1024) {
      std::fprintf(stderr,
                   "velk2 %s: warning: a 1024-bit DSA key is weak; use --bits 2048, or better an "
                   "RSA key, whose signatures need not hash with SHA-1\n",
                   command);
    }
  }
  *bits = static_cast<int>(value);
  return kExitOk;
}

}  // namespace

int RunKeyNew(const Args& args) {
  const char* kName = "key new";
  Options options(kName);
  if (!options.Parse(args)) return UsageError(kName, options.error());
  std::optional<std::string> type = options.Get("type");
  std::optional<std::string> out = options.Get("out");
  if (!type || !out) return UsageError(kName, "--type and --out are required");
  if (*type != "rsa" && *type != "dsa") return UsageError(kName, "--type is rsa or dsa");
  int bits = 0;
  if (int exit = ReadBits(options, kName, *type, &bits); exit != kExitOk) return exit;
  bool force = options.Has("force");
  std::string pem = *out + ".pem", pub = *out + ".pub";
  if (!force && (FileExists(pem) || FileExists(pub))) {
    return Fail(kExitUsage, kName,
                EscapeForDisplay(pem) + " or " + EscapeForDisplay(pub) +
                    " exists (use --force to replace)");
  }
  std::string passphrase;
  const std::optional<std::string> passphrase_file = PassphraseFileOption(options, kName);
  const bool encrypt = passphrase_file || options.Has("encrypt");
  if (passphrase_file) {
    std::string problem;
    if (issuing::ReadPassphraseFile(*passphrase_file, &passphrase, &problem) != VELK2_SUCCESS) {
      return Fail(kExitUsage, kName, problem);
    }
  } else if (encrypt) {
    if (int exit = AskPassphrase(kName, &passphrase); exit != kExitOk) return exit;
  }
  // The pair is written one file after the other: what would stop the
  // second is looked for first, so that a refusal leaves the old pair whole.
  for (const std::string& path : {pem, pub}) {
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
      return Fail(kExitUsage, kName,
                  "cannot write " + EscapeForDisplay(path) + ": " + std::strerror(EISDIR));
    }
  }
  PrivateKey key;
  Result r = PrivateKey::Generate(*type == "rsa" ? KeyType::kRsa : KeyType::kDsa, bits, &key);
  if (r != VELK2_SUCCESS) return FailWith(kExitFailure, kName, "cannot generate the key", r);
  Ref<SexpList> public_key;
  r = issuing::MakePublicKey(key, &public_key);
  if (r != VELK2_SUCCESS) return FailWith(kExitFailure, kName, "cannot build the public key", r);
  r = key.SavePem(pem, force, encrypt ? &passphrase : nullptr);
  issuing::Wipe(&passphrase);
  if (r != VELK2_SUCCESS) return FailWriting(kExitUsage, kName, pem, r);
  r = issuing::WriteFile(pub, issuing::CanonicalText(*public_key), 0644, force);
  if (r != VELK2_SUCCESS) {
    FailWriting(kExitUsage, kName, pub, r);
    return Fail(kExitUsage, kName,
                EscapeForDisplay(pem) +
                    " holds a new private key without its public key: make the "
                    "pair again with --force");
  }
  std::printf("%s\n%s\n", EscapeForDisplay(pem).c_str(), EscapeForDisplay(pub).c_str());
  return kExitOk;
}

int RunKeyShow(const Args& args) {
  const char* kName = "key show";
  Options options(kName);
  if (!options.Parse(args, true)) return UsageError(kName, options.error());
  if (options.positional().size() != 1) return UsageError(kName, "expected one FILE");
  const std::string& path = options.positional()[0];
  std::string passphrase, problem;
  const std::optional<std::string> passphrase_file = PassphraseFileOption(options, kName);
  if (passphrase_file &&
      issuing::ReadPassphraseFile(*passphrase_file, &passphrase, &problem) != VELK2_SUCCESS) {
    return Fail(kExitUsage, kName, problem);
  }
  issuing::KeyInfo info;
  Result r = issuing::ReadKeyInfo(path, &info, passphrase_file ? &passphrase : nullptr);
  issuing::Wipe(&passphrase);
  if (r != VELK2_SUCCESS) {
    problem = issuing::KeyFileProblem(path, r);
    return problem.empty() ? FailReading(kExitUsage, kName, path, r)
                           : Fail(kExitUsage, kName, problem);
  }
  std::printf("type: %s\nbits: %u\nsha256: %s\n", info.type.c_str(), info.bits,
              info.fingerprint.c_str());
  return kExitOk;
}

}  // namespace velk2::cli
