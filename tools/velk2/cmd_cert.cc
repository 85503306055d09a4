// velk2 cert issue: sign a certificate and append it to a certificate file.
#include <cstdio>
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

// The base name of a path without its extension: the default owner of a certificate.
std::string Stem(const std::string& path) {
  size_t slash = path.find_last_of('/');
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  size_t dot = name.find_last_of('.');
  return dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
}

}  // namespace

int RunCertIssue(const Args& args) {
  const char* kName = "cert issue";
  Options options(kName);
  if (!options.Parse(args)) return UsageError(kName, options.error());
  std::optional<std::string> issuer_path = options.Get("issuer");
  std::optional<std::string> out = options.Get("out");
  if (!issuer_path || !out) return UsageError(kName, "--issuer, --tag and --out are required");
  issuing::CertificateRequest request;
  if (int exit = ReadGrantOptions(options, kName, &request); exit != kExitOk) return exit;
  if (int exit = ReadSubjectOption(options, kName, &request.subject); exit != kExitOk) return exit;
  if (std::optional<std::string> scope = options.Get("revocation-scope")) {
    Result r = issuing::ParseTag(*scope, &request.revocation_scope);
    if (r != VELK2_SUCCESS) return FailWith(kExitUsage, kName, "cannot read the scope", r);
  }

  PrivateKey key;
  std::string problem;
  Result r =
      issuing::LoadKeyFile(*issuer_path, PassphraseFileOption(options, kName), &key, &problem);
  if (!problem.empty()) return Fail(kExitUsage, kName, problem);
  if (r != VELK2_SUCCESS) return FailReading(kExitUsage, kName, *issuer_path, r);
  std::string algorithm = key.type() == KeyType::kRsa ? issuing::kRsaPss : issuing::kDsaSha1;
  if (std::optional<std::string> alg = options.Get("alg")) algorithm = *alg;
  uint32_t hash_id = key.type() == KeyType::kRsa ? issuing::kHashSha256 : issuing::kHashSha1;
  if (std::optional<std::string> hash = options.Get("hash")) {
    if (*hash != "sha1" && *hash != "sha256") return UsageError(kName, "--hash is sha1 or sha256");
    hash_id = *hash == "sha1" ? issuing::kHashSha1 : issuing::kHashSha256;
  }
  bool fits = key.type() == KeyType::kRsa
                  ? (algorithm == issuing::kRsaPss || algorithm == issuing::kRsaPkcs1)
                  : (algorithm == issuing::kDsaSha1 && hash_id == issuing::kHashSha1);
  if (!fits) {
    return UsageError(kName, "--alg " + algorithm + " with this hash does not fit a " +
                                 (key.type() == KeyType::kRsa ? "RSA" : "DSA") + " key");
  }
  if (hash_id == issuing::kHashSha1) {
    std::fprintf(stderr, "velk2 %s: warning: %s\n", kName, issuing::kSha1Warning);
  }

  Ref<SexpList> issuer;
  r = issuing::MakePublicKey(key, &issuer);
  if (r != VELK2_SUCCESS) return FailWith(kExitFailure, kName, "cannot build the issuer", r);
  request.issuer = std::move(issuer);

  Ref<SexpList> body, signature;
  r = issuing::MakeCertificateBody(request, &body);
  if (r == VELK2_SUCCESS) r = issuing::SignObject(key, *body, algorithm, hash_id, &signature);
  if (r != VELK2_SUCCESS) return FailWith(kExitFailure, kName, "cannot sign the certificate", r);
  std::string owner = options.Get("owner").value_or(Stem(*issuer_path));
  const bool prepend = options.Has("prepend");
  r = issuing::AppendCertificate(
      *out, std::move(body), std::move(signature), owner,
      prepend ? issuing::Placement::kPrependLeafFirst : issuing::Placement::kAppendLeafFirst);
  if (r == VELK2_ERR_SIGNING_CERT_ORDER) {
    const std::string file = EscapeForDisplay(*out);
    return Fail(kExitUsage, kName,
                prepend ? file +
                              " starts with a certificate issued by this certificate's subject; a "
                              "chain file holds its leaf certificate first, so this one belongs "
                              "after it: issue it without --prepend. The file is kept as it was"
                        : file +
                              " ends with the certificate that granted this certificate's "
                              "issuer; a chain file holds its leaf certificate first, each next "
                              "one granting the issuer of the one before, as manifest sign and "
                              "cert verify read it: use --prepend to put this certificate first, "
                              "or issue the leaf certificate first. The file is kept as it was");
  }
  if (r == VELK2_ERR_BUFFER_OVERFLOW) {
    return FailWith(kExitUsage, kName,
                    *out +
                        " would grow past 1 MiB, the most any reader loads; it is kept as it "
                        "was (start another certificate file)",
                    r);
  }
  if (r == VELK2_ERR_INVALID_S_EXPRESSION) {
    return FailWith(kExitUsage, kName,
                    "the certificate nests deeper than the authorization engine goes; no question "
                    "could use it",
                    r);
  }
  if (r != VELK2_SUCCESS) return FailWriting(kExitUsage, kName, *out, r);
  std::printf("%s\n", EscapeForDisplay(*out).c_str());
  return kExitOk;
}

}  // namespace velk2::cli
