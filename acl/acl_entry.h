// ACL entries and ACL files. The access control list says which principals
// hold which authorization tags without a certificate; it is kept as a
// directory of small files, each file "*.acl" holding exactly one entry:
//
//   "(5:entry"
//   "(7:version1:1)"                   optional, these bytes exactly
//   "(7:subject" subject ")"           a public key, hash value or k-of-n
//   "(9:propagate)"                    optional
//   tag                                a list headed "tag", kept as read
//   "(5:valid" ["(10:not-before" date ")"] ["(9:not-after" date ")"] ")"
//                                      optional
//   "(10:generation" atom ")"          optional
//   "(7:comment" atom ")"              optional
//   ")"
//
// The optional fields cannot be reordered; an unknown field is a literal
// mismatch at the closing ")". The whole ACL is a list named "acl" of the
// entries of the Global directory's "acl" subdirectory and, when a caller
// names one, of an extra directory.
#ifndef VELK2_ACL_ACL_ENTRY_H_
#define VELK2_ACL_ACL_ENTRY_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "credentials/credential.h"
#include "frame/context.h"
#include "frame/ref.h"
#include "frame/result.h"
#include "sexp/object.h"
#include "sexp/source.h"

namespace velk2 {

class AclEntry final : public Credential {
 public:
  // A new entry has the store location Global, so that a bare file name
  // resolves into the Global directory's "acl" subdirectory.
  explicit AclEntry(Velk2Context* context = nullptr) : Credential(context) {
    SetLocation(kStoreGlobal);
  }
  static Ref<AclEntry> New(Velk2Context* context = nullptr) { return MakeRef<AclEntry>(context); }
  // The object as an AclEntry when it is one, else null.
  static const AclEntry* From(const SexpObject* object);

  uint32_t ClassFlag() const override { return kClassAclEntry; }
  const char16_t* StoreSubdirectory() const override { return u"acl"; }
  const char16_t* FileExtension() const override { return u".acl"; }

  // Parse is ReadAclEntry(this, source).
  Result Parse(SexpSource* source) override;

  // The parts read, borrowed from the entry's children; null when absent.
  // The ("version" "1") list.
  const SexpList* version() const { return version_.get(); }
  // The subject principal: a PublicKey, HashValue or KOfN.
  const Principal* subject() const { return subject_.get(); }
  bool propagate() const { return propagate_ != 0; }
  // The tag list, read by the generic list reader; only its head "tag" is
  // checked here.
  const SexpList* tag() const { return tag_.get(); }
  const SexpAtom* not_before() const { return not_before_.get(); }
  const SexpAtom* not_after() const { return not_after_.get(); }
  // The first byte of the generation atom, 0 when there is none.
  uint32_t generation() const { return generation_; }
  const SexpAtom* comment() const { return comment_.get(); }
  // The path of the file the entry was loaded from (empty when it was read
  // from a source that is not a file).
  const std::u16string& path() const { return path_; }

 protected:
  ~AclEntry() override = default;

 private:
  // The reading steps of ReadAclEntry, LoadAclEntryFile and ReadAclDirectory.
  friend struct AclEntryReader;

