#include "manifest/read.h"

#include <utility>

#include "acl/acl_entry.h"
#include "credentials/certificate.h"
#include "credentials/date.h"
#include "credentials/hash_value.h"
#include "credentials/revocation_list.h"
#include "credentials/signature.h"
#include "platform/files.h"
#include "sexp/reader.h"
#include "sexp/source.h"
#include "trust/authorize.h"
#include "trust/revocation.h"

namespace velk2 {

namespace {

class ManifestReader {
 public:
  ManifestReader(ManifestContext* context, ManifestReport* report)
      : context_(context), library_(context->library_context), report_(report) {}

  Result Run(std::vector<uint8_t> bytes, bool verify, int64_t not_before, int64_t not_after,
             ManifestFile* file) {
    Result result = source_.Attach(std::move(bytes));
    if (result == VELK2_SUCCESS) result = ReadHeader();
    if (result == VELK2_SUCCESS && report_ != nullptr) report_->is_manifest = true;
    if (result == VELK2_SUCCESS) result = ReadChain();
    if (result == VELK2_SUCCESS) result = ReadLists();
    if (result == VELK2_SUCCESS && verify) result = Authorize(not_before, not_after);
    if (result == VELK2_SUCCESS) result = CheckDigest(file);
    return result;
  }

 private:
  Result ReadAtom(Ref<SexpAtom>* atom) { return ReadCanonicalAtom(atom, &source_, library_); }

  Result ReadHeader() {
    Result result = source_.Expect("(8:manifest(7:version");
    Ref<SexpAtom> first, second, type, date;
    if (result == VELK2_SUCCESS) result = ReadAtom(&first);
    if (result != VELK2_SUCCESS) return result;
    if (!first->AtomEqualsText("1")) return VELK2_ERR_MANIFEST_VERSION;
    if ((result = ReadAtom(&second)) != VELK2_SUCCESS) return result;
    if ((result = source_.Expect(")(4:type")) != VELK2_SUCCESS) return result;
    if ((result = ReadAtom(&type)) != VELK2_SUCCESS) return result;
    if (!type->AtomEqualsText("plain")) return VELK2_ERR_MANIFEST_TYPE;
    result = source_.Expect(")(15:signature-block");
    if (result == VELK2_SUCCESS) result = source_.Expect("(15:time-of-signing");
    if (result == VELK2_SUCCESS) result = ReadAtom(&date);
    if (result == VELK2_SUCCESS) result = source_.Expect(")");
    if (result != VELK2_SUCCESS) return result;

    Ref<SexpList> version, type_list, signing;
    result = NewKeywordListWithChild(&version, "version", std::move(first), library_);
    if (result == VELK2_SUCCESS) result = version->Append(std::move(second));
    if (result == VELK2_SUCCESS)
      result = NewKeywordListWithChild(&type_list, "type", Ref<SexpAtom>(type), library_);
    if (result == VELK2_SUCCESS) {
      result = NewKeywordListWithChild(&signing, "time-of-signing", Ref<SexpAtom>(date), library_);
    }
    if (result != VELK2_SUCCESS) return result;
    context_->version = version;
    context_->type = type_list;
    context_->time_of_signing = date;
    signing_ = std::move(signing);
    return VELK2_SUCCESS;
  }

  // One certificate and its signature, checked; appended to the chain.
  Result ReadPair(bool object_certificate) {
    Ref<Certificate> certificate = Certificate::New(library_);
    Result result = certificate->Parse(&source_);
    if (result != VELK2_SUCCESS) return result;
    if (object_certificate && HashValue::From(certificate->subject()) == nullptr) {
      return VELK2_ERR_NOT_OBJECT_CERT;
    }
    Ref<Signature> signature = Signature::New(library_);
    result = signature->Parse(&source_);
    if (result == VELK2_SUCCESS) result = VerifySignature(signature.get(), certificate.get());
    Ref<SexpList> owner;
    if (result == VELK2_SUCCESS) result = NewKeywordList(&owner, "owner", library_);
    if (result == VELK2_SUCCESS) result = chain_->Append(std::move(certificate));
    if (result == VELK2_SUCCESS) result = chain_->Append(std::move(signature));
    if (result == VELK2_SUCCESS) result = chain_->Append(std::move(owner));
    return result;
  }

  Result ReadChain() {
    chain_ = CertificateSequence::New(library_);
    Result result = chain_->AppendTextAtom("sequence");
    if (result == VELK2_SUCCESS) result = ReadPair(true);
    if (result == VELK2_SUCCESS) result = ReadPair(false);
    while (result == VELK2_SUCCESS && source_.Expect("(", 1, kExpectPeek) == VELK2_SUCCESS) {
      result = ReadPair(false);
    }
    if (result == VELK2_SUCCESS) result = source_.Expect(")");
    if (result == VELK2_SUCCESS && report_ != nullptr) report_->chain = chain_;
    return result;
  }

