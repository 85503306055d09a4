#include "tools/issuing/issuer.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <vector>

#include "credentials/certificate.h"
#include "credentials/certificate_sequence.h"
#include "credentials/date.h"
#include "credentials/public_key.h"
#include "credentials/signature.h"
#include "engine/status.h"
#include "platform/files.h"
#include "platform/utf.h"
#include "platform/zcry.h"
#include "sexp/reader.h"
#include "sexp/source.h"
#include "trust/authorize.h"

namespace velk2::issuing {
namespace {

Result AppendAtom(SexpList* list, const void* bytes, size_t length, DisplayHint hint = kHintNone) {
  Ref<SexpAtom> atom = SexpAtom::New(list->context());
  Result r = atom->SetAtomValue(bytes, static_cast<uint32_t>(length), hint);
  if (r != VELK2_SUCCESS) return r;
  return list->Append(std::move(atom));
}

// (name value) with a binary value atom, as key parameters are stored.
Result AppendParameter(SexpList* list, const char* name, const std::vector<uint8_t>& value) {
  Ref<SexpList> parameter;
  Result r = NewKeywordList(&parameter, name, list->context());
  if (r == VELK2_SUCCESS) r = AppendAtom(parameter.get(), value.data(), value.size());
  if (r == VELK2_SUCCESS) r = list->Append(std::move(parameter));
  return r;
}

Result AppendDate(SexpList* valid, const char* keyword, int64_t time) {
  std::string text = FormatDate(time);
  if (text.empty()) return VELK2_ERR_INVALID_PARAM;
  Ref<SexpList> field;
  Result r = NewKeywordListWithText(&field, keyword, text.c_str(), valid->context());
  if (r == VELK2_SUCCESS) r = valid->Append(std::move(field));
  return r;
}

const char* HashName(uint32_t hash_id) {
  switch (hash_id) {
    case ZCRY_HASH_SHA1:
      return "sha1";
    case ZCRY_HASH_SHA256:
      return "sha256";
    default:
      return nullptr;
  }
}

}  // namespace

Result MakePublicKey(const PrivateKey& key, Ref<SexpList>* out) {
  if (!key.valid()) return VELK2_ERR_INVALID_PARAM;
  bool rsa = key.type() == KeyType::kRsa;
  Ref<SexpList> algorithm;
  Result r = NewKeywordList(&algorithm, rsa ? "rsa" : "dsa", nullptr);
  // The order of the parameters is part of the format: e, n; and p, g, q, y.
  const char* const names[] = {"e", "n", "p", "g", "q", "y"};
  for (size_t i = rsa ? 0 : 2; r == VELK2_SUCCESS && i < (rsa ? 2u : 6u); ++i) {
    r = AppendParameter(algorithm.get(), names[i], key.Parameter(names[i]));
  }
  Ref<SexpList> public_key;
  if (r == VELK2_SUCCESS) r = NewKeywordList(&public_key, "public-key", nullptr);
  if (r == VELK2_SUCCESS) r = public_key->Append(std::move(algorithm));
  if (r == VELK2_SUCCESS) *out = std::move(public_key);
  return r;
}

Result MakeHashPrincipal(const SexpObject& object, Ref<SexpList>* out) {
  CBuffer<uint8_t> digest;
  uint32_t length = 0;
  Result r = ComputeHash(&object, &digest, &length, ZCRY_HASH_SHA256, true);
  Ref<SexpList> hash;
  if (r == VELK2_SUCCESS) r = NewKeywordListWithText(&hash, "hash", "sha256", nullptr);
  if (r == VELK2_SUCCESS) r = AppendAtom(hash.get(), digest.get(), length);
  if (r == VELK2_SUCCESS) *out = std::move(hash);
  return r;
}

Result SignObject(const PrivateKey& key, const SexpObject& object, const std::string& algorithm,
                  uint32_t hash_id, Ref<SexpList>* out) {
  const char* hash_name = HashName(hash_id);
  if (hash_name == nullptr) return VELK2_ERR_HASH_ID;
  // The library checks a DSA signature against the object's SHA-1 digest,
  // whatever the hash value names, so a DSA signer always hashes with SHA-1.
  uint32_t signed_hash = algorithm == kDsaSha1 ? ZCRY_HASH_SHA1 : hash_id;
  CBuffer<uint8_t> digest;
  uint32_t length = 0;
  Result r = ComputeHash(&object, &digest, &length, signed_hash, false);
  if (r != VELK2_SUCCESS) return r;
  std::vector<uint8_t> signature_bytes;
  r = key.SignDigest(algorithm, signed_hash, digest.get(), length, &signature_bytes);
  if (r != VELK2_SUCCESS) return r;

  Ref<SexpList> hash_value, signer, value, signature;
  r = NewKeywordListWithText(&hash_value, "hash", HashName(signed_hash), nullptr);
  if (r == VELK2_SUCCESS) r = AppendAtom(hash_value.get(), digest.get(), length);
  if (r == VELK2_SUCCESS) r = MakePublicKey(key, &signer);
  if (r == VELK2_SUCCESS) r = NewKeywordList(&value, algorithm.c_str(), nullptr);
  if (r == VELK2_SUCCESS)
    r = AppendAtom(value.get(), signature_bytes.data(), signature_bytes.size());
  if (r == VELK2_SUCCESS) r = NewKeywordList(&signature, "signature", nullptr);
  if (r == VELK2_SUCCESS) r = signature->Append(std::move(hash_value));
  if (r == VELK2_SUCCESS) r = signature->Append(std::move(signer));
  if (r == VELK2_SUCCESS) r = signature->Append(std::move(value));
  if (r == VELK2_SUCCESS) *out = std::move(signature);
  return r;
}

Result ParseTag(const std::string& text, Ref<SexpList>* out) {
  if (text.find('\0') != std::string::npos) return VELK2_ERR_UNEXPECTED_CHAR;
  Ref<SexpList> tag;
  const Result r = ReadTagText(text.c_str(), nullptr, &tag);
  if (r != VELK2_SUCCESS) return r;
  // A credential that grants nothing at all is a mistake, never a wish.
  if (tag->ChildCount() < 2) return VELK2_ERR_INVALID_PARAM;
  *out = std::move(tag);
  return VELK2_SUCCESS;
}

namespace {

// ISO 8601 as people write it, read with the C library: "2026-01-01"
// (midnight), "2026-01-01T12:00:00" or with a space for the "T", then
// nothing (UTC), "Z", or an offset "+02:00", "-0530". The time in the
// native form, or nullopt.
std::optional<std::string> IsoToNative(const std::string& text) {
  struct tm fields {};
  const char* rest = ::strptime(text.c_str(), "%Y-%m-%d", &fields);
  if (rest == nullptr || rest - text.c_str() != 10) return std::nullopt;
  if (*rest == 'T' || *rest == ' ') {
    const char* time_start = rest + 1;
    rest = ::strptime(time_start, "%H:%M:%S", &fields);
    if (rest == nullptr || rest - time_start != 8) return std::nullopt;
  }
  int64_t offset = 0;  // seconds east of UTC
  if (*rest == 'Z') {
    ++rest;
  } else if (*rest == '+' || *rest == '-') {
    const int sign = *rest == '-' ? -1 : 1;
    int hours = 0, minutes = 0, used = 0;
    if (std::sscanf(rest + 1, "%2d:%2d%n", &hours, &minutes, &used) != 2 || used != 5) {
      used = 0;
      if (std::sscanf(rest + 1, "%2d%2d%n", &hours, &minutes, &used) != 2 || used != 4) {
        return std::nullopt;
      }
    }
    if (hours > 23 || minutes > 59) return std::nullopt;
    offset = sign * (hours * 3600 + minutes * 60);
    rest += 1 + used;
  }
  if (*rest != '\0') return std::nullopt;
  const struct tm asked = fields;
  const time_t utc = ::timegm(&fields);
  // timegm moves a day past the month's end into the next month: such a
  // date was never a date.
  if (fields.tm_mday != asked.tm_mday || fields.tm_mon != asked.tm_mon ||
      fields.tm_hour != asked.tm_hour || fields.tm_min != asked.tm_min ||
      fields.tm_sec != asked.tm_sec) {
    return std::nullopt;
  }
  return DateText(static_cast<int64_t>(utc) - offset);
}

}  // namespace

Result ParseDate(const std::string& input, int64_t* out) {
  std::string text = input;
  if (text.size() != kDateLength || text[10] != '_') {
    std::optional<std::string> native = IsoToNative(text);
    if (!native) return VELK2_ERR_INVALID_PARAM;
    text = *native;
  }
  // Exactly 19 bytes, "%04d-%02d-%02d_%02d:%02d:%02d".
  static const char kShape[] = "dddd-dd-dd_dd:dd:dd";
  if (text.size() != kDateLength) return VELK2_ERR_INVALID_PARAM;
  for (size_t i = 0; i < kDateLength; ++i) {
    bool digit = text[i] >= '0' && text[i] <= '9';
    if (kShape[i] == 'd' ? !digit : text[i] != kShape[i]) return VELK2_ERR_INVALID_PARAM;
  }
  Ref<SexpAtom> atom = SexpAtom::New();
  Result r = atom->SetAtomValue(text.data(), kDateLength);
  if (r != VELK2_SUCCESS) return r;
  const int64_t time = ReadDate(atom.get());
  // The reader normalises out-of-range fields: a date that does not come
  // back as written was not a date.
  if (DateText(time) != text) return VELK2_ERR_INVALID_PARAM;
  *out = time;
  return VELK2_SUCCESS;
}

std::string FormatDate(int64_t time) {
  return DateText(time);
}

Result ReadObjectFile(const std::string& path, Ref<SexpList>* out) {
  std::unique_ptr<SexpMemorySource> source = NewFileSource(Utf8ToUtf16(path).c_str());
  if (!source) return VELK2_ERR_FILE_OPEN;
  Ref<SexpList> list;
  Result r = ParseCanonicalList(&list, source.get(), nullptr);
  if (r != VELK2_SUCCESS) return r;
  // A credential file holds one expression and nothing after it.
  if (source->position() != source->length()) return VELK2_ERR_PARSE_FILE;
  *out = std::move(list);
  return VELK2_SUCCESS;
}

Result AppendGrantFields(SexpList* list, const GrantFields& grant) {
  Ref<SexpList> propagate, valid, comment;
  Result r = VELK2_SUCCESS;
  if (grant.propagate) {
    r = NewKeywordList(&propagate, "propagate", list->context());
    if (r == VELK2_SUCCESS) r = list->Append(std::move(propagate));
  }
  if (r == VELK2_SUCCESS && grant.tag) r = list->Append(Ref<SexpList>(grant.tag));
  if (r == VELK2_SUCCESS && (grant.not_before || grant.not_after)) {
    r = NewKeywordList(&valid, "valid", list->context());
    if (r == VELK2_SUCCESS && grant.not_before) {
      r = AppendDate(valid.get(), "not-before", *grant.not_before);
    }
    if (r == VELK2_SUCCESS && grant.not_after) {
      r = AppendDate(valid.get(), "not-after", *grant.not_after);
    }
    if (r == VELK2_SUCCESS) r = list->Append(std::move(valid));
  }
  if (r == VELK2_SUCCESS && grant.comment) {
    r = NewKeywordListWithText(&comment, "comment", grant.comment->c_str(), list->context());
    if (r == VELK2_SUCCESS) r = list->Append(std::move(comment));
  }
  return r;
}

namespace {

// |object| read back as the library reads a principal from a certificate
// (a subject may also be a k-of-n group): what the toolkit signs is what
// every reader takes. VELK2_ERR_PRINCIPAL (11) for anything else.
Result AsPrincipal(const SexpObject& object, bool subject, Ref<Principal>* out) {
  const std::string stored = StoredForm(object);
  SexpMemorySource source;
  Result r = source.AttachCopy(stored.data(), stored.size());
  if (r != VELK2_SUCCESS) return r;
  r = subject ? ReadSubject(&source, out, nullptr) : ReadPrincipal(&source, out, nullptr);
  if (r == VELK2_SUCCESS && source.GetByte(false) != -1) r = VELK2_ERR_PRINCIPAL;
  return r == VELK2_ERR_MEM_ALLOC || r == VELK2_SUCCESS ? r : VELK2_ERR_PRINCIPAL;
}

Result DateAtom(int64_t time, Ref<SexpAtom>* out) {
  Ref<SexpAtom> atom = SexpAtom::New();
  Result r = WriteDate(atom.get(), time);
  if (r == VELK2_SUCCESS) *out = std::move(atom);
  return r == kDateUnrepresentable ? VELK2_ERR_INVALID_PARAM : r;
}

}  // namespace

Result MakeCertificateBody(const CertificateRequest& request, Ref<SexpList>* out) {
  if (!request.issuer || !request.subject) return VELK2_ERR_INVALID_PARAM;
  CertificateFields fields;
  Result r = AsPrincipal(*request.issuer, false, &fields.issuer);
  if (r == VELK2_SUCCESS) r = AsPrincipal(*request.subject, true, &fields.subject);
  fields.propagate = request.propagate;
  fields.tag = request.tag;
  if (r == VELK2_SUCCESS && request.not_before)
    r = DateAtom(*request.not_before, &fields.not_before);
  if (r == VELK2_SUCCESS && request.not_after) r = DateAtom(*request.not_after, &fields.not_after);
  if (r == VELK2_SUCCESS && request.comment) {
    fields.comment = SexpAtom::New();
    r = fields.comment->SetAtomValue(request.comment->data(),
                                     static_cast<uint32_t>(request.comment->size()));
  }
  if (r == VELK2_SUCCESS && request.revocation_scope) {
    // The library reads the scope back as the elements after the keyword.
    r = NewKeywordList(&fields.revocation_spec, "revocation", nullptr);
    const SexpList& scope = *request.revocation_scope;
    for (size_t i = 1; i < scope.ChildCount() && r == VELK2_SUCCESS; ++i) {
      r = fields.revocation_spec->Append(Ref<SexpObject>::Share(scope.ChildAt(i)));
    }
  }
  Ref<Certificate> body = Certificate::New();
  if (r == VELK2_SUCCESS) r = BuildCertificate(body.get(), fields);
  if (r == VELK2_SUCCESS) *out = std::move(body);
  return r;
}

namespace {

// The principal in the (|field| ...) element of the certificate body |cert|
// ("issuer" or "subject"); null when it has none.
const SexpObject* CertificateField(const SexpObject* cert, const char* field) {
  const SexpList* list = cert && cert->IsList() ? cert->AsList() : nullptr;
  for (size_t i = 1; list != nullptr && i < list->ChildCount(); ++i) {
    const SexpObject* child = list->ChildAt(i);
    if (!child->IsList() || child->AsList()->ChildCount() < 2) continue;
    const SexpObject* keyword = child->AsList()->FirstChild();
    if (!keyword->IsList() && keyword->AsAtom()->AtomEqualsText(field)) {
      return child->AsList()->ChildAt(1);
    }
  }
  return nullptr;
}

bool IsCertificate(const SexpObject* object) {
  const SexpObject* head = object->IsList() ? object->AsList()->FirstChild() : nullptr;
  return head != nullptr && !head->IsList() && head->AsAtom()->AtomEqualsText("cert");
}

// Whether |later| may follow |earlier| in a chain file, leaf first: not
// when |later| was issued by |earlier|'s subject, unless it also grants
// |earlier|'s issuer. A certificate a key issues to itself belongs to no
// order and may stand anywhere.
bool MayFollow(const SexpObject* earlier, const SexpObject* later) {
  auto same = [](const SexpObject* a, const char* a_field, const SexpObject* b,
                 const char* b_field) {
    return SameCanonicalForm(CertificateField(a, a_field), CertificateField(b, b_field));
  };
  if (same(earlier, "issuer", earlier, "subject") || same(later, "issuer", later, "subject")) {
    return true;
  }
  return !same(later, "issuer", earlier, "subject") || same(later, "subject", earlier, "issuer");
}

}  // namespace

Result AppendCertificate(const std::string& path, Ref<SexpList> body, Ref<SexpList> signature,
                         const std::string& owner, Placement placement) {
  if (body == nullptr || !FitsTheEngine(*body)) return VELK2_ERR_INVALID_S_EXPRESSION;
  const bool prepend = placement == Placement::kPrependLeafFirst;
  Ref<SexpList> existing;
  struct stat st;
  Result r = VELK2_SUCCESS;
  if (::stat(path.c_str(), &st) == 0) {
    r = ReadObjectFile(path, &existing);
    if (r != VELK2_SUCCESS) return r;
    const SexpObject* head = existing->FirstChild();
    if (head == nullptr || head->IsList() || !head->AsAtom()->AtomEqualsText("sequence")) {
      return VELK2_ERR_INVALID_SEQUENCE;
    }
    // The neighbour: the last certificate for an append, the first for a prepend.
    const SexpObject* neighbour = nullptr;
    for (size_t i = 1; placement != Placement::kAppend && i < existing->ChildCount(); ++i) {
      if (!IsCertificate(existing->ChildAt(i))) continue;
      neighbour = existing->ChildAt(i);
      if (prepend) break;
    }
    if (neighbour != nullptr &&
        !(prepend ? MayFollow(body.get(), neighbour) : MayFollow(neighbour, body.get()))) {
      return VELK2_ERR_SIGNING_CERT_ORDER;
    }
  }
  Ref<SexpList> sequence, owner_list;
  if (existing && !prepend) {
    sequence = std::move(existing);
  } else {
    r = NewKeywordList(&sequence, "sequence", nullptr);
  }
  if (r == VELK2_SUCCESS) {
    r = owner.empty() ? NewKeywordList(&owner_list, "owner", nullptr)
                      : NewKeywordListWithText(&owner_list, "owner", owner.c_str(), nullptr);
  }
  if (r == VELK2_SUCCESS) r = sequence->Append(std::move(body));
  if (r == VELK2_SUCCESS) r = sequence->Append(std::move(signature));
  if (r == VELK2_SUCCESS) r = sequence->Append(std::move(owner_list));
  // Prepended: the file's entries follow the new one.
  for (size_t i = 1; r == VELK2_SUCCESS && existing && i < existing->ChildCount(); ++i) {
    r = sequence->Append(Ref<SexpObject>::Share(existing->ChildAt(i)));
  }
  if (r != VELK2_SUCCESS) return r;
  std::string bytes = StoredForm(*sequence);
  if (bytes.empty()) return VELK2_ERR_WRITE_FILE;
  // A file no reader loads would lose every certificate in it.
  if (bytes.size() > kMaxSourceFileSize) return VELK2_ERR_BUFFER_OVERFLOW;
  return WriteFileAtomically(path, bytes, 0644, true);
}

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

Result LoadPublicKey(const std::string& path, Ref<SexpList>* out, const std::string* passphrase) {
  if (EndsWith(path, ".pem")) {
    issuing::PrivateKey key;
    Result r = issuing::PrivateKey::LoadPem(path, &key, passphrase);
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

Result ReadPublicKeyText(const std::string& path, std::string* canonical) {
  Ref<SexpList> key;
  const Result r = LoadPublicKey(path, &key);
  if (r != VELK2_SUCCESS) return r;
  *canonical = StoredForm(*key);
  return canonical->empty() ? VELK2_ERR_MEM_ALLOC : VELK2_SUCCESS;
}

Result ReadKeyInfo(const std::string& path, KeyInfo* info, const std::string* passphrase) {
  Ref<SexpList> key;
  Result r = LoadPublicKey(path, &key, passphrase);
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

static_assert(kHashSha1 == ZCRY_HASH_SHA1 && kHashSha256 == ZCRY_HASH_SHA256);

Result ReadCertificateAt(const std::string& path, size_t index, Ref<SexpObject>* body, bool* scoped,
                         size_t* count) {
  Ref<CertificateSequence> sequence;
  const Result r = ReadCertificateFile(&sequence, Utf8ToUtf16(path).c_str(), nullptr);
  if (r != VELK2_SUCCESS) return r;
  *count = sequence->entry_count();
  if (index >= sequence->entry_count()) return VELK2_ERR_INVALID_PARAM;
  const Certificate* certificate = sequence->entry(index).certificate;
  *scoped = certificate->revocation_spec() != nullptr;
  *body = Ref<SexpObject>::Share(const_cast<Certificate*>(certificate));
  return VELK2_SUCCESS;
}

Result WriteFile(const std::string& path, const std::string& bytes, unsigned mode, bool overwrite) {
  return WriteFileAtomically(path, bytes, mode, overwrite);
}

std::string CanonicalText(const SexpObject& object) {
  return StoredForm(object);
}

}  // namespace velk2::issuing
