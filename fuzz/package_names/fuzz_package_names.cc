// What a package's names and entries pass through, on arbitrary bytes: the
// input is "PATTERN\nPATH\nATOM". Properties: a file name keeps every byte
// through its wide form; a pattern that is taken matches a path in time that
// grows with pattern times path, and a pattern of plain bytes matches just
// itself; an entry's attributes that read are written back to what reads
// the same. Nothing may crash, leak or read out of bounds.
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/fuzz_support.h"
#include "manifest/attributes.h"
#include "manifest/patterns.h"
#include "platform/utf.h"

namespace {

using namespace velk2;
using fuzz::Check;

bool Same(const EntryAttributes& a, const EntryAttributes& b) {
  return a.mode == b.mode && a.uid == b.uid && a.gid == b.gid && a.link == b.link &&
         a.target == b.target;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  Check(WideToFileName(FileNameToWide(input)) == input, "a name keeps every byte");

  const size_t first = input.find('\n');
  const std::string_view pattern = input.substr(0, first);
  const std::string_view rest = first == std::string_view::npos ? "" : input.substr(first + 1);
  const size_t second = rest.find('\n');
  const std::string_view path = rest.substr(0, second);
  const std::string_view atom = second == std::string_view::npos ? "" : rest.substr(second + 1);

  IgnorePatterns patterns;
  if (patterns.Add(pattern)) {
    patterns.Matches(path, true);
    patterns.Matches(path, false);
  }
  if (pattern.find_first_of("*?[\\") == std::string_view::npos) {
    Check(GlobMatch(pattern, path) == (pattern == path), "plain bytes match only themselves");
  }

  for (bool directory : {false, true}) {
    EntryAttributes read, again;
    if (ParseEntryAttributes(atom, directory, &read) != VELK2_SUCCESS) continue;
    const std::string written = FormatEntryAttributes(read, directory);
    Check(ParseEntryAttributes(written, directory, &again) == VELK2_SUCCESS,
          "written attributes read");
    Check(Same(read, again), "written attributes read the same");
  }
  return 0;
}
