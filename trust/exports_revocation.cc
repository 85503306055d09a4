// The exported revocation-list family: reading, finding, verifying and
// importing lists.
#include <cstring>
#include <utility>

#include "acl/acl_entry.h"
#include "credentials/date.h"
#include "credentials/records.h"
#include "credentials/revocation_list.h"
#include "frame/boundary.h"
#include "sexp/reader.h"
#include "trust/certificate_store.h"
#include "trust/revocation.h"
#include "velk2.h"

using namespace velk2;

namespace {

Result VerifyListRecord(const Velk2CrlRecord& record, RevocationList* list, const char* tag,
                        int64_t start, int64_t end) {
  if (tag != nullptr) {
    if (record.tag == nullptr) return VELK2_ERR_AUTH_TAG_MISSING;
    if (std::strcmp(record.tag, tag) != 0) return VELK2_ERR_NOT_AUTHORIZED;
  }
  if (!list->verified()) {
    Ref<SexpList> acl;
    Result result = LoadAcl(&acl, list->context(), nullptr);
    if (result == VELK2_SUCCESS) result = VerifyRevocationList(acl.get(), list);
    if (result != VELK2_SUCCESS) return result;
  }
  if (start == 0 || end == 0) return VELK2_SUCCESS;
  // Paired so on purpose: a list that begins after the period reports
  // "not after", one that ended before it "not before".
  const Certificate* certificate = list->certificate();
  if (ReadDate(certificate->not_before()) > end) return VELK2_ERR_NOT_AFTER;
  if (ReadDate(certificate->not_after()) < start) return VELK2_ERR_NOT_BEFORE;
  return VELK2_SUCCESS;
}

}  // namespace

extern "C" {

VELK2_EXPORT VELK2_RESULT Velk2CrlRead(Velk2CrlRecord** out, const char16_t* path,
                                       Velk2Context* context) {
  if (out == nullptr || path == nullptr) return VELK2_ERR_PARAM_NULL;
  *out = nullptr;
  Velk2Context* checked = nullptr;
  if (!FromOptionalOpaque(context, &checked)) return VELK2_ERR_INVALID_PARAM;
  return Guard([&]() -> Result {
    Ref<RevocationList> list;
    const Result result = ReadRevocationListFile(&list, path, checked);
    if (result != VELK2_SUCCESS) return result;
    return MakeRevocationRecord(std::move(list), out);
  });
}

VELK2_EXPORT VELK2_RESULT Velk2CrlReadA(Velk2CrlRecord** out, const char* path,
                                        Velk2Context* context) {
  return WithWide(path, [&](const char16_t* wide) { return Velk2CrlRead(out, wide, context); });
}

VELK2_EXPORT VELK2_RESULT Velk2CrlFindA(Velk2CrlRecord** out, const char* tag,
                                        Velk2Context* context) {
  if (out == nullptr || tag == nullptr) return VELK2_ERR_PARAM_NULL;
  *out = nullptr;
  Velk2Context* checked = nullptr;
  if (!FromOptionalOpaque(context, &checked)) return VELK2_ERR_INVALID_PARAM;
  return Guard([&]() -> Result {
    Ref<SexpList> tag_list;
    Result result = ReadTagText(tag, checked, &tag_list);
    if (result != VELK2_SUCCESS) return result;
    Ref<RevocationList> list;
    result = FindStoredRevocationList(tag_list.get(), checked, &list);
    if (result != VELK2_SUCCESS) return result;
    return MakeRevocationRecord(std::move(list), out);
  });
}

VELK2_EXPORT VELK2_RESULT Velk2CrlFree(Velk2CrlRecord* record) {
  if (record == nullptr) return VELK2_ERR_PARAM_NULL;
  if (FromOpaque<RevocationList>(record->list) == nullptr) return VELK2_ERR_INVALID_PARAM;
  FreeRevocationRecord(record);
  return VELK2_SUCCESS;
}

VELK2_EXPORT VELK2_RESULT Velk2CrlVerify(Velk2CrlRecord* record, const char* tag, int64_t start,
                                         int64_t end) {
  if (record == nullptr) return VELK2_ERR_PARAM_NULL;
  RevocationList* list = FromOpaque<RevocationList>(record->list);
  if (list == nullptr) return VELK2_ERR_INVALID_PARAM;
  return Guard([&] { return VerifyListRecord(*record, list, tag, start, end); });
}

VELK2_EXPORT VELK2_RESULT Velk2CrlVerifyFile(const char16_t* path, const char* tag, int64_t start,
                                             int64_t end, Velk2Context* context) {
  Velk2CrlRecord* record = nullptr;
  Result result = Velk2CrlRead(&record, path, context);
  if (result != VELK2_SUCCESS) return result;
  result = Velk2CrlVerify(record, tag, start, end);
  Velk2CrlFree(record);
  return result;
}

VELK2_EXPORT VELK2_RESULT Velk2CrlVerifyFileA(const char* path, const char* tag, int64_t start,
                                              int64_t end, Velk2Context* context) {
  return WithWide(path, [&](const char16_t* wide) {
    return Velk2CrlVerifyFile(wide, tag, start, end, context);
  });
}

VELK2_EXPORT VELK2_RESULT Velk2CrlImport(const char16_t* directory, Velk2Context* context) {
  if (directory == nullptr) return VELK2_ERR_PARAM_NULL;
  Velk2Context* checked = nullptr;
  if (!FromOptionalOpaque(context, &checked)) return VELK2_ERR_INVALID_PARAM;
  return Guard([&] { return ImportRevocationLists(directory, checked, nullptr); });
}

VELK2_EXPORT VELK2_RESULT Velk2CrlImportA(const char* directory, Velk2Context* context) {
  return WithWide(directory, [&](const char16_t* wide) { return Velk2CrlImport(wide, context); });
}

VELK2_EXPORT VELK2_RESULT Velk2ImportCrls(const char16_t* directory) {
  return Velk2CrlImport(directory, nullptr);
}

VELK2_EXPORT VELK2_RESULT Velk2ImportCrlsA(const char* directory) {
  return Velk2CrlImportA(directory, nullptr);
}

}  // extern "C"
