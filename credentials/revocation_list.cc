#include "credentials/revocation_list.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "frame/guard.h"
#include "platform/files.h"
#include "platform/zcry.h"
#include "sexp/reader.h"

namespace velk2 {

// The lookup table of one sublist: for each algorithm that its items use, the
// first item of each digest. Built once, so matching costs one hash of the
// thing per algorithm instead of one per item.
struct RevocationList::Index {
  struct Algorithm {
    uint32_t id = 0;
    std::unordered_map<std::string_view, size_t> first;  // digest -> first item
  };
  std::vector<Algorithm> algorithms;  // in order of first use
};

RevocationList::RevocationList(Velk2Context* context) : Credential(context) {
  SetLocation(kStoreGlobal);
}

RevocationList::~RevocationList() = default;

const SexpObject* RevocationList::Issuer() const {
  return certificate_ ? certificate_->Issuer() : nullptr;
}

Result RevocationList::ParseBody(SexpSource* source) {
  Ref<SexpList> body = SexpList::New(context());
  Result result = source->Expect("(3:crl");
  if (result == VELK2_SUCCESS) result = body->AppendTextAtom("crl");
  if (result == VELK2_SUCCESS) result = source->Expect("(7:version1:1)");
  if (result != VELK2_SUCCESS) return result;
  Ref<SexpList> version;
  result = NewKeywordListWithText(&version, "version", "1", context());
  if (result == VELK2_SUCCESS) result = body->Append(std::move(version));
  if (result != VELK2_SUCCESS) return result;

  const SexpList* sublists[2] = {nullptr, nullptr};
  const char* openings[2] = {"(5:list1", "(5:list2"};
  const char* names[2] = {"list1", "list2"};
  for (int which = 0; which < 2; ++which) {
    result = source->Expect(openings[which]);
    if (result != VELK2_SUCCESS) return result;
    Ref<SexpList> sublist;
    result = NewKeywordList(&sublist, names[which], context());
    if (result != VELK2_SUCCESS) return result;
    while (MatchLiteral(source, "(", kExpectPeek)) {
      result = source->Expect("(4:item");
      if (result != VELK2_SUCCESS) return result;
      Ref<SexpList> item;
      result = NewKeywordList(&item, "item", context());
      if (result != VELK2_SUCCESS) return result;
      Ref<HashValue> hash = HashValue::New(context());
      result = hash->Parse(source);
      if (result == VELK2_SUCCESS) result = item->Append(std::move(hash));
      if (result != VELK2_SUCCESS) return result;
      Ref<SexpAtom> date;
      result = ReadCanonicalAtom(&date, source, context());
      if (result == VELK2_SUCCESS) result = item->Append(std::move(date));
      if (result == VELK2_SUCCESS) result = source->Expect(")");
      if (result == VELK2_SUCCESS) result = sublist->Append(std::move(item));
      if (result != VELK2_SUCCESS) return result;
    }
    result = source->Expect(")");
    if (result != VELK2_SUCCESS) return result;
    sublists[which] = sublist.get();
    result = body->Append(std::move(sublist));
    if (result != VELK2_SUCCESS) return result;
  }
  result = source->Expect(")");
  if (result != VELK2_SUCCESS) return result;
  list1_ = sublists[0];
  list2_ = sublists[1];
  body_ = std::move(body);
  return VELK2_SUCCESS;
}

Result RevocationList::Parse(SexpSource* source) {
  if (source == nullptr || ChildCount() != 0 || body_) return VELK2_ERR_INVALID_PARAM;
  Result result = source->Expect("(8:sequence");
  if (result == VELK2_SUCCESS) result = ParseBody(source);
  if (result != VELK2_SUCCESS) return result;
  Ref<Certificate> certificate = Certificate::New(context());
  result = certificate->Parse(source);
  if (result != VELK2_SUCCESS) return result;
  Ref<Signature> signature = Signature::New(context());
  result = signature->Parse(source);
  if (result == VELK2_SUCCESS) result = source->Expect(")");
  if (result != VELK2_SUCCESS) return result;

  certificate_ = certificate;
  signature_ = signature;
  result = AppendTextAtom("sequence");
  if (result == VELK2_SUCCESS) result = Append(Ref<SexpList>(body_));
  if (result == VELK2_SUCCESS) result = Append(std::move(certificate));
  if (result == VELK2_SUCCESS) result = Append(std::move(signature));
  return result;
}

const SexpList* RevocationList::sublist(RevokedKind kind) const {
  return kind == RevokedKind::kCertificates ? list1_ : list2_;
}

size_t RevocationList::revoked_count(RevokedKind kind) const {
  const SexpList* list = sublist(kind);
  return list ? list->ChildCount() - 1 : 0;
}

RevokedItem RevocationList::revoked(RevokedKind kind, size_t index) const {
  RevokedItem item;
  const SexpList* list = sublist(kind);
  if (list == nullptr || index + 1 >= list->ChildCount()) return item;
  const SexpList* entry = list->ChildAt(index + 1)->AsList();
  item.hash = HashValue::From(entry->ChildAt(1));
  item.date = entry->ChildAt(2)->AsAtom();
  return item;
}

Result ThingDigests::Get(uint32_t algorithm, std::string_view* digest) {
  for (const auto& [id, bytes] : made_) {
    if (id == algorithm) {
      *digest = bytes;
      return VELK2_SUCCESS;
    }
  }
  Ref<HashValue> hash = HashValue::New(thing_.context());
  Result result = hash->Begin(algorithm);
  if (result == VELK2_SUCCESS) result = hash->Absorb(&thing_);
  if (result == VELK2_SUCCESS) result = hash->Finish();
  if (result != VELK2_SUCCESS) return result;
  made_.emplace_back(algorithm, std::string(hash->digest()));
  *digest = made_.back().second;
  return VELK2_SUCCESS;
}

Result RevocationList::FindRevoked(RevokedKind kind, const SexpObject& thing, size_t* index) const {
  ThingDigests digests(thing);
  return FindRevoked(kind, &digests, index);
}

Result RevocationList::FindRevoked(RevokedKind kind, ThingDigests* digests, size_t* index) const {
  *index = kNoItem;
  std::unique_ptr<Index>& table = index_[kind == RevokedKind::kCertificates ? 0 : 1];
  if (table == nullptr) {
    auto built = std::make_unique<Index>();
    const size_t count = revoked_count(kind);
    for (size_t i = 0; i < count; ++i) {
      const HashValue* hash = revoked(kind, i).hash;
      const HashAlgorithm* algorithm =
          hash ? FindHashAlgorithmById(static_cast<uint32_t>(hash->algorithm())) : nullptr;
      if (algorithm == nullptr) continue;
      auto found = std::find_if(built->algorithms.begin(), built->algorithms.end(),
                                [&](const Index::Algorithm& a) { return a.id == algorithm->id; });
      if (found == built->algorithms.end()) {
        built->algorithms.push_back({algorithm->id, {}});
        found = built->algorithms.end() - 1;
      }
      if (found->first.empty()) found->first.reserve(count);
      found->first.emplace(hash->digest(), i);  // keeps the first item of a digest
    }
    table = std::move(built);
  }
  for (const Index::Algorithm& algorithm : table->algorithms) {
    std::string_view digest;
    const Result result = digests->Get(algorithm.id, &digest);
    if (result != VELK2_SUCCESS) return result;
    auto hit = algorithm.first.find(digest);
    if (hit != algorithm.first.end()) *index = std::min(*index, hit->second);
  }
  return VELK2_SUCCESS;
}

const std::string& RevocationList::TagDigest() const {
  if (!tag_digest_made_) {
    tag_digest_made_ = true;
    CBuffer<uint8_t> digest;
    uint32_t length = 0;
    const SexpList* tag = certificate_ ? certificate_->tag() : nullptr;
    if (tag != nullptr &&
        ComputeHash(tag, &digest, &length, ZCRY_HASH_SHA256, true) == VELK2_SUCCESS) {
      tag_digest_.assign(reinterpret_cast<const char*>(digest.get()), length);
    }
  }
  return tag_digest_;
}

void RevocationList::MarkUnverifiable(const SexpList* acl) {
  unverifiable_under_ = Ref<SexpList>::Share(const_cast<SexpList*>(acl));
}

void RevocationList::MarkVerified() {
  const SexpList* tag = certificate_ ? certificate_->tag() : nullptr;
  verified_issuer_ = Ref<SexpList>::Share(const_cast<SexpList*>(tag));
}

Result ReadRevocationListFile(Ref<RevocationList>* out, const char16_t* path,
                              Velk2Context* context) {
  if (out == nullptr || *out != nullptr || path == nullptr || *path == 0) {
    return VELK2_ERR_INVALID_PARAM;
  }
  return Guard([&]() -> Result {
    FileStatus status;
    if (StatFile(path, &status) != 0) return VELK2_ERR_FILE_NOT_FOUND;
    std::vector<uint8_t> bytes;
    Result result = ReadWholeFile(path, kMaxRevocationListFileSize, &bytes);
    if (result != VELK2_SUCCESS) return result;
    SexpMemorySource source;
    result = source.Attach(std::move(bytes));
    if (result != VELK2_SUCCESS) return result;
    Ref<RevocationList> list = RevocationList::New(context);
    result = list->Parse(&source);
    if (result != VELK2_SUCCESS) return result;
    if (source.position() != source.length()) return VELK2_ERR_PARSE_FILE;
    list->SetLocation(kStoreVerbatim);
    result = list->SetFilePath(path);
    if (result != VELK2_SUCCESS) return result;
    *out = std::move(list);
    return VELK2_SUCCESS;
  });
}

}  // namespace velk2
