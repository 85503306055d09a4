#include "tools/velk2/docs.h"

#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tools/velk2/commands.h"
#include "velk2.h"

namespace velk2::cli {
namespace {

// Text for roff: backslashes and hyphens escaped, no line starting a request.
std::string Roff(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";
    } else {
      out += c;
    }
  }
  if (!out.empty() && (out[0] == '.' || out[0] == '\'')) out.insert(0, "\\&");
  return out;
}

// |text| broken into lines of at most |width| columns, each indented by
// |indent| spaces; a word longer than a line stands alone.
std::string Wrap(const std::string& text, size_t indent, size_t width) {
  std::string out, line;
  size_t at = 0;
  while (at < text.size()) {
    size_t end = text.find(' ', at);
    if (end == std::string::npos) end = text.size();
    const std::string word = text.substr(at, end - at);
    at = end + 1;
    if (word.empty()) continue;
    if (!line.empty() && indent + line.size() + 1 + word.size() > width) {
      out += std::string(indent, ' ') + line + "\n";
      line.clear();
    }
    line += (line.empty() ? "" : " ") + word;
  }
  if (!line.empty()) out += std::string(indent, ' ') + line + "\n";
  return out;
}

// "-s, --store DIR" or "--json": how an option is written.
std::string Written(const OptionSpec& option) {
  std::string written;
  if (option.short_name != 0) written = std::string("-") + option.short_name + ", ";
  written += std::string("--") + option.name;
  if (option.value != nullptr) written += std::string(" ") + option.value;
  if (option.repeated) written += " (repeatable)";
  return written;
}

std::string Version() {
  const int32_t number = Velk2VersionNumber();
  return std::to_string(number / 10000) + "." + std::to_string(number / 100 % 100) + "." +
         std::to_string(number % 100);
}

}  // namespace

std::string CommandHelp(const Command& command) {
  std::string out = Wrap("usage: velk2 " + std::string(command.name) + " " + Usage(command), 0, 80);
  out += "\n" + Wrap(command.summary, 2, 80);
  out += "\noptions:\n";
  for (const OptionSpec& option : command.options) {
    out += "  " + Written(option) + "\n" + Wrap(option.help, 6, 80);
  }
  out += "  -h, --help\n      print this help\n";
  return out;
}

