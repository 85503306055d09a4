#include "manifest/rollback.h"

#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "credentials/date.h"
#include "credentials/hash_value.h"
#include "frame/paths.h"
#include "platform/files.h"
#include "platform/utf.h"
#include "platform/zcry.h"
#include "sexp/reader.h"
#include "sexp/source.h"

namespace velk2 {
namespace {

// A record is one short list; anything longer is not one.
constexpr uint64_t kMaxRecordSize = 64 * 1024;

std::string Atom(std::string_view bytes) {
  return std::to_string(bytes.size()).append(":").append(bytes);
}

// The list read from |bytes|, which must hold exactly one; null otherwise.
Ref<SexpList> ParseOneList(std::string_view bytes) {
  SexpMemorySource source;
  Ref<SexpList> list;
  if (source.AttachCopy(bytes.data(), bytes.size()) != VELK2_SUCCESS ||
      ParseCanonicalList(&list, &source, nullptr) != VELK2_SUCCESS ||
      source.position() != static_cast<int64_t>(bytes.size())) {
    return nullptr;
  }
  return list;
}

const SexpAtom* AtomAt(const SexpList* list, size_t index) {
  const SexpObject* child = list != nullptr ? list->ChildAt(index) : nullptr;
  return child != nullptr ? child->AsAtom() : nullptr;
}

// The identities of a package, as canonical text: (7:package (4:name NAME)
// TAG) for a name, (7:package (4:path DIR) TAG) for the package directory
// made absolute (symlinks resolved when it exists). The tag asked about is
// part of it, so a signer trusted only for another tag cannot move the
// record of a package it names.
std::string Identity(std::string_view kind, std::string_view value,
                     const ManifestContext& context) {
  return "(7:package(" + Atom(kind) + Atom(value) + ")" +
         (context.tag ? StoredForm(*context.tag) : std::string()) + ")";
}

std::string AbsoluteDirectory(const ManifestContext& context) {
  const std::string given = Utf16ToUtf8(context.package_directory);
  if (char* resolved = ::realpath(given.c_str(), nullptr)) {
    std::string absolute = resolved;
    std::free(resolved);
    return absolute;
  }
  std::error_code error;
  std::string absolute = std::filesystem::absolute(given, error).lexically_normal().string();
  return error ? given : absolute;
}

std::string RecordDirectory() {
  return Utf16ToUtf8(StoreDirectory(u"rollback", kStoreGlobal));
}

// The record's path: the SHA-256 of the identity in hex, in the store's
// "rollback" directory.
Result RecordPath(const std::string& identity, std::string* path) {
  Ref<HashValue> digest = HashValue::New();
  Result result = digest->Begin(ZCRY_HASH_SHA256);
  if (result == VELK2_SUCCESS) result = digest->Update(identity.data(), identity.size());
  if (result == VELK2_SUCCESS) result = digest->Finish();
  if (result != VELK2_SUCCESS) return result;
  *path = RecordDirectory() + "/" + HexString(digest->digest().data(), digest->digest().size());
  return VELK2_SUCCESS;
}

// The time the record at |path| holds for |identity|, none when there is
// no record; VELK2_ERR_READ_FILE (10) when there is a file that is not the
// record of this identity, or the records' directory is not one.
Result ReadRecord(const std::string& path, const std::string& identity,
                  std::optional<int64_t>* recorded) {
  recorded->reset();
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) return errno == ENOENT ? VELK2_SUCCESS : VELK2_ERR_READ_FILE;
  std::vector<uint8_t> bytes;
  if (ReadWholeFile(Utf8ToUtf16(path).c_str(), kMaxRecordSize, &bytes) != VELK2_SUCCESS) {
    return VELK2_ERR_READ_FILE;
  }
  Ref<SexpList> record =
      ParseOneList(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
  const SexpAtom* head = AtomAt(record.get(), 0);
  const SexpObject* who = record != nullptr ? record->ChildAt(1) : nullptr;
  const SexpObject* when = record != nullptr ? record->ChildAt(2) : nullptr;
  const SexpList* time = when != nullptr ? when->AsList() : nullptr;
  const SexpAtom* date = AtomAt(time, 1);
  const SexpAtom* time_head = AtomAt(time, 0);
  if (head == nullptr || !head->AtomEqualsText("rollback") || record->ChildCount() != 3 ||
      who == nullptr || StoredForm(*who) != identity || time_head == nullptr ||
      !time_head->AtomEqualsText("time-of-signing") || time->ChildCount() != 2 || date == nullptr ||
      date->length() != kDateLength || DateText(ReadDate(date)) != date->bytes()) {
    return VELK2_ERR_READ_FILE;
  }
  *recorded = ReadDate(date);
  return VELK2_SUCCESS;
}

std::string RecordText(const std::string& identity, int64_t time) {
  return "(8:rollback" + identity + "(15:time-of-signing" + Atom(DateText(time)) + "))";
}

// Brings the record of |identity| at |path| up to |time| unless it already
// holds as late a time; called under the store's lock.
Result Advance(const std::string& path, const std::string& identity, int64_t time) {
  std::optional<int64_t> recorded;
  const Result result = ReadRecord(path, identity, &recorded);
  // A record that does not read is replaced: the verification that got here
  // checked another identity's record, and this one must not stay broken.
  if (result == VELK2_SUCCESS && recorded && *recorded >= time) return VELK2_SUCCESS;
  return WriteFileAtomically(path, RecordText(identity, time), 0644, true);
}

}  // namespace

HeaderAttributes ReadHeaderAttributes(const SexpList* version) {
  HeaderAttributes attributes;
  const SexpAtom* second = AtomAt(version, 2);
  if (second == nullptr || second->length() == 0 || second->bytes()[0] != '(') return attributes;
  Ref<SexpList> list = ParseOneList(second->bytes());
  const SexpAtom* head = AtomAt(list.get(), 0);
  if (head == nullptr || !head->AtomEqualsText("velk2")) return attributes;
  for (size_t i = 1; i < list->ChildCount(); ++i) {
    const SexpList* element = list->ChildAt(i)->AsList();
    const SexpAtom* key = AtomAt(element, 0);
    const SexpAtom* value = AtomAt(element, 1);
    if (key == nullptr || value == nullptr || element->ChildCount() != 2) continue;
    if (key->AtomEqualsText("name") && attributes.name.empty() &&
        ValidPackageName(std::string(value->bytes()))) {
      attributes.name = value->bytes();
    }
  }
  // The patterns: every atom after "ignore", of the first such element.
  for (size_t i = 1; i < list->ChildCount() && attributes.ignore.empty(); ++i) {
    const SexpList* element = list->ChildAt(i)->AsList();
    const SexpAtom* key = AtomAt(element, 0);
    if (key == nullptr || !key->AtomEqualsText("ignore")) continue;
    for (size_t k = 1; k < element->ChildCount(); ++k) {
      if (const SexpAtom* pattern = AtomAt(element, k)) {
        attributes.ignore.emplace_back(pattern->bytes());
      }
    }
  }
  return attributes;
}

std::string HeaderAttributeText(const HeaderAttributes& attributes) {
  std::string text = "(5:velk2";
  if (!attributes.name.empty()) text += "(4:name" + Atom(attributes.name) + ")";
  if (!attributes.ignore.empty()) {
    text += "(6:ignore";
    for (const std::string& pattern : attributes.ignore) text += Atom(pattern);
    text += ")";
  }
  return text + ")";
}

bool ValidPackageName(const std::string& name) {
  if (name.empty() || name.size() > 255 || name.front() == '/' || name.back() == '/') return false;
  for (unsigned char c : name) {
    if (c < 0x20 || c == 0x7F) return false;
  }
  // Well-formed UTF-8 only: the conversion replaces every ill-formed byte.
  return Utf16ToUtf8(Utf8ToUtf16(name)) == name;
}

Result CheckRollback(const ManifestContext& context, int64_t now, RollbackReport* report) {
  *report = RollbackReport{};
  if ((context.rollback_flags & kRollbackProtect) == 0 || !context.time_of_signing) {
    return VELK2_SUCCESS;
  }
  report->checked = true;
  const SexpAtom* date = context.time_of_signing.get();
  report->time_of_signing = ReadDate(date);
  // Dates are compared as text by the authorization and as numbers here: a
  // text that does not read back as written would be judged twice, apart.
  if (date->length() != kDateLength || DateText(report->time_of_signing) != date->bytes()) {
    report->malformed = true;
    return VELK2_ERR_TIME_STAMP;
  }
  if (report->time_of_signing > now && report->time_of_signing - now > kRollbackFutureSlack) {
    report->future = true;
    return VELK2_ERR_TIME_STAMP;
  }
  const HeaderAttributes attributes = ReadHeaderAttributes(context.version.get());
  const std::string directory = AbsoluteDirectory(context);
  report->named = !attributes.name.empty();
  report->package = report->named ? attributes.name : directory;
  // A named package is known by its name wherever it lies; its directory is
  // recorded too, so that an old manifest without a name cannot come back
  // there. A manifest without a name is known by its directory.
  report->identity = Identity(report->named ? "name" : "path", report->package, context);
  if (report->named) report->directory_identity = Identity("path", directory, context);
  Result result = RecordPath(report->identity, &report->record_path);
  if (result == VELK2_SUCCESS && report->named) {
    result = RecordPath(report->directory_identity, &report->directory_record_path);
  }
  if (result == VELK2_SUCCESS) {
    result = ReadRecord(report->record_path, report->identity, &report->recorded);
  }
  if (result != VELK2_SUCCESS) return result;
  if (report->recorded && report->time_of_signing < *report->recorded) {
    if ((context.rollback_flags & kRollbackAllowOlder) == 0) {
      report->older = true;
      return VELK2_ERR_TIME_STAMP;
    }
    report->allowed_older = true;
  }
  return VELK2_SUCCESS;
}

void RecordRollback(RollbackReport* report) {
  if (!report->checked || report->record_path.empty()) return;
  const std::string store = Utf16ToUtf8(GlobalDirectory());
  const std::string directory = RecordDirectory();
  std::error_code error;
  const bool exists = std::filesystem::is_directory(directory, error);
  // Without a store there is nowhere to remember anything.
  if (store.empty() || !Writable(exists ? directory : store)) {
    report->read_only = true;
    return;
  }
  FileLock lock;
  Result result = LockGlobalStore(&lock);
  if (result == VELK2_SUCCESS && !exists) result = EnsureDirectory(Utf8ToUtf16(directory).c_str());
  // Another verification may have recorded a newer time meanwhile: Advance
  // reads the record again under the lock and never moves it back.
  if (result == VELK2_SUCCESS) {
    result = Advance(report->record_path, report->identity, report->time_of_signing);
  }
  if (result == VELK2_SUCCESS && !report->directory_record_path.empty()) {
    result =
        Advance(report->directory_record_path, report->directory_identity, report->time_of_signing);
  }
  report->write_result = result;
  report->written = result == VELK2_SUCCESS;
}

}  // namespace velk2
