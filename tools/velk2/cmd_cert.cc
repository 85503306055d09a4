// velk2 cert issue: sign a certificate and append it to a certificate file.
#include <cstdio>
#include <string>

#include "platform/zcry.h"
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

int RunCertIssue(const Args& args) {
  const char* kName = "cert issue";
  Options options({"issuer", "subject", "subject-hash", "tag", "not-before", "not-after", "comment",
                   "owner", "alg", "hash", "out"},
                  {"propagate"});
  if (!options.Parse(args)) return UsageError(kName, options.error());
  std::optional<std::string> issuer_path = options.Get("issuer");
  std::optional<std::string> subject_path = options.Get("subject");
  std::optional<std::string> subject_hash_path = options.Get("subject-hash");
  std::optional<std::string> tag_text = options.Get("tag");
  std::optional<std::string> out = options.Get("out");
  if (!issuer_path || !tag_text || !out) {
    return UsageError(kName, "--issuer, --tag and --out are required");
  }
  if (subject_path.has_value() == subject_hash_path.has_value()) {
    return UsageError(kName, "give exactly one of --subject and --subject-hash");
  }
  issuing::CertificateRequest request;
  request.propagate = options.Has("propagate");
  request.comment = options.Get("comment");
  for (const char* field : {"not-before", "not-after"}) {
    if (std::optional<std::string> text = options.Get(field)) {
      int64_t time = 0;
      if (issuing::ParseDate(*text, &time) != VELK2_SUCCESS) {
        return UsageError(kName, "--" + std::string(field) + " '" + *text +
                                     "' is not a date YYYY-MM-DD_hh:mm:ss");
      }
      (field[4] == 'b' ? request.not_before : request.not_after) = time;
    }
  }
  if (request.not_before && request.not_after && *request.not_before > *request.not_after) {
    return UsageError(kName, "--not-before is after --not-after");
  }
  Result r = issuing::ParseTag(*tag_text, &request.tag);
  if (r != VELK2_SUCCESS) return FailWith(kExitUsage, kName, "cannot read the tag", r);

  PrivateKey key;
  r = PrivateKey::LoadPem(*issuer_path, &key);
  if (r != VELK2_SUCCESS) return FailWith(kExitUsage, kName, "cannot read " + *issuer_path, r);
  std::string algorithm = key.type() == KeyType::kRsa ? issuing::kRsaPss : issuing::kDsaSha1;
  if (std::optional<std::string> alg = options.Get("alg")) algorithm = *alg;
  uint32_t hash_id = key.type() == KeyType::kRsa ? ZCRY_HASH_SHA256 : ZCRY_HASH_SHA1;
  if (std::optional<std::string> hash = options.Get("hash")) {
    if (*hash != "sha1" && *hash != "sha256") return UsageError(kName, "--hash is sha1 or sha256");
    hash_id = *hash == "sha1" ? ZCRY_HASH_SHA1 : ZCRY_HASH_SHA256;
  }
  bool fits = key.type() == KeyType::kRsa
                  ? (algorithm == issuing::kRsaPss || algorithm == issuing::kRsaPkcs1)
                  : (algorithm == issuing::kDsaSha1 && hash_id == ZCRY_HASH_SHA1);
  if (!fits) {
    return UsageError(kName, "--alg " + algorithm + " with this hash does not fit a " +
                                 (key.type() == KeyType::kRsa ? "RSA" : "DSA") + " key");
  }

  Ref<SexpList> issuer;
  r = issuing::MakePublicKey(key, &issuer);
  if (r != VELK2_SUCCESS) return FailWith(kExitFailure, kName, "cannot build the issuer", r);
  request.issuer = std::move(issuer);
  Ref<SexpList> subject;
  if (subject_path) {
    r = LoadPublicKey(*subject_path, &subject);
    if (r != VELK2_SUCCESS) return FailWith(kExitUsage, kName, "cannot read " + *subject_path, r);
  } else {
    Ref<SexpList> named;
    r = issuing::ReadObjectFile(*subject_hash_path, &named);
    if (r == VELK2_SUCCESS) r = issuing::MakeHashPrincipal(*named, &subject);
    if (r != VELK2_SUCCESS) {
      return FailWith(kExitUsage, kName, "cannot read " + *subject_hash_path, r);
    }
  }
  request.subject = std::move(subject);

  Ref<SexpList> body, signature;
  r = issuing::MakeCertificateBody(request, &body);
  if (r == VELK2_SUCCESS) r = issuing::SignObject(key, *body, algorithm, hash_id, &signature);
  if (r != VELK2_SUCCESS) return FailWith(kExitFailure, kName, "cannot sign the certificate", r);
  std::string owner = options.Get("owner").value_or(Stem(*issuer_path));
  r = issuing::AppendCertificate(*out, std::move(body), std::move(signature), owner);
  if (r != VELK2_SUCCESS) return FailWith(kExitUsage, kName, "cannot write " + *out, r);
  std::printf("%s\n", out->c_str());
  return kExitOk;
}

VELK2_COMMAND("cert issue",
              "--issuer NAME.pem --subject FILE.pub|--subject-hash FILE --tag TEXT [--propagate] "
              "[--not-before DATE] [--not-after DATE] [--comment TEXT] [--owner TEXT] "
              "[--alg rsa-pss|rsa-1.5|dsa-sha1] [--hash sha1|sha256] --out FILE.cert",
              "sign a certificate and append it to FILE.cert (created when missing); TEXT is a tag "
              "such as '(pkg install)', DATE is YYYY-MM-DD_hh:mm:ss in UTC",
              RunCertIssue);

}  // namespace
}  // namespace velk2::cli
