#include "frame/paths.h"

#include <cstring>

#include "frame/text.h"
#include "platform/utf.h"

namespace velk2 {
namespace {

// The two store roots: process-wide, unguarded, set at start-up by the caller.
char16_t g_home[kMaxPath];
char16_t g_global[kMaxPath];

bool IsSeparator(char16_t c) {
  return c == u'/' || c == u'\\';
}

Result SetRoot(char16_t* root, const char16_t* path) {
  // 22 is the C run-time's invalid-argument value; callers test for it as it is.
  return CopyBounded(root, kMaxPath, path) == 0 ? VELK2_SUCCESS : VELK2_ERR_HASH_MISMATCH;
}

const char16_t* RootOf(uint32_t location) {
  return location == kStoreGlobal ? g_global : g_home;
}

bool HasWildcard(const char16_t* component) {
  for (const char16_t* p = component; p != nullptr && *p != 0; ++p) {
    if (*p == u'*' || *p == u'?') return true;
  }
  return false;
}

// The final component of a search pattern.
const char16_t* LastComponent(const std::u16string& pattern) {
  size_t slash = pattern.find_last_of(u"/\\");
  return pattern.c_str() + (slash == std::u16string::npos ? 0 : slash + 1);
}

}  // namespace

Result SetHomeDirectory(const char16_t* path) {
  return SetRoot(g_home, path);
}
Result SetGlobalDirectory(const char16_t* path) {
  return SetRoot(g_global, path);
}
const char16_t* HomeDirectory() {
  return g_home;
}
const char16_t* GlobalDirectory() {
  return g_global;
}

Result CopyBounded(char16_t* destination, size_t capacity, const char16_t* source) {
  if (destination == nullptr || capacity == 0) return VELK2_ERR_HASH_MISMATCH;
  size_t length = WideLength(source);
  if (source == nullptr || length + 1 > capacity) {
    destination[0] = 0;
    return VELK2_ERR_HASH_MISMATCH;
  }
  std::memcpy(destination, source, (length + 1) * sizeof(char16_t));
  return VELK2_SUCCESS;
}

bool BuildPathBounded(std::u16string* out, size_t capacity, const char16_t* a, const char16_t* b,
                      const char16_t* c, const char16_t* d) {
  const char16_t* parts[] = {a, b, c, d};
  size_t needed = 0;
  for (const char16_t* p : parts) {
    if (p != nullptr) needed += WideLength(p) + 1;
  }
  if (needed > capacity) return false;
  std::u16string path;
  path.reserve(needed);
  for (const char16_t* p : parts) {
    if (p == nullptr) continue;
    if (!path.empty()) path.push_back(u'/');
    path.append(p);
  }
  *out = std::move(path);
  return true;
}

std::u16string BuildPath(const char16_t* a, const char16_t* b, const char16_t* c,
                         const char16_t* d) {
  std::u16string path;
  BuildPathBounded(&path, SIZE_MAX, a, b, c, d);
  return path;
}

std::u16string Concatenate(const char16_t* a, const char16_t* b, const char16_t* c,
                           const char16_t* d) {
  std::u16string out;
  for (const char16_t* p : {a, b, c, d}) {
    if (p != nullptr) out.append(p);
  }
  return out;
}

const char16_t* FileNamePart(const char16_t* path) {
  if (path == nullptr || *path == 0) return nullptr;
  const char16_t* name = path;
  for (const char16_t* p = path; *p != 0; ++p) {
    if (IsSeparator(*p)) name = p + 1;
  }
  return *name == 0 ? nullptr : name;
}

const char16_t* ExtensionPart(const char16_t* path) {
  size_t length = WideLength(path);
  if (length < 2) return nullptr;
  for (size_t i = length; i-- > 0;) {
    if (IsSeparator(path[i])) return nullptr;
    if (path[i] == u'.') {
      if (i > 0 && IsSeparator(path[i - 1])) return nullptr;  // "\.cert" has no extension
      return path + i;
    }
  }
  return nullptr;
}

std::u16string StoreDirectory(const char16_t* subdirectory, uint32_t location) {
  if (location == kStoreVerbatim || subdirectory == nullptr || *subdirectory == 0) return u".";
  return BuildPath(RootOf(location), subdirectory);
}

Result LockGlobalStore(FileLock* lock) {
  const std::u16string directory = StoreDirectory(u"cert", kStoreGlobal);
  if (directory.size() + 12 >= kMaxPath) return VELK2_ERR_WRITE_FILE;
  EnsureDirectory(directory.c_str());
  return lock->Acquire(Utf16ToUtf8(BuildPath(directory.c_str(), u"store.lock")));
}

Result StoreFilePath(const char16_t* subdirectory, const char16_t* extension, const char16_t* name,
                     uint32_t location, std::u16string* out) {
  if (name == nullptr || out == nullptr) return VELK2_ERR_INVALID_PARAM;
  std::u16string path;
  if (location == kStoreVerbatim || subdirectory == nullptr || *subdirectory == 0) {
    path = name;
  } else {
    // Room is kept for the separator and at least one unit of the name.
    if (!BuildPathBounded(&path, kMaxPath - 2, RootOf(location), subdirectory)) {
      return VELK2_ERR_MEM_ALLOC;
    }
    // A missing directory is created here; a failure shows when the file is opened.
    EnsureDirectory(path.c_str());
    const char16_t* file = FileNamePart(name);
    size_t file_length = WideLength(file);
    if (path.size() + 1 + file_length + 1 > kMaxPath) return VELK2_ERR_MEM_ALLOC;
    path.push_back(u'/');
    if (file != nullptr) path.append(file);
  }
  const char16_t* current = ExtensionPart(path.c_str());
  if (extension != nullptr && *extension != 0 &&
      (current == nullptr || CompareNoCase(current, extension) != 0)) {
    path.append(extension);
  }
  *out = std::move(path);
  return VELK2_SUCCESS;
}

bool MatchesPattern(const char16_t* pattern, const char16_t* name) {
  // Iterative glob match with one backtrack point: linear in practice, never recursive.
  const char16_t* star = nullptr;
  const char16_t* resume = nullptr;
  while (*name != 0) {
    if (*pattern == u'*') {
      star = pattern++;
      resume = name;
    } else if (*pattern != 0 && (*pattern == u'?' || FoldAscii(*pattern) == FoldAscii(*name))) {
      ++pattern;
      ++name;
    } else if (star != nullptr) {
      pattern = star + 1;
      name = ++resume;
    } else {
      return false;
    }
  }
  while (*pattern == u'*') ++pattern;
  return *pattern == 0;
}

Result DirectoryEnumerator::Open(const char16_t* directory, const char16_t* a, const char16_t* b,
                                 const char16_t* c) {
  if (open_) return VELK2_ERR_INVALID_DATA;
  std::u16string pattern;
  if (!BuildPathBounded(&pattern, kMaxPath + 1, directory, a, b, c)) return kInternalNotFound;
  const char16_t* parts[] = {a, b, c};
  for (const char16_t*& p : parts) {
    if (HasWildcard(p)) p = nullptr;
  }
  std::u16string plain = BuildPath(directory, parts[0], parts[1], parts[2]);
  // Without a wildcard the pattern names the directory whose entries are listed.
  const char16_t* filter = HasWildcard(LastComponent(pattern)) ? LastComponent(pattern) : u"*";
  std::vector<DirectoryEntry> all;
  if (!ListDirectory(plain.c_str(), &all)) return VELK2_ERR_FILE_OPEN;
  std::vector<DirectoryEntry> matched;
  for (DirectoryEntry& e : all) {
    if (MatchesPattern(filter, e.name.c_str())) matched.push_back(std::move(e));
  }
  // "." matches a pattern such as "*" as well, so an empty directory still opens
  // under "*" while "*.cert" over it fails: the empty match is a failure on purpose.
  if (matched.empty() && !MatchesPattern(filter, u".")) return VELK2_ERR_FILE_OPEN;
  directory_ = std::move(plain);
  pattern_ = std::move(pattern);
  entries_ = std::move(matched);
  next_ = 0;
  current_.clear();
  open_ = true;
  return VELK2_SUCCESS;
}

const char16_t* DirectoryEnumerator::Next(bool full_path) {
  if (!open_ || next_ >= entries_.size()) return nullptr;
  const DirectoryEntry& e = entries_[next_++];
  current_ = full_path ? BuildPath(directory_.c_str(), e.name.c_str()) : e.name;
  return current_.c_str();
}

bool DirectoryEnumerator::CurrentIsDirectory() const {
  return open_ && next_ > 0 && entries_[next_ - 1].is_directory;
}

void DirectoryEnumerator::Close() {
  open_ = false;
  directory_.clear();
  pattern_.clear();
  entries_.clear();
  current_.clear();
  next_ = 0;
}

}  // namespace velk2
