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

// The options a usage names: every word that starts with "--".
std::set<std::string> OptionsOf(const std::string& usage) {
  std::set<std::string> options;
  for (size_t at = usage.find("--"); at != std::string::npos; at = usage.find("--", at + 2)) {
    size_t end = at + 2;
    while (end < usage.size() &&
           (std::isalnum(static_cast<unsigned char>(usage[end])) || usage[end] == '-')) {
      ++end;
    }
    if (end > at + 2) options.insert(usage.substr(at, end - at));
    at = end - 2;
  }
  return options;
}

std::string Version() {
  const int32_t number = Velk2VersionNumber();
  return std::to_string(number / 10000) + "." + std::to_string(number / 100 % 100) + "." +
         std::to_string(number % 100);
}

}  // namespace

std::string ManualPage() {
  std::ostringstream out;
  out << ".TH VELK2 1 \"\" \"velk2 " << Version() << "\" \"User Commands\"\n"
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
        << Roff(c.usage) << "\n.IP\n"
        << Roff(c.summary) << "\n";
  }
  out << ".SH CONVENTIONS\n"
      << "Tags are written readably, such as \\fB(pkg install)\\fR or\n"
      << "\\fB(ftp (* set read write))\\fR; each token is an atom exactly as typed.\n"
      << "Dates are \\fBYYYY\\-MM\\-DD_hh:mm:ss\\fR in UTC. Every text that comes from a file\n"
      << "is printed escaped. Only regular files are read as credentials.\n"
      << ".SH EXIT STATUS\n"
      << "0 success or verified; 1 failure, not verified or not authorized; 2 usage,\n"
      << "unreadable input, or a question that could not be decided.\n"
      << ".SH FILES\n"
      << "A store (\\fB\\-\\-store DIR\\fR) holds \\fIDIR\\fB/acl/*.acl\\fR, one ACL entry a\n"
      << "file, and \\fIDIR\\fB/cert/\\fR with certificate files (\\fB*.cert\\fR) and\n"
      << "revocation lists (\\fB*.crl\\fR, one per scope, named after it); public keys are\n"
      << "\\fB*.pub\\fR files, private keys \\fB*.pem\\fR (made by \\fBvelk2 key new\\fR).\n"
      << "A package's manifest is \\fIPKGDIR\\fB/manifest\\fR unless named.\n"
      << ".SH EXAMPLES\n"
      << ".nf\nvelk2 verify /opt/hello \\-\\-store /etc/velk2 \\-\\-tag '(pkg install)'\n"
      << "velk2 manifest sign pkg \\-\\-key build.pem \\-\\-chain signer.cert "
         "\\-\\-tag '(pkg install)' \\-\\-out pkg/manifest\n"
      << "velk2 cert verify chain.cert \\-\\-store /etc/velk2 \\-\\-tag '(pkg install)' "
         "\\-\\-explain\n.fi\n";
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
    options[name] = OptionsOf(c.usage);
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
