// The records that the certificate and revocation-list exports hand to
// callers (Velk2CertRecord, Velk2CrlRecord of velk2.h). Each record holds one
// reference to the object it describes; its texts are the readable forms of
// the object's parts.
#ifndef VELK2_CREDENTIALS_RECORDS_H_
#define VELK2_CREDENTIALS_RECORDS_H_

#include "credentials/certificate_sequence.h"
#include "credentials/revocation_list.h"
#include "frame/ref.h"
#include "frame/result.h"
#include "velk2.h"

namespace velk2 {

// MakeCertificateRecords builds one record per entry of |sequence|, chained
// in file order; *out is the first, or null for a sequence without entries
// (the sequence's reference is then dropped). Per record: the dates as
// seconds (0 when absent), the tag's and owner's readable texts without
// their keyword (null when absent or of another shape), the subject key in
// DER (null and 0 when the subject is not a key), the readable text of the
// signature's hash value and its length. The first record takes |sequence|'s
// reference. 3 for memory, nothing left behind.
Result MakeCertificateRecords(Ref<CertificateSequence> sequence, Velk2CertRecord** out);
// FreeCertificateRecords frees every record of the chain and their texts,
// then releases the sequence once (from the first record).
void FreeCertificateRecords(Velk2CertRecord* first);

// MakeRevocationRecord builds the record of |list|: the list certificate's
// dates and its tag's readable text (null for a certificate without a tag).
// The record takes |list|'s reference. 3 for memory.
Result MakeRevocationRecord(Ref<RevocationList> list, Velk2CrlRecord** out);
void FreeRevocationRecord(Velk2CrlRecord* record);

}  // namespace velk2

#endif  // VELK2_CREDENTIALS_RECORDS_H_
