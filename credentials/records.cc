#include "credentials/records.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "credentials/date.h"
#include "credentials/public_key.h"
#include "frame/text.h"

namespace velk2 {

namespace {

template <typename T>
CBuffer<T> NewRecord() {
  CBuffer<T> record(static_cast<T*>(std::calloc(1, sizeof(T))));
  if (record == nullptr) throw std::bad_alloc();
  record->size = sizeof(T);
  return record;
}

int64_t TimeOf(const SexpAtom* date) {
  return date != nullptr ? ReadDate(date) : 0;
}

// The readable text of |object| without its keyword, or null when it has
// another shape; throws bad_alloc when memory, not the shape, was missing.
char* KeywordText(const SexpObject* object, const char* keyword) {
  if (object == nullptr) return nullptr;
  if (CBuffer<char> text = ToAdvancedText(object, keyword)) return text.release();
  if (object->AdvancedLength() != UINT32_MAX && ToAdvancedText(object, nullptr) == nullptr) {
    throw std::bad_alloc();
  }
  return nullptr;
}

// Fills the texts and numbers of one record; throws bad_alloc when a text
// that should exist cannot be made.
void FillRecord(Velk2CertRecord* record, const CertificateEntry& entry) {
  const Certificate& certificate = *entry.certificate;
  record->not_before = TimeOf(certificate.not_before());
  record->not_after = TimeOf(certificate.not_after());
  record->tag = KeywordText(certificate.tag(), "tag");
  record->owner = KeywordText(entry.owner, "owner");
  if (const PublicKey* key = PublicKey::From(certificate.subject())) {
    CBuffer<uint8_t> bytes;
    uint32_t length = 0;
    const Result result = key->ExportKey(&bytes, &length);
    if (result == VELK2_ERR_MEM_ALLOC) throw std::bad_alloc();
    if (result == VELK2_SUCCESS) {
      record->subject_key = bytes.release();
      record->subject_key_length = length;
    }
  }
  const SexpObject* hash = entry.signature != nullptr ? entry.signature->ChildAt(1) : nullptr;
  if (hash != nullptr) {
    // The text may hold the digest's raw bytes, NUL among them: hence its length.
    const uint32_t room = hash->AdvancedLength();
    if (room == UINT32_MAX) return;
    CBuffer<char> text(static_cast<char*>(std::calloc(1, size_t{room} + 1)));
    if (text == nullptr) throw std::bad_alloc();
    uint32_t position = 0;
    if (hash->WriteAdvanced(text.get(), &position, room + 1) != VELK2_SUCCESS) return;
    record->hash = text.release();
    record->hash_length = position;
  }
}

void FreeRecordTexts(Velk2CertRecord* record) {
  std::free(record->tag);
  std::free(record->owner);
  std::free(record->subject_key);
  std::free(record->hash);
}

}  // namespace

Result MakeCertificateRecords(Ref<CertificateSequence> sequence, Velk2CertRecord** out) {
  if (sequence == nullptr || out == nullptr) return VELK2_ERR_INVALID_PARAM;
  *out = nullptr;
  const size_t count = sequence->entry_count();
  if (count == 0) return VELK2_SUCCESS;
  // The chain under construction frees itself (and the sequence) on any failure.
  std::unique_ptr<Velk2CertRecord, void (*)(Velk2CertRecord*)> first(nullptr,
                                                                     FreeCertificateRecords);
  const CertificateSequence* entries = sequence.get();
  try {
    Velk2CertRecord* last = nullptr;
    for (size_t i = 0; i < count; ++i) {
      CBuffer<Velk2CertRecord> record = NewRecord<Velk2CertRecord>();
      Velk2CertRecord* added = record.get();
      if (last == nullptr) {
        added->sequence = static_cast<CertificateSequence*>(sequence.Leak());
        first.reset(record.release());
      } else {
        added->sequence = first->sequence;
        last->next = record.release();
      }
      last = added;
      FillRecord(added, entries->entry(i));
    }
  } catch (const std::bad_alloc&) {
    return VELK2_ERR_MEM_ALLOC;
  }
  *out = first.release();
  return VELK2_SUCCESS;
}

void FreeCertificateRecords(Velk2CertRecord* first) {
  if (first == nullptr) return;
  // Only the first record holds the sequence's reference.
  Ref<CertificateSequence> sequence =
      Ref<CertificateSequence>::Adopt(static_cast<CertificateSequence*>(first->sequence));
  for (Velk2CertRecord* record = first; record != nullptr;) {
    Velk2CertRecord* next = record->next;
    FreeRecordTexts(record);
    std::free(record);
    record = next;
  }
}

Result MakeRevocationRecord(Ref<RevocationList> list, Velk2CrlRecord** out) {
  if (list == nullptr || out == nullptr) return VELK2_ERR_INVALID_PARAM;
  *out = nullptr;
  try {
    CBuffer<Velk2CrlRecord> record = NewRecord<Velk2CrlRecord>();
    const Certificate* certificate = list->certificate();
    record->not_before = TimeOf(certificate->not_before());
    record->not_after = TimeOf(certificate->not_after());
    record->tag = KeywordText(certificate->tag(), "tag");
    record->list = list.Leak();
    *out = record.release();
  } catch (const std::bad_alloc&) {
    return VELK2_ERR_MEM_ALLOC;
  }
  return VELK2_SUCCESS;
}

void FreeRevocationRecord(Velk2CrlRecord* record) {
  if (record == nullptr) return;
  Ref<RevocationList> list = Ref<RevocationList>::Adopt(static_cast<RevocationList*>(record->list));
  std::free(record->tag);
  std::free(record);
}

}  // namespace velk2
