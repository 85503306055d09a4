#include "trust/revocation.h"

#include <cstring>
#include <set>
#include <utility>

#include "acl/acl_entry.h"
#include "credentials/date.h"
#include "credentials/hash_value.h"
#include "credentials/signature.h"
#include "frame/paths.h"
#include "frame/text.h"
#include "platform/files.h"
#include "platform/utf.h"
#include "platform/zcry.h"

namespace velk2 {

namespace {

// The entries of an ACL, after its keyword; 2 for a null or empty ACL.
Result CheckAcl(const SexpList* acl) {
  return acl == nullptr || acl->ChildCount() == 0 ? VELK2_ERR_INVALID_PARAM : VELK2_SUCCESS;
}

// A tag whose first element is a list headed "revoke" names a revocation list.
bool IsRevocationTag(const SexpList* tag) {
  const SexpObject* first = tag ? tag->ChildAt(1) : nullptr;
  const SexpList* list = first ? first->AsList() : nullptr;
  const SexpObject* head = list ? list->ChildAt(0) : nullptr;
  return head != nullptr && head->AsAtom() != nullptr && head->AsAtom()->AtomEqualsText("revoke");
}

Result StorePathOf(const SexpList* tag, std::u16string* path) {
  std::u16string name;
  if (!RevocationStoreName(tag, &name)) return kInternalNotFound;
  return StoreFilePath(u"cert", u".crl", name.c_str(), kStoreGlobal, path);
}

// Reads the list at |path| when one is there; null otherwise.
Ref<RevocationList> ReadIfPresent(const std::u16string& path, Velk2Context* context) {
  Ref<RevocationList> list;
  if (ReadRevocationListFile(&list, path.c_str(), context) != VELK2_SUCCESS) list.reset();
  return list;
}

// Verifies |list| unless it already is, or already failed against |acl|;
// whether it now is.
bool EnsureVerified(const SexpList* acl, RevocationList* list) {
  if (list->verified()) return true;
  if (list->UnverifiableUnder(acl)) return false;
  if (VerifyRevocationList(acl, list) == VELK2_SUCCESS) return true;
  if (acl != nullptr) list->MarkUnverifiable(acl);
  return false;
}

std::string DateString(const SexpAtom* date) {
  return date != nullptr ? std::string(date->bytes()) : std::string();
}

// Whether |incoming| may replace |stored|, the list of its scope in the store.
// A list never replaces one issued later (its not-before is its issue time),
// nor another issued at the same time: departing from the designed rule,
// which looks only at not-after dates, because an attacker who kept an old
// list could otherwise import it again over the list that revokes them.
// Only a later issue time goes on to the designed rule: a list whose period
// has begun replaces a stored list whose period has not begun, or one that
// ends no later than it does.
ImportOutcome CompareWithStored(const RevocationList& incoming, const RevocationList& stored,
                                const SexpAtom* now) {
  const Certificate* in = incoming.certificate();
  const Certificate* kept = stored.certificate();
  const SexpAtom* issued = in->not_before();
  const SexpAtom* stored_issued = kept->not_before();
  // A list that names no issue time is issued before every list that names one.
  if (stored_issued != nullptr && (issued == nullptr || DateBefore(issued, stored_issued))) {
    return ImportOutcome::kOlderThanStored;
  }
  const bool same_time =
      (issued == nullptr && stored_issued == nullptr) ||
      (issued != nullptr && stored_issued != nullptr && DateNotAfter(issued, stored_issued) &&
       DateNotBefore(issued, stored_issued));
  if (same_time) {
    return StoredForm(incoming) == StoredForm(stored) ? ImportOutcome::kAlreadyStored
                                                      : ImportOutcome::kSameIssueTime;
  }
  if (!DateAfter(stored_issued, now) && !DateNotBefore(in->not_after(), kept->not_after())) {
    return ImportOutcome::kStoredIsNewer;
  }
  return ImportOutcome::kImported;
}

}  // namespace

Result RevocationScopeOf(const SexpList& revocation, Ref<SexpList>* out) {
  Ref<SexpList> scope;
  Result result = NewKeywordList(&scope, "tag", revocation.context());
  for (size_t i = 1; i < revocation.ChildCount() && result == VELK2_SUCCESS; ++i) {
    result = scope->Append(Ref<SexpObject>::Share(revocation.ChildAt(i)));
  }
  if (result == VELK2_SUCCESS) *out = std::move(scope);
  return result;
}

Result VerifyRevocationList(const SexpList* acl, RevocationList* list) {
  if (list == nullptr || CheckAcl(acl) != VELK2_SUCCESS) return VELK2_ERR_INVALID_PARAM;
  if (acl->ChildCount() == 1) return VELK2_ERR_ACL_ENTRY_NOT_FOUND;
  const Certificate* certificate = list->certificate();
  if (certificate == nullptr) return VELK2_ERR_INVALID_PARAM;

  // The last entry with the list's tag speaks for the list.
  const AclEntry* admitting = nullptr;
  for (size_t i = 1; i < acl->ChildCount(); ++i) {
    const AclEntry* entry = AclEntry::From(acl->ChildAt(i));
    if (entry != nullptr && SameCanonicalForm(entry->tag(), certificate->tag())) admitting = entry;
  }
  if (admitting == nullptr || !SameCanonicalForm(admitting->subject(), certificate->issuer())) {
    return VELK2_ERR_ACL_ENTRY_NOT_FOUND;
  }

  const HashValue* subject = HashValue::From(certificate->subject());
  if (subject == nullptr || FindHashAlgorithmById(subject->algorithm()) == nullptr) {
    return VELK2_ERR_HASH_ID;
  }
  Ref<HashValue> digest = HashValue::New(list->context());
  Result result = digest->Begin(static_cast<uint32_t>(subject->algorithm()));
  if (result == VELK2_SUCCESS) result = digest->Absorb(list->body());
  if (result == VELK2_SUCCESS) result = digest->Finish();
  if (result != VELK2_SUCCESS) return result;
  if (!SameCanonicalForm(digest.get(), subject)) return VELK2_ERR_SIGNATURE;

  result = VerifySignature(list->signature(), certificate);
  if (result != VELK2_SUCCESS) return result;
  list->MarkVerified();
  return VELK2_SUCCESS;
}

bool RevocationStoreName(const SexpList* tag, std::u16string* name) {
  CBuffer<char> text = ToAdvancedText(tag, "tag");
  if (text == nullptr) return false;
  const std::string_view view(text.get());
  if (view.empty() || view == "." || view == "..") return false;
  for (unsigned char c : view) {
    if (c < 0x20 || c == 0x7F || c == '/' || c == '\\') return false;
  }
  // Ill-formed UTF-8 would become U+FFFD, and two tags could share a file.
  std::u16string wide = Utf8ToUtf16(view);
  if (Utf16ToUtf8(wide) != view) return false;
  *name = std::move(wide);
  return true;
}

Result LoadRevocationLists(const SexpList* acl, Velk2Context* context, RevocationLists* out) {
  if (CheckAcl(acl) != VELK2_SUCCESS || out == nullptr) return VELK2_ERR_INVALID_PARAM;
  out->clear();
  // Two entries of one scope (two issuers, or the extra ACL directory
  // repeating the global one) name one file: it is read once.
  std::set<std::u16string> read;
  for (size_t i = 1; i < acl->ChildCount(); ++i) {
    const AclEntry* entry = AclEntry::From(acl->ChildAt(i));
    if (entry == nullptr || !IsRevocationTag(entry->tag())) continue;
    std::u16string path;
    if (StorePathOf(entry->tag(), &path) != VELK2_SUCCESS || !read.insert(path).second) continue;
    if (Ref<RevocationList> list = ReadIfPresent(path, context)) out->push_back(std::move(list));
  }
  return VELK2_SUCCESS;
}

Result MatchRevoked(RevokedKind kind, const RevocationQuery& query, const SexpObject& thing,
                    RevocationHit* hit) {
  if (query.lists == nullptr) return VELK2_ERR_INVALID_PARAM;
  const bool certificate_mode = kind == RevokedKind::kCertificates;
  const Result hit_code = certificate_mode ? VELK2_ERR_CERT_REVOKED : VELK2_ERR_KEY_REVOKED;
  const bool both_dates = query.start != nullptr && query.end != nullptr;
  bool covered = false;
  const Certificate* latest = nullptr;  // the verified list certificate that ends last
  // The thing and the scope are digested once, not once per list.
  ThingDigests digests(thing);
  std::string scope_digest;
  if (query.scope != nullptr) {
    CBuffer<uint8_t> digest;
    uint32_t length = 0;
    const Result result = ComputeHash(query.scope, &digest, &length, ZCRY_HASH_SHA256, true);
    if (result == VELK2_ERR_MEM_ALLOC) return result;
    if (result == VELK2_SUCCESS) scope_digest.assign(reinterpret_cast<char*>(digest.get()), length);
  }

  for (const Ref<RevocationList>& list : *query.lists) {
    const Certificate* certificate = list->certificate();
    if (query.scope != nullptr && (scope_digest.empty() || list->TagDigest() != scope_digest)) {
      continue;
    }
    size_t index = RevocationList::kNoItem;
    Result result = list->FindRevoked(kind, &digests, &index);
    if (result != VELK2_SUCCESS) return result;
    if (index != RevocationList::kNoItem) {
      // A list that does not verify says nothing, its hits included.
      if (!EnsureVerified(query.acl, list.get())) continue;
      const RevokedItem item = list->revoked(kind, index);
      // Revoked after the period began: the thing was still good at its start.
      if (!certificate_mode || !both_dates || DateNotAfter(item.date, query.start)) {
        if (hit != nullptr) *hit = {list.get(), item};
        return hit_code;
      }
    }
    if (!certificate_mode) continue;
    // Only a verified list speaks for a period: a stray file in the store
    // must not stand in for the list that should cover it.
    if (certificate->not_after() == nullptr || !EnsureVerified(query.acl, list.get())) continue;
    if (both_dates && certificate->not_before() != nullptr &&
        DateBefore(certificate->not_before(), query.end) &&
        DateAfter(certificate->not_after(), query.start)) {
      covered = true;
    }
    if (latest == nullptr || DateAfter(certificate->not_after(), latest->not_after())) {
      latest = certificate;
    }
  }
  if (!certificate_mode) return VELK2_SUCCESS;
  if (latest == nullptr) return VELK2_ERR_CRL_NOT_FOUND;
  if (!covered && query.start != nullptr && DateBefore(latest->not_after(), query.start)) {
    return VELK2_ERR_NOT_AFTER;
  }
  return VELK2_SUCCESS;
}

Result CheckCertificate(const RevocationQuery& query, const Certificate& certificate,
                        RevocationHit* hit) {
  RevocationQuery keys = query;
  keys.scope = nullptr;
  keys.start = keys.end = nullptr;
  certificate.set_revocation_state(kRevocationUnchecked);
  Result result = certificate.subject() != nullptr
                      ? MatchRevoked(RevokedKind::kKeys, keys, *certificate.subject(), hit)
                      : VELK2_ERR_INVALID_PARAM;
  if (result == VELK2_ERR_KEY_REVOKED) certificate.set_revocation_state(kSubjectKeyRevoked);
  if (result == VELK2_SUCCESS && query.issuers && certificate.issuer() != nullptr) {
    result = MatchRevoked(RevokedKind::kKeys, keys, *certificate.issuer(), hit);
    if (result == VELK2_ERR_KEY_REVOKED) certificate.set_revocation_state(kIssuerKeyRevoked);
  }
  if (result != VELK2_SUCCESS) return result;
  if (certificate.revocation_spec() == nullptr) {
    certificate.set_revocation_state(kNotRevoked);
    return VELK2_SUCCESS;
  }
  Ref<SexpList> scope;
  result = RevocationScopeOf(*certificate.revocation_spec(), &scope);
  if (result != VELK2_SUCCESS) return result;
  RevocationQuery scoped = query;
  scoped.scope = scope.get();
  result = MatchRevoked(RevokedKind::kCertificates, scoped, certificate, hit);
  if (result == VELK2_ERR_CERT_REVOKED) certificate.set_revocation_state(kCertificateRevoked);
  if (result == VELK2_SUCCESS) certificate.set_revocation_state(kNotRevoked);
  return result;
}

Result CheckSequence(const RevocationQuery& query, const CertificateSequence& sequence,
                     std::vector<RevocationFinding>* findings) {
  if (findings != nullptr) findings->assign(sequence.entry_count(), RevocationFinding{});
  for (size_t i = 0; i < sequence.entry_count(); ++i) {
    const Certificate& checked = *sequence.entry(i).certificate;
    RevocationHit hit;
    const Result code = CheckCertificate(query, checked, &hit);
    if (code == VELK2_ERR_MEM_ALLOC) return code;
    if (findings == nullptr) continue;
    RevocationFinding& finding = (*findings)[i];
    finding.state = checked.revocation_state();
    finding.code = code;
    if (hit.list != nullptr) {
      if (hit.list->file_path() != nullptr) finding.list_path = hit.list->file_path();
      CBuffer<char> scope = ToAdvancedText(hit.list->certificate()->tag(), "tag");
      if (scope != nullptr) finding.list_scope = scope.get();
    }
    if (hit.item.date != nullptr) finding.revoked_on = std::string(hit.item.date->bytes());
  }
  return VELK2_SUCCESS;
}

RevocationCheck MakeRevocationCheck(Velk2Context* context, Ref<SexpAtom> start, Ref<SexpAtom> end,
                                    std::vector<RevocationFinding>* findings) {
  return [context, start, end, findings](const SexpList& acl, const CertificateSequence& sequence,
                                         size_t* certificate) -> Result {
    RevocationLists lists;
    Result result = LoadRevocationLists(&acl, context, &lists);
    if (result != VELK2_SUCCESS) return result;
    const RevocationQuery query{&acl, &lists, nullptr, start.get(), end.get(), false};
    // Every certificate is checked before any verdict, as each one's state is.
    result = CheckSequence(query, sequence, findings);
    if (result != VELK2_SUCCESS) return result;
    for (size_t i = 0; i < sequence.entry_count(); ++i) {
      const RevocationState state = sequence.entry(i).certificate->revocation_state();
      if (state == kNotRevoked) continue;
      *certificate = i;
      return state == kRevocationUnchecked ? VELK2_ERR_CRL_NOT_FOUND : VELK2_ERR_CERT_REVOKED;
    }
    return VELK2_SUCCESS;
  };
}

Result FindStoredRevocationList(const SexpList* tag, Velk2Context* context,
                                Ref<RevocationList>* out) {
  if (tag == nullptr || out == nullptr) return VELK2_ERR_PARAM_NULL;
  if (*out != nullptr) return VELK2_ERR_PARAM_NOT_NULL;
  const std::u16string directory = StoreDirectory(u"cert", kStoreGlobal);
  if (directory.empty() || directory.size() >= kMaxPath) return VELK2_ERR_FIND_DIR;
  DirectoryEnumerator files;
  Result result = files.Open(directory.c_str(), u"*.crl");
  if (result != VELK2_SUCCESS) return result;
  while (const char16_t* path = files.Next(true)) {
    Ref<RevocationList> list;
    if (ReadRevocationListFile(&list, path, context) != VELK2_SUCCESS) continue;
    if (!SameCanonicalForm(list->certificate()->tag(), tag)) continue;
    *out = std::move(list);
    return VELK2_SUCCESS;
  }
  return VELK2_ERR_ACL_ENTRY_NOT_FOUND;
}

Result ImportRevocationLists(const char16_t* directory, Velk2Context* context,
                             std::vector<ImportRecord>* records) {
  if (directory == nullptr) return VELK2_ERR_PARAM_NULL;
  Ref<SexpList> acl;
  if (LoadAcl(&acl, context, nullptr) != VELK2_SUCCESS) return VELK2_SUCCESS;

  // Read everything first: a list may not be imported unless some list read.
  std::vector<std::pair<std::u16string, Ref<RevocationList>>> read;
  DirectoryEnumerator files;
  if (files.Open(directory, u"*.crl") == VELK2_SUCCESS) {
    while (const char16_t* path = files.Next(true)) {
      Ref<RevocationList> list;
      const Result result = ReadRevocationListFile(&list, path, context);
      if (records != nullptr && result != VELK2_SUCCESS) {
        records->push_back({path, {}, ImportOutcome::kUnreadable, result, {}, {}, {}, {}});
      }
      if (result == VELK2_SUCCESS) read.emplace_back(path, std::move(list));
    }
  }
  if (read.empty()) return VELK2_ERR_CRL_NOT_FOUND;

  Ref<SexpAtom> now = SexpAtom::New(context);
  Result result = WriteDate(now.get(), CurrentTime());
  if (result != VELK2_SUCCESS) return result == kDateUnrepresentable ? VELK2_FAILURE : result;
  // Each stored list is read, compared and replaced under the store's lock,
  // so two imports at once end as if one ran after the other.
  FileLock lock;
  const Result locked = LockGlobalStore(&lock);
  for (auto& [source, list] : read) {
    ImportRecord record{source, {}, ImportOutcome::kImported, VELK2_SUCCESS, {}, {}, {}, {}};
    const Certificate* incoming = list->certificate();
    if (StorePathOf(incoming->tag(), &record.store_path) != VELK2_SUCCESS) {
      record.outcome = ImportOutcome::kNoStoreName;
    } else if (DateAfter(incoming->not_before(), now.get())) {
      record.outcome = ImportOutcome::kNotYetValid;
    } else if (Ref<RevocationList> stored = ReadIfPresent(record.store_path, context)) {
      record.outcome = CompareWithStored(*list, *stored, now.get());
      record.issued = DateString(incoming->not_before());
      record.stored_issued = DateString(stored->certificate()->not_before());
      record.ends = DateString(incoming->not_after());
      record.stored_ends = DateString(stored->certificate()->not_after());
    }
    if (record.outcome == ImportOutcome::kImported && !list->verified() &&
        (record.code = VerifyRevocationList(acl.get(), list.get())) != VELK2_SUCCESS) {
      record.outcome = ImportOutcome::kUnverified;
    }
    if (record.outcome == ImportOutcome::kImported) {
      CBuffer<char> path(WideToUtf8(record.store_path.c_str(), -1, nullptr));
      const std::string bytes = StoredForm(*list);
      if (locked != VELK2_SUCCESS) {
        record.code = locked;
        record.outcome = ImportOutcome::kLockFailed;
      } else {
        record.code = path == nullptr || bytes.empty()
                          ? VELK2_ERR_MEM_ALLOC
                          : WriteFileAtomically(path.get(), bytes, 0644, true);
        if (record.code != VELK2_SUCCESS) record.outcome = ImportOutcome::kWriteFailed;
      }
    }
    if (records != nullptr) records->push_back(std::move(record));
  }
  return VELK2_SUCCESS;
}

}  // namespace velk2
