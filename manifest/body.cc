#include "manifest/body.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "frame/paths.h"
#include "frame/text.h"
#include "platform/cursor.h"
#include "platform/utf.h"
#include "sexp/reader.h"

namespace velk2 {

namespace {

// The source's literal codes: 7 when the data ends first, 6 for another byte.
Result Expect(ByteCursor& bytes, std::string_view literal) {
  if (bytes.Match(literal)) return VELK2_SUCCESS;
  if (literal.size() > bytes.remaining()) {
    bytes.Seek(bytes.size());
    return VELK2_ERR_FILE_OPEN;
  }
  return VELK2_ERR_INVALID_DATA;
}

Result ReadAtom(ByteCursor& bytes, std::string_view* value) {
  DisplayHint hint = kHintNone;
  return ReadAtomSpan(bytes, value, &hint);
}

// An entry's name, as a path component that stays inside its directory.
Result ReadName(ByteCursor& bytes, std::u16string* name) {
  std::string_view text;
  Result result = ReadAtom(bytes, &text);
  if (result != VELK2_SUCCESS) return result;
  if (text.empty() || text == "." || text == ".." ||
      text.find_first_of(std::string_view("/\\\0", 3)) != std::string_view::npos) {
    return VELK2_ERR_PARSE_FILE;
  }
  *name = FileNameToWide(text);
  return VELK2_SUCCESS;
}

bool IsSeparator(char16_t c) {
  return c == u'/' || c == u'\\';
}

// The names of |ignored_paths| that lie directly in the level at |path|.
void DistributeIgnored(ManifestDirectory* level, const std::vector<std::u16string>& ignored_paths) {
  const std::u16string& path = level->path;
  for (const std::u16string& ignored : ignored_paths) {
    size_t start = 0;
    if (!path.empty()) {
      if (ignored.size() <= path.size() + 1 || !IsSeparator(ignored[path.size()]) ||
          CompareNoCaseN(ignored.c_str(), path.c_str(), path.size()) != 0) {
        continue;
      }
      start = path.size() + 1;
    }
    std::u16string rest = ignored.substr(start);
    if (std::find_if(rest.begin(), rest.end(), IsSeparator) != rest.end()) continue;
    level->ignored.push_back(std::move(rest));
  }
  std::sort(level->ignored.begin(), level->ignored.end(), NameLess);
}

template <typename Entry>
void SortByName(std::vector<Entry>* entries) {
  auto less = [](const Entry& a, const Entry& b) { return NameLess(a.name, b.name); };
  if (!std::is_sorted(entries->begin(), entries->end(), less)) {
    std::sort(entries->begin(), entries->end(), less);
  }
}

class BodyReader {
 public:
  BodyReader(std::string_view body, const std::vector<std::u16string>* ignored)
      : bytes_(body), ignored_(ignored) {}

  Result Read(ManifestDirectory* root) {
    Result result = Expect(bytes_, "(4:body(12:random-token");
    std::string_view token;
    if (result == VELK2_SUCCESS) result = ReadAtom(bytes_, &token);
    if (result != VELK2_SUCCESS) return result;
    if (token.size() != 4) return VELK2_ERR_RANDOM_TOKEN;
    result = Expect(bytes_, ")");
    if (result == VELK2_SUCCESS) result = ReadEntries(root, 0);
    if (result == VELK2_SUCCESS) result = Expect(bytes_, ")");
    if (result == VELK2_SUCCESS && !bytes_.at_end()) result = VELK2_ERR_PARSE_FILE;
    return result;
  }

 private:
  // The entries of one level, up to its ")" (or the end of the data).
  Result ReadEntries(ManifestDirectory* level, int depth) {
    if (depth > kMaxManifestDepth) return VELK2_ERR_INVALID_S_EXPRESSION;
    while (!bytes_.at_end() && bytes_.Peek() != ')') {
      Result result = VELK2_SUCCESS;
      if (bytes_.Match("(4:file")) {
        result = ReadFile(level);
      } else if (bytes_.Match("(3:dir")) {
        result = ReadDirectory(level, depth);
      } else {
        return VELK2_ERR_PARSE_FILE;
      }
      if (result != VELK2_SUCCESS) return result;
    }
    // The toolkit writes each level in this order already: one pass checks it.
    SortByName(&level->files);
    SortByName(&level->directories);
    if (ignored_ != nullptr) DistributeIgnored(level, *ignored_);
    return VELK2_SUCCESS;
  }

  Result ReadFile(ManifestDirectory* level) {
    ManifestFileEntry entry;
    std::string_view attributes, digest;
    Result result = ReadName(bytes_, &entry.name);
    if (result == VELK2_SUCCESS) result = ReadAtom(bytes_, &attributes);
    if (result == VELK2_SUCCESS) result = ReadAtom(bytes_, &digest);
    if (result == VELK2_SUCCESS)
      result = ParseEntryAttributes(attributes, false, &entry.attributes);
    if (result != VELK2_SUCCESS) return result;
    // A SHA-256 digest: a longer one could never match a file, a shorter one
    // is another algorithm's.
    if (digest.size() != entry.digest.size()) return VELK2_ERR_UNKNOWN_HASH_ID;
    std::memcpy(entry.digest.data(), digest.data(), digest.size());
    entry.digest_length = static_cast<uint32_t>(digest.size());
    result = Expect(bytes_, ")");
    if (result == VELK2_SUCCESS) level->files.push_back(std::move(entry));
    return result;
  }

  Result ReadDirectory(ManifestDirectory* level, int depth) {
    ManifestDirectory directory;
    std::string_view attributes;
    Result result = ReadName(bytes_, &directory.name);
    if (result == VELK2_SUCCESS) result = ReadAtom(bytes_, &attributes);
    if (result == VELK2_SUCCESS) {
      result = ParseEntryAttributes(attributes, true, &directory.attributes);
    }
    if (result != VELK2_SUCCESS) return result;
    directory.path =
        BuildPath(level->path.empty() ? nullptr : level->path.c_str(), directory.name.c_str());
    result = ReadEntries(&directory, depth + 1);
    if (result == VELK2_SUCCESS) result = Expect(bytes_, ")");
    if (result == VELK2_SUCCESS) level->directories.push_back(std::move(directory));
    return result;
  }

  ByteCursor bytes_;
  const std::vector<std::u16string>* ignored_;
};

}  // namespace

bool NameLess(const std::u16string& a, const std::u16string& b) {
  return CompareNoCase(a.c_str(), b.c_str()) < 0;
}

bool ManifestDirectory::IsIgnored(const std::u16string& name) const {
  auto found = std::lower_bound(ignored.begin(), ignored.end(), name, NameLess);
  return found != ignored.end() && !NameLess(name, *found);
}

Result ReadManifestBody(ManifestDirectory* root, std::string_view body,
                        const std::vector<std::u16string>* ignored_paths) {
  if (root == nullptr) return VELK2_ERR_PARAM_NULL;
  root->files.clear();
  root->directories.clear();
  root->ignored.clear();
  return BodyReader(body, ignored_paths).Read(root);
}

}  // namespace velk2