  // The manifest's own lists. Whether "(3:crl" and its ")" are there is not
  // looked at, on purpose: manifests without them have been signed.
  Result ReadLists() {
    (void)source_.Expect("(3:crl");
    while (source_.Expect("(", 1, kExpectPeek) == VELK2_SUCCESS) {
      Ref<RevocationList> list = RevocationList::New(library_);
      const Result result = list->Parse(&source_);
      if (result != VELK2_SUCCESS) return result;
      // Every list is read, so the format is checked whole; a backstop caps
      // those consulted, or each certificate of a long chain would be looked
      // up in every one of thousands of lists.
      if (lists_.size() < kMaxEmbeddedLists) lists_.push_back(std::move(list));
    }
    (void)source_.Expect(")");
    if (report_ != nullptr) report_->embedded_lists = lists_;
    return VELK2_SUCCESS;
  }

  // A date atom of |time|, or the time of signing for 0.
  Result PeriodEnd(int64_t time, Ref<SexpAtom>* out) {
    if (time == 0) {
      *out = context_->time_of_signing;
      return VELK2_SUCCESS;
    }
    Ref<SexpAtom> atom = SexpAtom::New(library_);
    const Result result = WriteDate(atom.get(), time);
    if (result == kDateUnrepresentable) return VELK2_ERR_INVALID_PARAM;
    if (result == VELK2_SUCCESS) *out = std::move(atom);
    return result;
  }

  Result Authorize(int64_t not_before, int64_t not_after) {
    // The period: the times given, else the instant of signing.
    Ref<SexpList> valid;
    Ref<SexpAtom> start, end;
    Result result = NewKeywordList(&valid, "valid", library_);
    if (result == VELK2_SUCCESS) result = PeriodEnd(not_before, &start);
    if (result == VELK2_SUCCESS) result = PeriodEnd(not_after, &end);
    if (result == VELK2_SUCCESS && not_before != 0) {
      Ref<SexpList> field;
      result = NewKeywordListWithChild(&field, "not-before", Ref<SexpAtom>(start), library_);
      if (result == VELK2_SUCCESS) result = valid->Append(std::move(field));
    }
    if (result == VELK2_SUCCESS && not_after != 0) {
      Ref<SexpList> field;
      result = NewKeywordListWithChild(&field, "not-after", Ref<SexpAtom>(end), library_);
      if (result == VELK2_SUCCESS) result = valid->Append(std::move(field));
    }
    if (result == VELK2_SUCCESS && not_before == 0 && not_after == 0) {
      result = valid->Append(Ref<SexpAtom>(context_->time_of_signing));
    }
    if (result != VELK2_SUCCESS) return result;

    Ref<SexpList> acl;
    const char16_t* extra =
        context_->extra_acl_directory ? context_->extra_acl_directory->c_str() : nullptr;
    const AclFileSkipped skipped = [this](const char16_t* path, Result code) {
      if (report_ != nullptr) report_->acl_skipped.emplace_back(path, code);
    };
    result = LoadAcl(&acl, library_, extra, &skipped);
    if (result != VELK2_SUCCESS) return result;

    // The lists: those of the store that the ACL names, as for certificate
    // chains, then the manifest's own. A list counts only when it verifies
    // against the ACL, and a revoking list wins over every other, so a stale
    // list shipped with the package cannot outvote a newer one in the store.
    RevocationLists lists;
    result = LoadRevocationLists(acl.get(), library_, &lists);
    if (result != VELK2_SUCCESS) return result;
    lists.insert(lists.end(), lists_.begin(), lists_.end());

    // Revoked certificates, and those that ask for a list that none clears,
    // leave the chain; the authorization decides.
    // Issuers are looked up too, departing from the designed check of
    // subjects only: the signing key signs the object certificate, whose
    // subject is a hash, and an ACL may name that key directly.
    const RevocationQuery query{acl.get(), &lists, nullptr, start.get(), end.get(), true};
    std::vector<RevocationFinding> findings;
    result = CheckSequence(query, *chain_, &findings);
    if (result != VELK2_SUCCESS) return result;
    std::vector<const Certificate*> kept;
    std::vector<size_t> kept_positions;
    for (size_t i = 0; i < chain_->entry_count(); ++i) {
      if (findings[i].state != kNotRevoked) continue;
      kept.push_back(chain_->entry(i).certificate);
      kept_positions.push_back(i);
    }
    const Certificate* object = chain_->entry(0).certificate;
    const SexpList* key = object->subject();
    if (report_ != nullptr) {
      report_->revocation = std::move(findings);
      report_->signing_certificates = std::move(kept_positions);
      report_->lists_from_store = lists.size() - lists_.size();
      report_->acl = acl;
      report_->key = Ref<SexpList>::Share(const_cast<SexpList*>(key));
    }

    // The signing sequence: its signer's certificate is taken as allowing
    // delegation, since signing the object certificate is delegating to it.
    Ref<SexpList> sequence;
    result = NewKeywordList(&sequence, "sequence", library_);
    for (size_t i = 0; i < kept.size() && result == VELK2_SUCCESS; ++i) {
      Ref<Certificate> added = Ref<Certificate>::Share(const_cast<Certificate*>(kept[i]));
      if (i == 1) {
        if (!SameCanonicalForm(kept[i]->subject(), object->issuer())) {
          if (report_ != nullptr) report_->authorization = VELK2_ERR_SIGNING_CERT_ORDER;
          return VELK2_ERR_SIGNING_CERT_ORDER;
        }
        CertificateFields fields = kept[i]->fields();
        fields.propagate = true;
        added = Certificate::New(library_);
        result = BuildCertificate(added.get(), fields);
      }
      if (result == VELK2_SUCCESS) result = sequence->Append(std::move(added));
    }
    if (result != VELK2_SUCCESS) return result;

    result = trust_internal::Authorize(
        library_, acl.get(), sequence.get(), key, context_->tag.get(), valid.get(),
        report_ ? report_->trace : nullptr, report_ ? report_->reduced_acl : nullptr);
    if (report_ != nullptr) report_->authorization = result;
    return result;
  }