std::string ManualPage() {
  std::ostringstream out;
  out << ".TH VELK2 1 \"" << VELK2_MANUAL_DATE << "\" \"velk2 " << Version()
      << "\" \"User Commands\"\n"
      << ".SH NAME\nvelk2 \\- decide whether signed packages and SPKI credentials may be trusted\n"
      << ".SH SYNOPSIS\n.B velk2\n.I COMMAND\n[\\fIARGS\\fR...]\n"
      << ".br\n.B velk2 \\-\\-help\n.br\n.B velk2\n.I COMMAND\n.B \\-\\-help\n"
      << ".SH DESCRIPTION\n"
      << "velk2 verifies signed package manifests against the files on disk, and the SPKI\n"
      << "credentials behind them (RFC 2693): public keys, certificates, ACL entries and\n"
      << "revocation lists, all canonical S\\-expression files. It checks certificate chains\n"
      << "and RSA/DSA signatures and reduces a chain against the device's ACL to decide\n"
      << "whether a key holds a requested authorization.\n"
      << ".SH COMMANDS\n";
  for (const Command& c : Commands()) {
    out << ".TP\n.B velk2 " << Roff(c.name) << "\n"
        << Roff(Usage(c)) << "\n.IP\n"
        << Roff(c.summary) << "\n";
  }
  out << ".SH OPTIONS\n"
      << "Options take their value as the next argument or after \\fB=\\fR\n"
      << "(\\fB\\-\\-store=/etc/velk2\\fR); a short form takes it next or joined\n"
      << "(\\fB\\-j4\\fR); a switch may be written \\fB\\-\\-name=yes\\fR or\n"
      << "\\fB\\-\\-name=no\\fR; \\fB\\-\\-\\fR ends the options. Every command takes\n"
      << "\\fB\\-h\\fR, \\fB\\-\\-help\\fR.\n";
  for (const Command& c : Commands()) {
    if (c.options.empty()) continue;
    out << ".SS velk2 " << Roff(c.name) << "\n";
    for (const OptionSpec& option : c.options) {
      out << ".TP\n" << Roff(Written(option)) << "\n" << Roff(option.help) << "\n";
    }
  }
  out << ".SH CONVENTIONS\n"
      << "Tags are written readably, such as \\fB(pkg install)\\fR or\n"
      << "\\fB(ftp (* set read write))\\fR; each top\\-level element of the text is one\n"
      << "element of the tag and each token an atom exactly as typed, as every export of\n"
      << "the library reads a tag text (there is no other form).\n"
      << "Dates are \\fBYYYY\\-MM\\-DD_hh:mm:ss\\fR in UTC, \\fBYYYY\\-MM\\-DD\\fR (midnight\n"
      << "UTC) or ISO 8601 (\\fB2026\\-01\\-01T12:00:00Z\\fR, "
         "\\fB2026\\-01\\-01T14:00:00+02:00\\fR);\n"
      << "they are always written in the first form. Every text that comes from a file\n"
      << "is printed escaped. Only regular files are read as credentials.\n"
      << ".SH EXIT STATUS\n"
      << "0 success or verified; 1 failure, not verified or not authorized; 2 usage,\n"
      << "unreadable input, or a question that could not be decided.\n"
      << ".SH PACKAGES\n"
      << "A manifest lists every file, symlink and directory of a package. Each entry\n"
      << "records its mode (permission bits with setuid, setgid and sticky) and, when\n"
      << "signed with \\fB\\-\\-owners\\fR, its owner and group; a file its size and SHA\\-256;\n"
      << "a symlink the SHA\\-256 of its target text. Older manifests that record only sizes\n"
      << "still verify, checking what they record. \\fBverify\\fR never follows a symlink:\n"
      << "a retargeted link, a link replaced by a file, a changed mode or owner are each\n"
      << "reported as \\fBchanged\\fR with what differs (\\fBcontent\\fR, \\fBsize\\fR,\n"
      << "\\fBmode\\fR, \\fBowner\\fR, \\fBlink target\\fR, \\fBtype\\fR); a file it cannot\n"
      << "read is \\fBunreadable\\fR, with the reason, and fails the package. It scans the\n"
      << "package directory itself too (the manifest file excepted). Names are compared\n"
      << "byte for byte; bytes that are not UTF\\-8 print as \\fB\\\\xNN\\fR, and a path\n"
      << "holding anything but plain name characters prints in double quotes.\n"
      << "Ignore patterns are shell patterns: \\fB*\\fR and \\fB?\\fR within a name,\n"
      << "\\fB[...]\\fR, \\fB**\\fR across directories; a pattern without \\fB/\\fR matches a\n"
      << "name at any depth, a leading \\fB/\\fR anchors it at the package directory, a\n"
      << "trailing \\fB/\\fR matches directories only. The patterns given to\n"
      << "\\fBmanifest sign\\fR are recorded in the signed manifest and honoured by every\n"
      << "verification; \\fBverify \\-\\-ignore\\fR can add more, never remove one.\n"
      << ".SH REVOCATION\n"
      << "An ACL entry whose tag is \\fB(revoke SCOPE...)\\fR names the key that issues the\n"
      << "revocation lists of that scope; the store keeps the current one as\n"
      << "\\fIDIR\\fB/cert/(revoke SCOPE...).crl\\fR (\\fBcrl import\\fR puts it there).\n"
      << "\\fBcert verify\\fR checks every certificate of a chain against the stored lists\n"
      << "that the ACL names (\\fBauthorize\\fR, which has no store, checks none).\n"
      << "\\fBverify\\fR checks the manifest's chain against those lists and the\n"
      << "lists shipped in the manifest (\\fBmanifest sign \\-\\-crl\\fR or \\fB\\-\\-store\\fR); "
         "a\n"
      << "list counts only when the ACL names its issuer, and a list that revokes wins over\n"
      << "every other. A revoked key fails every package it signs; a revoked certificate\n"
      << "counts from its revocation date; a certificate issued with\n"
      << "\\fB\\-\\-revocation\\-scope\\fR is good only while a current list of its scope\n"
      << "clears it. \\fBcrl import\\fR never replaces a stored list with one issued earlier\n"
      << "or at the same time (its not\\-before is its issue time).\n"
      << ".SH ROLLBACK PROTECTION\n"
      << "\\fBverify\\fR remembers, for each package, the newest time of signing it has\n"
      << "verified in full, in \\fIDIR\\fB/rollback/\\fR, one file per package named after the\n"
      << "SHA\\-256 of its identity: the name that \\fBmanifest sign \\-\\-name\\fR records in\n"
      << "the signed header, or the package directory's absolute path. A manifest older\n"
      << "than that is refused unless \\fB\\-\\-allow\\-older\\fR; one dated more than five\n"
      << "minutes ahead of the clock is refused always. The record is written whole, under\n"
      << "the store's lock, only after a verification that succeeded and only when the\n"
      << "store is writable: a read\\-only store is checked, not written.\n"
      << ".SH ENVIRONMENT\n"
      << ".TP\n.B VELK2_STORE\n"
      << "the store when no \\fB\\-\\-store\\fR is given.\n"
      << ".TP\n.B VELK2_CONFIG\n"
      << "the configuration file to read instead of the ones under FILES.\n"
      << ".TP\n.B XDG_CONFIG_HOME\n"
      << "where a user's configuration lies (default: \\fI~/.config\\fR).\n"
      << ".SH FILES\n"
      << ".TP\n.I /etc/velk2/velk2.conf\n"
      << "the system's configuration: lines \\fBstore = DIR\\fR, \\fBtag = TEXT\\fR and\n"
      << "\\fBjobs = N\\fR, \\fB#\\fR starting a comment; they give the defaults of\n"
      << "\\fB\\-\\-store\\fR, \\fB\\-\\-tag\\fR and \\fB\\-\\-jobs\\fR for\n"
      << "\\fBverify\\fR and \\fBcert verify\\fR (the store for \\fBcrl import\\fR and\n"
      << "\\fBcrl verify\\fR too). The store falls back to \\fB$VELK2_STORE\\fR, then the\n"
      << "configuration, then \\fI/etc/velk2\\fR.\n"
      << ".TP\n.I ~/.config/velk2/velk2.conf\n"
      << "a user's configuration, read before the system's: what it sets wins.\n"
      << ".TP\n.I /etc/velk2\n"
      << "A store (\\fB\\-\\-store DIR\\fR) holds \\fIDIR\\fB/acl/*.acl\\fR, one ACL entry a\n"
      << "file, \\fIDIR\\fB/cert/\\fR with certificate files (\\fB*.cert\\fR), revocation\n"
      << "lists (\\fB*.crl\\fR, one per scope, named after it) and the lock\n"
      << "\\fBstore.lock\\fR, and \\fIDIR\\fB/rollback/\\fR with the rollback records; public\n"
      << "keys are \\fB*.pub\\fR files, private keys \\fB*.pem\\fR (made by \\fBvelk2 key "
         "new\\fR).\n"
      << "A package's manifest is \\fIPKGDIR\\fB/manifest\\fR unless named.\n"
      << ".SH EXAMPLES\n"
      << ".nf\nvelk2 verify /opt/hello \\-t '(pkg install)'\n"
      << "velk2 verify /opt/hello \\-\\-store /etc/velk2 \\-\\-tag '(pkg install)' \\-\\-json\n"
      << "velk2 manifest sign pkg \\-\\-key build.pem \\-\\-chain signer.cert "
         "\\-\\-tag '(pkg install)' \\-\\-out pkg/manifest\n"
      << "velk2 cert verify chain.cert \\-\\-store /etc/velk2 \\-\\-tag '(pkg install)' "
         "\\-\\-explain\n.fi\n"
      << ".SH SEE ALSO\n"
      << ".BR sha256sum (1),\n.BR mtree (8),\n.BR aide (1),\n.BR debsums (1),\n"
      << ".BR openssl (1),\n.BR dpkg (1)\n";
  return out.str();
}

