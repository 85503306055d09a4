// Paths and the credential stores. A path is at most 260 UTF-16 units
// including its NUL; components are joined with "/", and both "/" and "\"
// separate components where a path is split.
#ifndef VELK2_FRAME_PATHS_H_
#define VELK2_FRAME_PATHS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "frame/result.h"
#include "platform/files.h"

namespace velk2 {

constexpr size_t kMaxPath = 260;
// The not-found answer of internal routines; never returned across an export.
constexpr Result kInternalNotFound = 0xFFFFFFFFu;

// Where a credential's file lives.
enum StoreLocation : uint32_t {
  kStoreHome = 0,
  kStoreGlobal = 1,
  kStoreVerbatim = 2,  // the name is a path taken as it stands
};

// The process-wide store roots (empty until set). The setters keep at most 259
// units; a null or longer path empties the root and gives 22.
Result SetHomeDirectory(const char16_t* path);
Result SetGlobalDirectory(const char16_t* path);
const char16_t* HomeDirectory();
const char16_t* GlobalDirectory();

// CopyBounded copies |source| with its NUL into |capacity| units. 22, with the
// destination emptied, when it does not fit or |source| is null; 22 for a null
// destination or zero capacity.
Result CopyBounded(char16_t* destination, size_t capacity, const char16_t* source);

// BuildPath joins the non-null components with "/": no separator while the
// output is still empty, and an empty component after a non-empty output still
// adds its separator ("x" + "" is "x/").
std::u16string BuildPath(const char16_t* a, const char16_t* b = nullptr,
                         const char16_t* c = nullptr, const char16_t* d = nullptr);
// The bounded form: false, |out| untouched, when the joined size (lengths plus
// one unit per non-null component) exceeds |capacity|.
bool BuildPathBounded(std::u16string* out, size_t capacity, const char16_t* a,
                      const char16_t* b = nullptr, const char16_t* c = nullptr,
                      const char16_t* d = nullptr);
// Concatenate joins the non-null components without separators.
std::u16string Concatenate(const char16_t* a, const char16_t* b = nullptr,
                           const char16_t* c = nullptr, const char16_t* d = nullptr);

// FileNamePart: the part after the last "/" or "\" (the whole path when there
// is none); null for a null or empty path or one ending in a separator.
const char16_t* FileNamePart(const char16_t* path);
// ExtensionPart: the last "." of the final component and what follows; null
// when the path is shorter than two units, a separator follows the last dot,
// or the dot directly follows a separator.
const char16_t* ExtensionPart(const char16_t* path);

// StoreDirectory: "." for location 2 or an empty subdirectory name; otherwise
// the root of |location| joined with |subdirectory|.
std::u16string StoreDirectory(const char16_t* subdirectory, uint32_t location);
// StoreFilePath: the path of a credential file. Location 2 or an empty
// subdirectory takes |name| as it stands; otherwise root/subdirectory (created
// when missing) joined with the file-name part of |name|. |extension| is added
// unless the result already ends in it (case-insensitively).
// VELK2_ERR_MEM_ALLOC (3) when the root and subdirectory need more than 258
// units or the result is over the path limit.
Result StoreFilePath(const char16_t* subdirectory, const char16_t* extension, const char16_t* name,
                     uint32_t location, std::u16string* out);

// LockGlobalStore takes the Global store's lock, the file "store.lock" in its
// "cert" subdirectory (created when missing): whoever compares a stored file
// with a new one and replaces it does both under it. The lock's codes.
Result LockGlobalStore(FileLock* lock);

// DirectoryEnumerator lists the entries of a directory that match a pattern
// whose "*" components are wildcards (matched without regard to ASCII case),
// sorted by name with ASCII letters folded, "." and ".." skipped.
class DirectoryEnumerator {
 public:
  // Open(directory, a, b, c): the pattern is BuildPath(directory, a, b, c); the
  // directory is the same join without the components that contain "*".
  // VELK2_ERR_INVALID_DATA (6) when already open, kInternalNotFound when the
  // pattern is over 260 units, VELK2_ERR_FILE_OPEN (7) when nothing matches
  // or the directory is missing (an empty match is a failure, on purpose).
  Result Open(const char16_t* directory, const char16_t* a = nullptr, const char16_t* b = nullptr,
              const char16_t* c = nullptr);
  // The next entry, or null at the end. With |full_path| the directory joined
  // with the name, else the bare name; valid until the next call.
  const char16_t* Next(bool full_path);
  // Whether the entry last returned is a directory.
  bool CurrentIsDirectory() const;
  bool is_open() const { return open_; }
  void Close();

 private:
  bool open_ = false;
  std::u16string directory_;
  std::u16string pattern_;
  std::vector<DirectoryEntry> entries_;
  size_t next_ = 0;
  std::u16string current_;
};

// True when |name| matches the wildcard |pattern| ("*" any run, ASCII case folded).
bool MatchesPattern(const char16_t* pattern, const char16_t* name);

}  // namespace velk2

#endif  // VELK2_FRAME_PATHS_H_