  Ref<SexpList> version_;
  Ref<Principal> subject_;
  uint8_t propagate_ = 0;
  Ref<SexpList> tag_;
  Ref<SexpAtom> not_before_;
  Ref<SexpAtom> not_after_;
  uint32_t generation_ = 0;
  Ref<SexpAtom> comment_;
  std::u16string path_;
};

// ReadAclEntry parses one entry from |source| into the empty |entry|.
// VELK2_ERR_INVALID_PARAM (2) for a null source or entry, or an entry that
// is not empty. A literal that does not match gives the source's code (6, or
// 7 at the end of the data): a version other than "1" fails so, as does a
// field out of order or unknown. VELK2_ERR_PRINCIPAL (11) for a subject that
// is no key, hash or k-of-n; VELK2_ERR_AUTH_TAG_MISSING (35) when the tag
// slot holds a list not headed by the atom "tag"; the readers' codes
// otherwise; 3 for memory.
// When the tag is followed by ")" the entry is complete and the ")" is left
// unread (harmless: the file is closed right after). On failure the entry
// may be partly filled; its caller releases it.
Result ReadAclEntry(AclEntry* entry, SexpSource* source);

// LoadAclEntryFile reads the entry file |name| into the empty |entry|. A
// bare name (no "/" and no "\") is a store name: the file is |name| with
// ".acl" in the "acl" subdirectory of the entry's location (Global for a new
// entry); any other name is the path as it stands. 2 for a null name or
// entry; VELK2_ERR_FILE_OPEN (7) when the file cannot be read whole (missing,
// unreadable, over 1 MiB); ReadAclEntry's codes. The entry's path is set
// before reading, so a caller can say which file failed.
Result LoadAclEntryFile(AclEntry* entry, const char16_t* name);

// ReadAclDirectory appends to |acl| the entries of the "*.acl" files of
// |directory|, in name order, each opened by its full path, and adds one to
// *count (when |count| is given) for each entry appended. A file that does
// not load is skipped. 2 for a null list or directory; the enumeration's
// code when the directory cannot be listed or holds no "*.acl" file
// (VELK2_ERR_FILE_OPEN (7)); a failure to append ends the scan with its
// code. Otherwise the result is that of the LAST file tried: 0 when it
// loaded, its failure code when it did not, whatever happened to the files
// before it. Kept so on purpose: LoadAcl relies on it. |skipped|, when
// given, hears of each file that does not load, with its code, as it is met.
using AclFileSkipped = std::function<void(const char16_t* path, Result result)>;
Result ReadAclDirectory(SexpList* acl, const char16_t* directory, uint32_t* count,
                        const AclFileSkipped* skipped = nullptr);

// LoadAclFromDirectory builds the ACL from |directory| and, when given, the
// |extra_directory|: a new list "acl" (with |context|) of the entries of the
// first, then those of the second. *out must be null (else 2; 2 also for a
// null |out| or |directory|). VELK2_ERR_FILE_NOT_FOUND (5), whatever the
// underlying error, when no entry loaded from either directory, or when the
// first directory's scan failed (its last file did not load) and no extra
// directory is given: without an extra directory, a bad last file discards
// the good entries before it. With an extra directory, one good entry in
// either is enough. 3 for memory. On success *out holds one reference.
// |skipped| as for ReadAclDirectory.
Result LoadAclFromDirectory(Ref<SexpList>* out, Velk2Context* context, const char16_t* directory,
                            const char16_t* extra_directory,
                            const AclFileSkipped* skipped = nullptr);

// LoadAcl is LoadAclFromDirectory with the Global directory's "acl"
// subdirectory; |extra_directory| (may be null) is the one a manifest
// context names.
Result LoadAcl(Ref<SexpList>* out, Velk2Context* context, const char16_t* extra_directory,
               const AclFileSkipped* skipped = nullptr);

// ExtractEntryTag reads the first entry's tag out of an ACL held as
// canonical text: |buffer| must begin with "(3:acl(5:entry" (a shorter
// buffer gives VELK2_ERR_BUFFER_OVERFLOW (30), a different byte
// VELK2_ERR_UNEXPECTED_CHAR (28)); the subject field is read and dropped, a
// following "(9:propagate)" too, and the next element goes to *out. 2 for a
// null |out|, a non-null *out, a null buffer or a length of 0. The buffer
// reader's codes (ParseLengthPrefixedList) as they come.
// No version field is expected: an entry starting with "(7:version" yields
// its subject field instead of its tag. Kept: its only input is the reduced
// ACL that the authorization engine prints, whose entries never carry one.
Result ExtractEntryTag(Ref<SexpList>* out, const char* buffer, size_t length,
                       Velk2Context* context);

}  // namespace velk2

#endif  // VELK2_ACL_ACL_ENTRY_H_
