// The body of a manifest: the file tree of a package, each file with the
// SHA-256 digest of its content.
//
//   "(4:body(12:random-token" 4-byte atom ")" entry* ")"
//   entry: "(4:file" name attributes digest ")"
//        | "(3:dir" name attributes entry* ")"
//
// In memory the body is a tree of directories, each level's files and
// subdirectories sorted by name without regard to ASCII case. Names are
// bytes: they become UTF-16 without loss (FileNameToWide), so two names
// never become one. The attributes (manifest/attributes.h) say what else
// an entry records: size, mode, owner, or that it is a symbolic link.
#ifndef VELK2_MANIFEST_BODY_H_
#define VELK2_MANIFEST_BODY_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "frame/result.h"
#include "manifest/attributes.h"

namespace velk2 {

struct ManifestFileEntry {
  std::u16string name;
  uint32_t digest_length = 0;
  std::array<uint8_t, 32> digest{};
  EntryAttributes attributes;
};

struct ManifestDirectory {
  std::u16string name;  // empty for the root
  // The root's is the package directory (empty when two manifests are
  // compared); a subdirectory's is its parent's joined with its name.
  std::u16string path;
  std::vector<ManifestFileEntry> files;
  std::vector<ManifestDirectory> directories;
  std::vector<std::u16string> ignored;  // names of this level left out of comparisons, sorted
  EntryAttributes attributes;           // what the entry records of the directory itself

  // Whether |name| is one of this level's ignored names.
  bool IsIgnored(const std::u16string& name) const;
};

// The deepest directory nesting a body may have.
constexpr int kMaxManifestDepth = 256;

// ReadManifestBody reads |body|, the bytes of "(4:body ...)", into |root|,
// whose path is set. |ignored_paths| (optional) are paths left out of every
// comparison; each one that lies directly in a level (its path, then "/" or
// "\", then a name) becomes one of that level's ignored names, and with an
// empty root path so does each bare name at the root.
// VELK2_ERR_RANDOM_TOKEN (33) for a token that is not 4 bytes;
// VELK2_ERR_UNKNOWN_HASH_ID (13) for a file digest that is not 32 bytes;
// VELK2_ERR_PARSE_FILE (9) for anything but a file or directory entry, for a
// name that is empty, "." or "..", or holds "/", "\" or NUL (a signed
// manifest never reaches outside its package), for attributes that do not
// read (ParseEntryAttributes), and for bytes after the body;
// VELK2_ERR_INVALID_S_EXPRESSION (29) for directories nested deeper than
// kMaxManifestDepth; the atom reader's and the literals' codes (6, 7).
Result ReadManifestBody(ManifestDirectory* root, std::string_view body,
                        const std::vector<std::u16string>* ignored_paths);

// The name order of manifests: ASCII letters folded, then by UTF-16 unit.
bool NameLess(const std::u16string& a, const std::u16string& b);

}  // namespace velk2

#endif  // VELK2_MANIFEST_BODY_H_
