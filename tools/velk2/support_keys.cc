#include <sys/stat.h>

#include <cstdio>

#include "credentials/public_key.h"
#include "platform/utf.h"
#include "platform/zcry.h"
#include "sexp/source.h"
#include "tools/issuing/issuer.h"
#include "tools/issuing/private_key.h"
#include "tools/velk2/messages.h"
#include "tools/velk2/support.h"

namespace velk2::cli {
namespace {

bool EndsWith(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() &&
         s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The size in bits of an unsigned big-endian integer atom.
uint32_t BitLength(const SexpAtom* atom) {
  std::string_view bytes = atom->bytes();
  size_t i = 0;
  while (i < bytes.size() && bytes[i] == 0) ++i;
  if (i == bytes.size()) return 0;
  uint32_t bits = static_cast<uint32_t>((bytes.size() - i) * 8);
  for (uint8_t top = static_cast<uint8_t>(bytes[i]); (top & 0x80) == 0; top <<= 1) --bits;
  return bits;
}

}  // namespace

int Fail(int exit_code, const char* command, const std::string& message) {
  std::fprintf(stderr, "velk2 %s: %s\n", command, message.c_str());
  return exit_code;
}

int FailWith(int exit_code, const char* command, const std::string& message, Result code) {
  return Fail(exit_code, command,
              message + ": " + std::to_string(static_cast<int32_t>(code)) + " " +
                  MessageOf(static_cast<int32_t>(code)));
}

bool FileExists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

Result LoadPublicKey(const std::string& path, Ref<SexpList>* out) {
  if (EndsWith(path, ".pem")) {
    issuing::PrivateKey key;
    Result r = issuing::PrivateKey::LoadPem(path, &key);
    if (r != VELK2_SUCCESS) return r;
    return issuing::MakePublicKey(key, out);
  }
  // A .pub file must hold exactly one key that the library itself accepts.
  std::unique_ptr<SexpMemorySource> source = NewFileSource(Utf8ToUtf16(path).c_str());
  if (!source) return VELK2_ERR_FILE_OPEN;
  Ref<PublicKey> key = PublicKey::New();
  Result r = key->Parse(source.get());
  if (r != VELK2_SUCCESS) return r;
  if (source->position() != source->length()) return VELK2_ERR_PARSE_FILE;
  *out = std::move(key);
  return VELK2_SUCCESS;
}

Result ReadKeyInfo(const std::string& path, KeyInfo* info) {
  Ref<SexpList> key;
  Result r = LoadPublicKey(path, &key);
  if (r != VELK2_SUCCESS) return r;
  const SexpList* algorithm = key->ChildAt(1)->AsList();
  info->type = std::string(algorithm->FirstChild()->AsAtom()->bytes());
  // The size of the modulus (RSA) or of the prime p (DSA): the second parameter or the first.
  const SexpObject* size_parameter = algorithm->ChildAt(info->type == "rsa" ? 2 : 1);
  const SexpList* parameter = size_parameter ? size_parameter->AsList() : nullptr;
  const SexpObject* value = parameter ? parameter->ChildAt(1) : nullptr;
  if (value == nullptr || value->IsList()) return VELK2_ERR_PRINCIPAL;
  info->bits = BitLength(value->AsAtom());
  CBuffer<uint8_t> digest;
  uint32_t length = 0;
  r = ComputeHash(key.get(), &digest, &length, ZCRY_HASH_SHA256, true);
  if (r != VELK2_SUCCESS) return r;
  info->fingerprint = HexString(digest.get(), length);
  return VELK2_SUCCESS;
}

}  // namespace velk2::cli
