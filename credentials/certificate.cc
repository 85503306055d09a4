#include "credentials/certificate.h"

#include "credentials/hash_value.h"
#include "credentials/signature.h"
#include "frame/guard.h"
#include "sexp/reader.h"

namespace velk2 {

namespace {

// Reads a principal (or subject) and the ")" that closes its field.
Result ReadFieldPrincipal(SexpSource* source, bool subject, Ref<Principal>* principal,
                          Velk2Context* context) {
  Result result =
      subject ? ReadSubject(source, principal, context) : ReadPrincipal(source, principal, context);
  if (result != VELK2_SUCCESS) return result;
  return source->Expect(")");
}

}  // namespace

// ---- k-of-n ------------------------------------------------------------------

const KOfN* KOfN::From(const SexpObject* object) {
  const SexpList* list = object ? object->AsList() : nullptr;
  return list && list->ClassFlag() == kClassKOfN ? static_cast<const KOfN*>(list) : nullptr;
}

Result KOfN::Parse(SexpSource* source) {
  if (source == nullptr || ChildCount() != 0) return VELK2_ERR_INVALID_PARAM;
  Result result = source->Expect("(6:k-of-n");
  if (result != VELK2_SUCCESS) return result;
  Ref<SexpAtom> k_atom, n_atom;
  result = ReadCanonicalAtom(&k_atom, source, context());
  if (result != VELK2_SUCCESS) return result;
  result = ReadCanonicalAtom(&n_atom, source, context());
  if (result != VELK2_SUCCESS) return result;
  // Only the first byte counts; an empty atom has none.
  if (k_atom->length() == 0 || n_atom->length() == 0) return VELK2_ERR_PARSE_FILE;
  k_ = k_atom->data()[0];
  n_ = n_atom->data()[0];

  result = AppendTextAtom("k-of-n");
  if (result != VELK2_SUCCESS) return result;
  for (uint32_t number : {k_, n_}) {
    Ref<SexpAtom> rebuilt = SexpAtom::New(context());
    const uint8_t byte = static_cast<uint8_t>(number);
    result = rebuilt->SetAtomValue(&byte, 1, kHintNum);
    if (result != VELK2_SUCCESS) return result;
    result = Append(std::move(rebuilt));
    if (result != VELK2_SUCCESS) return result;
  }
  for (uint32_t i = 0; i < n_; ++i) {
    Ref<PublicKey> key = PublicKey::New(context());
    result = key->Parse(source);
    if (result != VELK2_SUCCESS) return result;
    result = Append(std::move(key));
    if (result != VELK2_SUCCESS) return result;
  }
  return source->Expect(")");
}

// ---- Subjects ------------------------------------------------------------------

Result ReadSubject(SexpSource* source, Ref<Principal>* out, Velk2Context* context) {
  if (source == nullptr || out == nullptr || *out != nullptr) return VELK2_ERR_INVALID_PARAM;
  // A key ("(1") or a hash ("(4") is read as any principal; only a subject
  // may also be a group.
  if (MatchLiteral(source, "(1", kExpectPeek) || MatchLiteral(source, "(4", kExpectPeek) ||
      !MatchLiteral(source, "(6", kExpectPeek)) {
    return ReadPrincipal(source, out, context);
  }
  Ref<KOfN> group = KOfN::New(context);
  Result result = group->Parse(source);
  if (result != VELK2_SUCCESS) return result;
  *out = std::move(group);
  return VELK2_SUCCESS;
}

// ---- Certificates --------------------------------------------------------------

const Certificate* Certificate::From(const SexpObject* object) {
  const SexpList* list = object ? object->AsList() : nullptr;
  return list && list->ClassFlag() == kClassCertificate ? static_cast<const Certificate*>(list)
                                                        : nullptr;
}

Result Certificate::Parse(SexpSource* source) {
  return ParseCertificate(this, source);
}

Result ParseCertificate(Certificate* certificate, SexpSource* source) {
  if (certificate == nullptr || certificate->ChildCount() != 0) return VELK2_ERR_INVALID_PARAM;
  if (source == nullptr) return VELK2_ERR_INVALID_PARAM;
  Certificate& c = *certificate;
  Velk2Context* context = c.context();
  Result result = source->Expect("(4:cert");
  if (result != VELK2_SUCCESS) return result;
  result = c.AppendTextAtom("cert");
  if (result != VELK2_SUCCESS) return result;

  // A version field with any other text does not match here; the body then
  // fails at the issuer's literal.
  if (MatchLiteral(source, "(7:version1:1)", kExpectOptional)) {
    Ref<SexpList> version;
    result = NewKeywordListWithText(&version, "version", "1", context);
    if (result != VELK2_SUCCESS) return result;
    c.version_ = version;
    result = c.Append(std::move(version));
    if (result != VELK2_SUCCESS) return result;
  }

  result = source->Expect("(6:issuer");
  if (result != VELK2_SUCCESS) return result;
  Ref<Principal> issuer;
  result = ReadFieldPrincipal(source, false, &issuer, context);
  if (result != VELK2_SUCCESS) return result;
  c.issuer_ = issuer;
  result = AppendField(&c, "issuer", std::move(issuer));
  if (result != VELK2_SUCCESS) return result;

  result = source->Expect("(7:subject");
  if (result != VELK2_SUCCESS) return result;
  Ref<Principal> subject;
  result = ReadFieldPrincipal(source, true, &subject, context);
  if (result != VELK2_SUCCESS) return result;
  c.subject_ = subject;
  result = AppendField(&c, "subject", std::move(subject));
  if (result != VELK2_SUCCESS) return result;

  if (MatchLiteral(source, "(9:propagate)", kExpectOptional)) {
    c.propagate_ = true;
    result = AppendField(&c, "propagate", Ref<SexpObject>());
    if (result != VELK2_SUCCESS) return result;
  }

  if (MatchLiteral(source, "(3:", kExpectPeek)) {
    Ref<SexpList> tag;
    result = ParseCanonicalList(&tag, source, context);
    if (result != VELK2_SUCCESS) return result;
    c.tag_ = tag;
    result = c.Append(std::move(tag));
    if (result != VELK2_SUCCESS) return result;
  }

  result = ReadOptionalValidField(source, &c, &c.not_before_, &c.not_after_);
  if (result != VELK2_SUCCESS) return result;
  result = ReadOptionalAtomField(source, &c, "(7:comment", "comment", &c.comment_);
  if (result != VELK2_SUCCESS) return result;

  if (MatchLiteral(source, "(1", kExpectPeek)) {
    Ref<SexpList> revocation;
    result = ParseCanonicalList(&revocation, source, context);
    if (result != VELK2_SUCCESS) return result;
    c.revocation_spec_ = revocation;
    result = c.Append(std::move(revocation));
    if (result != VELK2_SUCCESS) return result;
  }

  return source->Expect(")");
}

CertificateFields Certificate::fields() const {
  return {issuer_, subject_, propagate_, tag_, not_before_, not_after_, comment_, revocation_spec_};
}

Result BuildCertificate(Certificate* certificate, const CertificateFields& fields) {
  if (certificate == nullptr || certificate->ChildCount() != 0 || fields.issuer == nullptr ||
      fields.subject == nullptr) {
    return VELK2_ERR_INVALID_PARAM;
  }
  Certificate& c = *certificate;
  Velk2Context* context = c.context();
  return Guard([&]() -> Result {
    Result status = c.AppendTextAtom("cert");
    if (status != VELK2_SUCCESS) return status;
    Ref<SexpList> version;
    status = NewKeywordListWithText(&version, "version", "1", context);
    if (status != VELK2_SUCCESS) return status;
    c.version_ = version;
    status = c.Append(std::move(version));
    if (status != VELK2_SUCCESS) return status;

    c.issuer_ = fields.issuer;
    status = AppendField(&c, "issuer", fields.issuer);
    if (status != VELK2_SUCCESS) return status;
    c.subject_ = fields.subject;
    status = AppendField(&c, "subject", fields.subject);
    if (status != VELK2_SUCCESS) return status;

    if (fields.propagate) {
      c.propagate_ = true;
      status = AppendField(&c, "propagate", Ref<SexpObject>());
      if (status != VELK2_SUCCESS) return status;
    }
    if (fields.tag != nullptr) {
      c.tag_ = fields.tag;
      status = c.Append(Ref<SexpList>(fields.tag));
      if (status != VELK2_SUCCESS) return status;
    }
    if (fields.not_before != nullptr || fields.not_after != nullptr) {
      Ref<SexpList> valid;
      status = NewKeywordList(&valid, "valid", context);
      if (status != VELK2_SUCCESS) return status;
      if (fields.not_before != nullptr) {
        c.not_before_ = fields.not_before;
        status = AppendField(valid.get(), "not-before", fields.not_before);
        if (status != VELK2_SUCCESS) return status;
      }
      if (fields.not_after != nullptr) {
        c.not_after_ = fields.not_after;
        status = AppendField(valid.get(), "not-after", fields.not_after);
        if (status != VELK2_SUCCESS) return status;
      }
      status = c.Append(std::move(valid));
      if (status != VELK2_SUCCESS) return status;
    }
    if (fields.comment != nullptr) {
      c.comment_ = fields.comment;
      status = AppendField(&c, "comment", fields.comment);
      if (status != VELK2_SUCCESS) return status;
    }
    if (fields.revocation_spec != nullptr) {
      c.revocation_spec_ = fields.revocation_spec;
      status = c.Append(Ref<SexpList>(fields.revocation_spec));
      if (status != VELK2_SUCCESS) return status;
    }
    return VELK2_SUCCESS;
  });
}

}  // namespace velk2
