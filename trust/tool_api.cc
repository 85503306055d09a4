// The tool's questions about chains, tags, ACLs and credentials.
#include "trust/tool_api.h"

#include <sys/stat.h>

#include <utility>

#include "acl/acl_entry.h"
#include "credentials/certificate_sequence.h"
#include "credentials/date.h"
#include "credentials/hash_value.h"
#include "credentials/revocation_list.h"
#include "engine/parser.h"
#include "engine/printer.h"
#include "engine/readable.h"
#include "engine/status.h"
#include "engine/store.h"
#include "engine/tags.h"
#include "frame/paths.h"
#include "platform/utf.h"
#include "platform/zcry.h"
#include "sexp/display.h"
#include "sexp/reader.h"
#include "sexp/source.h"
#include "trust/authorize.h"
#include "trust/certificate_store.h"
#include "trust/describe.h"
#include "trust/explanation.h"
#include "trust/revocation.h"
#include "trust/verification.h"
#include "velk2.h"

namespace velk2::api {
namespace {

// An engine status reaches library callers as a 32-bit result, so
// 4294967166 and -130 are the same status.
int32_t AsStatus(long long value) {
  return static_cast<int32_t>(static_cast<uint32_t>(value));
}

// A canonical text read as one list, nothing after it.
Result ParseOne(const std::string& text, Ref<SexpList>* out) {
  SexpMemorySource source;
  Result result = source.AttachCopy(text.data(), text.size());
  if (result == VELK2_SUCCESS) result = ParseCanonicalList(out, &source, nullptr);
  if (result == VELK2_SUCCESS && source.position() != source.length())
    result = VELK2_ERR_PARSE_FILE;
  return result;
}

// The why of a verdict that an earlier stage than the authorization gave.
std::string StageFailure(const ExplanationSources& sources, const SequenceVerdict& verdict,
                         const std::vector<RevocationFinding>& findings) {
  const Result result = verdict.result;
  switch (verdict.stage) {
    case VerifyStage::kAuthorization:
      return std::string();
    case VerifyStage::kSignatures:
      return result == VELK2_ERR_INVALID_SEQUENCE ? EscapeForDisplay(sources.certificates_source) +
                                                        " is not a whole certificate sequence"
                                                  : CertificateLabel(sources, verdict.certificate) +
                                                        ": its signature does not verify";
    case VerifyStage::kRevocation:
      break;
  }
  if (result == VELK2_ERR_ACL_ENTRY_NOT_FOUND) return "no ACL could be loaded";
  const size_t index = verdict.certificate;
  if (index >= findings.size()) {
    return CertificateLabel(sources, index) + ": " + std::to_string(AsStatus(result)) + " " +
           MessageOf(result);
  }
  return CertificateLabel(sources, index) + ": " +
         RevocationFindingText(sources, findings[index], index);
}

Stage StageOf(VerifyStage stage) {
  switch (stage) {
    case VerifyStage::kSignatures:
      return Stage::kSignatures;
    case VerifyStage::kRevocation:
      return Stage::kRevocation;
    case VerifyStage::kAuthorization:
      break;
  }
  return Stage::kAuthorization;
}

// The verdict of a sequence question, explained when asked.
void FillVerdict(const ExplanationSources& sources, const SequenceVerdict& verdict,
                 const std::vector<RevocationFinding>& findings,
                 const engine::ReductionTrace& trace, bool reduced, bool explain, Verdict* out) {
  out->result = verdict.result;
  out->stage = StageOf(verdict.stage);
  if (verdict.stage != VerifyStage::kAuthorization) {
    out->certificate = verdict.certificate + 1;
    out->owner =
        sources.sequence != nullptr && verdict.certificate < sources.sequence->entry_count()
            ? OwnerText(sources.sequence->entry(verdict.certificate).owner)
            : std::string();
    out->why = StageFailure(sources, verdict, findings);
    if (verdict.certificate < findings.size()) {
      out->revoked_by = Utf16ToUtf8(findings[verdict.certificate].list_path);
      out->revoked_on = findings[verdict.certificate].revoked_on;
    }
    return;
  }
  out->explained = explain;
  if (explain) out->explanation = Explain(sources, trace, verdict.result, reduced);
}

// Reads |file|'s tag text, or says which input it was.
bool ReadTagInput(const std::string& text, Ref<SexpList>* tag, InputProblem* problem) {
  const Result result = ReadTagText(text.c_str(), nullptr, tag);
  if (result == VELK2_SUCCESS) return true;
  *problem = {"tag", result};
  return false;
}

// The one tree the engine reads a tag text into, for the tag commands.
class EngineTag {
 public:
  explicit EngineTag(engine::EngineContext& engine) : tree_(engine) {}
  Result Read(engine::EngineContext& engine, const std::string& text) {
    Ref<SexpList> tag;
    Result result = ReadTagText(text.c_str(), nullptr, &tag);
    if (result == VELK2_SUCCESS) result = ConvertToEngine(tag.get(), &text_);
    if (result != VELK2_SUCCESS) return result;
    const engine::Status status =
        engine::ParseText(engine, tree_.out(), text_.data(), text_.size());
    return status == engine::SPKI_OK ? VELK2_SUCCESS : static_cast<Result>(status);
  }
  engine::EngineNode* tree() const { return tree_.get(); }

