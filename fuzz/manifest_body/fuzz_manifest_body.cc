// The manifest body reader on arbitrary bytes, with a few ignored paths.
// Properties of every body that reads: each level is sorted, no name could
// leave its directory, every digest has 32 bytes, and the tree compared with
// itself is valid throughout. Nothing may crash, leak or read out of bounds.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "manifest/body.h"
#include "manifest/compare.h"

namespace {

using namespace velk2;
using fuzz::Check;

size_t CheckLevel(const ManifestDirectory& level) {
  size_t entries = level.files.size() + level.directories.size();
  for (size_t i = 0; i < level.files.size(); ++i) {
    const std::u16string& name = level.files[i].name;
    Check(!name.empty() && name != u"." && name != u"..", "a file name stays in its directory");
    Check(name.find_first_of(u"/\\") == std::u16string::npos, "a file name has no separator");
    Check(level.files[i].digest_length == 32, "a digest has 32 bytes");
    Check(i == 0 || !NameLess(name, level.files[i - 1].name), "files are sorted");
  }
  for (size_t i = 0; i < level.directories.size(); ++i) {
    const ManifestDirectory& directory = level.directories[i];
    Check(directory.name.find_first_of(u"/\\") == std::u16string::npos,
          "a directory name has no separator");
    Check(i == 0 || !NameLess(directory.name, level.directories[i - 1].name),
          "directories are sorted");
    entries += CheckLevel(directory);
  }
  return entries;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::vector<std::u16string> ignored = {u"a", u"bin/x", u"d/e/f"};
  ManifestDirectory root;
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  if (ReadManifestBody(&root, body, &ignored) != VELK2_SUCCESS) return 0;
  CheckLevel(root);
  CompareResults results;
  const Result code = CompareDirectories(root, root, &results);
  Check(code == VELK2_SUCCESS, "a tree is the same as itself");
  for (const CompareResult& result : results) {
    Check(result.status == VELK2_ENTRY_VALID, "every entry of a tree is valid against itself");
  }
  return 0;
}
