#include "trust/describe.h"

#include "platform/utf.h"
#include "platform/zcry.h"
#include "sexp/display.h"
#include "sexp/reader.h"
#include "sexp/source.h"
#include "trust/revocation.h"

namespace velk2 {
namespace {

bool AtomIs(const SexpObject* object, const char* text) {
  return object != nullptr && !object->IsList() && object->AsAtom()->AtomEqualsText(text);
}

}  // namespace

std::string ReadableTag(const SexpList* tag) {
  if (tag == nullptr) return std::string();
  if (!AtomIs(tag->FirstChild(), "tag")) return FormatReadableLine(*tag);
  std::string out;
  for (size_t i = 1; i < tag->ChildCount(); ++i) {
    if (i > 1) out.push_back(' ');
    out.append(FormatReadableLine(*tag->ChildAt(i)));
  }
  return out;
}

std::string ReadableTagFromCanonical(std::string_view canonical) {
  SexpMemorySource source;
  Ref<SexpList> tag;
  if (source.AttachCopy(canonical.data(), canonical.size()) != VELK2_SUCCESS ||
      ParseCanonicalList(&tag, &source, nullptr) != VELK2_SUCCESS) {
    return EscapeForDisplay(canonical);
  }
  return ReadableTag(tag.get());
}

std::string Fingerprint(const SexpObject& object) {
  CBuffer<uint8_t> digest;
  uint32_t length = 0;
  if (ComputeHash(&object, &digest, &length, ZCRY_HASH_SHA256, true) != VELK2_SUCCESS) return {};
  return HexString(digest.get(), length);
}

std::string DescribePrincipal(const SexpObject& principal) {
  const SexpList* list = principal.AsList();
  if (list == nullptr) return FormatReadableLine(principal);
  const SexpObject* head = list->FirstChild();
  if (AtomIs(head, "public-key")) {
    const SexpList* algorithm = list->ChildAt(1) ? list->ChildAt(1)->AsList() : nullptr;
    std::string type = algorithm && algorithm->FirstChild() && !algorithm->FirstChild()->IsList()
                           ? EscapeForDisplay(algorithm->FirstChild()->AsAtom()->bytes())
                           : std::string("?");
    return type + " key " + Fingerprint(principal);
  }
  if (AtomIs(head, "hash") && list->ChildCount() == 3 && !list->ChildAt(1)->IsList() &&
      !list->ChildAt(2)->IsList()) {
    std::string_view digest = list->ChildAt(2)->AsAtom()->bytes();
    return "hash " + EscapeForDisplay(list->ChildAt(1)->AsAtom()->bytes()) + " " +
           HexString(reinterpret_cast<const uint8_t*>(digest.data()), digest.size());
  }
  if (AtomIs(head, "k-of-n") && list->ChildCount() >= 3 && !list->ChildAt(1)->IsList() &&
      !list->ChildAt(2)->IsList()) {
    const SexpAtom* k = list->ChildAt(1)->AsAtom();
    const SexpAtom* n = list->ChildAt(2)->AsAtom();
    std::string out = std::to_string(k->length() ? k->data()[0] : 0) + " of " +
                      std::to_string(n->length() ? n->data()[0] : 0) + ":";
    for (size_t i = 3; i < list->ChildCount(); ++i) {
      out += (i > 3 ? ", " : " ") + DescribePrincipal(*list->ChildAt(i));
    }
    return out;
  }
  return FormatReadableLine(principal);
}

std::string OwnerText(const SexpList* owner) {
  if (owner == nullptr || owner->ChildCount() != 2 || owner->FirstChild()->IsList() ||
      !owner->FirstChild()->AsAtom()->AtomEqualsText("owner")) {
    return {};
  }
  const SexpObject* value = owner->ChildAt(1);
  return value->IsList() ? FormatReadableLine(*value) : std::string(value->AsAtom()->bytes());
}

std::string AtomString(const SexpAtom* atom) {
  return atom != nullptr ? std::string(atom->bytes()) : std::string();
}

std::string HashText(const HashValue* hash) {
  if (hash == nullptr) return "?";
  const HashAlgorithm* algorithm = FindHashAlgorithmById(static_cast<uint32_t>(hash->algorithm()));
  return std::string(algorithm ? algorithm->name : "?") + ":" +
         HexString(hash->digest().data(), hash->digest().size());
}

namespace {

api::CertificateInfo DescribeCertificate(const Certificate& certificate) {
  api::CertificateInfo info;
  if (certificate.subject()) info.subject = DescribePrincipal(*certificate.subject());
  if (certificate.issuer()) info.issuer = DescribePrincipal(*certificate.issuer());
  info.tag = certificate.tag() ? ReadableTag(certificate.tag()) : std::string();
  info.propagate = certificate.propagate();
  info.not_before = AtomString(certificate.not_before());
  info.not_after = AtomString(certificate.not_after());
  Ref<SexpList> scope;
  if (const SexpList* revocation = certificate.revocation_spec();
      revocation != nullptr && RevocationScopeOf(*revocation, &scope) == VELK2_SUCCESS) {
    info.revocation_scope = ReadableTag(scope.get());
  }
  return info;
}

}  // namespace

std::vector<api::CertificateInfo> DescribeChain(const CertificateSequence& sequence) {
  std::vector<api::CertificateInfo> out;
  for (size_t i = 0; i < sequence.entry_count(); ++i) {
    const CertificateEntry entry = sequence.entry(i);
    api::CertificateInfo info = DescribeCertificate(*entry.certificate);
    info.owner = OwnerText(entry.owner);
    info.hash = HashText(entry.signature ? HashValue::From(entry.signature->ChildAt(1)) : nullptr);
    out.push_back(std::move(info));
  }
  return out;
}

}  // namespace velk2