std::string BashCompletion() {
  std::map<std::string, std::set<std::string>> words;    // first word -> second words
  std::map<std::string, std::set<std::string>> options;  // command name -> options
  for (const Command& c : Commands()) {
    const std::string name = c.name;
    const size_t space = name.find(' ');
    words[name.substr(0, space)];
    if (space != std::string::npos) words[name.substr(0, space)].insert(name.substr(space + 1));
    for (const OptionSpec& option : c.options) {
      options[name].insert(std::string("--") + option.name);
    }
    options[name].insert("--help");
  }
  std::ostringstream out;
  out << "# bash completion for velk2, made from its command table\n"
      << "_velk2() {\n"
      << "  local cur=${COMP_WORDS[COMP_CWORD]} first=${COMP_WORDS[1]} second=${COMP_WORDS[2]}\n"
      << "  if [ \"$COMP_CWORD\" -eq 1 ]; then\n"
      << "    COMPREPLY=($(compgen -W '";
  for (const auto& [first, second] : words) out << first << " ";
  out << "--help --version' -- \"$cur\"))\n    return\n  fi\n"
      << "  case $first in\n";
  for (const auto& [first, second] : words) {
    if (second.empty()) continue;
    out << "    " << first << ")\n      if [ \"$COMP_CWORD\" -eq 2 ]; then\n"
        << "        COMPREPLY=($(compgen -W '";
    for (const std::string& word : second) out << word << " ";
    out << "' -- \"$cur\"))\n        return\n      fi\n      first=\"$first $second\" ;;\n";
  }
  out << "  esac\n  case $cur in\n    --*)\n      case $first in\n";
  for (const auto& [name, list] : options) {
    out << "        '" << name << "') COMPREPLY=($(compgen -W '";
    for (const std::string& option : list) out << option << " ";
    out << "' -- \"$cur\")) ;;\n";
  }
  out << "      esac ;;\n    *) COMPREPLY=($(compgen -f -- \"$cur\")) ;;\n  esac\n}\n"
      << "complete -o filenames -F _velk2 velk2\n";
  return out.str();
}

}  // namespace velk2::cli
