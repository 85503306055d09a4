#include "acl/acl_entry.h"

#include <memory>
#include <utility>

#include "credentials/certificate.h"
#include "frame/guard.h"
#include "frame/paths.h"
#include "sexp/reader.h"

namespace velk2 {

namespace {

bool IsBareName(const char16_t* name) {
  for (const char16_t* p = name; *p != 0; ++p) {
    if (*p == u'/' || *p == u'\\') return false;
  }
  return true;
}

// A tag is a list headed by the atom "tag", without a display hint (the
// engine reads a hinted atom as no keyword).
bool IsTagList(const SexpList& list) {
  const SexpObject* head = list.FirstChild();
  const SexpAtom* atom = head != nullptr ? head->AsAtom() : nullptr;
  return atom != nullptr && atom->hint() == kHintNone && atom->AtomEqualsText("tag");
}

}  // namespace

const AclEntry* AclEntry::From(const SexpObject* object) {
  const SexpList* list = object ? object->AsList() : nullptr;
  return list && list->ClassFlag() == kClassAclEntry ? static_cast<const AclEntry*>(list) : nullptr;
}

Result AclEntry::Parse(SexpSource* source) {
  return ReadAclEntry(this, source);
}

// The unguarded steps of the entry points below; they run under the entry
// point's one Guard.
struct AclEntryReader {
  static Result ReadEntry(AclEntry& e, SexpSource* source);
  static Result LoadEntryFile(AclEntry* entry, const char16_t* name);
};

Result AclEntryReader::ReadEntry(AclEntry& e, SexpSource* source) {
  Velk2Context* context = e.context();
  Result result = source->Expect("(5:entry");
  if (result != VELK2_SUCCESS) return result;
  result = e.AppendTextAtom("entry");
  if (result != VELK2_SUCCESS) return result;

  // The version and the subject share their opening "(7:"; a "v" after it
  // means a version, which must be "1".
  result = source->Expect("(7:");
  if (result != VELK2_SUCCESS) return result;
  if (source->GetByte(false) == 'v') {
    result = source->Expect("version1:1)(7:");
    if (result != VELK2_SUCCESS) return result;
    Ref<SexpList> version;
    result = NewKeywordListWithText(&version, "version", "1", context);
    if (result != VELK2_SUCCESS) return result;
    e.version_ = version;
    result = e.Append(std::move(version));
    if (result != VELK2_SUCCESS) return result;
  }

  result = source->Expect("subject");
  if (result != VELK2_SUCCESS) return result;
  Ref<Principal> subject;
  result = ReadSubject(source, &subject, context);
  if (result != VELK2_SUCCESS) return result;
  result = source->Expect(")");
  if (result != VELK2_SUCCESS) return result;
  e.subject_ = subject;
  result = AppendField(&e, "subject", std::move(subject));
  if (result != VELK2_SUCCESS) return result;

  if (MatchLiteral(source, "(9:propagate)", kExpectOptional)) {
    e.propagate_ = 1;
    result = AppendField(&e, "propagate", Ref<SexpObject>());
    if (result != VELK2_SUCCESS) return result;
  }

  Ref<SexpList> tag;
  result = ParseCanonicalList(&tag, source, context);
  if (result != VELK2_SUCCESS) return result;
  // An entry is a root grant and the engine reads a missing tag as the one
  // asked for, so any other list here would grant everything: refused.
  if (!IsTagList(*tag)) return VELK2_ERR_AUTH_TAG_MISSING;
  e.tag_ = tag;
  result = e.Append(std::move(tag));
  if (result != VELK2_SUCCESS) return result;

  // Subject and tag alone make a complete entry.
  if (MatchLiteral(source, ")", kExpectPeek)) return VELK2_SUCCESS;

  result = ReadOptionalValidField(source, &e, &e.not_before_, &e.not_after_);
  if (result != VELK2_SUCCESS) return result;

  if (MatchLiteral(source, "(10:generation", kExpectOptional)) {
    Ref<SexpAtom> generation;
    result = ReadFieldAtom(source, &generation, context);
    if (result != VELK2_SUCCESS) return result;
    // Only the first byte counts; an empty atom has none.
    e.generation_ = generation->length() != 0 ? generation->data()[0] : 0;
    result = AppendField(&e, "generation", std::move(generation));
    if (result != VELK2_SUCCESS) return result;
  }

  result = ReadOptionalAtomField(source, &e, "(7:comment", "comment", &e.comment_);
  if (result != VELK2_SUCCESS) return result;

  return source->Expect(")");
}

Result AclEntryReader::LoadEntryFile(AclEntry* entry, const char16_t* name) {
  std::u16string path;
  if (IsBareName(name)) {
    Result result = StoreFilePath(entry->StoreSubdirectory(), entry->FileExtension(), name,
                                  entry->location(), &path);
    if (result != VELK2_SUCCESS) return result;
  } else {
    path = name;
  }
  entry->path_ = path;
  // The source is closed on every path when it goes out of scope.
  SexpMemorySource source;
  if (source.LoadFile(path.c_str()) != VELK2_SUCCESS) return VELK2_ERR_FILE_OPEN;
  return ReadEntry(*entry, &source);
}

Result ReadAclEntry(AclEntry* entry, SexpSource* source) {
  if (entry == nullptr || source == nullptr || entry->ChildCount() != 0) {
    return VELK2_ERR_INVALID_PARAM;
  }
  return Guard([&] { return AclEntryReader::ReadEntry(*entry, source); });
}

Result LoadAclEntryFile(AclEntry* entry, const char16_t* name) {
  if (entry == nullptr || name == nullptr) return VELK2_ERR_INVALID_PARAM;
  return Guard([&] { return AclEntryReader::LoadEntryFile(entry, name); });
}

Result ReadAclDirectory(SexpList* acl, const char16_t* directory, uint32_t* count,
                        const AclFileSkipped* skipped) {
  if (acl == nullptr || directory == nullptr) return VELK2_ERR_INVALID_PARAM;
  return Guard([&]() -> Result {
    DirectoryEnumerator files;
    Result result = files.Open(directory, u"*.acl");
    if (result != VELK2_SUCCESS) return result;
    for (const char16_t* path = files.Next(true); path != nullptr; path = files.Next(true)) {
      Ref<AclEntry> entry = AclEntry::New(acl->context());
      result = AclEntryReader::LoadEntryFile(entry.get(), path);
      // Running out of memory is no bad file: it ends the scan.
      if (result == VELK2_ERR_MEM_ALLOC) return result;
      if (result != VELK2_SUCCESS) {  // skipped; the entry goes with |entry|
        if (skipped != nullptr && *skipped) (*skipped)(path, result);
        continue;
      }
      result = acl->Append(std::move(entry));
      if (result != VELK2_SUCCESS) return result;
      if (count != nullptr) ++*count;
    }
    return result;
  });
}

Result LoadAclFromDirectory(Ref<SexpList>* out, Velk2Context* context, const char16_t* directory,
                            const char16_t* extra_directory, const AclFileSkipped* skipped) {
  if (out == nullptr || *out != nullptr || directory == nullptr) return VELK2_ERR_INVALID_PARAM;
  Ref<SexpList> acl;
  Result result = Guard([&]() -> Result {
    acl = SexpList::New(context);
    return acl->AppendTextAtom("acl");
  });
  if (result != VELK2_SUCCESS) return result;
  uint32_t count = 0;
  const Result first = ReadAclDirectory(acl.get(), directory, &count, skipped);
  if (extra_directory != nullptr) {
    (void)ReadAclDirectory(acl.get(), extra_directory, &count, skipped);
  }
  if ((first != VELK2_SUCCESS && extra_directory == nullptr) || count == 0) {
    return VELK2_ERR_FILE_NOT_FOUND;
  }
  *out = std::move(acl);
  return VELK2_SUCCESS;
}

Result LoadAcl(Ref<SexpList>* out, Velk2Context* context, const char16_t* extra_directory,
               const AclFileSkipped* skipped) {
  if (out == nullptr || *out != nullptr) return VELK2_ERR_INVALID_PARAM;
  std::u16string directory;
  Result result = Guard([&]() -> Result {
    directory = BuildPath(GlobalDirectory(), u"acl");
    return VELK2_SUCCESS;
  });
  if (result != VELK2_SUCCESS) return result;
  return LoadAclFromDirectory(out, context, directory.c_str(), extra_directory, skipped);
}

Result ExtractEntryTag(Ref<SexpList>* out, const char* buffer, size_t length,
                       Velk2Context* context) {
  if (out == nullptr || *out != nullptr || buffer == nullptr || length == 0) {
    return VELK2_ERR_INVALID_PARAM;
  }
  size_t position = 0;
  Result result = ExpectLiteralBounded("(3:acl(5:entry", buffer, length, &position);
  if (result != VELK2_SUCCESS) return result;
  Ref<SexpList> dropped;
  result = ParseLengthPrefixedList(&dropped, buffer, length, &position, context);
  if (result != VELK2_SUCCESS) return result;
  if (position + 1 < length && buffer[position] == '(' && buffer[position + 1] == '9') {
    dropped.reset();
    result = ParseLengthPrefixedList(&dropped, buffer, length, &position, context);
    if (result != VELK2_SUCCESS) return result;
  }
  Ref<SexpList> tag;
  result = ParseLengthPrefixedList(&tag, buffer, length, &position, context);
  if (result != VELK2_SUCCESS) return result;
  *out = std::move(tag);
  return VELK2_SUCCESS;
}

}  // namespace velk2
