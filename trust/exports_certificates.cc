// The exported certificate family: reading certificate files into chained
// records, verifying them, and finding certificate files. These exports live
// with the ACL because verifying a chain asks the ACL.
#include <utility>

#include "credentials/certificate_sequence.h"
#include "credentials/records.h"
#include "frame/boundary.h"
#include "frame/file_item.h"
#include "frame/paths.h"
#include "sexp/reader.h"
#include "trust/certificate_store.h"
#include "velk2.h"

using namespace velk2;

namespace {

Result VerifySequenceFor(const CertificateSequence& sequence, const char* tag, int64_t not_before,
                         int64_t not_after) {
  Ref<SexpList> tag_list;
  const Result result = ReadTagText(tag, sequence.context(), &tag_list);
  if (result != VELK2_SUCCESS) return result;
  ChainQuestion question;
  question.sequence = &sequence;
  question.tag = tag_list.get();
  question.not_before = not_before;
  question.not_after = not_after;
  return VerifyChain(question).result;
}

}  // namespace

extern "C" {

VELK2_EXPORT VELK2_RESULT Velk2CertReadCtx(Velk2CertRecord** out, const char16_t* path,
                                           Velk2Context* context) {
  if (out == nullptr || path == nullptr) return VELK2_ERR_PARAM_NULL;
  if (*out != nullptr) return VELK2_ERR_INVALID_PARAM;
  Velk2Context* checked = nullptr;
  if (!FromOptionalOpaque(context, &checked)) return VELK2_ERR_INVALID_PARAM;
  return Guard([&]() -> Result {
    Ref<CertificateSequence> sequence;
    const Result result = ReadCertificateFile(&sequence, path, checked);
    if (result != VELK2_SUCCESS) return result;
    return MakeCertificateRecords(std::move(sequence), out);
  });
}

VELK2_EXPORT VELK2_RESULT Velk2CertReadCtxA(Velk2CertRecord** out, const char* path,
                                            Velk2Context* context) {
  return WithWide(path, [&](const char16_t* wide) { return Velk2CertReadCtx(out, wide, context); });
}

VELK2_EXPORT VELK2_RESULT Velk2CertRead(Velk2CertRecord** out, const char16_t* path) {
  return Velk2CertReadCtx(out, path, nullptr);
}

VELK2_EXPORT VELK2_RESULT Velk2CertReadA(Velk2CertRecord** out, const char* path) {
  return Velk2CertReadCtxA(out, path, nullptr);
}

VELK2_EXPORT VELK2_RESULT Velk2CertFree(Velk2CertRecord* record) {
  if (record == nullptr) return VELK2_ERR_PARAM_NULL;
  // A record that does not describe a live sequence is refused, not freed.
  if (FromOpaque<CertificateSequence>(record->sequence) == nullptr) return VELK2_ERR_INVALID_PARAM;
  FreeCertificateRecords(record);
  return VELK2_SUCCESS;
}

VELK2_EXPORT VELK2_RESULT Velk2CertVerify(Velk2CertRecord* record, const char* tag,
                                          int64_t not_before, int64_t not_after) {
  if (record == nullptr || tag == nullptr) return VELK2_ERR_PARAM_NULL;
  const CertificateSequence* sequence = FromOpaque<CertificateSequence>(record->sequence);
  if (sequence == nullptr) return VELK2_ERR_INVALID_PARAM;
  return Guard([&] { return VerifySequenceFor(*sequence, tag, not_before, not_after); });
}

VELK2_EXPORT VELK2_RESULT Velk2CertVerifyFile(const char16_t* path, const char* tag,
                                              int64_t not_before, int64_t not_after) {
  if (path == nullptr || tag == nullptr) return VELK2_ERR_PARAM_NULL;
  return Guard([&]() -> Result {
    Ref<CertificateSequence> sequence;
    const Result result = ReadCertificateFile(&sequence, path, nullptr);
    if (result != VELK2_SUCCESS) return result;
    return VerifySequenceFor(*sequence, tag, not_before, not_after);
  });
}

VELK2_EXPORT VELK2_RESULT Velk2CertVerifyFileA(const char* path, const char* tag,
                                               int64_t not_before, int64_t not_after) {
  return WithWide(path, [&](const char16_t* wide) {
    return Velk2CertVerifyFile(wide, tag, not_before, not_after);
  });
}

VELK2_EXPORT FileItem* CertFind(const char16_t* directory) {
  FileItem* first = nullptr;
  const Result result = Guard([&]() -> Result {
    // Without a directory: the certificates of the Home store.
    const std::u16string home = StoreDirectory(u"cert", kStoreHome);
    DirectoryEnumerator files;
    if (files.Open(directory != nullptr ? directory : home.c_str(), u"*.cert") != VELK2_SUCCESS) {
      return VELK2_SUCCESS;
    }
    FileItem** tail = &first;
    while (const char16_t* path = files.Next(true)) {
      if (files.CurrentIsDirectory()) continue;  // a directory named *.cert is no certificate file
      *tail = FileItemCreate(path, nullptr);
      if (*tail == nullptr) return VELK2_ERR_MEM_ALLOC;
      tail = &(*tail)->next;
    }
    return VELK2_SUCCESS;
  });
  if (result != VELK2_SUCCESS) {
    FreeFileItemList(first);
    return nullptr;
  }
  return first;
}

VELK2_EXPORT FileItem* CertFindA(const char* directory) {
  FileItem* found = nullptr;
  WithWide(directory, [&](const char16_t* wide) {
    found = CertFind(wide);
    return VELK2_SUCCESS;
  });
  return found;
}

}  // extern "C"
