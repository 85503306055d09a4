#include "tools/issuing/acl_entry.h"

#include <utility>
#include <vector>

#include "acl/acl_entry.h"
#include "platform/files.h"
#include "sexp/source.h"
#include "tools/issuing/issuer.h"
#include "tools/issuing/private_key.h"
#include "trust/authorize.h"

namespace velk2::issuing {
Result MakeAclEntry(const AclEntryRequest& request, Ref<SexpList>* out) {
  if (!request.subject || !request.tag) return VELK2_ERR_INVALID_PARAM;
  Ref<SexpList> entry, version, subject;
  Result r = NewKeywordList(&entry, "entry", nullptr);
  if (r == VELK2_SUCCESS && request.version) {
    r = NewKeywordListWithText(&version, "version", "1", nullptr);
    if (r == VELK2_SUCCESS) r = entry->Append(std::move(version));
  }
  if (r == VELK2_SUCCESS) {
    r = NewKeywordListWithChild(&subject, "subject", Ref<SexpObject>(request.subject), nullptr);
  }
  if (r == VELK2_SUCCESS) r = entry->Append(std::move(subject));
  if (r == VELK2_SUCCESS) r = AppendGrantFields(entry.get(), request);
  if (r == VELK2_SUCCESS) *out = std::move(entry);
  return r;
}

Result WriteAclEntry(const std::string& path, const SexpList& entry, bool overwrite) {
  // What the engine would refuse makes every question against the directory fail.
  if (!FitsTheEngine(entry)) return VELK2_ERR_INVALID_S_EXPRESSION;
  std::string bytes = StoredForm(entry);
  if (bytes.empty()) return VELK2_ERR_WRITE_FILE;
  SexpMemorySource source;
  Result r = source.Attach(std::vector<uint8_t>(bytes.begin(), bytes.end()));
  if (r != VELK2_SUCCESS) return r;
  Ref<AclEntry> check = AclEntry::New();
  r = ReadAclEntry(check.get(), &source);
  if (r != VELK2_SUCCESS) return r;
  // The reader stops before the closing ")" of a minimal entry; anything
  // else left over would be a field it does not know.
  if (source.length() - source.position() > 1) return VELK2_ERR_INVALID_DATA;
  return WriteFileAtomically(path, bytes, 0644, overwrite);
}

}  // namespace velk2::issuing
