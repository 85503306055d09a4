// velk2 crl issue and velk2 crl show: making a revocation list and reading one.
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "platform/utf.h"
#include "tools/issuing/issuer.h"
#include "tools/issuing/private_key.h"
#include "tools/issuing/revocation.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/messages.h"
#include "tools/velk2/options.h"
#include "tools/velk2/support.h"
#include "trust/tool_api.h"

namespace velk2::cli {
namespace {

// The certificate body named by "FILE.cert#N" (N counted from 1).
int ReadRevokedCertificate(const char* command, const std::string& spec, Ref<SexpObject>* out) {
  const size_t hash = spec.rfind('#');
  const std::string number = hash == std::string::npos ? "" : spec.substr(hash + 1);
  if (number.empty() || number.size() > 6 ||
      number.find_first_not_of("0123456789") != std::string::npos || std::stoul(number) == 0) {
    return UsageError(command, "--revoke-cert takes FILE.cert#N, N counting certificates from 1: " +
                                   EscapeForDisplay(spec));
  }
  const std::string file = spec.substr(0, hash);
  bool scoped = false;
  size_t count = 0;
  const Result r = issuing::ReadCertificateAt(file, std::stoul(number) - 1, out, &scoped, &count);
  if (r == VELK2_ERR_INVALID_PARAM) {
    return UsageError(command, EscapeForDisplay(file) + " holds " + std::to_string(count) +
                                   " certificates, not " + number);
  }
  if (r != VELK2_SUCCESS) {
    return FailReading(kExitUsage, command, file, r);
  }
  // A certificate is looked up in a list's certificate section only when it
  // names a scope; otherwise only its subject key is ever checked.
  if (!scoped) {
    std::fprintf(stderr,
                 "velk2 %s: warning: %s carries no revocation scope, and certificate revocation "
                 "only reaches certificates issued with --revocation-scope: this entry will "
                 "revoke nothing; --revoke-key FILE.pub revokes its subject key instead\n",
                 command, EscapeForDisplay(spec).c_str());
  }
  return kExitOk;
}

}  // namespace

int RunCrlIssue(const Args& args) {
  const char* kName = "crl issue";
  Options options(kName);
  if (!options.Parse(args)) return UsageError(kName, options.error());
  std::optional<std::string> issuer_path = options.Get("issuer");
  std::optional<std::string> tag_text = options.Get("tag");
  std::optional<std::string> out = options.Get("out");
  if (!issuer_path || !tag_text || !out || !options.Has("not-before") ||
      !options.Has("not-after")) {
    return UsageError(kName, "--issuer, --tag, --not-before, --not-after and --out are required");
  }
  issuing::RevocationListRequest request;
  api::Period period;
  if (int exit = ReadPeriodOptions(options, kName, &period); exit != kExitOk) return exit;
  request.not_before = *period.not_before;
  request.not_after = *period.not_after;
  int64_t revoked_at = static_cast<int64_t>(std::time(nullptr));
  if (int exit = ReadDateOption(options, kName, "revoked-at", &revoked_at); exit != kExitOk) {
    return exit;
  }
  Result r = issuing::ParseTag(*tag_text, &request.scope);
  if (r != VELK2_SUCCESS) return FailWith(kExitUsage, kName, "cannot read the tag", r);
  for (const std::string& spec : options.GetAll("revoke-cert")) {
    Ref<SexpObject> certificate;
    if (int exit = ReadRevokedCertificate(kName, spec, &certificate); exit != kExitOk) return exit;
    request.certificates.push_back({certificate, revoked_at});
  }
  for (const std::string& path : options.GetAll("revoke-key")) {
    Ref<SexpList> key;
    r = issuing::LoadPublicKey(path, &key);
    if (r != VELK2_SUCCESS) {
      return FailReadingPublicKey(kExitUsage, kName, path, r);
    }
    request.keys.push_back({key, revoked_at});
  }

  issuing::PrivateKey key;
  std::string key_problem;
  r = issuing::LoadKeyFile(*issuer_path, PassphraseFileOption(options, kName), &key, &key_problem);
  if (!key_problem.empty()) return Fail(kExitUsage, kName, key_problem);
  if (r != VELK2_SUCCESS) {
    return FailReading(kExitUsage, kName, *issuer_path, r);
  }
  // A DSA key signs SHA-1 digests only.
  if (key.type() == issuing::KeyType::kDsa) {
    std::fprintf(stderr, "velk2 %s: warning: %s\n", kName, issuing::kSha1Warning);
  }
  std::string file;
  r = issuing::MakeRevocationList(key, request, &file);
  if (r != VELK2_SUCCESS) return FailWith(kExitFailure, kName, "cannot make the list", r);
  // A list is reissued often: the old one is replaced whole, never half-written.
  r = issuing::WriteFile(*out, file, 0644, true);
  if (r != VELK2_SUCCESS) {
    return FailWriting(kExitUsage, kName, *out, r);
  }
  std::printf("%s\n", EscapeForDisplay(*out).c_str());
  return kExitOk;
}

int RunCrlShow(const Args& args) {
  const char* kName = "crl show";
  if (args.size() != 1) return UsageError(kName, "one FILE is required");
  api::RevocationListInfo list;
  const Result r = api::DescribeRevocationList(args[0], &list);
  if (r != VELK2_SUCCESS) {
    return FailReading(kExitUsage, kName, args[0], r);
  }
  auto or_none = [](const std::string& text) {
    return text.empty() ? std::string("(none)") : EscapeForDisplay(text);
  };
  std::printf("issuer: %s\n", list.issuer.c_str());
  std::printf("scope: %s\n", list.scope.c_str());
  std::printf("not-before: %s\n", or_none(list.not_before).c_str());
  std::printf("not-after: %s\n", or_none(list.not_after).c_str());
  const std::pair<const std::vector<api::RevokedItem>*, const char*> kinds[] = {
      {&list.certificates, "certificate"}, {&list.keys, "key"}};
  for (const auto& [items, name] : kinds) {
    std::printf("revoked %ss: %zu\n", name, items->size());
    for (const api::RevokedItem& item : *items) {
      std::printf("  %s %s revoked %s\n", name, item.hash.c_str(),
                  EscapeForDisplay(item.date).c_str());
    }
  }
  return kExitOk;
}

}  // namespace velk2::cli
