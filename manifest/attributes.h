// What a manifest entry records beyond its name and digest, in the second
// atom of a file or directory entry. A reader that follows the manifest
// format reads and ignores that atom, so every manifest stays readable to
// it; manifests that record nothing there (or only a file's size, as the
// first velk2 manifests did) are compared as before.
//
// The atom holds tokens separated by one space:
//   file:       SIZE [mode=OOOO] [uid=N gid=N]
//   symlink:    SIZE link=HEX [uid=N gid=N]     (SIZE: the target's length)
//   directory:  [mode=OOOO] [uid=N gid=N]
// SIZE is decimal, OOOO the permission bits with setuid, setgid and sticky
// in octal, HEX the link's target text; a symlink entry's digest is the
// SHA-256 of that text, so the signature covers where the link points.
// Tokens of other names are passed over, for what a later writer adds.
#ifndef VELK2_MANIFEST_ATTRIBUTES_H_
#define VELK2_MANIFEST_ATTRIBUTES_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "frame/result.h"

namespace velk2 {

struct EntryAttributes {
  std::optional<uint64_t> size;
  std::optional<uint32_t> mode;  // 07777 at most
  std::optional<uint32_t> uid, gid;
  bool link = false;   // a symbolic link
  std::string target;  // its target as recorded
};

// ParseEntryAttributes reads a second atom. VELK2_ERR_PARSE_FILE (9) for a
// token it knows with a value it does not (a mode past 07777, a uid without
// a gid, a link target that is empty or not hex, a link on a directory).
Result ParseEntryAttributes(std::string_view atom, bool directory, EntryAttributes* out);
// FormatEntryAttributes writes the second atom that records |attributes|.
std::string FormatEntryAttributes(const EntryAttributes& attributes, bool directory);

// "0755": a mode as the atom and the reports write it.
std::string ModeText(uint32_t mode);

}  // namespace velk2

#endif  // VELK2_MANIFEST_ATTRIBUTES_H_