 private:
  std::string text_;  // the tree points into it
  engine::NodeRef tree_;
};

Result StartEngine(engine::EngineContext& engine) {
  return engine.Init(engine::HeapAllocator()) == engine::SPKI_OK ? VELK2_SUCCESS
                                                                 : VELK2_ERR_MEM_ALLOC;
}

}  // namespace

// ---- Messages ---------------------------------------------------------------------

std::string MessageOf(long long value) {
  const int32_t status = AsStatus(value);
  if (status < 0 && IsEngineResult(static_cast<Result>(status))) {
    return engine::SpkiErrorMessageUtf8(status);
  }
  if (status == engine::kEngineArenaUnavailable) {
    return "the authorization engine could not get memory to start";
  }
  // The crypto library's statuses pass through the library unchanged.
  if (ZcryIsStatus(static_cast<uint32_t>(value))) {
    const bool failed = value == ZCRY_E_NO_MEMORY || value == ZCRY_E_INTERNAL;
    return std::string(failed ? "the crypto library failed"
                              : "the crypto library refused the key") +
           " (status " + std::to_string(value) + ")";
  }
  // Values nobody knows get the library's answer, "VELK_UNKNOWN_ERROR".
  return Velk2ErrorMessageA(static_cast<uint32_t>(value));
}

bool Undecided(long long value) {
  return IsUndecided(static_cast<Result>(static_cast<uint32_t>(value)));
}

const char* StageName(Stage stage) {
  switch (stage) {
    case Stage::kSignatures:
      return "signatures";
    case Stage::kRevocation:
      return "revocation";
    case Stage::kAuthorization:
      break;
  }
  return "authorization";
}

// ---- Tags -------------------------------------------------------------------------

Result ReadTag(const std::string& text, Tag* out) {
  Ref<SexpList> tag;
  const Result result = ReadTagText(text.c_str(), nullptr, &tag);
  if (result != VELK2_SUCCESS) return result;
  out->readable = ReadableTag(tag.get());
  out->canonical = StoredForm(*tag);
  return VELK2_SUCCESS;
}

Result CompareTags(const std::string& a, const std::string& b, std::string* relation) {
  engine::EngineContext engine;
  Result result = StartEngine(engine);
  EngineTag first(engine), second(engine);
  if (result == VELK2_SUCCESS) result = first.Read(engine, a);
  if (result == VELK2_SUCCESS) result = second.Read(engine, b);
  if (result != VELK2_SUCCESS) return result;
  engine::TagRelation found;
  const engine::Status status =
      engine::CompareTagLists(engine, first.tree(), second.tree(), &found);
  if (status != engine::SPKI_OK) return static_cast<Result>(status);
  *relation = engine::TagRelationName(found);
  return VELK2_SUCCESS;
}

Result IntersectTags(const std::string& a, const std::string& b, bool canonical, bool* disjoint,
                     std::string* out) {
  engine::EngineContext engine;
  Result result = StartEngine(engine);
  EngineTag first(engine), second(engine);
  if (result == VELK2_SUCCESS) result = first.Read(engine, a);
  if (result == VELK2_SUCCESS) result = second.Read(engine, b);
  if (result != VELK2_SUCCESS) return result;
  engine::NodeRef both(engine);
  engine::Status status =
      engine::IntersectTagLists(engine, first.tree(), second.tree(), both.out());
  if (status != engine::SPKI_OK) return static_cast<Result>(status);
  *disjoint = !both;
  out->clear();
  if (!both) return VELK2_SUCCESS;
  // The intersection of two bodies is given back as a body: what follows
  // "tag" (a result keeps the head of its operands), one element or several.
  std::string text;
  if (canonical) {
    status = engine::PrintToString(both.get(), &text);
    // The canonical text of (tag BODY...) is "(3:tag" BODY... ")".
    if (status == engine::SPKI_OK) text = text.substr(6, text.size() - 7);
  } else {
    for (const engine::EngineNode* element = both->next;
         element != nullptr && status == engine::SPKI_OK; element = element->next) {
      std::string one;
      status = engine::PrintReadableElement(element, &one);
      if (!text.empty()) text.push_back(' ');
      text += one;
    }
  }
  if (status != engine::SPKI_OK) return static_cast<Result>(status);
  *out = std::move(text);
  return VELK2_SUCCESS;
}

// ---- Chains -----------------------------------------------------------------------

Result Authorize(const AuthorizeRequest& request, Verdict* verdict, InputProblem* problem) {
  *verdict = Verdict{};
  Ref<SexpList> tag;
  if (!ReadTagInput(request.tag, &tag, problem)) return problem->code;
  Ref<SexpList> validity;
  Result r = MakeValidity(request.period.not_before, request.period.not_after, &validity);
  if (r != VELK2_SUCCESS) {
    *problem = {"period", r};
    return r;
  }
  Ref<SexpList> key;
  if ((r = ParseOne(request.key, &key)) != VELK2_SUCCESS) {
    *problem = {"key", r};
    return r;
  }
  const std::u16string directory = Utf8ToUtf16(request.acl_directory);
  const AclFileSkipped skipped = [&](const char16_t* path, Result code) {
    SkippedFile file{Utf16ToUtf8(path), code};
    if (request.on_skipped) request.on_skipped(file);
    verdict->skipped.push_back(std::move(file));
  };
  Ref<SexpList> acl;
  r = LoadAclFromDirectory(&acl, nullptr, directory.c_str(), nullptr, &skipped);
  if (r != VELK2_SUCCESS) {
    *problem = {"acl", r};
    return r;
  }
  Ref<CertificateSequence> sequence;
  r = ReadCertificateFile(&sequence, Utf8ToUtf16(request.certificates_file).c_str(), nullptr);
  if (r != VELK2_SUCCESS) {
    *problem = {"certificates", r};
    return r;
  }
  engine::ReductionTrace trace;
  trace.record_tuples = request.explain;
  std::string reduced;
  SequenceQuery query;
  query.acl = acl.get();
  query.sequence = sequence.get();
  query.key = key.get();
  query.tag = tag.get();
  query.validity = validity.get();
  query.trace = &trace;
  query.reduced_acl = &reduced;
  const SequenceVerdict answer = VerifySequence(query);

  ExplanationSources sources;
  sources.acl = acl.get();
  sources.sequence = sequence.get();
  sources.certificates_source = request.certificates_file;
  sources.acl_source = request.acl_directory;
  sources.key_name = request.key_name;
  sources.tag = ReadableTag(tag.get());
  if (request.period.not_before) sources.not_before = DateText(*request.period.not_before);
  if (request.period.not_after) sources.not_after = DateText(*request.period.not_after);
  sources.at_now = request.period.at_now;
  sources.any_time = request.period.any_time;
  FillVerdict(sources, answer, {}, trace, !reduced.empty(), request.explain, verdict);
  return VELK2_SUCCESS;
}

Result VerifyChain(const ChainRequest& request, Verdict* verdict, InputProblem* problem) {
  *verdict = Verdict{};
  Ref<SexpList> tag;
  if (!ReadTagInput(request.tag, &tag, problem)) return problem->code;
  Ref<CertificateSequence> sequence;
  Result r =
      ReadCertificateFile(&sequence, Utf8ToUtf16(request.certificates_file).c_str(), nullptr);
  if (r != VELK2_SUCCESS) {
    *problem = {"certificates", r};
    return r;
  }
  Ref<SexpList> acl;
  if ((r = LoadAcl(&acl, nullptr, nullptr)) != VELK2_SUCCESS) {
    *problem = {"acl", r};
    return r;
  }
  std::vector<RevocationFinding> findings;
  engine::ReductionTrace trace;
  trace.record_tuples = request.explain;
  std::string reduced;
  ChainQuestion question;
  question.sequence = sequence.get();
  question.tag = tag.get();
  question.not_before = request.period.not_before.value_or(0);
  question.not_after = request.period.not_after.value_or(0);
  question.findings = &findings;
  question.trace = &trace;
  question.reduced_acl = &reduced;
  const SequenceVerdict answer = velk2::VerifyChain(question);

  ExplanationSources sources;
  // The verification loads the ACL again: the explanation names the one
  // loaded here, which holds the same files.
  sources.acl = acl.get();
  sources.sequence = sequence.get();
  sources.certificates_source = request.certificates_file;
  sources.acl_source = Utf16ToUtf8(StoreDirectory(u"acl", kStoreGlobal));
  sources.key_name = "the subject of certificate 1";
  sources.tag = ReadableTag(tag.get());
  if (request.period.not_before) sources.not_before = DateText(*request.period.not_before);
  if (request.period.not_after) sources.not_after = DateText(*request.period.not_after);
  sources.at_now = request.period.at_now;
  FillVerdict(sources, answer, findings, trace, !reduced.empty(), request.explain, verdict);
  return VELK2_SUCCESS;
}

// ---- ACLs -------------------------------------------------------------------------

Result ListAcl(const std::string& directory, AclListing* out) {
  *out = AclListing{};
  struct stat st;
  if (::stat(directory.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return VELK2_ERR_FIND_DIR;
  const std::u16string wide = Utf8ToUtf16(directory);
  DirectoryEnumerator files;
  if (files.Open(wide.c_str(), u"*.acl") != VELK2_SUCCESS) return VELK2_ERR_FILE_OPEN;
  Result last = VELK2_SUCCESS;
  for (const char16_t* path = files.Next(true); path != nullptr; path = files.Next(true)) {
    const std::string file = Utf16ToUtf8(path);
    Ref<AclEntry> entry = AclEntry::New();
    last = LoadAclEntryFile(entry.get(), path);
    out->last_file = file;
    if (last != VELK2_SUCCESS) {
      out->skipped.emplace_back(file, last);
      continue;
    }
    AclEntryInfo info;
    info.file = file;
    info.subject = entry->subject() ? DescribePrincipal(*entry->subject()) : std::string();
    info.propagate = entry->propagate();
    info.tag = ReadableTag(entry->tag());
    info.not_before = AtomString(entry->not_before());
    info.not_after = AtomString(entry->not_after());
    info.generation = entry->generation();
    info.comment = entry->comment() ? FormatReadableLine(*entry->comment()) : std::string();
    info.too_deep = !velk2::FitsTheEngine(*entry);
    out->entries.push_back(std::move(info));
  }
  out->last_file_failed = last != VELK2_SUCCESS;
  return VELK2_SUCCESS;
}

// ---- Credentials shown ----------------------------------------------------------------

Result DescribeCertificateFile(const std::string& path, std::vector<CertificateInfo>* out) {
  out->clear();
  Ref<CertificateSequence> sequence;
  const Result result = ReadCertificateFile(&sequence, Utf8ToUtf16(path).c_str(), nullptr);
  if (result != VELK2_SUCCESS) return result;
  *out = DescribeChain(*sequence);
  return VELK2_SUCCESS;
}

Result DescribeRevocationList(const std::string& path, RevocationListInfo* out) {
  *out = RevocationListInfo{};
  Ref<RevocationList> list;
  const Result result = ReadRevocationListFile(&list, Utf8ToUtf16(path).c_str(), nullptr);
  if (result != VELK2_SUCCESS) return result;
  const Certificate& certificate = *list->certificate();
  out->issuer = certificate.issuer() ? DescribePrincipal(*certificate.issuer()) : std::string();
  out->scope = ReadableTag(certificate.tag());
  out->not_before = AtomString(certificate.not_before());
  out->not_after = AtomString(certificate.not_after());
  for (auto [kind, items] : {std::pair{RevokedKind::kCertificates, &out->certificates},
                             std::pair{RevokedKind::kKeys, &out->keys}}) {
    for (size_t i = 0; i < list->revoked_count(kind); ++i) {
      const velk2::RevokedItem item = list->revoked(kind, i);
      items->push_back({HashText(item.hash), AtomString(item.date)});
    }
  }
  return VELK2_SUCCESS;
}

Result VerifyRevocationListFile(const std::string& path, const std::optional<std::string>& tag,
                                int64_t now, ListVerdict* out) {
  *out = ListVerdict{};
  // The tag as the list's record writes it, so spacing never decides.
  std::optional<std::string> readable;
  if (tag) {
    Ref<SexpList> list;
    Result r = ReadTagText(tag->c_str(), nullptr, &list);
    CBuffer<char> text = r == VELK2_SUCCESS ? ToAdvancedText(list.get(), "tag") : nullptr;
    if (text == nullptr) return r != VELK2_SUCCESS ? r : VELK2_ERR_INVALID_PARAM;
    readable = text.get();
  }
  Velk2CrlRecord* record = nullptr;
  Result r = Velk2CrlReadA(&record, path.c_str(), nullptr);
  if (r != VELK2_SUCCESS) return r;
  out->result = Velk2CrlVerify(record, readable ? readable->c_str() : nullptr, now, now);
  out->scope = record->tag ? record->tag : std::string();
  out->not_before = record->not_before;
  out->not_after = record->not_after;
  Velk2CrlFree(record);
  return VELK2_SUCCESS;
}

Result ImportRevocationLists(const std::string& directory, std::vector<ImportedList>* out) {
  out->clear();
  Ref<SexpList> acl;
  Result r = LoadAcl(&acl, nullptr, nullptr);
  if (r != VELK2_SUCCESS) return VELK2_ERR_ACL_ENTRY_NOT_FOUND;
  std::vector<ImportRecord> records;
  r = velk2::ImportRevocationLists(Utf8ToUtf16(directory).c_str(), nullptr, &records);
  if (r != VELK2_SUCCESS) return r;
  for (const ImportRecord& record : records) {
    ImportedList list;
    list.source = Utf16ToUtf8(record.source);
    list.store_path = Utf16ToUtf8(record.store_path);
    switch (record.outcome) {
      case ImportOutcome::kImported:
        list.outcome = "imported";
        break;
      case ImportOutcome::kUnreadable:
        list.outcome = "unreadable";
        break;
      case ImportOutcome::kNoStoreName:
        list.outcome = "no store name";
        break;
      case ImportOutcome::kNotYetValid:
        list.outcome = "not yet valid";
        break;
      case ImportOutcome::kOlderThanStored:
        list.outcome = "older than stored";
        break;
      case ImportOutcome::kSameIssueTime:
        list.outcome = "same issue time";
        break;
      case ImportOutcome::kAlreadyStored:
        list.outcome = "already stored";
        break;
      case ImportOutcome::kStoredIsNewer:
        list.outcome = "stored is newer";
        break;
      case ImportOutcome::kLockFailed:
        list.outcome = "lock failed";
        break;
      case ImportOutcome::kUnverified:
        list.outcome = "unverified";
        break;
      case ImportOutcome::kWriteFailed:
        list.outcome = "write failed";
        break;
    }
    list.code = record.code;
    list.issued = record.issued;
    list.stored_issued = record.stored_issued;
    list.ends = record.ends;
    list.stored_ends = record.stored_ends;
    out->push_back(std::move(list));
  }
  return VELK2_SUCCESS;
}

Result ReadableFile(const std::string& path, std::string* text, std::optional<int64_t>* at) {
  text->clear();
  at->reset();
  SexpMemorySource source;
  Result result = source.LoadFile(Utf8ToUtf16(path).c_str());
  std::vector<Ref<SexpObject>> elements;
  if (result == VELK2_SUCCESS) result = ReadCanonicalElements(&source, nullptr, &elements);
  if (result != VELK2_SUCCESS) {
    if (source.has_data()) *at = source.position();
    return result;
  }
  for (const Ref<SexpObject>& element : elements) *text += FormatReadable(*element);
  return VELK2_SUCCESS;
}

Result HashFile(const std::string& path, std::string* hex) {
  uint8_t digest[32];
  uint32_t length = sizeof digest;
  const Result result = velk2::HashFile(FileNameToWide(path).c_str(), digest, &length, nullptr);
  if (result == VELK2_SUCCESS) *hex = HexString(digest, length);
  return result;
}

}  // namespace velk2::api
