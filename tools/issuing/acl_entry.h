// Building ACL entry files: (5:entry [(7:version1:1)] (7:subject P)
// [(9:propagate)] (3:tag ...) [(5:valid ...)] [(7:comment c)]), one entry per
// "NAME.acl" file of an ACL directory.
#ifndef VELK2_TOOLS_ISSUING_ACL_ENTRY_H_
#define VELK2_TOOLS_ISSUING_ACL_ENTRY_H_

#include <cstdint>
#include <optional>
#include <string>

#include "frame/ref.h"
#include "frame/result.h"
#include "sexp/object.h"
#include "tools/issuing/issuer.h"

namespace velk2::issuing {

// The fields of an ACL entry to be written; absent optional fields stay unset.
// The tag is required.
struct AclEntryRequest : GrantFields {
  Ref<SexpObject> subject;  // a public key, hash principal or k-of-n group
  bool version = true;      // write (7:version1:1)
};

// MakeAclEntry builds the entry in the field order the ACL reader expects.
// VELK2_ERR_INVALID_PARAM (2) without subject or tag; 3 for memory.
Result MakeAclEntry(const AclEntryRequest& request, Ref<SexpList>* out);

// WriteAclEntry writes |entry|'s stored form to |path| through a temporary
// file renamed into place. The bytes are read back with the library's ACL
// reader first, so a file that would not load is never written
// (VELK2_ERR_INVALID_DATA (6), or the reader's code), nor one nested deeper
// than the authorization engine goes (VELK2_ERR_INVALID_S_EXPRESSION (29)). An existing file is
// kept unless |overwrite|: VELK2_ERR_PARAM_NOT_NULL (39). 76 when writing fails.
Result WriteAclEntry(const std::string& path, const SexpList& entry, bool overwrite);

}  // namespace velk2::issuing

#endif  // VELK2_TOOLS_ISSUING_ACL_ENTRY_H_
