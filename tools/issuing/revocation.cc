#include "tools/issuing/revocation.h"

#include <utility>

#include "credentials/date.h"
#include "credentials/hash_value.h"
#include "credentials/revocation_list.h"
#include "platform/zcry.h"
#include "sexp/source.h"
#include "tools/issuing/issuer.h"

namespace velk2::issuing {
namespace {

// (5:list1 (4:item (4:hash 6:sha256 H) date) ...) of |revoked|.
Result MakeSublist(const char* name, const std::vector<Revoked>& revoked, Ref<SexpList>* out) {
  Ref<SexpList> sublist;
  Result r = NewKeywordList(&sublist, name, nullptr);
  for (const Revoked& entry : revoked) {
    if (r != VELK2_SUCCESS) break;
    if (!entry.thing) return VELK2_ERR_INVALID_PARAM;
    Ref<HashValue> hash = HashValue::New();
    r = hash->Begin(ZCRY_HASH_SHA256);
    if (r == VELK2_SUCCESS) r = hash->Absorb(entry.thing.get());
    if (r == VELK2_SUCCESS) r = hash->Finish();
    const std::string date = DateText(entry.revoked_at);
    if (r == VELK2_SUCCESS && date.empty()) r = VELK2_ERR_INVALID_PARAM;
    Ref<SexpList> item;
    if (r == VELK2_SUCCESS) r = NewKeywordListWithChild(&item, "item", std::move(hash), nullptr);
    if (r == VELK2_SUCCESS) r = item->AppendTextAtom(date.c_str());
    if (r == VELK2_SUCCESS) r = sublist->Append(std::move(item));
  }
  if (r == VELK2_SUCCESS) *out = std::move(sublist);
  return r;
}

}  // namespace

Result MakeRevocationList(const PrivateKey& key, const RevocationListRequest& request,
                          std::string* file) {
  if (!request.scope || file == nullptr) return VELK2_ERR_INVALID_PARAM;
  Ref<SexpList> body, version, list1, list2;
  Result r = NewKeywordList(&body, "crl", nullptr);
  if (r == VELK2_SUCCESS) r = NewKeywordListWithText(&version, "version", "1", nullptr);
  if (r == VELK2_SUCCESS) r = body->Append(std::move(version));
  if (r == VELK2_SUCCESS) r = MakeSublist("list1", request.certificates, &list1);
  if (r == VELK2_SUCCESS) r = body->Append(std::move(list1));
  if (r == VELK2_SUCCESS) r = MakeSublist("list2", request.keys, &list2);
  if (r == VELK2_SUCCESS) r = body->Append(std::move(list2));

  CertificateRequest certificate_request;
  Ref<SexpList> issuer, subject;
  if (r == VELK2_SUCCESS) r = MakePublicKey(key, &issuer);
  if (r == VELK2_SUCCESS) r = MakeHashPrincipal(*body, &subject);
  certificate_request.issuer = issuer;
  certificate_request.subject = subject;
  certificate_request.tag = request.scope;
  certificate_request.not_before = request.not_before;
  certificate_request.not_after = request.not_after;
  Ref<SexpList> certificate, signature;
  if (r == VELK2_SUCCESS) r = MakeCertificateBody(certificate_request, &certificate);
  const std::string algorithm = key.type() == KeyType::kRsa ? kRsaPss : kDsaSha1;
  const uint32_t hash_id = key.type() == KeyType::kRsa ? ZCRY_HASH_SHA256 : ZCRY_HASH_SHA1;
  if (r == VELK2_SUCCESS) r = SignObject(key, *certificate, algorithm, hash_id, &signature);
  if (r != VELK2_SUCCESS) return r;

  std::string bytes = "(8:sequence";
  bytes.append(StoredForm(*body)).append(StoredForm(*certificate)).append(StoredForm(*signature));
  bytes.push_back(')');
  // What the toolkit writes, the library must read.
  SexpMemorySource source;
  Ref<RevocationList> list = RevocationList::New();
  r = source.AttachCopy(bytes.data(), bytes.size());
  if (r == VELK2_SUCCESS) r = list->Parse(&source);
  if (r == VELK2_SUCCESS && source.position() != source.length()) r = VELK2_ERR_PARSE_FILE;
  if (r == VELK2_SUCCESS) *file = std::move(bytes);
  return r;
}

}  // namespace velk2::issuing