  Result CheckDigest(ManifestFile* file) {
    // The body: every byte after the lists but the manifest's final ")".
    const size_t begin = static_cast<size_t>(source_.position());
    const size_t size = static_cast<size_t>(source_.length());
    if (begin >= size) return VELK2_ERR_FILE_OPEN;
    const HashValue* subject = HashValue::From(chain_->entry(0).certificate->subject());
    Ref<HashValue> digest = HashValue::New(library_);
    Result result = digest->Begin(static_cast<uint32_t>(subject->algorithm()));
    for (const SexpList* list : {context_->version.get(), context_->type.get(), signing_.get()}) {
      CBuffer<uint8_t> canonical;
      uint32_t length = 0;
      if (result == VELK2_SUCCESS) result = ToCanonicalBuffer(list, &canonical, &length);
      if (result == VELK2_SUCCESS) result = digest->Update(canonical.get(), length);
    }
    const uint8_t* data = source_.data();
    if (result == VELK2_SUCCESS) result = digest->Update(data + begin, size - 1 - begin);
    if (result == VELK2_SUCCESS) result = digest->Finish();
    if (result != VELK2_SUCCESS) return result;
    if (!SameCanonicalForm(digest.get(), subject)) return VELK2_ERR_HASH_MATCH;
    if (data[size - 1] != ')') return VELK2_ERR_INVALID_DATA;
    if (file != nullptr) {
      file->body_begin = begin;
      file->body_end = size - 1;
      file->bytes = source_.Detach();
    }
    return VELK2_SUCCESS;
  }

  ManifestContext* context_;
  Velk2Context* library_;
  ManifestReport* report_;
  SexpMemorySource source_;
  Ref<SexpList> signing_;  // (time-of-signing date)
  Ref<CertificateSequence> chain_;
  RevocationLists lists_;
};

}  // namespace

Result ReadManifest(ManifestContext* context, bool verify, int64_t not_before, int64_t not_after,
                    ManifestFile* file, ManifestReport* report) {
  if (context == nullptr) return VELK2_ERR_PARAM_NULL;
  std::vector<uint8_t> bytes;
  if (ReadWholeFile(context->manifest_path.c_str(), kMaxManifestFileSize, &bytes) !=
      VELK2_SUCCESS) {
    return VELK2_ERR_OPEN_MANIFEST_FILE;
  }
  return ManifestReader(context, report).Run(std::move(bytes), verify, not_before, not_after, file);
}

Result ReadManifestBytes(ManifestContext* context, std::vector<uint8_t> bytes, bool verify,
                         int64_t not_before, int64_t not_after, ManifestFile* file,
                         ManifestReport* report) {
  if (context == nullptr) return VELK2_ERR_PARAM_NULL;
  return ManifestReader(context, report).Run(std::move(bytes), verify, not_before, not_after, file);
}

}  // namespace velk2
