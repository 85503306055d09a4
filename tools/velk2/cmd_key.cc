// velk2 key new / key show: key pairs for the issuing toolkit.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tools/issuing/issuer.h"
#include "tools/issuing/private_key.h"
#include "tools/velk2/commands.h"
#include "tools/velk2/options.h"
#include "tools/velk2/support.h"

namespace velk2::cli {
namespace {

using issuing::KeyType;
using issuing::PrivateKey;

}  // namespace

int RunKeyNew(const Args& args) {
  Options options("key new");
  if (!options.Parse(args)) return UsageError("key new", options.error());
  std::optional<std::string> type = options.Get("type");
  std::optional<std::string> out = options.Get("out");
  if (!type || !out) return UsageError("key new", "--type and --out are required");
  if (*type != "rsa" && *type != "dsa") return UsageError("key new", "--type is rsa or dsa");
  int bits = 2048;
  if (std::optional<std::string> b = options.Get("bits")) {
    char* end = nullptr;
    long value = std::strtol(b->c_str(), &end, 10);
    if (b->empty() || *end != 0 || value < 2048 || value > 16384) {
      return UsageError("key new", "--bits must be a number from 2048 to 16384");
    }
    if (*type == "dsa" && value != 1024) return UsageError("key new", "DSA keys have 1024 bits");
    bits = static_cast<int>(value);
  }
  bool force = options.Has("force");
  std::string pem = *out + ".pem", pub = *out + ".pub";
  if (!force && (FileExists(pem) || FileExists(pub))) {
    return Fail(kExitUsage, "key new", pem + " or " + pub + " exists (use --force to replace)");
  }
  PrivateKey key;
  Result r = PrivateKey::Generate(*type == "rsa" ? KeyType::kRsa : KeyType::kDsa, bits, &key);
  if (r != VELK2_SUCCESS) return FailWith(kExitFailure, "key new", "cannot generate the key", r);
  Ref<SexpList> public_key;
  r = issuing::MakePublicKey(key, &public_key);
  if (r != VELK2_SUCCESS)
    return FailWith(kExitFailure, "key new", "cannot build the public key", r);
  r = key.SavePem(pem, force);
  if (r != VELK2_SUCCESS) return FailWriting(kExitUsage, "key new", pem, r);
  r = issuing::WriteFile(pub, issuing::CanonicalText(*public_key), 0644, force);
  if (r != VELK2_SUCCESS) return FailWriting(kExitUsage, "key new", pub, r);
  std::printf("%s\n%s\n", pem.c_str(), pub.c_str());
  return kExitOk;
}

int RunKeyShow(const Args& args) {
  if (args.size() != 1) return UsageError("key show", "expected one FILE");
  issuing::KeyInfo info;
  Result r = issuing::ReadKeyInfo(args[0], &info);
  if (r != VELK2_SUCCESS) return FailReading(kExitUsage, "key show", args[0], r);
  std::printf("type: %s\nbits: %u\nsha256: %s\n", info.type.c_str(), info.bits,
              info.fingerprint.c_str());
  return kExitOk;
}

}  // namespace velk2::cli
